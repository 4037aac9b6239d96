# Arm kernel: state frames and remote IO; commands, streaming, the ready sequence and task waits.
kelm_add_test(kernel_frame_test ${CMAKE_CURRENT_LIST_DIR}/kernel_frame_test.cpp)
kelm_add_test(kernel_command_test ${CMAKE_CURRENT_LIST_DIR}/kernel_command_test.cpp)
