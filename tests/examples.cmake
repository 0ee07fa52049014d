# Every example with the driver of this build; a command a line, its words set apart by "|".
find_package(Python3 COMPONENTS Interpreter REQUIRED)
set(commands)
foreach(example c cpp)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "|" emulator)
    string(APPEND commands
        "${emulator}|$<TARGET_FILE:example_session_${example}>|$<TARGET_FILE:xkivmp3>\n")
endforeach()
# Not within a library built for a sanitizer: the interpreter is not.
set(programs)
if(NOT CMAKE_CROSSCOMPILING AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    set(programs $<TARGET_FILE_DIR:ffdhost>)
    string(APPEND commands
        "${Python3_EXECUTABLE}|${CMAKE_SOURCE_DIR}/examples/session.py|$<TARGET_FILE:xkivmp3>")
endif()
add_test(NAME examples COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/examples_test.py)
set_tests_properties(examples PROPERTIES ENVIRONMENT
    "EXAMPLES=${commands};HOST=${programs};PYTHONPATH=${CMAKE_SOURCE_DIR}/python;PYTHONDONTWRITEBYTECODE=1;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
