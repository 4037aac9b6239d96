# Makes the Debian packages of the build tree BUILD_DIR with CPACK_COMMAND,
# unpacks them with dpkg-deb -x into a root under SCRATCH_DIR (nothing is
# installed on the machine), then builds and runs the consumer project in
# CONSUMER_DIR with GENERATOR against that root and starts the packaged tools.
#   cmake -DBUILD_DIR=... -DSCRATCH_DIR=... -DCONSUMER_DIR=... -DGENERATOR=... \
#     -DCPACK_COMMAND=... -DDPKG_DEB=... -P check_packages.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../public_package/consumer_steps.cmake)
require_defined(BUILD_DIR SCRATCH_DIR CONSUMER_DIR GENERATOR CPACK_COMMAND DPKG_DEB)
# The package names and install prefix, as the build configured them.
include(${BUILD_DIR}/CPackConfig.cmake)
set(runtime ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME})
set(dev ${CPACK_DEBIAN_DEV_PACKAGE_NAME})
set(tools ${CPACK_DEBIAN_TOOLS_PACKAGE_NAME})

file(REMOVE_RECURSE ${SCRATCH_DIR})
run_step("make the packages" ${CPACK_COMMAND} --config ${BUILD_DIR}/CPackConfig.cmake -B ${SCRATCH_DIR}/debs)

# Unpack every package into one root and keep each one's Depends field.
set(root ${SCRATCH_DIR}/root)
file(GLOB debs ${SCRATCH_DIR}/debs/*.deb)
set(packages "")
foreach(deb ${debs})
  execute_process(COMMAND ${DPKG_DEB} --field ${deb} Package OUTPUT_VARIABLE name OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND ${DPKG_DEB} --field ${deb} Depends OUTPUT_VARIABLE depends_${name})
  list(APPEND packages ${name})
  run_step("unpack ${name}" ${DPKG_DEB} -x ${deb} ${root})
endforeach()
list(SORT packages)
set(expected ${runtime} ${dev} ${tools})
list(SORT expected)
if(NOT packages STREQUAL expected)
  message(FATAL_ERROR "packages made: '${packages}', expected '${expected}'")
endif()

# Each relation as "<package> needs <pattern>".
foreach(relation
    "${dev};${runtime} \\(= "
    "${dev};libjsoncpp-dev"
    "${tools};${runtime} \\(= "
    "${runtime};libjsoncpp"
    "${runtime};libpoco")
  list(GET relation 0 package)
  list(GET relation 1 pattern)
  if(NOT depends_${package} MATCHES "${pattern}")
    message(FATAL_ERROR "${package} depends on '${depends_${package}}', which lacks '${pattern}'")
  endif()
endforeach()

set(prefix ${root}${CPACK_PACKAGING_INSTALL_PREFIX})
file(GLOB models ${prefix}/share/kelm/models/*.urdf)
if(NOT models)
  message(FATAL_ERROR "no arm model under ${prefix}/share/kelm/models")
endif()

check_consumer(${prefix} ${SCRATCH_DIR}/consumer)
# The consumer must have found the unpacked package, not another install.
file(STRINGS ${SCRATCH_DIR}/consumer/CMakeCache.txt package_dir REGEX "^arm_control_sdk_DIR:")
if(NOT package_dir MATCHES "=${root}/")
  message(FATAL_ERROR "the consumer used ${package_dir}, not the package under ${root}")
endif()

# The tools load the packaged library (installed, they would find it in the
# system's library path).
file(GLOB_RECURSE sdk_library ${prefix}/lib/libarm_control_sdk.so.*.*.*)
get_filename_component(library_dir "${sdk_library}" DIRECTORY)
foreach(tool kelm_sim kelm_teleop)
  run_step("start ${tool} --help" ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${library_dir} ${prefix}/bin/${tool} --help)
endforeach()
