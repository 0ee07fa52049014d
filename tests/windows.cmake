# The tests of the Windows build, run by wine. Of the programs built on Linux these are left out:
# driver_shipped_test, valgrind   look at a library of Linux; contract_test.py looks at the DLLs
# driver_hosts_test               forks, descriptors and limits of Linux
# driver_processes_test           two processes, by fork
# driver_disk_test                mounts a small disk, and Linux permissions
# driver_limits_test              limits of a Linux process
# log_test                        a process of its own for each case, by fork
# driver_foreign_log_test         a log in the test program, in front of the library
# platform_linux_test, platform_calls_test, platform_loader_test
#                                 the Linux layer itself
# session_test, speech_test, crash_test, the fuzz targets
#                                 over the layer in memory, a sibling of the Linux layer
# host_test.py, support_test.py, outside_test.py
#                                 agreement_test.py compares the Windows host with the Linux one
#
# And of the programs built here these cases:
set(left_out_of_driver_services_test ServicesTest.FreeSpaceSaturates) # error numbers of wine
# Read or change a stored status that is open: the platform refuses that, the Linux layer can't.
set(left_out_of_driver_status_test
    StatusTest.TheFileToTheByte StatusTest.AStoredStatusThatIsNotWholeRestoresNothing)

add_kiv_test(platform_outcomes_test SOURCES platform_outcomes_test.cpp LIBRARIES platform)
target_compile_definitions(platform_outcomes_test PRIVATE KIV_WINE=true)

add_kiv_test(platform_faults_test SOURCES platform_faults_test.cpp LIBRARIES fault_layer)

add_library(driver_fixture STATIC ${CMAKE_SOURCE_DIR}/testing/driver_fixture.cpp ${CMAKE_SOURCE_DIR}/testing/driver_fixture_windows.cpp)
target_link_libraries(driver_fixture PUBLIC xkivmp3_inside fault_layer sound_maker GTest::gmock)
foreach(subject boundary services windows_paths windows_close open directory edit close status calls
        faults crash)
    add_kiv_test(driver_${subject}_test
        SOURCES driver_${subject}_test.cpp LIBRARIES driver_fixture)
endforeach()

# The test's own clock: the C library's calls go through pointers.
target_sources(driver_status_test PRIVATE ${CMAKE_SOURCE_DIR}/testing/driver_clock_windows.cpp)
target_link_options(driver_status_test PRIVATE -Wl,--wrap=__imp__time64
    -Wl,--wrap=__imp_Sleep)

# The memory of the test program can be made to run out.
target_link_options(driver_faults_test PRIVATE -Wl,--wrap=malloc)

add_kiv_test(windows_unload_test SOURCES windows_unload_test.cpp LIBRARIES platform)
add_dependencies(windows_unload_test xkivmp3)
# The longest go first.
set_tests_properties(windows_unload_test driver_faults_test driver_crash_test PROPERTIES COST 1000)

find_package(Python3 COMPONENTS Interpreter REQUIRED)
add_test(NAME hardening COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/hardening_test.py)
set_tests_properties(hardening PROPERTIES
    ENVIRONMENT "BUILD=${CMAKE_BINARY_DIR};PREFIX=x86_64-w64-mingw32-")
add_test(NAME contract COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/contract_test.py)
set_tests_properties(contract PROPERTIES ENVIRONMENT "BUILD=${CMAKE_BINARY_DIR}")

string(JOIN "\;" wine ${CMAKE_CROSSCOMPILING_EMULATOR})
add_test(NAME windows_host COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/windows_host_test.py)
set_tests_properties(windows_host PROPERTIES ENVIRONMENT
    "WINDOWS_BUILD=${CMAKE_BINARY_DIR};WINE=${wine};FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")

# Against the release build of Linux.
add_test(NAME agreement COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/agreement_test.py)
set(windows_host "${wine}\;$<TARGET_FILE:ffdhost>")
# The other tests store their statuses in the same place.
set_tests_properties(agreement PROPERTIES RUN_SERIAL ON ENVIRONMENT
    "LINUX_HOST=${CMAKE_SOURCE_DIR}/build/ffdhost;WINDOWS_HOST=${windows_host};WINE_PREFIX=${CMAKE_BINARY_DIR}/wine;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")

# The layout of the records, as the compiler of this platform has it: assertions alone.
configure_file(ffd_header_c.c ${CMAKE_CURRENT_BINARY_DIR}/ffd_header_cxx.cpp COPYONLY)
add_library(ffd_header OBJECT ffd_header_c.c ${CMAKE_CURRENT_BINARY_DIR}/ffd_header_cxx.cpp)
target_include_directories(ffd_header PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_compile_options(ffd_header PRIVATE -pedantic -Wall -Wextra $<$<BOOL:${XKIV_STRICT}>:-Werror>)

include(${CMAKE_CURRENT_SOURCE_DIR}/examples.cmake)

add_test(NAME windows_package COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/windows_package_test.sh
    ${CMAKE_SOURCE_DIR} ${CMAKE_CROSSCOMPILING_EMULATOR})
set_tests_properties(windows_package PROPERTIES RUN_SERIAL ON) # it builds in this folder
