# The public header compiles as strict C99; the control plane works through the exports alone.
add_executable(c_api_test ${CMAKE_CURRENT_SOURCE_DIR}/c_api_test.c)
set_target_properties(c_api_test PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(c_api_test PRIVATE -Wall -Wextra -Werror -pedantic)
target_link_libraries(c_api_test PRIVATE quelora)
if(QUELORA_SANITIZE)
  # The sanitized C++ library needs the C++ parts of the sanitizer runtime,
  # which clang links only when the C++ driver links. The code stays C99.
  set_target_properties(c_api_test PROPERTIES LINKER_LANGUAGE CXX)
endif()
add_test(NAME c_api_test COMMAND c_api_test)
