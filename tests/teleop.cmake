# End-to-end tests of the teleoperation tool: the built kelm_teleop against two
# simulated controllers on port 8090 of 127.0.0.2 and 127.0.0.1, one test at a
# time (resource lock port8090).
if(TARGET kelm_teleop AND TARGET kelm_sim_core)
  kelm_add_test(teleop_e2e_test ${CMAKE_CURRENT_LIST_DIR}/teleop_e2e_test.cpp
    LIBS kelm_sim_core
    PROPERTIES RESOURCE_LOCK port8090)
  # The same runs with the tool's delivery threads (and this process's) at
  # real-time priority, asked for as a user does, through the environment.
  gtest_discover_tests(teleop_e2e_test TEST_PREFIX "rt_priority." TEST_FILTER "-Options/*" DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 RESOURCE_LOCK port8090 ENVIRONMENT "KELM_RT_PRIORITY=20")
  target_compile_definitions(teleop_e2e_test PRIVATE KELM_TELEOP_PATH="$<TARGET_FILE:kelm_teleop>")
  add_dependencies(teleop_e2e_test kelm_teleop)
endif()

