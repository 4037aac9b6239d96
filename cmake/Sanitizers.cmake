# KELM_SANITIZER selects an instrumented build for the whole tree.
if(KELM_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  # Eigen stops trusting malloc's alignment under AddressSanitizer and then
  # frees with an offset, while the prebuilt orocos-kdl frees the same blocks
  # with plain free(): keep Eigen's allocation as in the library.
  add_compile_definitions(EIGEN_MALLOC_ALREADY_ALIGNED=1)
elseif(KELM_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT KELM_SANITIZER STREQUAL "")
  message(FATAL_ERROR "KELM_SANITIZER must be empty, 'address' or 'thread', not '${KELM_SANITIZER}'")
endif()
