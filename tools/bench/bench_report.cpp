#include "bench_report.h"

#include <quelora/quelora.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#ifndef QUELORA_BENCH_BUILD_TYPE
#define QUELORA_BENCH_BUILD_TYPE "unknown"
#endif

namespace quelora::bench {

namespace {

using json = nlohmann::ordered_json;

constexpr double ms = 1000.0;

std::string first_line_value(const char* path, const std::string& key) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(key, 0) != 0) continue;
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        const auto start = line.find_first_not_of(" \t", colon + 1);
        return start == std::string::npos ? std::string() : line.substr(start);
    }
    return "unknown";
}

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return in ? one + " " + five + " " + fifteen : "unknown";
}

std::string utc_now() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

int64_t audio_calls(const measurement& m) {
    return 2 * static_cast<int64_t>(m.config.rooms) * m.config.participants;
}

json to_json(const measurement& m) {
    return json{{"group", m.config.name},
                {"rooms", m.config.rooms},
                {"participants", m.config.participants},
                {"total_participants", m.config.rooms * m.config.participants},
                {"input_rate", m.config.input_rate},
                {"output_rate", m.config.output_rate},
                {"mixing_3d", m.config.mixing_3d},
                {"noise_cancellation", m.config.noise_cancellation},
                {"spatial_quality", m.config.spatial_quality},
                {"blocks", m.blocks},
                {"audio_calls_per_period", audio_calls(m)},
                {"period_ms", m.period_seconds * ms},
                {"mean_ms", m.mean_seconds * ms},
                {"p50_ms", m.p50_seconds * ms},
                {"p99_ms", m.p99_seconds * ms},
                {"max_ms", m.max_seconds * ms},
                {"us_per_call", m.mean_seconds * 1e6 / static_cast<double>(audio_calls(m))},
                {"rtf_mean", m.rtf_mean()},
                {"rtf_p99", m.rtf_p99()},
                {"cpu_mean_ms", m.cpu_mean_seconds * ms},
                {"rtf_cpu", m.rtf_cpu()},
                {"setup_s", m.setup_seconds},
                {"failed_calls", m.failed_calls}};
}

json to_json(const p_max_result& p) {
    return json{{"rooms", 1},
                {"input_rate", 48000},
                {"output_rate", 48000},
                {"mixing_3d", p.mixing_3d},
                {"noise_cancellation", p.noise_cancellation},
                {"reverb", p.mixing_3d},
                {"spatial_quality", p.spatial_quality},
                {"criterion", p.cpu_time ? "rtf_cpu < 1.0" : "rtf_mean < 1.0"},
                {"found", p.found},
                {"participants", p.participants},
                {"rtf_mean", p.rtf_mean},
                {"rtf_p99", p.rtf_p99},
                {"rtf_cpu", p.rtf_cpu},
                {"capped", p.capped},
                {"first_over", p.first_over},
                {"participants_p99", p.participants_p99},
                {"participants_cpu", p.participants_cpu},
                {"target", p.target},
                {"target_met", p.target > 0 && p.found && p.participants >= p.target}};
}

json to_json(const bounds& b) { return json{{"low", b.low}, {"high", b.high}}; }

// The per-pair sizes of every quality, the measured peak, and the rates the
// 3D P_max runs achieved against it.
json pair_cost_json(const report& r) {
    json sizes = json::array();
    for (int32_t q = 1; q <= 5; ++q) {
        const pair_sizes s = pair_sizes_for(q);
        sizes.push_back({{"spatial_quality", q},
                         {"taps", s.taps},
                         {"partitions", s.partitions},
                         {"bins", s.bins},
                         {"complex_macs_per_pair_block", s.complex_macs()},
                         {"multiply_adds_per_pair_block", s.multiply_adds()},
                         {"filter_bytes_per_pair_block", s.filter_bytes()}});
    }
    json reads = json::array();
    for (const read_rate& rate : r.peak.reads) {
        reads.push_back({{"bytes", rate.bytes}, {"bytes_per_second", rate.bytes_per_second}});
    }
    json achieved = json::array();
    for (const achieved_rate& a : r.achieved) {
        achieved.push_back({{"spatial_quality", a.sizes.quality},
                            {"participants", a.participants},
                            {"pairs", a.pairs},
                            {"near_pairs", a.near_pairs},
                            {"cpu_seconds_per_period", a.cpu_seconds},
                            {"multiply_adds_per_second", to_json(a.multiply_adds_per_second)},
                            {"fraction_of_multiply_add_peak", to_json(a.peak_fraction)},
                            {"filter_bytes_per_second", to_json(a.filter_bytes_per_second)},
                            {"working_set_bytes", a.working_set},
                            {"reference_read_buffer_bytes", a.reference.bytes},
                            {"fraction_of_read_rate", to_json(a.read_fraction)}});
    }
    return json{
        {"method",
         "per pair and block: 4 complex multiply-accumulates per bin and partition (4 real "
         "multiply-adds each), 2 ears x partitions x bins x 8 bytes of filter; achieved rates "
         "count every pair of the 3D P_max run (participants on a circle of radius 200 units), "
         "pairs at 100 units or less at one partition (low) or all (high), over the run's CPU "
         "time per period; peak: best of 5 runs of 12 independent 8-float FMA chains, and "
         "streaming reads (8 accumulators) over buffers of each size"},
        {"sizes", sizes},
        {"core_peak",
         {{"fma_kind", r.peak.fma_kind},
          {"multiply_adds_per_second", r.peak.multiply_adds},
          {"reads", reads}}},
        {"achieved", achieved}};
}

} // namespace

