// Band-limited interpolation of finite responses from one sample rate to
// another, in double. Output sample n sits at time n / output_rate and is
//   y[n] = sum over k of x[k] (2 fc / input_rate) sinc(2 fc (n / output_rate - k / input_rate))
//          kaiser((n / output_rate - k / input_rate) / half_width, beta)
// over the input samples within half_width of it (zeros before the start and
// after the end). The window spans 128 zero crossings of the sinc on each
// side with beta 10.06 (100 dB stop band, below the 16-bit storage), and fc
// is placed so that the window's transition band ends exactly at the lower
// of the two Nyquist frequencies: nothing above it is imaged (upsampling) or
// aliased (downsampling) into the output. 44100 -> 48000 Hz passes up to
// 20.97 kHz and stops from 22.05 kHz.
//
// The weights depend only on the output position, never on the response, so
// they are computed once and shared by every response of a set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quelora::hrtf_data {

class sinc_interpolator {
public:
    static constexpr double zero_crossings = 128.0;
    static constexpr double stop_band_db = 100.0;

    // Throws std::invalid_argument for non-positive rates or lengths.
    sinc_interpolator(double input_rate, double output_rate, int32_t input_length,
                      int32_t output_length);

    // Reads input_length samples, writes output_length samples.
    void run(const double* input, double* output) const;

    double pass_band_edge() const { return pass_band_edge_; } // Hz

private:
    struct output_span {
        int32_t first_input;
        int32_t inputs;
        std::size_t first_weight;
    };

    std::vector<output_span> spans_;
    std::vector<double> weights_;
    double pass_band_edge_;
};

} // namespace quelora::hrtf_data
