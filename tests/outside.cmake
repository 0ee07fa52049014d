# Files that a close left behind, before programs that are not of our making.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

if(TARGET ffdhost)
    add_test(NAME outside COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/outside_test.py)
    set_tests_properties(outside PROPERTIES ENVIRONMENT
        "FFDHOST=$<TARGET_FILE:ffdhost>;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
endif()

# Valgrind and the sanitizers can't watch the same program.
if(TARGET ffdhost AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    add_test(NAME valgrind COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/valgrind_test.sh
        $<TARGET_FILE:ffdhost> ${CMAKE_CURRENT_SOURCE_DIR}/samples)
endif()
