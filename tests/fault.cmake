# Fault runs: the kernel's receive path under malformed input and floods
# (in-process), and the teleoperation tool losing a controller (port 8090).
if(TARGET kelm_sim_core)
  kelm_add_test(fault_stream_test ${CMAKE_CURRENT_LIST_DIR}/fault_stream_test.cpp LIBS kelm_sim_core)

  if(TARGET kelm_teleop)
    kelm_add_test(fault_teleop_test ${CMAKE_CURRENT_LIST_DIR}/fault_teleop_test.cpp
      LIBS kelm_sim_core
      PROPERTIES RESOURCE_LOCK port8090)
    target_compile_definitions(fault_teleop_test PRIVATE KELM_TELEOP_PATH="$<TARGET_FILE:kelm_teleop>")
    add_dependencies(fault_teleop_test kelm_teleop)
  endif()
endif()
