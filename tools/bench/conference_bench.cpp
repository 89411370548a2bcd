// quelora_conference_bench (make bench): how many talkers one thread can
// serve in real time. R rooms of P regular mono participants, all talking;
// per 10 ms period every participant makes one input and one output call
// through the public C interface, and the real-time factor (RTF) is the wall
// time of one period's calls divided by 10 ms. Sweeps P (R = 1), searches the
// largest P that stays below RTF 1.0 (P_max), then a few room counts and the
// resampling variants. Writes a table to standard output and JSON to
// out/bench.json (--out). Speed is reported here, never asserted.
//
//   quelora_conference_bench [--quick] [--cpu-time] [--out FILE] [--max-participants N]
//                            [--seconds S]
#include "bench_report.h"
#include "conference_scenario.h"

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
    int32_t max_participants = 512; // the search cap (memory grows as P^2)
    double seconds = 1.0;           // timed wall time per configuration
};

void usage(std::FILE* to) {
    std::fputs("usage: quelora_conference_bench [--quick] [--cpu-time] [--out FILE]"
               " [--max-participants N] [--seconds S]\n"
               "  --quick               a short run (CI smoke test): small rooms, few blocks\n"
               "  --cpu-time            search P_max on the thread's CPU time per period instead\n"
               "                        of wall time (for a shared, loaded machine)\n"
               "  --out FILE            JSON report (default out/bench.json)\n"
               "  --max-participants N  upper limit of the P_max search (default 512)\n"
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

// What one run measures: --quick keeps every part but shrinks it to a smoke
// test of well under a second.
struct plan {
    bench::run_length length;
    int32_t cap;                        // largest P of the sweep and the search
    std::vector<int32_t> room_counts;   // R of the rooms grid
    std::vector<int32_t> room_sizes;    // P of the rooms grid
    std::vector<int32_t> variant_sizes; // P of the resampling, 3D and ANC variants
};

plan make_plan(const options& o) {
    if (o.quick) return {{2, 5, 10, 0.01}, std::min(o.max_participants, 8), {2}, {4}, {4}};
    return {{20, 50, 5000, o.seconds}, o.max_participants, {2, 4, 8}, {8, 16, 32}, {16, 64}};
}

class bench_run {
public:
    explicit bench_run(const options& o) : plan_(make_plan(o)), cpu_time_(o.cpu_time) {
        report_.quick = o.quick;
        report_.p_max.cpu_time = o.cpu_time;
    }

    const bench::report& result() const { return report_; }

    // Sweep P = 2, 4, 8 ... (R = 1) until the RTF reaches 1.0 or the cap,
    // then bisect between the last P below 1.0 and the first at or above it.
    bool sweep_and_search() {
        int32_t below = 0, over = 0;
        double rtf = 0.0;
        for (int32_t p = 2; p <= plan_.cap && over == 0; p *= 2) {
            if (!measure_single_room(p, "sweep", rtf)) return false;
            (rtf >= 1.0 ? over : below) = p;
        }
        if (over == 0 && below < plan_.cap) { // a cap that is not a power of two
            if (!measure_single_room(plan_.cap, "sweep", rtf)) return false;
            (rtf >= 1.0 ? over : below) = plan_.cap;
        }
        while (below > 0 && over > below + 1) {
            const int32_t p = below + (over - below) / 2;
            if (!measure_single_room(p, "search", rtf)) return false;
            (rtf >= 1.0 ? over : below) = p;
        }
        record_p_max(below, over);
        return true;
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
    // both, 3D mixing switched on, and the DFN noise canceller on for every
    // talker; the sweep has the plain 48 kHz rows.
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

    bool measure_single_room(int32_t participants, const char* group, double& rtf) {
        bench::measurement m;
        if (!measure({group, 1, participants}, m)) return false;
        rtf = criterion(m);
        single_room_[participants] = m;
        return true;
    }

    void record_p_max(int32_t below, int32_t over) {
        bench::p_max_result& result = report_.p_max;
        result.found = below > 0;
        result.capped = over == 0;
        result.first_over = over;
        if (result.found) {
            const bench::measurement& m = single_room_.at(below);
            result.participants = below;
            result.rtf_mean = m.rtf_mean();
            result.rtf_p99 = m.rtf_p99();
            result.rtf_cpu = m.rtf_cpu();
        }
        for (const auto& [p, m] : single_room_) {
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
                " CPU time instead\n\n");
    bench::print_header();
    bench_run run(o);
    const bool measured = run.sweep_and_search() && run.rooms() && run.variants();
    bench::print_p_max(run.result().p_max);
    std::string error;
    if (!bench::write_json(run.result(), o.out, error)) {
        std::fprintf(stderr, "quelora_conference_bench: %s\n", error.c_str());
        return 1;
    }
    std::printf("\nJSON written to %s\n", o.out.c_str());
    return measured ? 0 : 1;
}
