# CTest labels for the GoogleTest cases in quelora_tests.
#
# Stress tests: every test whose suite name contains "Stress" (for example
# RoomRegistryStress.ConcurrentAddRemove) gets the label "stress", which
# `make tsan` selects with `ctest -L stress`. tests/CMakeLists.txt discovers
# all other tests (TEST_FILTER "-*Stress*.*"); this second discovery of the
# same executable takes exactly the complement, so every test is registered
# once. In a gtest filter "*" also matches ".", so requiring a "." after
# "Stress" keeps test names such as Suite.StressfulInput out of the label.
gtest_discover_tests(quelora_tests
  TEST_FILTER "*Stress*.*"
  TEST_LIST quelora_stress_tests
  DISCOVERY_TIMEOUT 60
  PROPERTIES LABELS stress TIMEOUT 600)

# The websocket suites (Part6_1_Websocket*: transport, end to end, faults,
# locks, and the single-threaded configuration suite, which costs nothing)
# start the transport's I/O thread and real clients: label "websocket",
# which `make tsan` runs beside the stress tests.
gtest_discover_tests(quelora_tests
  TEST_FILTER "Part6_1_Websocket*.*:-*Stress*.*"
  TEST_LIST quelora_websocket_tests
  DISCOVERY_TIMEOUT 60
  PROPERTIES LABELS websocket TIMEOUT 300)
