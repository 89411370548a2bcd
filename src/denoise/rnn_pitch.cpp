#include "denoise/rnn_pitch.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace quelora::denoise {

namespace {

// Everything below runs on the signal decimated by two: a frame of 480,
// lags up to 384, periods down to 30. The open-loop search covers periods
// from 384 down to 91 (294 lags); shorter ones are reached as submultiples.
constexpr int frame = rnn_pitch_frame_size / 2;
constexpr int max_lag = rnn_pitch_max_period / 2;
constexpr int min_lag = rnn_pitch_min_period / 2;
constexpr int search_lags = (rnn_pitch_max_period - 3 * rnn_pitch_min_period) / 2;

// Eight partial sums, which the compiler keeps in vector registers (a single
// running sum would pin it to one multiply-add at a time).
float dot(const float* a, const float* b, int n) {
    float partial[8] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    int i = 0;
    for (; i + 8 <= n; i += 8)
        for (int k = 0; k < 8; ++k) partial[k] += a[i + k] * b[i + k];
    float sum = 0.0f;
    for (; i < n; ++i) sum += a[i] * b[i];
    for (float p : partial) sum += p;
    return sum;
}

// The two lags with the largest xc^2 / energy of y's window, over positive
// correlations only. The correlations are scaled down before squaring so
// that 16-bit-range signals cannot overflow the products.
void best_two(const float* xc, const float* y, int length, int lags, int best[2]) {
    float syy = 1.0f + dot(y, y, length);
    float best_num[2] = {-1.0f, -1.0f};
    float best_den[2] = {0.0f, 0.0f};
    best[0] = 0;
    best[1] = 1;
    for (int i = 0; i < lags; ++i) {
        if (xc[i] > 0.0f) {
            const float scaled = xc[i] * 1e-12f;
            const float num = scaled * scaled;
            if (num * best_den[1] > best_num[1] * syy) {
                if (num * best_den[0] > best_num[0] * syy) {
                    best_num[1] = best_num[0];
                    best_den[1] = best_den[0];
                    best[1] = best[0];
                    best_num[0] = num;
                    best_den[0] = syy;
                    best[0] = i;
                } else {
                    best_num[1] = num;
                    best_den[1] = syy;
                    best[1] = i;
                }
            }
        }
        syy += y[i + length] * y[i + length] - y[i] * y[i];
        syy = std::max(1.0f, syy);
    }
}

// -1, 0 or +1: one step toward the larger neighbour when it is nearly as
// large as the peak (a, b, c the values at lag - 1, lag, lag + 1).
int refine(float a, float b, float c) {
    if (c - a > 0.7f * (b - a)) return 1;
    if (a - c > 0.7f * (b - c)) return -1;
    return 0;
}

float pitch_gain(float xy, float xx, float yy) { return xy / std::sqrt(1.0f + xx * yy); }

} // namespace

int rnn_pitch_tracker::track(const float* buffer) {
    downsample(buffer);
    return remove_doubling(search());
}

