# Debian packages of the installed components, made by `cmake --build <dir>
# --target package` (or `cpack` in the build directory):
#   libarm-control-sdk<major>  the shared client library (component runtime)
#   libarm-control-sdk-dev     headers, CMake package, pkg-config file and the
#                              link to the library (component dev)
#   kelm-tools                 kelm_sim with its arm models, kelm_teleop
#                              (component tools)
set(KELM_PACKAGE_MAINTAINER "Kelm arm control developers <kelm-dev@localhost>" CACHE STRING
  "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelm)
set(CPACK_PACKAGE_VENDOR "Kelm")
set(CPACK_PACKAGE_CONTACT "${KELM_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Dev and tools depend on the runtime package of the same version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# dpkg-shlibdeps names the packages of the shared libraries the binaries
# load; the runtime package states its library in a shlibs file.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The tools load the client library of the runtime package; dpkg-shlibdeps
# runs in each package's staging directory and finds the library in the
# runtime package's one beside it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ../runtime${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})

set(KELM_RUNTIME_PACKAGE libarm-control-sdk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KELM_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Client library for robot arm controllers over WebSocket\n\
Connection, requests, state frames and callbacks of one or two arms.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libarm-control-sdk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers include jsoncpp's.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libjsoncpp-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Client library for robot arm controllers over WebSocket (development files)\n\
Headers, the CMake package arm_control_sdk (target kelm::arm_control_sdk) and\n\
the pkg-config file arm_control_sdk.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelm-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "Robot arm controller simulator and teleoperation tool\n\
kelm_sim simulates arm controllers (models in /usr/share/kelm/models);\n\
kelm_teleop lets a slave arm follow a master arm.")

include(CPack)
