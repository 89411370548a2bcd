// A real-input FFT of one even size, the transform behind the noise
// canceller's spectra (480 points) and the later uses
// docs/design.md plans (1024 .. 16384). A thin facade over KissFFT (float):
// the plans and all scratch are made in the constructor, so forward and
// inverse never allocate. Both directions are unnormalised, as KissFFT's are:
// inverse(forward(x)) = size * x. One object is used by one thread at a time
// (KissFFT keeps its scratch inside the plan).
#pragma once

#include <complex>
#include <memory>

namespace quelora::dsp {

class real_fft {
public:
    // size: even, positive, and size / 2 a product of 2, 3 and 5 only.
    // KissFFT runs other factors through its generic butterfly, which
    // mallocs on every call; refusing them keeps "never allocates" true.
    // Throws std::invalid_argument for another size, std::bad_alloc when
    // KissFFT cannot allocate its plans.
    explicit real_fft(int size);
    ~real_fft();
    real_fft(real_fft&&) noexcept;
    real_fft& operator=(real_fft&&) noexcept;
    real_fft(const real_fft&) = delete;
    real_fft& operator=(const real_fft&) = delete;

    int size() const { return size_; }

    // in: size samples; out: size / 2 + 1 bins, X[k] = sum x[n] e^(-2 pi i k n / size).
    // The imaginary parts of bins 0 and size / 2 come out as exactly 0.
    void forward(const float* in, std::complex<float>* out);
    // in: size / 2 + 1 bins of a Hermitian spectrum; out: size samples,
    // x[n] = sum over the full spectrum of X[k] e^(2 pi i k n / size)
    // (size x numpy's irfft). Like irfft, the imaginary parts of bins 0 and
    // size / 2 are ignored (KissFFT's kiss_fftri reads only their real parts).
    // in and out must not overlap.
    void inverse(const std::complex<float>* in, float* out);

private:
    struct plan_deleter {
        void operator()(void* plan) const;
    };
    int size_;
    std::unique_ptr<void, plan_deleter> forward_plan_;
    std::unique_ptr<void, plan_deleter> inverse_plan_;
};

} // namespace quelora::dsp
