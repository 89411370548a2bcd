#include "wav_io.h"

#include <sndfile.h>

namespace quelora::conference {

namespace {

// Owns an SNDFILE* so every early return closes it.
class sound_file {
public:
    sound_file(const std::string& path, int mode, SF_INFO& info)
        : file_(sf_open(path.c_str(), mode, &info)) {}
    ~sound_file() {
        if (file_ != nullptr) sf_close(file_);
    }
    sound_file(const sound_file&) = delete;
    sound_file& operator=(const sound_file&) = delete;

    SNDFILE* get() const { return file_; }
    // Closing can fail (a full disk shows up here), so writers close explicitly.
    bool close() {
        const int status = sf_close(file_);
        file_ = nullptr;
        return status == 0;
    }

private:
    SNDFILE* file_;
};

sf_count_t write_frames(SNDFILE* file, const float* data, sf_count_t frames) {
    return sf_writef_float(file, data, frames);
}
sf_count_t write_frames(SNDFILE* file, const double* data, sf_count_t frames) {
    return sf_writef_double(file, data, frames);
}
sf_count_t write_frames(SNDFILE* file, const int16_t* data, sf_count_t frames) {
    return sf_writef_short(file, data, frames);
}

template <typename Sample>
bool write_any(const std::string& path, int rate, int channels, const std::vector<Sample>& samples,
               int subtype, std::string& message) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | subtype;
    sound_file file(path, SFM_WRITE, info);
    if (file.get() == nullptr) {
        message = path + ": " + sf_strerror(nullptr);
        return false;
    }
    const auto frames = static_cast<sf_count_t>(samples.size()) / channels;
    if (write_frames(file.get(), samples.data(), frames) != frames) {
        message = path + ": " + sf_strerror(file.get());
        return false;
    }
    if (!file.close()) {
        message = path + ": could not be closed";
        return false;
    }
    return true;
}

} // namespace

bool read_wav(const std::string& path, audio_clip& out, std::string& message) {
    SF_INFO info{};
    sound_file file(path, SFM_READ, info);
    if (file.get() == nullptr) {
        message = path + ": " + sf_strerror(nullptr);
        return false;
    }
    if (info.channels < 1 || info.samplerate < 1 || info.frames < 0) {
        message = path + ": not an audio file with channels and a sampling rate";
        return false;
    }
    out.rate = info.samplerate;
    out.channels = info.channels;
    out.samples.assign(static_cast<size_t>(info.frames) * static_cast<size_t>(info.channels), 0.0f);
    const sf_count_t got = sf_readf_float(file.get(), out.samples.data(), info.frames);
    if (got < 0) {
        message = path + ": " + sf_strerror(file.get());
        return false;
    }
    out.samples.resize(static_cast<size_t>(got) * static_cast<size_t>(info.channels));
    return true;
}

bool write_wav(const std::string& path, int rate, int channels, const std::vector<float>& samples,
               std::string& message) {
    return write_any(path, rate, channels, samples, SF_FORMAT_FLOAT, message);
}

bool write_wav(const std::string& path, int rate, int channels, const std::vector<double>& samples,
               std::string& message) {
    return write_any(path, rate, channels, samples, SF_FORMAT_FLOAT, message);
}

bool write_wav(const std::string& path, int rate, int channels, const std::vector<int16_t>& samples,
               std::string& message) {
    return write_any(path, rate, channels, samples, SF_FORMAT_PCM_16, message);
}

} // namespace quelora::conference
