// The Kaiser window and the zeroth-order modified Bessel function of the
// first kind it is built on. Used to design windowed-sinc filters (the
// polyphase resampler). Double precision
// throughout: these run once at construction, never per block.
#pragma once

namespace quelora::dsp {

// I0(x) = sum over k of ((x / 2)^k / k!)^2, summed until the terms no longer
// change the result (|x| up to a few tens, which covers every usable beta).
double bessel_i0(double x);

// The Kaiser window over the normalised position x in [-1, 1]:
// I0(beta * sqrt(1 - x^2)) / I0(beta); 1 at x = 0, 1 / I0(beta) at |x| = 1,
// and 0 outside [-1, 1].
double kaiser_window(double x, double beta);

} // namespace quelora::dsp
