# Smoke test of make bench's conference benchmark: its --quick mode must exit
# 0 and write a JSON report with the fields make bench promises. Nothing here
# looks at a speed (machines are shared and noisy; speed is reported by make
# bench, never asserted).
if(TARGET quelora_conference_bench)
  add_test(NAME bench_smoke
    COMMAND ${CMAKE_COMMAND}
      -DBENCH=$<TARGET_FILE:quelora_conference_bench>
      -DOUT=${CMAKE_CURRENT_BINARY_DIR}/bench-smoke/bench.json
      -P ${PROJECT_SOURCE_DIR}/tools/bench/run_bench_smoke.cmake)
  set_tests_properties(bench_smoke PROPERTIES TIMEOUT 60 LABELS bench)
endif()
