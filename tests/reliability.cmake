# Reliability: the connection's thread corners, the transport against
# network faults and a hostile controller.
kelm_add_test(transport_corner_test ${CMAKE_CURRENT_LIST_DIR}/transport_corner_test.cpp)
if(TARGET kelm_sim_core)
  kelm_add_test(fault_network_test ${CMAKE_CURRENT_LIST_DIR}/fault_network_test.cpp LIBS kelm_sim_core)
endif()
