#include "speech_like_signal.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace quelora::conference {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr int rate = 22050;
constexpr double bandwidth = 4000.0; // Hz, about a telephone voice

struct vowel {
    double f1, f2; // first two formants, Hz
};
constexpr vowel vowels[] = {{730, 1090}, {270, 2290}, {300, 870}, {530, 1840}, {570, 840}};

// Harmonic amplitude under two resonances of 90 Hz and 120 Hz bandwidth.
double formant_gain(double frequency, const vowel& v) {
    const auto peak = [frequency](double centre, double width) {
        const double d = (frequency - centre) / width;
        return 1.0 / (1.0 + d * d);
    };
    return peak(v.f1, 90.0) + 0.6 * peak(v.f2, 120.0) + 0.02;
}

} // namespace

audio_clip speech_like_signal(int talker_index, double seconds) {
    audio_clip clip;
    clip.rate = rate;
    clip.channels = 1;
    clip.samples.assign(static_cast<size_t>(seconds * rate), 0.0f);

    uint32_t state = 2654435761u * static_cast<uint32_t>(talker_index + 1);
    const auto next = [&state]() { // small LCG: the same talker every run
        state = state * 1664525u + 1013904223u;
        return static_cast<double>(state >> 8) / static_cast<double>(1u << 24);
    };
    const double base_pitch = 105.0 + 40.0 * (talker_index % 4) + (talker_index % 2 ? 60.0 : 0.0);

    size_t position = static_cast<size_t>(0.1 * rate);
    double phase = 0.0;
    while (position < clip.samples.size()) {
        const int syllables = 2 + static_cast<int>(next() * 3.0); // one "word"
        for (int s = 0; s < syllables && position < clip.samples.size(); ++s) {
            const vowel& v = vowels[static_cast<size_t>(next() * 5.0) % 5];
            const auto length = static_cast<size_t>((0.14 + 0.12 * next()) * rate);
            const double pitch_start = base_pitch * (0.9 + 0.25 * next());
            const double pitch_end = base_pitch * (0.85 + 0.2 * next());
            for (size_t i = 0; i < length && position + i < clip.samples.size(); ++i) {
                const double t = static_cast<double>(i) / static_cast<double>(length);
                const double pitch = pitch_start + (pitch_end - pitch_start) * t;
                phase += 2.0 * pi * pitch / rate;
                double sample = 0.0;
                for (int h = 1; h * pitch < bandwidth; ++h) {
                    // Fading towards the band edge, so a harmonic that crosses
                    // it while the pitch glides does not click in or out.
                    const double fade = 1.0 - h * pitch / bandwidth;
                    sample += fade * formant_gain(h * pitch, v) * std::sin(h * phase) / std::sqrt(h);
                }
                const double envelope = std::sin(pi * t); // one syllable's rise and fall
                clip.samples[position + i] = static_cast<float>(sample * envelope);
            }
            position += length;
        }
        position += static_cast<size_t>((0.08 + 0.15 * next()) * rate); // pause between words
    }

    float peak = 0.0f;
    for (float s : clip.samples) peak = std::max(peak, std::fabs(s));
    if (peak > 0.0f) {
        for (float& s : clip.samples) s *= 0.5f / peak;
    }
    return clip;
}

} // namespace quelora::conference
