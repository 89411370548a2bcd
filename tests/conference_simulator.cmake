# The conference simulator (tools/conference, `make demo`) end to end: two
# small generated talker files (no espeak-ng, so the run is deterministic),
# one run with the default float format and one with 16-bit mono planar
# output at 16 kHz; every listener file must exist with the right rate,
# channel count, length and encoding, and must not be silent.
#
# Included by tests/CMakeLists.txt to register the test; run by CTest as a
# script (cmake -P) to do it.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  if(TARGET quelora_conference)
    # tools/ found libsndfile already (or stopped the configuration); its
    # imported target is local to that folder, so look it up here again.
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(CONFERENCE_TEST_SNDFILE REQUIRED IMPORTED_TARGET sndfile)
    add_executable(conference_wav_tool ${CMAKE_CURRENT_SOURCE_DIR}/conference_wav_tool.cpp)
    target_link_libraries(conference_wav_tool PRIVATE PkgConfig::CONFERENCE_TEST_SNDFILE)
    target_compile_options(conference_wav_tool PRIVATE ${QUELORA_WARNINGS})
    add_test(NAME conference_simulator
      COMMAND ${CMAKE_COMMAND}
        -DSIMULATOR=$<TARGET_FILE:quelora_conference>
        -DWAV_TOOL=$<TARGET_FILE:conference_wav_tool>
        -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/conference-simulator
        -P ${CMAKE_CURRENT_LIST_FILE})
    set_tests_properties(conference_simulator PROPERTIES TIMEOUT 120)
  endif()
  return()
endif()

# ---- script mode --------------------------------------------------------

# Runs a command; fails the test unless it exits with `expected`. The
# command's standard output lands in ${output_var}.
function(run_expect expected output_var)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status STREQUAL "${expected}")
    string(REPLACE ";" " " command_line "${ARGN}")
    message(FATAL_ERROR "${command_line}\nexited with ${status}, expected ${expected}\n"
                        "--- stdout:\n${out}\n--- stderr:\n${err}")
  endif()
  set(${output_var} "${out}${err}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# Alice: 0.5 s mono at 16 kHz; Bob: 0.3 s stereo at 22.05 kHz, a rate the
# library does not take, so the host's conversion is exercised too.
run_expect(0 ignored ${WAV_TOOL} make ${WORK_DIR}/alice.wav 16000 1 0.5 440)
run_expect(0 ignored ${WAV_TOOL} make ${WORK_DIR}/bob.wav 22050 2 0.3 330)
set(talkers --talker ${WORK_DIR}/alice.wav --talker ${WORK_DIR}/bob.wav --listener-only 1 --quiet-log)
set(listeners 1_Alice 2_Bob 3_Listener1)

# Both files start together; the longer one is 0.5 s = 50 blocks of 10 ms,
# then 0.5 s of tail: 100 blocks.
run_expect(0 summary ${SIMULATOR} ${talkers} --out ${WORK_DIR}/float)
foreach(expected "100 blocks" "real-time factor" "input calls" "output calls" "listener_3_Listener1.wav")
  string(FIND "${summary}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the summary lacks '${expected}':\n${summary}")
  endif()
endforeach()
foreach(listener ${listeners})
  run_expect(0 ignored ${WAV_TOOL} check ${WORK_DIR}/float/listener_${listener}.wav 48000 2 48000 float)
endforeach()

# 16-bit samples, 16 kHz, one channel, planar blocks (stereo Bob goes in
# planar): 100 blocks of 160 frames.
run_expect(0 ignored ${SIMULATOR} ${talkers} --out ${WORK_DIR}/short
           --format short --rate 16000 --channels 1 --planar)
foreach(listener ${listeners})
  run_expect(0 ignored ${WAV_TOOL} check ${WORK_DIR}/short/listener_${listener}.wav 16000 1 16000 pcm16)
endforeach()

# A bad argument is refused with the usage text and exit status 2.
run_expect(2 refusal ${SIMULATOR} ${talkers} --out ${WORK_DIR}/bad --rate 44100)
string(FIND "${refusal}" "usage: quelora_conference" at)
if(at EQUAL -1)
  message(FATAL_ERROR "no usage text for a bad argument:\n${refusal}")
endif()
