# Installs the arm_control_sdk component of the build tree BUILD_DIR into a
# scratch prefix under SCRATCH_DIR, then configures, builds and runs the
# consumer project in CONSUMER_DIR against it with GENERATOR.
#   cmake -DBUILD_DIR=... -DSCRATCH_DIR=... -DCONSUMER_DIR=... -DGENERATOR=... -P check_install.cmake
foreach(required BUILD_DIR SCRATCH_DIR CONSUMER_DIR GENERATOR)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "${required} is not set")
  endif()
endforeach()

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${output}")
  endif()
  message(STATUS "${what}: ok")
endfunction()

set(prefix ${SCRATCH_DIR}/prefix)
set(consumer_build ${SCRATCH_DIR}/consumer)
file(REMOVE_RECURSE ${SCRATCH_DIR})

run_step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component arm_control_sdk)
run_step("configure the consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${consumer_build} -G ${GENERATOR}
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run_step("build the consumer" ${CMAKE_COMMAND} --build ${consumer_build})
run_step("run the CMake package consumer" ${consumer_build}/consumer_cmake)
run_step("run the pkg-config consumer" ${consumer_build}/consumer_pkgconfig)
run_step("run the data member consumer" ${consumer_build}/consumer_data_members)
