add_library(driver_fixture STATIC driver_fixture.cpp)
target_link_libraries(driver_fixture PUBLIC xkivmp3_testable GTest::gmock)

foreach(subject disk boundary services open directory edit close)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/driver_${subject}_test.cpp)
        add_kiv_test(driver_${subject}_test
            SOURCES driver_${subject}_test.cpp LIBRARIES driver_fixture)
    endif()
endforeach()
