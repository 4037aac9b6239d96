# Reliability: the connection's thread corners, the transport against
# network faults and a hostile controller.
kelm_add_test(transport_corner_test ${CMAKE_CURRENT_LIST_DIR}/transport_corner_test.cpp)
