// WAV files through libsndfile: talker files in, listener files out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

// Audio held by the host: interleaved float frames.
struct audio_clip {
    int rate = 0;
    int channels = 0;
    std::vector<float> samples; // frames × channels, interleaved

    int64_t frames() const {
        return channels > 0 ? static_cast<int64_t>(samples.size()) / channels : 0;
    }
};

// Reads any file libsndfile understands, converted to float in [-1, 1].
bool read_wav(const std::string& path, audio_clip& out, std::string& message);

// Interleaved samples of one type; a float file for float and double samples,
// 16-bit PCM for shorts (written as they are, no rescaling).
bool write_wav(const std::string& path, int rate, int channels, const std::vector<float>& samples,
               std::string& message);
bool write_wav(const std::string& path, int rate, int channels, const std::vector<double>& samples,
               std::string& message);
bool write_wav(const std::string& path, int rate, int channels, const std::vector<int16_t>& samples,
               std::string& message);

} // namespace quelora::conference
