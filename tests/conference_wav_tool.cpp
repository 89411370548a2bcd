// The conference simulator test's helper (conference_simulator.cmake). `make` writes a 16-bit WAV:
// a tone (the right channel's 1.5 times higher) at amplitude 0.5, rising and falling four times a
// second. `check` prints what a WAV holds and exits 1 unless it has that rate, channel count, frame
// count and encoding, no NaN or infinity, a peak of 0.01 and an RMS of -60 dBFS.
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

namespace {

int make(const char* path, int rate, int channels, double seconds, double frequency) {
    SF_INFO info{0, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    std::vector<float> samples(static_cast<size_t>(std::lround(seconds * rate) * channels));
    for (size_t k = 0; k < samples.size(); ++k) {
        const double t = static_cast<double>(k / channels) / rate, f = k % channels ? 1.5 : 1.0;
        samples[k] = static_cast<float>(0.5 * std::sin(std::numbers::pi * std::fmod(t * 4.0, 1.0)) *
                                        std::sin(2.0 * std::numbers::pi * f * frequency * t));
    }
    SNDFILE* file = sf_open(path, SFM_WRITE, &info);
    const auto count = static_cast<sf_count_t>(samples.size());
    const bool ok = file != nullptr && sf_write_float(file, samples.data(), count) == count;
    if (file == nullptr) std::fprintf(stderr, "%s: %s\n", path, sf_strerror(nullptr));
    return ok && sf_close(file) == 0 ? 0 : 1;
}

int check(const char* path, int rate, int channels, sf_count_t frames,
          const std::string& encoding) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path, SFM_READ, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "%s: %s\n", path, sf_strerror(nullptr));
        return 1;
    }
    std::vector<double> samples(static_cast<size_t>(info.frames * info.channels));
    const sf_count_t got = sf_readf_double(file, samples.data(), info.frames);
    sf_close(file);
    double peak = 0.0, energy = 0.0;
    for (double s : samples) peak = std::fmax(peak, std::fabs(s)), energy += s * s;
    const double rms_db = 10.0 * std::log10(energy / double(samples.size()) + 1e-100);
    std::printf("%s: format 0x%x, %d Hz, %d channels, %lld frames, peak %.4f, RMS %.1f dBFS\n",
                path, info.format, info.samplerate, info.channels,
                static_cast<long long>(info.frames), peak, rms_db);
    const int subtype = encoding == "pcm16" ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT;
    const bool ok = info.format == (SF_FORMAT_WAV | subtype) && info.samplerate == rate &&
                    info.channels == channels && info.frames == frames && got == frames &&
                    std::isfinite(energy) && peak >= 0.01 && rms_db >= -60.0;
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::string command = argc == 7 ? argv[1] : "";
    if (command == "make" || command == "check") {
        const int rate = std::atoi(argv[3]), channels = std::atoi(argv[4]);
        return command == "make"
                   ? make(argv[2], rate, channels, std::atof(argv[5]), std::atof(argv[6]))
                   : check(argv[2], rate, channels, std::atoll(argv[5]), argv[6]);
    }
    std::fprintf(stderr,
                 "usage: conference_wav_tool make PATH RATE CHANNELS SECONDS FREQUENCY\n"
                 "       conference_wav_tool check PATH RATE CHANNELS FRAMES float|pcm16\n");
    return 2;
}
