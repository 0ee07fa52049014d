add_library(driver_fixture STATIC ${CMAKE_SOURCE_DIR}/testing/driver_fixture.cpp ${CMAKE_SOURCE_DIR}/testing/driver_fixture_posix.cpp)
target_link_libraries(driver_fixture PUBLIC xkivmp3_inside fault_layer sound_maker GTest::gmock)

foreach(subject surroundings disk boundary shipped hosts services open directory edit close status calls faults crash)
    add_kiv_test(driver_${subject}_test
        SOURCES driver_${subject}_test.cpp LIBRARIES driver_fixture)
endforeach()

# The test's own clock.
target_link_options(driver_status_test PRIVATE -Wl,--wrap=time -Wl,--wrap=Sleep)

# The test's own log and clock.
add_kiv_test(driver_foreign_log_test SOURCES driver_foreign_log_test.cpp LIBRARIES driver_fixture)
target_link_options(driver_foreign_log_test PRIVATE -Wl,--wrap=time -Wl,--wrap=Sleep)

# The memory of the test program can be made to run out.
target_link_options(driver_faults_test PRIVATE -Wl,--wrap=malloc)

add_dependencies(driver_shipped_test xkivmp3)
add_dependencies(driver_hosts_test xkivmp3)
