# `cmake --install` of this build tree into a scratch prefix, then a client
# project (tests/install_consumer) built against it with find_package(quelora)
# and with pkg-config, and run.
set(QUELORA_INSTALL_TEST_SANITIZE_FLAGS "")
if(QUELORA_SANITIZE STREQUAL "address")
  set(QUELORA_INSTALL_TEST_SANITIZE_FLAGS "-fsanitize=address,undefined")
elseif(QUELORA_SANITIZE STREQUAL "thread")
  set(QUELORA_INSTALL_TEST_SANITIZE_FLAGS "-fsanitize=thread")
endif()
if(QUELORA_SANITIZE AND CMAKE_C_COMPILER_ID MATCHES "Clang")
  # The C consumer needs the C++ parts of the sanitizer runtime (UBSan vptr
  # checks, new/delete interceptors), which in turn need libstdc++.
  string(APPEND QUELORA_INSTALL_TEST_SANITIZE_FLAGS " -fsanitize-link-c++-runtime -lstdc++")
endif()
add_test(NAME install_consumer COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${PROJECT_BINARY_DIR}
  -DPREFIX=${CMAKE_CURRENT_BINARY_DIR}/install-test/prefix -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install-test/work
  -DCONSUMER_DIR=${CMAKE_CURRENT_SOURCE_DIR}/install_consumer -DC_COMPILER=${CMAKE_C_COMPILER} -DCONFIG=$<CONFIG>
  "-DSANITIZE_FLAGS=${QUELORA_INSTALL_TEST_SANITIZE_FLAGS}"
  -P ${CMAKE_CURRENT_SOURCE_DIR}/install_consumer/run_install_test.cmake)
set_tests_properties(install_consumer PROPERTIES TIMEOUT 120)
