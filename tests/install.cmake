# Installed once, from the build that ships.
if(TARGET ffdhost AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize|--coverage")
    add_test(NAME hardening COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/hardening_test.py)
    set_tests_properties(hardening PROPERTIES ENVIRONMENT "BUILD=${CMAKE_BINARY_DIR}")
    add_test(NAME install COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install_test.sh
        ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR} ${PROJECT_VERSION})
    # The longest of all goes first.
    set_tests_properties(install PROPERTIES SKIP_RETURN_CODE 77 COST 1000)
endif()
