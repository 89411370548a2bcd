// quelora_conference_bench (make bench): how many talkers one thread can
// serve in real time. R rooms of P regular mono participants, all talking;
// per 10 ms period every participant makes one input and one output call
// through the public C interface, and the real-time factor (RTF) is the wall
// time of one period's calls divided by 10 ms. Sweeps P (R = 1), searches the
// largest P that stays below RTF 1.0 (P_max), then the same with 3D and
// reverb on for everybody at spatial qualities 1 and 3, then with the DFN
// noise canceller on for every talker, then a few room counts and the
// resampling variants. Last, what one listener-source pair of the
// binaural renderer costs and the rate the 3D runs reached against this
// core's measured peak (pair_cost.h). Writes a table to standard output and
// JSON to out/bench.json (--out). Speed is reported here, never asserted.
//
//   quelora_conference_bench [--quick] [--cpu-time] [--out FILE] [--max-participants N]
//                            [--seconds S]
#include "bench_report.h"
#include "conference_scenario.h"
#include "machine_peak.h"
#include "pair_cost.h"

#include <quelora/quelora.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace bench = quelora::bench;

namespace {

struct options {
    bool quick = false;
    bool help = false;
    bool cpu_time = false;          // search P_max on CPU time instead of wall time
    std::string out = "out/bench.json";
    int32_t max_participants = 512; // the searches' cap (memory grows as P^2)
    double seconds = 1.0;           // timed wall time per configuration
};

void usage(std::FILE* to) {
    std::fputs("usage: quelora_conference_bench [--quick] [--cpu-time] [--out FILE]"
               " [--max-participants N] [--seconds S]\n"
               "  --quick               a short run (CI smoke test): small rooms, few blocks\n"
               "  --cpu-time            search P_max (plain and 3D) on the thread's CPU time\n"
               "                        per period instead of wall time (for a shared, loaded\n"
               "                        machine)\n"
               "  --out FILE            JSON report (default out/bench.json)\n"
               "  --max-participants N  upper limit of the P_max searches (default 512)\n"
               "  --seconds S           timed wall time per configuration (default 1.0)\n",
               to);
}

bool parse(int argc, char** argv, options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--quick") {
            o.quick = true;
        } else if (arg == "--cpu-time") {
            o.cpu_time = true;
        } else if (arg == "--out" && has_value) {
            o.out = argv[++i];
        } else if (arg == "--max-participants" && has_value) {
            o.max_participants = std::atoi(argv[++i]);
        } else if (arg == "--seconds" && has_value) {
            o.seconds = std::atof(argv[++i]);
        } else {
            return false;
        }
    }
    return o.max_participants >= 2 && o.seconds > 0.0;
}

// The spatial qualities searched with 3D on, and the room each should carry
// in real time on one core.
struct spatial_search {
    int32_t quality;
    int32_t target;
};
constexpr spatial_search spatial_searches[] = {{1, 64}, {3, 32}};

// What one run measures: --quick keeps every part but shrinks it to a smoke
// test of a second or two.
struct plan {
    bench::run_length length;
    int32_t cap;                        // largest P of the sweep and the search
    int32_t spatial_cap;                // the same for the 3D searches
    std::vector<int32_t> room_counts;   // R of the rooms grid
    std::vector<int32_t> room_sizes;    // P of the rooms grid
    std::vector<int32_t> variant_sizes; // P of the resampling, 3D and ANC variants
    double peak_seconds;                // CPU time per figure of the core's peak
};

plan make_plan(const options& o) {
    if (o.quick) {
        return {{2, 5, 10, 0.01}, std::min(o.max_participants, 8),
                std::min(o.max_participants, 4), {2}, {4}, {4}, 0.01};
    }
    return {{20, 50, 5000, o.seconds}, o.max_participants, o.max_participants, {2, 4, 8},
            {8, 16, 32}, {16, 64}, 0.2};
}

std::string command_line(int argc, char** argv) {
    std::string line;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) line += ' ';
        line += argv[i];
    }
    return line;
}

