# The Debian packages: made from this build, unpacked into a scratch root
# (nothing is installed on the machine), and a program outside this tree built
# and run against them. Skipped in sanitizer builds, whose libraries need the
# sanitizer's runtime in every program that links them.
find_program(KELM_DPKG_DEB dpkg-deb)
if(NOT KELM_SANITIZER AND KELM_DPKG_DEB AND TARGET kelm_sim AND TARGET kelm_teleop)
  add_test(NAME debian_packages
    COMMAND ${CMAKE_COMMAND}
      -DBUILD_DIR=${PROJECT_BINARY_DIR}
      -DSCRATCH_DIR=${CMAKE_CURRENT_BINARY_DIR}/debian_packages
      -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/public_package
      -DGENERATOR=${CMAKE_GENERATOR}
      -DCPACK_COMMAND=${CMAKE_CPACK_COMMAND}
      -DDPKG_DEB=${KELM_DPKG_DEB}
      -P ${CMAKE_CURRENT_LIST_DIR}/package/check_packages.cmake)
  set_tests_properties(debian_packages PROPERTIES TIMEOUT 180)
endif()
