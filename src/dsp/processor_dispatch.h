// Processor dispatch, initialised once per process:
// the instruction-set extensions the vector kernels may select from.
#pragma once

namespace quelora::dsp {

struct processor_features {
    bool sse4_1 = false;
    bool avx2 = false;
    bool fma = false;
    bool avx512f = false;
};

// Detects the running processor under a process-wide mutex the first time;
// later calls return at once. Returns whether this call did the detection.
bool initialize_processor_dispatch();

// The detected features (all false before initialisation).
const processor_features& current_processor_features();

} // namespace quelora::dsp