class bench_run {
public:
    bench_run(const options& o, std::string command)
        : plan_(make_plan(o)), cpu_time_(o.cpu_time) {
        report_.quick = o.quick;
        report_.command = std::move(command);
        report_.p_max.cpu_time = o.cpu_time;
    }

    const bench::report& result() const { return report_; }

    // The plain mix: sweep and search, the single-room rows kept for rooms().
    bool sweep_and_search() {
        return search({"sweep", 1, 2}, "search", plan_.cap, single_room_, report_.p_max);
    }

    // The same with 3D and reverb on for everybody, per searched quality.
    bool spatial_sweeps_and_searches() {
        for (const spatial_search& s : spatial_searches) {
            bench::p_max_result result;
            result.cpu_time = cpu_time_;
            result.mixing_3d = true;
            result.spatial_quality = s.quality;
            result.target = s.target;
            bench::scenario base{"3d-swp", 1, 2, 48000, 48000, true};
            base.spatial_quality = s.quality;
            std::map<int32_t, bench::measurement> rows;
            if (!search(base, "3d-srch", plan_.spatial_cap, rows, result)) return false;
            report_.spatial_p_max.push_back(result);
            if (result.found) {
                report_.achieved.push_back(bench::achieved_at(
                    s.quality, result.participants, result.rtf_cpu * result.period_seconds,
                    report_.peak));
            }
        }
        return true;
    }

    // The DFN noise canceller on for every talker: how many such talkers the
    // one thread carries, held against 45.
    bool noise_cancellation_search() {
        bench::p_max_result& result = report_.noise_cancellation_p_max;
        result.cpu_time = cpu_time_;
        result.noise_cancellation = true;
        result.target = 45;
        const bench::scenario base{"anc-swp", 1, 2, 48000, 48000, false, true};
        std::map<int32_t, bench::measurement> rows;
        return search(base, "anc-srch", plan_.spatial_cap, rows, result);
    }

    // This core's peak, against which the 3D runs are set (before them, so
    // that print order follows what was measured).
    void measure_peak() {
        report_.peak = bench::measure_core_peak(plan_.peak_seconds, bench::default_read_sizes());
    }

    // Several rooms served by the one thread; a configuration whose single
    // room already predicts a period beyond 3 x real time is skipped.
    bool rooms() {
        for (int32_t r : plan_.room_counts) {
            for (int32_t p : plan_.room_sizes) {
                const auto known = single_room_.find(p);
                if (known != single_room_.end() && r * criterion(known->second) > 3.0) continue;
                bench::measurement m;
                if (!measure({"rooms", r, p}, m)) return false;
            }
        }
        return true;
    }

    // Input resampler (16 kHz talkers), output resampler (16 kHz output),
    // both, 3D mixing switched on (quality 3), and the DFN noise canceller on
    // for every talker; the sweep has the plain 48 kHz rows.
    bool variants() {
        for (int32_t p : plan_.variant_sizes) {
            const bench::scenario configs[] = {{"variant", 1, p, 16000, 48000, false},
                                               {"variant", 1, p, 48000, 16000, false},
                                               {"variant", 1, p, 16000, 16000, false},
                                               {"variant", 1, p, 48000, 48000, true},
                                               {"variant", 1, p, 48000, 48000, false, true}};
            for (const auto& s : configs) {
                bench::measurement m;
                if (!measure(s, m)) return false;
            }
        }
        return true;
    }

private:
    double criterion(const bench::measurement& m) const {
        return cpu_time_ ? m.rtf_cpu() : m.rtf_mean();
    }

    // Sweeps P = 2, 4, 8 ... (R = 1, the rest as in `base`) until the RTF
    // reaches 1.0 or the cap, then bisects between the last P below 1.0 and
    // the first at or above it; sweep rows are named as `base`, bisection rows
    // `search_group`.
    bool search(const bench::scenario& base, const char* search_group, int32_t cap,
                std::map<int32_t, bench::measurement>& rows, bench::p_max_result& result) {
        int32_t below = 0, over = 0;
        const auto step = [&](int32_t p, const std::string& group) {
            bench::scenario s = base;
            s.name = group;
            s.participants = p;
            bench::measurement m;
            if (!measure(s, m)) return false;
            rows[p] = m;
            (criterion(m) >= 1.0 ? over : below) = p;
            return true;
        };
        for (int32_t p = 2; p <= cap && over == 0; p *= 2) {
            if (!step(p, base.name)) return false;
        }
        // A cap that is not a power of two.
        if (over == 0 && below < cap && !step(cap, base.name)) return false;
        while (below > 0 && over > below + 1) {
            if (!step(below + (over - below) / 2, search_group)) return false;
        }
        record_p_max(rows, below, over, result);
        return true;
    }

