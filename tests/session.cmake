# The driver at the limits of files and paths, and between processes.
foreach(subject limits processes)
    add_kiv_test(driver_${subject}_test LIBRARIES driver_fixture
        SOURCES driver_${subject}_test.cpp ${CMAKE_SOURCE_DIR}/testing/driver_quick_clock.cpp)
    target_link_options(driver_${subject}_test PRIVATE -Wl,--wrap=time)
endforeach()

# Every short session, and random ones over real speech, on a disk in memory.
foreach(subject session speech crash)
    add_kiv_test(${subject}_test SOURCES ${subject}_test.cpp LIBRARIES power_cut sound_maker)
endforeach()
