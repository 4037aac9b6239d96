# Transport and connection manager tests over loopback WebSockets.
target_link_libraries(kelm_test_support PUBLIC kelm_ws_server)

kelm_add_test(transport_test ${CMAKE_CURRENT_LIST_DIR}/transport_test.cpp)
kelm_add_test(comm_manager_test ${CMAKE_CURRENT_LIST_DIR}/comm_manager_test.cpp)
