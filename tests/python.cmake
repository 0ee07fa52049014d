# The Python module and its example. Not within a library built for a sanitizer: the interpreter is not.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize|--coverage")
    add_library(ffd_frames_calls MODULE ffd_frames_calls.c)
    target_include_directories(ffd_frames_calls PRIVATE ${CMAKE_SOURCE_DIR}/include)
    find_program(PYTEST pytest-3)
    find_program(MYPY mypy)
    add_test(NAME python COMMAND ${PYTEST} -q -p no:cacheprovider
        ${CMAKE_CURRENT_SOURCE_DIR}/python_test.py)
    set_tests_properties(python PROPERTIES ENVIRONMENT
        "PYTHONPATH=${CMAKE_SOURCE_DIR}/python;PYTHONDONTWRITEBYTECODE=1;XKIVMP3=$<TARGET_LINKER_FILE:xkivmp3>;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples;FFD_HEADER=${CMAKE_SOURCE_DIR}/include/ffd.h;FFD_FRAMES_CALLS=$<TARGET_FILE:ffd_frames_calls>")
    add_test(NAME python_types COMMAND ${MYPY} --strict --cache-dir=/dev/null
        ${CMAKE_SOURCE_DIR}/python/xkivmp3 ${CMAKE_SOURCE_DIR}/examples/session.py)
    set_tests_properties(python_types PROPERTIES ENVIRONMENT "MYPYPATH=${CMAKE_SOURCE_DIR}/python")
endif()