void rnn_pitch_tracker::downsample(const float* x) {
    float* lp = lp_.data();
    const float s = 0.5f * input_scale_;
    lp[0] = s * (0.5f * x[1] + x[0]);
    for (int i = 1; i < half_buffer; ++i)
        lp[i] = s * (0.5f * (x[2 * i - 1] + x[2 * i + 1]) + x[2 * i]);

    // A 4th-order LPC whitens the signal so that formants do not steer the
    // correlation peaks; the lag window and bandwidth expansion keep the
    // filter gentle.
    float ac[5];
    for (int k = 0; k < 5; ++k) ac[k] = dot(lp, lp + k, half_buffer - k);
    ac[0] *= 1.0001f;
    for (int k = 1; k < 5; ++k) {
        const float w = 0.008f * static_cast<float>(k);
        ac[k] -= ac[k] * w * w;
    }
    float lpc[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    float error = ac[0];
    if (ac[0] != 0.0f) {
        for (int i = 0; i < 4; ++i) {
            float rr = ac[i + 1];
            for (int j = 0; j < i; ++j) rr += lpc[j] * ac[i - j];
            const float r = -rr / error;
            lpc[i] = r;
            for (int j = 0; j < (i + 1) / 2; ++j) {
                const float a = lpc[j];
                const float b = lpc[i - 1 - j];
                lpc[j] = a + r * b;
                lpc[i - 1 - j] = b + r * a;
            }
            error -= r * r * error;
            if (error < 0.001f * ac[0]) break;
        }
    }
    float scale = 0.9f;
    for (float& c : lpc) {
        c *= scale;
        scale *= 0.9f;
    }
    // The whitening filter times a gentle 1 + 0.8 z^-1 low-pass, run from a
    // zero history every frame.
    const float c[5] = {lpc[0] + 0.8f, lpc[1] + 0.8f * lpc[0], lpc[2] + 0.8f * lpc[1],
                        lpc[3] + 0.8f * lpc[2], 0.8f * lpc[3]};
    float mem[5] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    for (int i = 0; i < half_buffer; ++i) {
        const float in = lp[i];
        lp[i] = in + c[0] * mem[0] + c[1] * mem[1] + c[2] * mem[2] + c[3] * mem[3] + c[4] * mem[4];
        mem[4] = mem[3];
        mem[3] = mem[2];
        mem[2] = mem[1];
        mem[1] = mem[0];
        mem[0] = in;
    }
}

// Coarse to fine: a search over every lag at a quarter of the rate, then
// the half-rate correlation only around its two best lags.
int rnn_pitch_tracker::search() const {
    const float* lp = lp_.data();
    const float* x = lp + max_lag;
    constexpr int coarse_length = frame / 2;
    constexpr int coarse_lags = search_lags / 2;
    std::array<float, coarse_length> x4;
    std::array<float, coarse_length + coarse_lags> y4;
    for (int j = 0; j < coarse_length; ++j) x4[j] = x[2 * j];
    for (int j = 0; j < coarse_length + coarse_lags; ++j) y4[j] = lp[2 * j];
    std::array<float, search_lags> xc;
    for (int i = 0; i < coarse_lags; ++i) xc[i] = dot(x4.data(), y4.data() + i, coarse_length);
    int coarse[2];
    best_two(xc.data(), y4.data(), coarse_length, coarse_lags, coarse);

    for (int i = 0; i < search_lags; ++i) {
        xc[i] = 0.0f;
        if (std::abs(i - 2 * coarse[0]) > 2 && std::abs(i - 2 * coarse[1]) > 2) continue;
        xc[i] = std::max(-1.0f, dot(x, lp + i, frame));
    }
    int fine[2];
    best_two(xc.data(), lp, frame, search_lags, fine);
    const int b = fine[0];
    int offset = 0;
    if (b > 0 && b < search_lags - 1) offset = refine(xc[b - 1], xc[b], xc[b + 1]);
    // The lag index runs against the period, so this half-sample step goes
    // away from the larger neighbour; kept, as the models were trained on
    // periods chosen this way.
    return rnn_pitch_max_period - (2 * b - offset);
}

// Octave errors: a period that is a multiple of the true one correlates
// almost as well, so each submultiple T/k (checked together with a second
// multiple of it) wins when its gain comes close to that of T; being near
// the previous frame's period lowers the bar.
int rnn_pitch_tracker::remove_doubling(int full_rate_period) {
    static constexpr int second_check[16] = {0, 0, 3, 2, 3, 2, 5, 2, 3, 2, 3, 2, 5, 2, 3, 2};
    const float* xs = lp_.data() + max_lag;
    const int previous = period_ / 2;
    int t0 = std::min(full_rate_period / 2, max_lag - 1);

    const float xx = dot(xs, xs, frame);
    std::array<float, max_lag + 1> yy_lookup;
    yy_lookup[0] = xx;
    float yy = xx;
    for (int i = 1; i <= max_lag; ++i) {
        yy += xs[-i] * xs[-i] - xs[frame - i] * xs[frame - i];
        yy_lookup[i] = std::max(0.0f, yy);
    }
    float best_xy = dot(xs, xs - t0, frame);
    float best_yy = yy_lookup[t0];
    const float g0 = pitch_gain(best_xy, xx, best_yy);
    float g = g0;
    int t = t0;

    for (int k = 2; k <= 15; ++k) {
        const int t1 = (2 * t0 + k) / (2 * k);
        if (t1 < min_lag) break;
        int t1b;
        if (k == 2) {
            t1b = t1 + t0 > max_lag ? t0 : t0 + t1;
        } else {
            t1b = (2 * second_check[k] * t0 + k) / (2 * k);
        }
        const float xy = 0.5f * (dot(xs, xs - t1, frame) + dot(xs, xs - t1b, frame));
        const float yy1 = 0.5f * (yy_lookup[t1] + yy_lookup[t1b]);
        const float g1 = pitch_gain(xy, xx, yy1);
        float cont = 0.0f;
        if (std::abs(t1 - previous) <= 1) {
            cont = gain_;
        } else if (std::abs(t1 - previous) <= 2 && 5 * k * k < t0) {
            cont = 0.5f * gain_;
        }
        float threshold = std::max(0.3f, 0.7f * g0 - cont);
        // Short periods need a clearer win. The second branch can never be
        // taken (below 60 is also below 90); kept so that the tracker picks
        // the same periods as the trained models saw.
        if (t1 < 3 * min_lag) {
            threshold = std::max(0.4f, 0.85f * g0 - cont);
        } else if (t1 < 2 * min_lag) {
            threshold = std::max(0.5f, 0.9f * g0 - cont);
        }
        if (g1 > threshold) {
            best_xy = xy;
            best_yy = yy1;
            t = t1;
            g = g1;
        }
    }
    best_xy = std::max(0.0f, best_xy);
    float gain = best_yy <= best_xy ? 1.0f : best_xy / (best_yy + 1.0f);
    float xc[3];
    for (int m = 0; m < 3; ++m) xc[m] = dot(xs, xs - (t + m - 1), frame);
    const int offset = refine(xc[0], xc[1], xc[2]);
    gain_ = std::min(gain, g);
    period_ = std::max(rnn_pitch_min_period, 2 * t + offset);
    return period_;
}

} // namespace quelora::denoise
