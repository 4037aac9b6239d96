# Controller simulator: its model in-process, the arm kernel against it over
# loopback, and arm models read from URDF files.
if(TARGET kelm_sim_core)
  kelm_add_test(sim_model_test ${CMAKE_CURRENT_LIST_DIR}/sim_model_test.cpp LIBS kelm_sim_core)
  kelm_add_test(sim_kernel_test ${CMAKE_CURRENT_LIST_DIR}/sim_kernel_test.cpp LIBS kelm_sim_core)
  kelm_run_on_physics(sim_kernel_test)
  kelm_add_test(arm_model_test ${CMAKE_CURRENT_LIST_DIR}/arm_model_test.cpp LIBS kelm_sim_core ${KELM_KDL_PARSER_LIBRARY})
  target_include_directories(arm_model_test PRIVATE ${KELM_KDL_PARSER_INCLUDE_DIR})
endif()
if(TARGET kelm_sim_core AND TARGET kelm_sim)
  kelm_add_test(sim_physics_test ${CMAKE_CURRENT_LIST_DIR}/sim_physics_test.cpp LIBS kelm_sim_core)
  target_compile_definitions(sim_physics_test PRIVATE KELM_SIM_PROGRAM="$<TARGET_FILE:kelm_sim>")
  add_dependencies(sim_physics_test kelm_sim)
endif()
