# The outcomes that hold on every platform, over the library as it ships.
add_kiv_test(platform_outcomes_test SOURCES platform_outcomes_test.cpp LIBRARIES platform)
target_compile_definitions(platform_outcomes_test PRIVATE KIV_WINE=false)

add_kiv_test(platform_dry_test SOURCES platform_dry_test.cpp LIBRARIES platform_dry)
add_kiv_test(platform_linux_test SOURCES platform_linux_test.cpp LIBRARIES platform)
add_kiv_test(platform_calls_test SOURCES platform_calls_test.cpp LIBRARIES platform)
add_kiv_test(platform_faults_test SOURCES platform_faults_test.cpp LIBRARIES fault_layer)
add_executable(platform_faults_dry_test platform_faults_test.cpp) # the same tests
target_link_libraries(platform_faults_dry_test PRIVATE fault_layer_dry GTest::gmock GTest::gtest_main)
add_test(NAME platform_faults_dry COMMAND platform_faults_dry_test)

add_library(platform_loader_probe SHARED
    ${CMAKE_CURRENT_LIST_DIR}/platform_loader_probe.cpp)
target_link_libraries(platform_loader_probe PRIVATE kiv_common platform
    $<LINK_LIBRARY:WHOLE_ARCHIVE,platform_loader>)
add_kiv_test(platform_loader_test SOURCES platform_loader_test.cpp
        LIBRARIES ${CMAKE_DL_LIBS})
add_dependencies(platform_loader_test platform_loader_probe)
