# Steps shared by the scripts that check an installed arm client library.

# require_defined(<variables...>): fails unless every variable is set.
function(require_defined)
  foreach(required ${ARGN})
    if(NOT DEFINED ${required})
      message(FATAL_ERROR "${required} is not set")
    endif()
  endforeach()
endfunction()

# run_step(<what> <command...>): runs the command, fails with its output.
function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${output}")
  endif()
  message(STATUS "${what}: ok")
endfunction()

# check_consumer(<prefix> <consumer_build>): configures, builds and runs the
# consumer project in CONSUMER_DIR with GENERATOR against the library
# installed under <prefix>.
function(check_consumer prefix consumer_build)
  run_step("configure the consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${consumer_build} -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
  run_step("build the consumer" ${CMAKE_COMMAND} --build ${consumer_build})
  run_step("run the CMake package consumer" ${consumer_build}/consumer_cmake)
  run_step("run the pkg-config consumer" ${consumer_build}/consumer_pkgconfig)
endfunction()
