#include "pair_cost.h"

#include <cmath>
#include <cstdio>
#include <string>

namespace quelora::bench {

namespace {

constexpr int32_t block = 512; // 480 frames rounded up to a power of two
constexpr int32_t near_limit = 100;

// The distance the library stores for a pair (conference/place.cpp: the
// float length of the difference, truncated).
int32_t pair_distance(const circle_seat& a, const circle_seat& b) {
    const auto dx = static_cast<float>(b.x - a.x);
    const auto dz = static_cast<float>(b.z - a.z);
    return static_cast<int32_t>(std::sqrt(dx * dx + dz * dz));
}

std::string bytes_text(double bytes) {
    char text[32];
    if (bytes >= 1 << 20) {
        std::snprintf(text, sizeof text, "%.0f MiB", bytes / (1 << 20));
    } else {
        std::snprintf(text, sizeof text, "%.0f KiB", bytes / (1 << 10));
    }
    return text;
}

std::string range_text(const bounds& b, const char* format) {
    char low[32], high[32];
    std::snprintf(low, sizeof low, format, b.low);
    std::snprintf(high, sizeof high, format, b.high);
    std::string text = low;
    if (text != high) {
        text += '-';
        text += high;
    }
    return text;
}

} // namespace

pair_sizes pair_sizes_for(int32_t quality) {
    pair_sizes s;
    s.quality = quality;
    s.taps = 512 << (quality - 1);
    s.partitions = s.taps / block;
    s.bins = block + 1;
    return s;
}

achieved_rate achieved_at(int32_t quality, int32_t participants, double cpu_seconds,
                          const core_peak& peak) {
    achieved_rate r;
    r.sizes = pair_sizes_for(quality);
    r.participants = participants;
    r.cpu_seconds = cpu_seconds;
    for (int32_t listener = 0; listener < participants; ++listener) {
        const circle_seat here = seat_on_circle(listener, participants);
        for (int32_t source = 0; source < participants; ++source) {
            if (source == listener) continue;
            ++r.pairs;
            r.near_pairs += pair_distance(here, seat_on_circle(source, participants)) <= near_limit;
        }
    }
    const int64_t far_partitions = (r.pairs - r.near_pairs) * r.sizes.partitions;
    const double partitions_low = static_cast<double>(far_partitions + r.near_pairs);
    const double partitions_high = static_cast<double>(r.pairs * r.sizes.partitions);
    const auto per_second = [&](int64_t per_partition) {
        const double scale = static_cast<double>(per_partition) / cpu_seconds;
        return bounds{partitions_low * scale, partitions_high * scale};
    };
    r.multiply_adds_per_second = per_second(r.sizes.multiply_adds_per_partition());
    r.filter_bytes_per_second = per_second(r.sizes.filter_bytes_per_partition());
    r.peak_fraction = {r.multiply_adds_per_second.low / peak.multiply_adds,
                       r.multiply_adds_per_second.high / peak.multiply_adds};
    r.working_set = r.pairs * r.sizes.filter_bytes();
    r.reference = read_rate_for(peak, r.working_set);
    r.read_fraction = {r.filter_bytes_per_second.low / r.reference.bytes_per_second,
                       r.filter_bytes_per_second.high / r.reference.bytes_per_second};
    return r;
}

void print_core_peak(const core_peak& peak) {
    std::printf("\nThis core, measured (best of 5, thread CPU time): %.1f G multiply-adds/s"
                " (%s: 12 independent chains of 8-float FMAs); streaming reads:",
                peak.multiply_adds * 1e-9, peak.fma_kind.c_str());
    for (const read_rate& r : peak.reads) {
        std::printf(" %s %.1f GB/s%s", bytes_text(static_cast<double>(r.bytes)).c_str(),
                    r.bytes_per_second * 1e-9, &r == &peak.reads.back() ? "\n" : ",");
    }
}

void print_pair_sizes() {
    std::printf("\nPer listener-source pair and block, every partition convolved (48000 Hz, 480"
                " frames: partitions of %d taps, %d bins):\n",
                block, block + 1);
    std::printf("%7s %5s %10s %12s %13s %12s\n", "quality", "taps", "partitions", "complex MACs",
                "multiply-adds", "filter bytes");
    for (int32_t q = 1; q <= 5; ++q) {
        const pair_sizes s = pair_sizes_for(q);
        std::printf("%7d %5d %10d %12lld %13lld %12lld\n", q, s.taps, s.partitions,
                    static_cast<long long>(s.complex_macs()),
                    static_cast<long long>(s.multiply_adds()),
                    static_cast<long long>(s.filter_bytes()));
    }
    std::printf("(a pair at 100 units or less convolves only the direct sound's partitions)\n");
}

void print_achieved(const std::vector<achieved_rate>& rates) {
    if (rates.empty()) return;
    std::printf("\nAchieved at the 3D P_max, over the run's CPU time per period (which holds"
                " everything else too, so the kernel alone runs faster); ranges: pairs at 100"
                " units or less at one partition .. at all:\n");
    std::printf("%7s %4s %6s %5s %8s %16s %13s %12s %10s %14s\n", "quality", "P", "pairs", "near",
                "CPU ms", "multiply-adds/s", "of FMA peak", "filter GB/s", "work set",
                "of read rate");
    for (const achieved_rate& r : rates) {
        std::string reference = "(";
        reference += bytes_text(static_cast<double>(r.reference.bytes));
        reference += ')';
        std::printf("%7d %4d %6lld %5lld %8.3f %16s %13s %12s %10s %9s %s\n", r.sizes.quality,
                    r.participants, static_cast<long long>(r.pairs),
                    static_cast<long long>(r.near_pairs), r.cpu_seconds * 1e3,
                    range_text({r.multiply_adds_per_second.low * 1e-9,
                                r.multiply_adds_per_second.high * 1e-9},
                               "%.2fG")
                        .c_str(),
                    range_text(r.peak_fraction, "%.3f").c_str(),
                    range_text({r.filter_bytes_per_second.low * 1e-9,
                                r.filter_bytes_per_second.high * 1e-9},
                               "%.2f")
                        .c_str(),
                    bytes_text(static_cast<double>(r.working_set)).c_str(),
                    range_text(r.read_fraction, "%.3f").c_str(), reference.c_str());
    }
}

} // namespace quelora::bench
