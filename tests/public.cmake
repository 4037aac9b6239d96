# Tests of the public single-arm and dual-arm interfaces.
kelm_add_test(public_single_col_test ${CMAKE_CURRENT_LIST_DIR}/public_single_col_test.cpp)
kelm_add_test(public_dual_bot_test ${CMAKE_CURRENT_LIST_DIR}/public_dual_bot_test.cpp)
