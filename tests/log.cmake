add_kiv_test(log_test SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/log_test.cpp LIBRARIES xkivlog)
