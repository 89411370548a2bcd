// The DFN synthesis (docs/dfn.md section 4).
#include "denoise/dfn_synthesis.h"

#include "api/quelora_exception.h"

#include <numeric>

namespace quelora::denoise {

dfn_synthesis::dfn_synthesis(const uint16_t* band_widths)
    : fft_(dfn_transform_size),
      window_(dfn_design::vorbis_window(dfn_transform_size)),
      band_widths_(band_widths, band_widths + dfn_erb_bands),
      bin_gains_(static_cast<size_t>(dfn_bins), 0.0f),
      filtered_(static_cast<size_t>(dfn_bins)) {
    const int total = std::accumulate(band_widths_.begin(), band_widths_.end(), 0);
    if (total != dfn_bins) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "DFN synthesis: the %i ERB bands cover %i bins, not %i",
                                dfn_erb_bands, total, dfn_bins);
    }
}

void dfn_synthesis::process(const dfn_analysis& spectra, const float* gains,
                            const float* coefficients, float* output, int hops_back_offset) {
    int bin = 0;
    for (int b = 0; b < dfn_erb_bands; ++b) {
        for (int j = 0; j < band_widths_[b]; ++j) bin_gains_[bin++] = gains[b];
    }

    // Mask: the target frame, dfn_target_delay_hops back.
    const std::complex<float>* target =
        spectra.spectrum(dfn_target_delay_hops + hops_back_offset);
    for (int k = dfn_df_bins; k < dfn_bins; ++k) filtered_[k] = bin_gains_[k] * target[k];

    // Deep filter on the unmasked spectra: tap i multiplies hop t - 6 + i.
    constexpr int oldest_tap = dfn_target_delay_hops + dfn_df_order / 2; // 6
    const std::complex<float>* taps[dfn_df_order];
    for (int i = 0; i < dfn_df_order; ++i) {
        taps[i] = spectra.spectrum(oldest_tap + hops_back_offset - i);
    }
    for (int k = 0; k < dfn_df_bins; ++k) {
        const float* c = coefficients + k * dfn_df_order * 2;
        float re = 0.0f;
        float im = 0.0f;
        for (int i = 0; i < dfn_df_order; ++i) {
            const float cr = c[2 * i];
            const float ci = c[2 * i + 1];
            const std::complex<float> x = taps[i][k];
            re += cr * x.real() - ci * x.imag();
            im += cr * x.imag() + ci * x.real();
        }
        filtered_[k] = {re, im};
    }

    // Unnormalised (480 x irfft). kiss_fftri reads only the real parts of
    // bins 0 and 240, as irfft does, so their imaginary parts need no zeroing
    // (bin 0's is nonzero after the complex taps; real_fft_test checks that
    // they are ignored).
    fft_.inverse(filtered_.data(), output);
    for (int n = 0; n < dfn_transform_size; ++n) output[n] *= window_[n];
}

} // namespace quelora::denoise
