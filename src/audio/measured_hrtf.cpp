#include "audio/measured_hrtf.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <numeric>
#include <stdexcept>

namespace quelora {

namespace {

static_assert(sizeof(float) == 4 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the blob is stored as little-endian float32 and int16");

constexpr std::size_t header_bytes = 24;
// The generator cuts every response at 2048 taps; a larger count is no blob
// of ours, and the bound keeps every size below computable in 64 bits.
constexpr uint32_t max_taps = 2048;
// Directions within this of each other in cosine (1e-6 degrees near the
// nearest one) are a tie: rounding must not decide which index wins.
constexpr double tie = 1e-12;

uint32_t read_u32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void unit_vector(double azimuth, double elevation, double* v) {
    const double a = azimuth * std::numbers::pi / 180.0;
    const double e = elevation * std::numbers::pi / 180.0;
    v[0] = std::cos(e) * std::cos(a);
    v[1] = std::cos(e) * std::sin(a);
    v[2] = std::sin(e);
}

} // namespace

bool measured_hrtf_set::parse(const unsigned char* data, std::size_t size) {
    *this = measured_hrtf_set();
    // The sections are read in place as float and int16.
    if (data == nullptr || reinterpret_cast<std::uintptr_t>(data) % 4 != 0) return false;
    if (size < header_bytes || std::memcmp(data, "QLHRTF01", 8) != 0) return false;
    const uint32_t count = read_u32(data + 8);
    const uint32_t taps = read_u32(data + 12);
    const uint32_t name_bytes = read_u32(data + 16);
    if (count == 0 || count > INT32_MAX || taps == 0 || taps > max_taps || read_u32(data + 20) != 0)
        return false;
    const uint64_t name_end = header_bytes + uint64_t{name_bytes};
    const uint64_t azimuths = (name_end + 3) / 4 * 4;
    const uint64_t elevations = azimuths + 4 * uint64_t{count};
    const uint64_t scales = elevations + 4 * uint64_t{count};
    const uint64_t samples = scales + 8 * uint64_t{count};
    const uint64_t end = samples + 4 * uint64_t{count} * taps;
    if (end != size) return false;
    for (uint64_t i = name_end; i < azimuths; ++i)
        if (data[i] != 0) return false;

    const auto* azimuth = reinterpret_cast<const float*>(data + azimuths);
    const auto* elevation = reinterpret_cast<const float*>(data + elevations);
    const auto* scale = reinterpret_cast<const float*>(data + scales);
    for (uint32_t d = 0; d < count; ++d) {
        if (!(azimuth[d] >= 0.0f && azimuth[d] < 360.0f) || !(std::fabs(elevation[d]) <= 90.0f) ||
            !(scale[2 * d] >= 0.0f && std::isfinite(scale[2 * d])) ||
            !(scale[2 * d + 1] >= 0.0f && std::isfinite(scale[2 * d + 1])))
            return false;
    }

    name_ = std::string_view(reinterpret_cast<const char*>(data + header_bytes), name_bytes);
    count_ = static_cast<int32_t>(count);
    taps_ = static_cast<int32_t>(taps);
    azimuth_ = azimuth;
    elevation_ = elevation;
    scale_ = scale;
    samples_ = reinterpret_cast<const int16_t*>(data + samples);
    unit_vectors_.resize(3 * std::size_t{count});
    for (uint32_t d = 0; d < count; ++d)
        unit_vector(azimuth[d], elevation[d], &unit_vectors_[3 * d]);
    by_elevation_.resize(count);
    std::iota(by_elevation_.begin(), by_elevation_.end(), 0);
    std::stable_sort(by_elevation_.begin(), by_elevation_.end(),
                     [&](int32_t a, int32_t b) { return elevation[a] < elevation[b]; });
    sorted_elevation_.resize(count);
    for (uint32_t i = 0; i < count; ++i) sorted_elevation_[i] = elevation[by_elevation_[i]];
    return true;
}

void measured_hrtf_set::decode(int32_t direction, int32_t ear, float* out) const {
    if (direction < 0 || direction >= count_ || ear < 0 || ear > 1)
        throw std::out_of_range("measured_hrtf_set::decode: no such direction or ear");
    const std::size_t response = 2 * static_cast<std::size_t>(direction) + ear;
    const int16_t* samples = samples_ + response * static_cast<std::size_t>(taps_);
    const float scale = scale_[response];
    for (int32_t i = 0; i < taps_; ++i) out[i] = static_cast<float>(samples[i]) * scale;
}

int32_t measured_hrtf_set::nearest(float azimuth, float elevation) const {
    if (count_ == 0) return -1;
    double query[3];
    unit_vector(azimuth, elevation, query);
    const auto cosine = [&](int32_t sorted) {
        const double* v = &unit_vectors_[3 * static_cast<std::size_t>(by_elevation_[sorted])];
        return v[0] * query[0] + v[1] * query[1] + v[2] * query[2];
    };
    // Widen a window of elevations around the query's, nearer side first,
    // until both sides lie further away than the best candidate (the room
    // model asks some 20 000 times per initialisation; this looks at a few
    // rows of the 710 KEMAR directions instead of all of them).
    const double e = std::clamp(static_cast<double>(elevation), -90.0, 90.0);
    const auto start = std::lower_bound(sorted_elevation_.begin(), sorted_elevation_.end(), e);
    int32_t low = static_cast<int32_t>(start - sorted_elevation_.begin()) - 1;
    int32_t high = low + 1;
    double best_cosine = -2.0;
    double reach = 360.0; // degrees from the query beyond which nothing can beat the best
    while (true) {
        const double below = low >= 0 ? e - sorted_elevation_[low] : 1e9;
        const double above = high < count_ ? sorted_elevation_[high] - e : 1e9;
        if (std::min(below, above) > reach) break;
        const int32_t next = below <= above ? low-- : high++;
        const double c = cosine(next);
        if (c > best_cosine) {
            best_cosine = c;
            reach = std::acos(std::clamp(c, -1.0, 1.0)) * 180.0 / std::numbers::pi + 1e-3;
        }
    }
    // Of the directions looked at, the lowest index within the tie margin.
    int32_t best = -1;
    for (int32_t i = low + 1; i < high; ++i) {
        if (cosine(i) >= best_cosine - tie && (best < 0 || by_elevation_[i] < best)) {
            best = by_elevation_[i];
        }
    }
    return best;
}

const measured_hrtf_set& measured_hrtf_set::compiled_in() {
    static const measured_hrtf_set set = [] {
        measured_hrtf_set parsed;
        const std::span<const unsigned char> blob = measured_hrtf_blob();
        if (!parsed.parse(blob.data(), blob.size())) {
            std::fprintf(stderr,
                         "quelora: the compiled-in head-related responses (%zu bytes) are "
                         "malformed; rebuild the library (tools/hrtf_data)\n",
                         blob.size());
            std::abort();
        }
        return parsed;
    }();
    return set;
}

} // namespace quelora
