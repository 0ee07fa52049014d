add_library(driver_fixture STATIC driver_fixture.cpp)
target_link_libraries(driver_fixture PUBLIC xkivmp3_testable GTest::gmock)

foreach(subject disk boundary memory services open directory edit close)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/driver_${subject}_test.cpp)
        add_kiv_test(driver_${subject}_test
            SOURCES driver_${subject}_test.cpp LIBRARIES driver_fixture)
    endif()
endforeach()

# Loads the library as it ships.
if(TARGET driver_boundary_test)
    add_dependencies(driver_boundary_test xkivmp3)
endif()
