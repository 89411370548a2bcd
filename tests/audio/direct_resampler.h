// The resampler's windowed-sinc sum evaluated directly, in double: output j of a stream sits at
// input time t = j x in / out - 128 and weighs the inputs n with t - 127 < n <= t + 127 (zeros
// before the start) by sinc(0.95 min(in, out) / in x (n - t)) I0(9 sqrt(1 - ((n - t) / 127)^2)),
// scaled to sum to 0.98. It shares nothing with the resampler's phase table, state buffer and
// blocks, and takes I0 from the standard library.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <numbers>
#include <vector>

namespace quelora::testing {

class direct_resampler {
public:
    direct_resampler(int64_t input_rate, int64_t output_rate)
        : in_(input_rate), out_(output_rate) {}

    // The first `count` output samples of the stream `input`.
    std::vector<double> run(const std::vector<double>& input, size_t count) {
        std::vector<double> output(count);
        for (size_t j = 0; j < count; ++j) {
            const int64_t t_out = static_cast<int64_t>(j) * in_ - 128 * out_; // t x out
            const int64_t whole = t_out >= 0 ? t_out / out_ : -((out_ - 1 - t_out) / out_);
            const std::vector<double>& w = weights(t_out - whole * out_);
            for (int64_t m = 0, n = whole - 126; m < 254; ++m, ++n)
                if (n >= 0 && n < std::ssize(input)) output[j] += w[m] * input[n];
        }
        return output;
    }

private:
    // The weights around t = whole + fraction / out.
    const std::vector<double>& weights(int64_t fraction) {
        std::vector<double>& w = cache_[fraction];
        if (!w.empty()) return w;
        const double band = 0.95 * static_cast<double>(std::min(in_, out_)) / double(in_);
        double total = 0.0;
        for (int m = 0; m < 254; ++m) {
            const double tau = (m - 126) - static_cast<double>(fraction) / double(out_);
            const double x = std::numbers::pi * band * tau, u = tau / 127.0;
            const double sinc = x == 0.0 ? 1.0 : std::sin(x) / x;
            total += w.emplace_back(sinc * std::cyl_bessel_i(0.0, 9.0 * std::sqrt(1.0 - u * u)));
        }
        for (double& v : w) v *= 0.98 / total;
        return w;
    }

    int64_t in_, out_;
    std::map<int64_t, std::vector<double>> cache_;
};

} // namespace quelora::testing
