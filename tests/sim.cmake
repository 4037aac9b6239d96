# Controller simulator: its model in-process, and the arm kernel against it over loopback.
if(TARGET kelm_sim_core)
  kelm_add_test(sim_model_test ${CMAKE_CURRENT_LIST_DIR}/sim_model_test.cpp LIBS kelm_sim_core)
  kelm_add_test(sim_kernel_test ${CMAKE_CURRENT_LIST_DIR}/sim_kernel_test.cpp LIBS kelm_sim_core)
  kelm_add_test(sim_fault_test ${CMAKE_CURRENT_LIST_DIR}/sim_fault_test.cpp LIBS kelm_sim_core)
endif()
