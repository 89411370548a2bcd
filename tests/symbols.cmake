# The library exports the functions of quelora.h and the two logger classes only (check_symbols.sh).
add_test(NAME exported_symbols
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/check_symbols.sh
          $<TARGET_FILE:quelora> ${PROJECT_SOURCE_DIR}/include/quelora/quelora.h)
