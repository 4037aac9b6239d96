# The Python package kelm against kelm_sim, through pytest with the interpreter
# the package was built for. Skipped when the package is not built (no
# pybind11, KELM_PYTHON off, a sanitizer build). The live view's browser test
# in the same folder has a CTest entry of its own (view.cmake).
if(TARGET kelm_python_module AND TARGET kelm_sim)
  # kelm_add_pytest(<name> <test files...>)
  function(kelm_add_pytest name)
    add_test(NAME ${name}
      COMMAND ${CMAKE_COMMAND} -E env
        PYTHONPATH=${PROJECT_BINARY_DIR}/python
        KELM_SIM=$<TARGET_FILE:kelm_sim>
        KELM_TELEOP=$<TARGET_FILE:kelm_teleop>
        PYTHONDONTWRITEBYTECODE=1
        ${KELM_PYTHON_INTERPRETER} -m pytest -q -p no:cacheprovider ${ARGN})
    set_tests_properties(${name} PROPERTIES TIMEOUT 180)
  endfunction()
  kelm_add_pytest(python_kelm
    ${CMAKE_CURRENT_LIST_DIR}/python/test_bindings.py ${CMAKE_CURRENT_LIST_DIR}/python/test_record_and_examples.py)
  kelm_add_pytest(python_kelm_episodes ${CMAKE_CURRENT_LIST_DIR}/python/test_episodes.py)
  kelm_add_pytest(python_kelm_pythonic ${CMAKE_CURRENT_LIST_DIR}/python/test_pythonic.py)
  # Builds the library again, in Release, for the wheel: minutes on a loaded machine.
  kelm_add_pytest(python_kelm_wheel ${CMAKE_CURRENT_LIST_DIR}/python/test_wheel.py)
  set_tests_properties(python_kelm_wheel PROPERTIES TIMEOUT 1800)
  # kelm.record --teleop starts kelm_teleop, whose controllers are on port 8090.
  kelm_add_pytest(python_kelm_record_teleop ${CMAKE_CURRENT_LIST_DIR}/python/test_record_teleop.py)
  set_tests_properties(python_kelm_record_teleop PROPERTIES RESOURCE_LOCK port8090)
  # kelm.collect starts both controllers on port 8090 and kelm_teleop between them.
  kelm_add_pytest(python_kelm_collect ${CMAKE_CURRENT_LIST_DIR}/python/test_collect.py)
  set_tests_properties(python_kelm_collect PROPERTIES RESOURCE_LOCK port8090 TIMEOUT 300)
endif()
