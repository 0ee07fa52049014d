add_library(driver_fixture STATIC driver_fixture.cpp)
target_link_libraries(driver_fixture PUBLIC xkivmp3_testable GTest::gmock)

foreach(subject disk boundary services open directory edit close status faults crash torn)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/driver_${subject}_test.cpp)
        add_kiv_test(driver_${subject}_test
            SOURCES driver_${subject}_test.cpp LIBRARIES driver_fixture)
    endif()
endforeach()

# Thousands of sessions each, without the disk.
foreach(subject faults crash torn)
    if(TARGET driver_${subject}_test)
        target_sources(driver_${subject}_test PRIVATE driver_no_sync.cpp)
    endif()
endforeach()

# The test's own clock.
if(TARGET driver_status_test)
    target_link_options(driver_status_test PRIVATE -Wl,--wrap=time)
endif()

# The memory of the test program can be made to run out.
if(TARGET driver_faults_test)
    target_link_options(driver_faults_test PRIVATE -Wl,--wrap=malloc)
endif()

# Loads the library as it ships.
if(TARGET driver_boundary_test)
    add_dependencies(driver_boundary_test xkivmp3)
endif()
