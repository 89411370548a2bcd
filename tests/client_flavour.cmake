# The client flavour (QUELORA_WEBSOCKETS=OFF): its own test binary, linked from the engine objects
# and the client flavour's one file, so CI checks both flavours without building the library twice.
quelora_test_binary(quelora_client_flavour_tests LABEL client_flavour TIMEOUT 60 FLAVOUR quelora_client_flavour
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/client_flavour/websocket_unavailable_test.cpp)