    // Measures, prints and keeps one configuration; false if the library
    // refused it or an audio call failed.
    bool measure(const bench::scenario& s, bench::measurement& m) {
        std::string error;
        if (!bench::run_scenario(s, plan_.length, m, error)) {
            std::fprintf(stderr, "quelora_conference_bench: R=%d P=%d: %s\n", s.rooms,
                         s.participants, error.c_str());
            return false;
        }
        bench::print_row(m);
        report_.results.push_back(m);
        if (m.failed_calls != 0) {
            std::fprintf(stderr, "quelora_conference_bench: R=%d P=%d: %lld audio calls failed\n",
                         s.rooms, s.participants, static_cast<long long>(m.failed_calls));
            return false;
        }
        return true;
    }

    static void record_p_max(const std::map<int32_t, bench::measurement>& rows, int32_t below,
                             int32_t over, bench::p_max_result& result) {
        result.found = below > 0;
        result.capped = over == 0;
        result.first_over = over;
        if (result.found) {
            const bench::measurement& m = rows.at(below);
            result.participants = below;
            result.period_seconds = m.period_seconds;
            result.rtf_mean = m.rtf_mean();
            result.rtf_p99 = m.rtf_p99();
            result.rtf_cpu = m.rtf_cpu();
        }
        for (const auto& [p, m] : rows) {
            if (m.rtf_p99() < 1.0) result.participants_p99 = std::max(result.participants_p99, p);
            if (m.rtf_cpu() < 1.0) result.participants_cpu = std::max(result.participants_cpu, p);
        }
    }

    plan plan_;
    bool cpu_time_;
    bench::report report_;
    std::map<int32_t, bench::measurement> single_room_; // R = 1, 48 kHz, by P
};

} // namespace

int main(int argc, char** argv) {
    options o;
    if (!parse(argc, argv, o)) {
        usage(stderr);
        return 2;
    }
    if (o.help) {
        usage(stdout);
        return 0;
    }
    // Warnings and errors only: the per-call information lines would be timed too.
    qel_set_log_level(QEL_LOG_WARNING);
    std::printf("quelora_conference_bench %s: one thread, 10 ms blocks, stereo interleaved float"
                " output%s\n",
                qel_get_version(), o.quick ? " (quick)" : "");
    bench::print_machine();
    std::printf("RTF = wall time of one period's audio calls / 10 ms; RTF cpu uses this thread's"
                " CPU time instead; Q = spatial quality; participants sit on a circle of radius"
                " %d units\n\n",
                bench::seat_radius);
    bench_run run(o, command_line(argc, argv));
    run.measure_peak();
    bench::print_header();
    const bool measured = run.sweep_and_search() && run.spatial_sweeps_and_searches() &&
                          run.noise_cancellation_search() && run.rooms() && run.variants();
    const bench::report& report = run.result();
    bench::print_p_max(report.p_max);
    for (const auto& p : report.spatial_p_max) bench::print_p_max(p);
    bench::print_p_max(report.noise_cancellation_p_max);
    bench::print_pair_sizes();
    bench::print_core_peak(report.peak);
    bench::print_achieved(report.achieved);
    std::printf("\nmade by: %s\n", report.command.c_str());
    std::string error;
    if (!bench::write_json(report, o.out, error)) {
        std::fprintf(stderr, "quelora_conference_bench: %s\n", error.c_str());
        return 1;
    }
    std::printf("\nJSON written to %s\n", o.out.c_str());
    return measured ? 0 : 1;
}
