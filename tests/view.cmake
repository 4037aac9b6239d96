# Live view: the page in headless Chromium against two simulators, through pytest.
find_program(KELM_CHROMEDRIVER chromedriver)
if(TARGET kelm_python_module AND TARGET kelm_sim AND KELM_CHROMEDRIVER)
  add_test(NAME view_page_test
    COMMAND ${KELM_PYTHON_INTERPRETER} -m pytest -q -p no:cacheprovider ${CMAKE_CURRENT_LIST_DIR}/python/test_view.py)
  set_tests_properties(view_page_test PROPERTIES
    TIMEOUT 180
    ENVIRONMENT "PYTHONPATH=${PROJECT_BINARY_DIR}/python;KELM_SIM=$<TARGET_FILE:kelm_sim>")
endif()
