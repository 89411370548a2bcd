// Helper of the conference simulator's CTest (conference_simulator.cmake):
// writes small talker files and checks the listener files, so the test needs
// neither espeak-ng nor any tool beyond libsndfile.
//
//   conference_wav_tool make PATH RATE CHANNELS SECONDS FREQUENCY
//       16-bit WAV: a tone at FREQUENCY Hz, amplitude 0.5, switched on and
//       off four times a second like syllables; the right channel of a stereo
//       file is the tone at 1.5 × FREQUENCY.
//   conference_wav_tool check PATH RATE CHANNELS FRAMES float|pcm16
//       exits 1 unless the file has that rate, channel count, frame count and
//       sample encoding, holds no NaN or infinity, and is not silent (peak at
//       least 0.01 and RMS at least -60 dBFS).
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr double pi = 3.14159265358979323846;

int make(const char* path, int rate, int channels, double seconds, double frequency) {
    const auto frames = static_cast<sf_count_t>(std::lround(seconds * rate));
    std::vector<float> samples(static_cast<size_t>(frames * channels));
    for (sf_count_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double syllable = std::sin(pi * std::fmod(t * 4.0, 1.0)); // 250 ms rise and fall
        for (int c = 0; c < channels; ++c) {
            const double f = frequency * (c == 0 ? 1.0 : 1.5);
            samples[static_cast<size_t>(i * channels + c)] =
                static_cast<float>(0.5 * syllable * std::sin(2.0 * pi * f * t));
        }
    }
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path, SFM_WRITE, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "%s: %s\n", path, sf_strerror(nullptr));
        return 1;
    }
    const bool ok = sf_writef_float(file, samples.data(), frames) == frames;
    return sf_close(file) == 0 && ok ? 0 : 1;
}

int check(const char* path, int rate, int channels, long long frames, const std::string& encoding) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path, SFM_READ, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "%s: %s\n", path, sf_strerror(nullptr));
        return 1;
    }
    std::vector<double> samples(static_cast<size_t>(info.frames * info.channels));
    const sf_count_t got = sf_readf_double(file, samples.data(), info.frames);
    sf_close(file);

    const int subtype = info.format & SF_FORMAT_SUBMASK;
    const int wanted_subtype = encoding == "pcm16" ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT;
    double peak = 0.0;
    double energy = 0.0;
    bool finite = true;
    for (double s : samples) {
        finite = finite && std::isfinite(s);
        peak = std::fmax(peak, std::fabs(s));
        energy += s * s;
    }
    const double rms = samples.empty() ? 0.0 : std::sqrt(energy / static_cast<double>(samples.size()));
    const double rms_db = rms > 0.0 ? 20.0 * std::log10(rms) : -1000.0;
    std::printf("%s: %d Hz, %d channels, %lld frames, subtype 0x%x, peak %.4f, RMS %.1f dBFS\n", path,
                info.samplerate, info.channels, static_cast<long long>(info.frames), subtype, peak, rms_db);

    bool ok = true;
    const auto expect = [&ok](bool condition, const char* what) {
        if (!condition) {
            std::fprintf(stderr, "  wrong: %s\n", what);
            ok = false;
        }
    };
    expect((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV, "file type (want WAV)");
    expect(info.samplerate == rate, "sampling rate");
    expect(info.channels == channels, "channel count");
    expect(info.frames == frames && got == frames, "frame count");
    expect(subtype == wanted_subtype, "sample encoding");
    expect(finite, "NaN or infinite samples");
    expect(peak >= 0.01 && rms_db >= -60.0, "level (silent or nearly)");
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "make" && argc == 7) {
        return make(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atof(argv[5]), std::atof(argv[6]));
    }
    if (command == "check" && argc == 7) {
        return check(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atoll(argv[5]), argv[6]);
    }
    std::fprintf(stderr,
                 "usage: conference_wav_tool make PATH RATE CHANNELS SECONDS FREQUENCY\n"
                 "       conference_wav_tool check PATH RATE CHANNELS FRAMES float|pcm16\n");
    return 2;
}
