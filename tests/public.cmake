# Tests of the public single-arm and dual-arm interfaces against the simulator.
if(TARGET kelm_sim_core)
  kelm_add_test(public_arms_test ${CMAKE_CURRENT_LIST_DIR}/public_arms_test.cpp LIBS kelm_sim_core)
  kelm_run_on_physics(public_arms_test)
endif()

# The installed package: another project finds, links and runs the library.
# Skipped in sanitizer builds, whose libraries need the sanitizer's runtime
# in every program that links them.
if(NOT KELM_SANITIZER)
  add_test(NAME public_package_consumer
    COMMAND ${CMAKE_COMMAND}
      -DBUILD_DIR=${PROJECT_BINARY_DIR}
      -DSCRATCH_DIR=${CMAKE_CURRENT_BINARY_DIR}/public_package
      -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/public_package
      -DGENERATOR=${CMAKE_GENERATOR}
      -P ${CMAKE_CURRENT_LIST_DIR}/public_package/check_install.cmake)
  set_tests_properties(public_package_consumer PROPERTIES TIMEOUT 120)
endif()

# The example programs against the simulator, each as a process of its own.
if(TARGET kelm_sim_core AND TARGET 01_single_arm AND TARGET 02_dual_arm)
  kelm_add_test(public_examples_test ${CMAKE_CURRENT_LIST_DIR}/public_examples_test.cpp LIBS kelm_sim_core)
  target_compile_definitions(public_examples_test PRIVATE
    KELM_EXAMPLE_SINGLE_ARM="$<TARGET_FILE:01_single_arm>"
    KELM_EXAMPLE_DUAL_ARM="$<TARGET_FILE:02_dual_arm>")
  add_dependencies(public_examples_test 01_single_arm 02_dual_arm)
endif()