void print_machine() {
    std::printf("machine: %s, %u cores, load average %s\n",
                first_line_value("/proc/cpuinfo", "model name").c_str(),
                std::thread::hardware_concurrency(), load_average().c_str());
}

void print_header() {
    std::printf("%-7s %4s %4s %6s %6s %3s %3s %2s %6s %8s %8s %7s %7s %7s %7s\n", "group", "R",
                "P", "in Hz", "out Hz", "3D", "ANC", "Q", "blocks", "mean ms", "p99 ms", "RTF",
                "RTF p99", "RTF cpu", "us/call");
}

void print_row(const measurement& m) {
    std::printf("%-7s %4d %4d %6d %6d %3s %3s %2d %6d %8.3f %8.3f %7.4f %7.4f %7.4f %7.2f\n",
                m.config.name.c_str(), m.config.rooms, m.config.participants, m.config.input_rate,
                m.config.output_rate, m.config.mixing_3d ? "on" : "off",
                m.config.noise_cancellation ? "on" : "off", m.config.spatial_quality, m.blocks,
                m.mean_seconds * ms, m.p99_seconds * ms, m.rtf_mean(), m.rtf_p99(), m.rtf_cpu(),
                m.mean_seconds * 1e6 / static_cast<double>(audio_calls(m)));
    std::fflush(stdout);
}

void print_p_max(const p_max_result& p) {
    const char* criterion = p.cpu_time ? "CPU-time RTF" : "mean RTF";
    char what[96];
    if (p.mixing_3d) {
        std::snprintf(what, sizeof what, "3D and reverb on, quality %d, ", p.spatial_quality);
    } else if (p.noise_cancellation) {
        std::snprintf(what, sizeof what, "DFN noise cancellation on for every talker, ");
    } else {
        what[0] = '\0';
    }
    if (!p.found) {
        std::printf("\nP_max (R = 1, one thread, %s%s < 1.0): none, even 2 participants are not"
                    " real time\n", what, criterion);
    } else {
        std::printf("\nP_max (R = 1, one thread, %s%s < 1.0): %d participants (RTF %.3f, p99 %.3f,"
                    " CPU %.3f)%s\n",
                    what, criterion, p.participants, p.rtf_mean, p.rtf_p99, p.rtf_cpu,
                    p.capped ? " - the search cap, not the real-time limit" : "");
        if (p.first_over > 0) {
            std::printf("  smallest P measured at or above 1.0: %d\n", p.first_over);
        }
        std::printf("  largest P measured with p99 RTF < 1.0: %d; with CPU-time RTF < 1.0: %d\n",
                    p.participants_p99, p.participants_cpu);
    }
    if (p.target > 0) {
        std::printf("  target: at least %d participants: %s\n", p.target,
                    p.found && p.participants >= p.target ? "met"
                    : p.capped                            ? "not reached (capped search)"
                                                          : "not met");
    }
}

bool write_json(const report& r, const std::string& path, std::string& error) {
    json results = json::array();
    for (const auto& m : r.results) results.push_back(to_json(m));
    json spatial = json::array();
    for (const auto& p : r.spatial_p_max) spatial.push_back(to_json(p));
    const json document{
        {"tool", "quelora_conference_bench"},
        {"library_version", qel_get_version()},
        {"date", utc_now()},
        {"build_type", QUELORA_BENCH_BUILD_TYPE},
        {"compiler", __VERSION__},
        {"quick", r.quick},
        {"command", r.command},
        {"machine",
         {{"nproc", std::thread::hardware_concurrency()},
          {"cpu_model", first_line_value("/proc/cpuinfo", "model name")},
          {"load_average", load_average()}}},
        {"method",
         "one thread; per period, room after room: one qel_input_audio_float per participant, "
         "then one qel_output_audio_float per participant; RTF = wall time of one period's "
         "calls / block length (10 ms); rtf_cpu = this thread's CPU time per period / 10 ms"},
        {"results", results},
        {"p_max", to_json(r.p_max)},
        {"spatial_p_max", spatial},
        {"noise_cancellation_p_max", to_json(r.noise_cancellation_p_max)},
        {"pair_cost", pair_cost_json(r)}};
    const std::filesystem::path file(path);
    std::error_code ignored;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ignored);
    std::ofstream out(file);
    out << document.dump(2) << '\n';
    out.close();
    if (!out) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

} // namespace quelora::bench
