# Transport and connection manager tests over loopback WebSockets.
target_link_libraries(kelm_test_support PUBLIC kelm_ws_server)
