# Arm kernel: state frames, commands, ready sequence, task wait, streaming, tables.
kelm_add_test(kernel_frame_test ${CMAKE_CURRENT_LIST_DIR}/kernel_frame_test.cpp)
kelm_add_test(kernel_command_test ${CMAKE_CURRENT_LIST_DIR}/kernel_command_test.cpp)
kelm_add_test(kernel_ready_test ${CMAKE_CURRENT_LIST_DIR}/kernel_ready_test.cpp)
kelm_add_test(kernel_tables_test ${CMAKE_CURRENT_LIST_DIR}/kernel_tables_test.cpp)
