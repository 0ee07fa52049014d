# Files that a close left behind, before programs that are not of our making.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

if(TARGET ffdhost)
    add_test(NAME outside COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/outside_test.py)
    set_tests_properties(outside PROPERTIES ENVIRONMENT
        "FFDHOST=$<TARGET_FILE:ffdhost>;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
endif()
