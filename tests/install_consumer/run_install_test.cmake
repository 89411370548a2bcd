# ctest driver (cmake -P): installs the build tree into a fresh prefix, then
# builds and runs install_consumer against it, once through find_package and
# once through pkg-config. -D variables: BUILD_DIR, PREFIX, WORK_DIR (scratch,
# wiped), CONSUMER_DIR, C_COMPILER, CONFIG and SANITIZE_FLAGS (may be empty).
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE "${PREFIX}" "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
if(CONFIG)
  set(config_args --config "${CONFIG}")
endif()
run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${PREFIX}" ${config_args})

# 1. CMake package.
run("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/cmake" "-DCMAKE_PREFIX_PATH=${PREFIX}"
    "-DCMAKE_C_COMPILER=${C_COMPILER}" "-DCMAKE_BUILD_TYPE=Release" "-DCMAKE_C_FLAGS=${SANITIZE_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${SANITIZE_FLAGS}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake")
run("${WORK_DIR}/cmake/consumer")

# 2. pkg-config.
find_program(PKG_CONFIG_EXECUTABLE NAMES pkg-config pkgconf REQUIRED)
file(GLOB_RECURSE pc_files "${PREFIX}/*/quelora.pc")
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
  message(FATAL_ERROR "expected one installed quelora.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
execute_process(COMMAND "${PKG_CONFIG_EXECUTABLE}" --cflags --libs quelora COMMAND_ERROR_IS_FATAL ANY
  OUTPUT_VARIABLE pc_flags OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND "${PKG_CONFIG_EXECUTABLE}" --variable=libdir quelora OUTPUT_VARIABLE pc_libdir
  OUTPUT_STRIP_TRAILING_WHITESPACE)
message(STATUS "pkg-config: ${pc_flags}")
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(san_flags UNIX_COMMAND "${SANITIZE_FLAGS}")
run("${C_COMPILER}" -std=c99 ${san_flags} "${CONSUMER_DIR}/main.c" ${pc_flags}
    "-Wl,-rpath,${pc_libdir}" -o "${WORK_DIR}/consumer-pkgconfig")
run("${WORK_DIR}/consumer-pkgconfig")
