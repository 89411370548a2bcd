# libsoxr is the reference that resampler_quality_test.cpp measures the
# Overview's polyphase resampler against. Test-only: the library never links it.
find_package(PkgConfig)
if(PkgConfig_FOUND)
  pkg_check_modules(SOXR IMPORTED_TARGET soxr)
endif()
if(NOT SOXR_FOUND)
  message(FATAL_ERROR
    "The tests need libsoxr (pkg-config module 'soxr') for resampler_quality_test.cpp: "
    "install the Debian packages libsoxr-dev and pkg-config, or configure with "
    "-DQUELORA_BUILD_TESTS=OFF.")
endif()
target_link_libraries(quelora_tests PRIVATE PkgConfig::SOXR)
