# Motions and controller services of the arm kernel, over the in-memory socket.
kelm_add_test(motion_test ${CMAKE_CURRENT_LIST_DIR}/motion_test.cpp)
