// Counts the calling thread's heap allocations between start and stop. It
// interposes glibc's malloc family (libstdc++'s operator new allocates through
// it), so only quelora_allocation_tests links it, outside sanitizer builds.
#pragma once
namespace quelora::testing {
void start_counting_allocations();
long stop_counting_allocations(); // the allocations since the start
} // namespace quelora::testing
