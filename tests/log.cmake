kelm_add_test(log_test ${CMAKE_CURRENT_LIST_DIR}/log_test.cpp)
