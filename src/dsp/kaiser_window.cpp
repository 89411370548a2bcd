#include "dsp/kaiser_window.h"

#include <cmath>

namespace quelora::dsp {

double bessel_i0(double x) {
    // All terms are positive, so the series converges monotonically and the
    // stopping rule cannot cut it short at an accidental zero.
    const double half_x_squared = (x * 0.5) * (x * 0.5);
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 500; ++k) {
        term *= half_x_squared / (static_cast<double>(k) * static_cast<double>(k));
        sum += term;
        if (term <= sum * 1e-17) break;
    }
    return sum;
}

double kaiser_window(double x, double beta) {
    if (!(std::fabs(x) <= 1.0)) return 0.0;
    return bessel_i0(beta * std::sqrt(1.0 - x * x)) / bessel_i0(beta);
}

} // namespace quelora::dsp
