# The conference simulator of `make demo` end to end on two generated talker
# files (no espeak-ng: deterministic), in the default float format and in
# 16-bit mono planar blocks at 16 kHz: every listener file must have the right
# rate, channels, length and encoding and not be silent; a bad argument gets
# the usage text and status 2. Included by tests/CMakeLists.txt to register
# the test; CTest runs it as a script (cmake -P).
if(NOT CMAKE_SCRIPT_MODE_FILE)
  if(TARGET quelora_conference)
    # tools/ found libsndfile; its imported target is local to that folder.
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(CONFERENCE_TEST_SNDFILE REQUIRED IMPORTED_TARGET sndfile)
    add_executable(conference_wav_tool ${CMAKE_CURRENT_SOURCE_DIR}/conference_wav_tool.cpp)
    target_link_libraries(conference_wav_tool PRIVATE PkgConfig::CONFERENCE_TEST_SNDFILE)
    target_compile_options(conference_wav_tool PRIVATE ${QUELORA_WARNINGS})
    add_test(NAME conference_simulator COMMAND ${CMAKE_COMMAND}
      -DSIMULATOR=$<TARGET_FILE:quelora_conference> -DWAV_TOOL=$<TARGET_FILE:conference_wav_tool>
      -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/conference-simulator -P ${CMAKE_CURRENT_LIST_FILE})
    set_tests_properties(conference_simulator PROPERTIES TIMEOUT 120 LABELS audio)
  endif()
  return()
endif()

# Runs a command and fails unless it exits with `expected`; output to ${output_var}.
function(run_expect expected output_var)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status STREQUAL "${expected}")
    string(REPLACE ";" " " command_line "${ARGN}")
    message(FATAL_ERROR "${command_line}\nexited with ${status}, not ${expected}:\n${out}\n${err}")
  endif()
  set(${output_var} "${out}${err}" PARENT_SCOPE)
endfunction()

function(expect_in text)
  foreach(expected ${ARGN})
    string(FIND "${text}" "${expected}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "no '${expected}' in:\n${text}")
    endif()
  endforeach()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
# Alice: 0.5 s mono at 16 kHz; Bob: 0.3 s stereo at 22.05 kHz, a rate the
# library does not take, so the simulator's own conversion runs too.
run_expect(0 ignored ${WAV_TOOL} make ${WORK_DIR}/alice.wav 16000 1 0.5 440)
run_expect(0 ignored ${WAV_TOOL} make ${WORK_DIR}/bob.wav 22050 2 0.3 330)
set(talkers --talker ${WORK_DIR}/alice.wav --talker ${WORK_DIR}/bob.wav --listener-only 1)
# 0.5 s of talk and 0.5 s of tail in blocks of 10 ms: 100 blocks, 1 s per file.
run_expect(0 summary ${SIMULATOR} ${talkers} --quiet-log --out ${WORK_DIR}/float)
expect_in("${summary}" "100 blocks" "real-time factor" "input calls" "output calls"
          "listener_3_Listener1.wav")
run_expect(0 ignored ${SIMULATOR} ${talkers} --quiet-log --out ${WORK_DIR}/short
           --format short --rate 16000 --channels 1 --planar)
foreach(listener 1_Alice 2_Bob 3_Listener1)
  run_expect(0 ignored ${WAV_TOOL} check ${WORK_DIR}/float/listener_${listener}.wav 48000 2 48000 float)
  run_expect(0 ignored ${WAV_TOOL} check ${WORK_DIR}/short/listener_${listener}.wav 16000 1 16000 pcm16)
endforeach()
run_expect(2 refusal ${SIMULATOR} ${talkers} --out ${WORK_DIR}/bad --rate 44100)
expect_in("${refusal}" "usage: quelora_conference")
