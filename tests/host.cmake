# The reference host, run as a program, and the header that it shares with every other host.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

if(TARGET ffdhost)
    add_test(NAME host COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/host_test.py)
    add_test(NAME host_guard
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/host_guard_test.py)
    add_test(NAME support COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/support_test.py)
    add_test(NAME inputs COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/inputs_test.py)
    add_test(NAME json COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/json_test.py)
    add_test(NAME record COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/record_test.py)
    add_test(NAME record_kills COMMAND Python3::Interpreter ${CMAKE_SOURCE_DIR}/bench/kills.py
        --kills 5 --seconds 60)
    set_tests_properties(host host_guard inputs json record record_kills support PROPERTIES ENVIRONMENT
        "FFDHOST=$<TARGET_FILE:ffdhost>;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
endif()

configure_file(ffd_header_c.c ${CMAKE_CURRENT_BINARY_DIR}/ffd_header_cxx.cpp COPYONLY)
add_library(ffd_header OBJECT ffd_header_c.c ${CMAKE_CURRENT_BINARY_DIR}/ffd_header_cxx.cpp)
target_include_directories(ffd_header PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_compile_options(ffd_header PRIVATE -pedantic -Wall -Wextra $<$<BOOL:${XKIV_STRICT}>:-Werror>)

# An older compiler is told what is wrong.
add_test(NAME ffd_header_cxx17 COMMAND ${CMAKE_CXX_COMPILER} -std=c++17 -fsyntax-only -x c++
    ${CMAKE_SOURCE_DIR}/include/ffd.hpp)
set_tests_properties(ffd_header_cxx17 PROPERTIES PASS_REGULAR_EXPRESSION "ffd.hpp wants C\\+\\+20")

# Everything that the headers declare is documented.
add_test(NAME reference COMMAND ${CMAKE_SOURCE_DIR}/scripts/reference.sh)

add_kiv_test(ffd_frames_test SOURCES ffd_frames_test.cpp)
