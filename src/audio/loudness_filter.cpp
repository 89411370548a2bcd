#include "audio/loudness_filter.h"

#include <cmath>

namespace quelora {

namespace {

// The published 48 kHz coefficients, held as single-precision numbers
// (a1 = -3.8466460704803467, b0 = 0.038575995713472366) and run in double:
// the levels automatic gain control aims at were set with these values.
constexpr float yule_b[11] = {0.03857599435200f,  -0.02160367184185f, -0.00123395316851f,
                              -0.00009291677959f, -0.01655260341619f, 0.02161526843274f,
                              -0.02074045215285f, 0.00594298065125f,  0.00306428023191f,
                              0.00012025322027f,  0.00288463683916f};
constexpr float yule_a[11] = {1.0f,
                              -3.84664617118067f,
                              7.81501653005538f,
                              -11.34170355132042f,
                              13.05504219327545f,
                              -12.28759895145294f,
                              9.48293806319790f,
                              -5.87257861775999f,
                              2.75465861874613f,
                              -0.86984376593551f,
                              0.13919314567432f};
constexpr float butter_b[3] = {0.98621192462708f, -1.97242384925416f, 0.98621192462708f};
constexpr float butter_a[3] = {1.0f, -1.97223372919527f, 0.97261396931306f};

} // namespace

void loudness_filter::process(const float* input, double* output, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        // A NaN or infinity would stay in the state for good; it counts as silence.
        const double x = std::isfinite(input[i]) ? input[i] : 0.0;
        const double y = yule_b[0] * x + yule_[0];
        for (int k = 0; k < 9; ++k) {
            yule_[k] = yule_[k + 1] + yule_b[k + 1] * x - yule_a[k + 1] * y;
        }
        yule_[9] = yule_b[10] * x - yule_a[10] * y;
        const double z = butter_b[0] * y + butter_[0];
        butter_[0] = butter_[1] + butter_b[1] * y - butter_a[1] * z;
        butter_[1] = butter_b[2] * y - butter_a[2] * z;
        output[i] = z;
    }
}

} // namespace quelora
