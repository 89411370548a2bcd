# The client flavour of Part 6.1 (QUELORA_WEBSOCKETS=OFF): its own test
# binary, linked from the same engine objects and the client flavour's one
# file, so CI checks both flavours without building the library twice.
add_executable(quelora_client_flavour_tests
  ${CMAKE_CURRENT_SOURCE_DIR}/client_flavour/websocket_unavailable_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/log_capture.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/support/library_fixture.cpp)
target_include_directories(quelora_client_flavour_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(quelora_client_flavour_tests PRIVATE quelora_objects quelora_client_flavour
  GTest::gtest GTest::gtest_main)
target_compile_options(quelora_client_flavour_tests PRIVATE ${QUELORA_WARNINGS})
gtest_discover_tests(quelora_client_flavour_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)
