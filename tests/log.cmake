add_kiv_test(log_test SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/log_test.cpp LIBRARIES xkivlog)

# The driver with a log library of somebody else's.
find_package(Python3 COMPONENTS Interpreter REQUIRED)
add_library(log_standin SHARED log_standin.cpp)
target_link_libraries(log_standin PRIVATE kiv_common)
set_target_properties(log_standin PROPERTIES OUTPUT_NAME xkivlog
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/standin)
add_test(NAME log_standin
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/log_standin_test.py)
set_tests_properties(log_standin PROPERTIES ENVIRONMENT
    "FFDHOST=$<TARGET_FILE:ffdhost>;STANDIN_DIRECTORY=$<TARGET_FILE_DIR:log_standin>;FFD_SAMPLES=${CMAKE_CURRENT_SOURCE_DIR}/samples")
