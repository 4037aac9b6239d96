# Installs the library components of the build tree BUILD_DIR into a scratch
# prefix under SCRATCH_DIR, then configures, builds and runs the consumer
# project in CONSUMER_DIR against it with GENERATOR.
#   cmake -DBUILD_DIR=... -DSCRATCH_DIR=... -DCONSUMER_DIR=... -DGENERATOR=... -P check_install.cmake
include(${CMAKE_CURRENT_LIST_DIR}/consumer_steps.cmake)
require_defined(BUILD_DIR SCRATCH_DIR CONSUMER_DIR GENERATOR)

set(prefix ${SCRATCH_DIR}/prefix)
file(REMOVE_RECURSE ${SCRATCH_DIR})
foreach(component runtime dev)
  run_step("install ${component}" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --component ${component})
endforeach()
check_consumer(${prefix} ${SCRATCH_DIR}/consumer)
