// The fixed constants of the DFN noise canceller: its rate, transform, band
// and history sizes, plus the two that docs/dfn.md section 4 settles (the
// lookahead of the synthesis and the spectrum history it needs).
// All hard-wired: none is configurable.
#pragma once

namespace quelora::denoise {

inline constexpr int dfn_sample_rate = 48000;
inline constexpr int dfn_transform_size = 480;
inline constexpr int dfn_hop = 240;
inline constexpr int dfn_bins = dfn_transform_size / 2 + 1; // 241
inline constexpr int dfn_erb_bands = 32;
inline constexpr int dfn_min_bins_per_band = 2;
inline constexpr int dfn_df_bins = 96;
inline constexpr int dfn_df_order = 5;
inline constexpr int dfn_feature_history = 3;
inline constexpr int dfn_block_length = 480;
inline constexpr int dfn_dry_delay = 1200;

// docs/dfn.md section 4: hop t rebuilds frame t - 4, and the deep filter's
// five taps reach from t - 6 to t - 2, which takes 7 spectra. The analysis
// keeps one more: dfn_model::process_block analyses a block's second hop
// before it synthesises the first (so the two hops can share their passes
// over the weights), and the first hop then reaches back to t - 7.
inline constexpr int dfn_target_delay_hops = 4;
inline constexpr int dfn_spectrum_history = 8;

static_assert(dfn_bins == 241);
static_assert(dfn_spectrum_history == dfn_target_delay_hops + dfn_df_order / 2 + 1 + 1);

} // namespace quelora::denoise
