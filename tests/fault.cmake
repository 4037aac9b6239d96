# Fault runs: the kernel's receive path under malformed input and floods
# (in-process), and the teleoperation tool losing a controller (port 8090).
#
# The performance programs of the teleoperation path are defined here too,
# because they share the simulator and the test support with these runs:
# frame_cost (instructions per relayed frame, for callgrind) and
# teleop_latency (end-to-end latency of the tool against two controllers).
if(TARGET kelm_sim_core)
  kelm_add_test(fault_stream_test ${CMAKE_CURRENT_LIST_DIR}/fault_stream_test.cpp LIBS kelm_sim_core)

  if(TARGET kelm_teleop)
    kelm_add_test(fault_teleop_test ${CMAKE_CURRENT_LIST_DIR}/fault_teleop_test.cpp
      LIBS kelm_sim_core
      PROPERTIES RESOURCE_LOCK port8090)
    target_compile_definitions(fault_teleop_test PRIVATE KELM_TELEOP_PATH="$<TARGET_FILE:kelm_teleop>")
    add_dependencies(fault_teleop_test kelm_teleop)
  endif()

  if(KELM_BUILD_BENCH)
    set(KELM_BENCH_DIR ${PROJECT_SOURCE_DIR}/bench)
    add_executable(frame_cost ${KELM_BENCH_DIR}/frame_cost.cpp)
    target_link_libraries(frame_cost PRIVATE arm_control_sdk kelm_sim_core)

    add_executable(teleop_latency
      ${KELM_BENCH_DIR}/teleop_latency.cpp
      ${KELM_BENCH_DIR}/teleop_latency_controller.cpp
      ${KELM_BENCH_DIR}/teleop_latency_relay.cpp)
    target_include_directories(teleop_latency PRIVATE ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(teleop_latency PRIVATE arm_control_sdk kelm_sim_core)
    if(TARGET kelm_teleop)
      add_dependencies(teleop_latency kelm_teleop)
    endif()
    # Beside the other benchmarks, so the tool is found at ../teleop/kelm_teleop.
    set_target_properties(frame_cost teleop_latency PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
  endif()
endif()
