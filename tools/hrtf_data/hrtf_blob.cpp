#include "hrtf_blob.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace quelora::hrtf_data {

namespace {

// Appends little-endian values to a blob sized in advance.
class blob_writer {
public:
    explicit blob_writer(std::size_t size) : bytes_(size, 0) {}

    void bytes(const void* data, std::size_t size) {
        std::memcpy(bytes_.data() + at_, data, size);
        at_ += size;
    }
    void u32(uint32_t value) {
        const unsigned char le[4] = {
            static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
            static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
        bytes(le, 4);
    }
    void f32(float value) {
        uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        u32(bits);
    }
    void i16(int16_t value) {
        const auto bits = static_cast<uint16_t>(value);
        const unsigned char le[2] = {static_cast<unsigned char>(bits),
                                     static_cast<unsigned char>(bits >> 8)};
        bytes(le, 2);
    }
    void align4() { at_ = (at_ + 3) / 4 * 4; } // the padding is already zero

    std::vector<unsigned char> finish() && { return std::move(bytes_); }

private:
    std::vector<unsigned char> bytes_;
    std::size_t at_ = 0;
};

} // namespace

std::vector<unsigned char> serialise(const measured_set& set) {
    const std::size_t count = set.azimuth.size();
    const auto taps = static_cast<std::size_t>(set.taps);
    if (count == 0 || taps == 0 || set.elevation.size() != count ||
        set.responses.size() != count * 2 * taps)
        throw std::invalid_argument("serialise: the directions and responses do not agree");

    const std::size_t name_section = (set.name.size() + 3) / 4 * 4;
    blob_writer out(24 + name_section + count * (16 + 4 * taps));
    out.bytes("QLHRTF01", 8);
    out.u32(static_cast<uint32_t>(count));
    out.u32(static_cast<uint32_t>(taps));
    out.u32(static_cast<uint32_t>(set.name.size()));
    out.u32(0);
    out.bytes(set.name.data(), set.name.size());
    out.align4();
    for (float a : set.azimuth) out.f32(a);
    for (float e : set.elevation) out.f32(e);

    // The scale is stored as float and the samples are rounded against that
    // stored value, so decoding gives back the response to within half a step.
    std::vector<float> scales(2 * count);
    for (std::size_t r = 0; r < 2 * count; ++r) {
        const double* response = set.responses.data() + r * taps;
        double peak = 0.0;
        for (std::size_t i = 0; i < taps; ++i) peak = std::max(peak, std::fabs(response[i]));
        scales[r] = static_cast<float>(peak / 32767.0);
        out.f32(scales[r]);
    }
    for (std::size_t r = 0; r < 2 * count; ++r) {
        const double* response = set.responses.data() + r * taps;
        const double step = scales[r];
        for (std::size_t i = 0; i < taps; ++i) {
            const double level = step > 0.0 ? std::round(response[i] / step) : 0.0;
            out.i16(static_cast<int16_t>(std::clamp(level, -32767.0, 32767.0)));
        }
    }
    return std::move(out).finish();
}

} // namespace quelora::hrtf_data
