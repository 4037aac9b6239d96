# The public interface's types and signatures, checked while the test compiles.
kelm_add_test(interface_test ${CMAKE_CURRENT_LIST_DIR}/interface_test.cpp)
