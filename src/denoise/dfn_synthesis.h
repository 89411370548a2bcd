// The synthesis half of the DFN noise canceller (docs/dfn.md section 4): the
// ERB gains mask bins 96..240 of the spectrum 4 hops back, the deep filter
// rebuilds bins 0..95 from the spectra 6..2 hops back, and the result is
// inverse-transformed and windowed for the wrapper's overlap-add. Everything
// is allocated in the constructor; process never allocates, locks or logs.
#pragma once

#include "denoise/dfn_analysis.h"
#include "denoise/dfn_constants.h"
#include "dsp/real_fft.h"

#include <complex>
#include <cstdint>
#include <vector>

namespace quelora::denoise {

class dfn_synthesis {
public:
    // band_widths: dfn_erb_bands widths covering the dfn_bins bins (the
    // analysis's). Throws quelora_exception (-9990) when they do not.
    explicit dfn_synthesis(const uint16_t* band_widths);

    // gains: dfn_erb_bands values; coefficients: [96 bins][5 taps][re, im];
    // output: 480 samples, w[n] x 480 x irfft(Y)[n]. hops_back_offset (0 or
    // 1) is how many hops the analysis has taken since the hop being
    // synthesised: the model's block path analyses a block's second hop
    // before it rebuilds the first, whose spectra then lie one slot further
    // back (dfn_constants.h keeps one spectrum more for that).
    void process(const dfn_analysis& spectra, const float* gains, const float* coefficients,
                 float* output, int hops_back_offset = 0);

    // For tests: the last process's gains spread over the bins.
    const float* bin_gains() const { return bin_gains_.data(); }

private:
    dsp::real_fft fft_;
    std::vector<float> window_;
    std::vector<uint16_t> band_widths_;
    std::vector<float> bin_gains_;
    std::vector<std::complex<float>> filtered_; // Y, dfn_bins
};

} // namespace quelora::denoise
