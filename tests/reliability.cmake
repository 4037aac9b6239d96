# Reliability: the connection's thread corners, the transport against
# network faults and a hostile controller, the kernel's messages against the
# transport's limits, and real-time scheduling of the delivery thread.
kelm_add_test(transport_corner_test ${CMAKE_CURRENT_LIST_DIR}/transport_corner_test.cpp)
if(TARGET kelm_sim_core)
  kelm_add_test(fault_network_test ${CMAKE_CURRENT_LIST_DIR}/fault_network_test.cpp LIBS kelm_sim_core)
endif()
if(TARGET kelm_sim_core AND TARGET kelm_teleop)
  kelm_add_test(fault_stall_test ${CMAKE_CURRENT_LIST_DIR}/fault_stall_test.cpp
    LIBS kelm_sim_core
    PROPERTIES RESOURCE_LOCK port8090)
  target_compile_definitions(fault_stall_test PRIVATE KELM_TELEOP_PATH="$<TARGET_FILE:kelm_teleop>")
  add_dependencies(fault_stall_test kelm_teleop)
endif()
kelm_add_test(fault_hostile_test ${CMAKE_CURRENT_LIST_DIR}/fault_hostile_test.cpp)
kelm_add_test(kernel_release_test ${CMAKE_CURRENT_LIST_DIR}/kernel_release_test.cpp)
kelm_add_test(kernel_transport_test ${CMAKE_CURRENT_LIST_DIR}/kernel_transport_test.cpp)
target_include_directories(kernel_transport_test PRIVATE ${PROJECT_SOURCE_DIR}/arm_control_sdk/src)
kelm_add_test(real_time_test ${CMAKE_CURRENT_LIST_DIR}/real_time_test.cpp)
