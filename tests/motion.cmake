# Motions and controller services of the arm kernel, against the test peer.
kelm_add_test(motion_moves_test ${CMAKE_CURRENT_LIST_DIR}/motion_moves_test.cpp)
kelm_add_test(motion_trajectory_test ${CMAKE_CURRENT_LIST_DIR}/motion_trajectory_test.cpp)
kelm_add_test(motion_services_test ${CMAKE_CURRENT_LIST_DIR}/motion_services_test.cpp)
