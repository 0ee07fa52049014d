# Every example with the driver of this build; a command a line, its words set apart by "|".
find_package(Python3 COMPONENTS Interpreter REQUIRED)
set(commands "${CMAKE_CROSSCOMPILING_EMULATOR}|$<TARGET_FILE:example_session_c>|$<TARGET_FILE:xkivmp3>")
string(REPLACE ";" "|" commands "${commands}")
add_test(NAME examples COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/examples_test.py)
set_tests_properties(examples PROPERTIES ENVIRONMENT
    "EXAMPLES=${commands};FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
