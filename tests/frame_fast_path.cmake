# The state frame fast path against the jsoncpp path (only when it is built).
if(KELM_FRAME_FAST_PATH)
  kelm_add_test(frame_differential_test ${CMAKE_CURRENT_LIST_DIR}/frame_differential_test.cpp)
  target_include_directories(frame_differential_test PRIVATE ${PROJECT_SOURCE_DIR}/arm_control_sdk/src)
  target_compile_definitions(frame_differential_test PRIVATE KELM_FRAME_CORPUS="${PROJECT_SOURCE_DIR}/fuzz/corpus/frame")
endif()

# Streaming requests written as text against the tree writer.
kelm_add_test(stream_text_test ${CMAKE_CURRENT_LIST_DIR}/stream_text_test.cpp)
target_include_directories(stream_text_test PRIVATE ${PROJECT_SOURCE_DIR}/arm_control_sdk/src)
