// ReplayGain's equal-loudness filter at 48000 Hz: its 10th-order Yule-Walker
// IIR followed by its 2nd-order Butterworth high-pass, run in double. The
// cascade weights a signal roughly as the ear does at 80 phon: -8.3 dB at
// 1 kHz, its most sensitive region at 3-4 kHz (-0.75 dB at 3.5 kHz), -15 dB at
// 100 Hz and -43 dB at 20 Hz. Automatic gain control measures levels through
// it (docs/levelling.md). A non-finite input sample counts as 0.
// Allocation-free; not thread-safe.
#pragma once

#include <array>
#include <cstdint>

namespace quelora {

class loudness_filter {
public:
    // Filters count samples from input to output; the state carries over
    // from call to call.
    void process(const float* input, double* output, int32_t count);

private:
    // Transposed direct form II states of the two sections.
    std::array<double, 10> yule_{};
    std::array<double, 2> butter_{};
};

} // namespace quelora
