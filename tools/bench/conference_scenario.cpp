#include "conference_scenario.h"

#include "bench_signal.h"

#include <quelora/quelora.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

namespace quelora::bench {

namespace {

using clock_type = std::chrono::steady_clock;

constexpr double pi = 3.14159265358979323846;

double seconds_between(clock_type::time_point a, clock_type::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// Each talker's signal is looped over 8 blocks (80 ms; bench_signal.h makes
// the loop seamless), prepared before timing so that signal generation
// costs nothing inside a period.
constexpr int32_t loop_blocks = 8;

struct talker {
    uint32_t room;
    uint32_t id;
    std::vector<float> loop; // loop_blocks x input frames
};

class conference_run {
public:
    explicit conference_run(const scenario& config) : config_(config) {}
    ~conference_run() {
        if (handle_ != nullptr) qel_destroy_library(handle_);
    }
    conference_run(const conference_run&) = delete;
    conference_run& operator=(const conference_run&) = delete;

    bool set_up(std::string& error);
    // One block period of every room; returns the calls that failed.
    int64_t period(int64_t index);
    double period_seconds() const {
        return static_cast<double>(output_frames_) / static_cast<double>(config_.output_rate);
    }

private:
    bool check(int code, const char* what, std::string& error) const {
        if (code == QEL_ERROR_NONE) return true;
        error = std::string(what) + " failed: " + qel_error_code_to_string(code);
        return false;
    }

    scenario config_;
    qel_handle handle_ = nullptr;
    int32_t input_frames_ = 0;
    int32_t output_frames_ = 0;
    std::vector<talker> talkers_; // room after room
    std::vector<float> output_;   // one host output block, reused by every listener
};

bool conference_run::set_up(std::string& error) {
    output_frames_ = config_.output_rate / 100; // 10 ms blocks
    // The library's required input frames: output frames x input rate / output rate.
    input_frames_ = static_cast<int32_t>(static_cast<int64_t>(output_frames_) *
                                         config_.input_rate / config_.output_rate);
    const qel_library_configuration configuration{config_.output_rate, output_frames_, 2, true,
                                                  config_.spatial_quality};
    int code = QEL_ERROR_NONE;
    // A null layout path selects the built-in fallback layout.
    handle_ = qel_initialize_library_from_memory(nullptr, nullptr, configuration, &code);
    if (handle_ == nullptr) return check(code == QEL_ERROR_NONE ? -1 : code, "initialise", error);
    output_.assign(2 * static_cast<size_t>(output_frames_), 0.0f);
    int32_t index = 0;
    for (int32_t r = 0; r < config_.rooms; ++r) {
        const auto room = static_cast<uint32_t>(r + 1);
        if (!check(qel_create_room(handle_, room), "qel_create_room", error)) return false;
        for (int32_t p = 0; p < config_.participants; ++p, ++index) {
            const qel_participant_configuration participant{config_.input_rate, 1,
                                                            QEL_PARTICIPANT_REGULAR};
            const auto id = static_cast<uint32_t>(p + 1);
            if (!check(qel_add_participant(handle_, room, id, "talker", participant),
                       "qel_add_participant", error)) {
                return false;
            }
            talker t{room, id, std::vector<float>(loop_blocks * static_cast<size_t>(input_frames_))};
            talker_signal(index, config_.input_rate, 0, t.loop.data(), loop_blocks * input_frames_);
            talkers_.push_back(std::move(t));
            // The built-in layout is an open room, which takes free positions.
            const circle_seat seat = seat_on_circle(p, config_.participants);
            if (!check(qel_set_participant_position(handle_, room, id, {seat.x, 0, seat.z},
                                                    {seat.azimuth, 0}),
                       "qel_set_participant_position", error)) {
                return false;
            }
        }
        // Reverb is on by default; set anyway, since it decides the filter length.
        if (config_.mixing_3d &&
            (!check(qel_set_all_participants_state(handle_, room, QEL_CONTROL_MIXING_3D_ENABLE, 1),
                    "qel_set_all_participants_state", error) ||
             !check(qel_set_all_participants_state(handle_, room,
                                                   QEL_CONTROL_MIXING_3D_REVERB_ENABLE, 1),
                    "qel_set_all_participants_state", error))) {
            return false;
        }
        if (config_.noise_cancellation &&
            !check(qel_set_all_participants_state(handle_, room, QEL_CONTROL_ANC_ENABLE, 1),
                   "qel_set_all_participants_state", error)) {
            return false;
        }
    }
    return true;
}

int64_t conference_run::period(int64_t index) {
    const size_t offset = static_cast<size_t>(index % loop_blocks) * static_cast<size_t>(input_frames_);
    int64_t failed = 0;
    const auto per_room = static_cast<size_t>(config_.participants);
    for (size_t first = 0; first < talkers_.size(); first += per_room) {
        for (size_t t = first; t < first + per_room; ++t) {
            failed += qel_input_audio_float(handle_, talkers_[t].room, talkers_[t].id,
                                            talkers_[t].loop.data() + offset,
                                            input_frames_) != QEL_ERROR_NONE;
        }
        for (size_t t = first; t < first + per_room; ++t) {
            failed += qel_output_audio_float(handle_, talkers_[t].room, talkers_[t].id,
                                             output_.data()) != QEL_ERROR_NONE;
        }
    }
    return failed;
}

double thread_cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double percentile(const std::vector<double>& sorted, double fraction) {
    // Nearest rank: the smallest value with at least `fraction` of the
    // samples at or below it.
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

} // namespace

circle_seat seat_on_circle(int32_t p, int32_t count) {
    const double angle = 2.0 * pi * static_cast<double>(p) / static_cast<double>(count);
    circle_seat seat;
    seat.x = static_cast<int32_t>(std::lround(seat_radius * std::sin(angle)));
    seat.z = static_cast<int32_t>(std::lround(seat_radius * std::cos(angle)));
    // Azimuth is measured from +z towards +x; the centre lies along (-x, -z).
    seat.azimuth = static_cast<int32_t>(std::lround(
        std::atan2(-static_cast<double>(seat.x), -static_cast<double>(seat.z)) * 180.0 / pi));
    return seat;
}

bool run_scenario(const scenario& config, const run_length& length, measurement& result,
                  std::string& error) {
    result = measurement{};
    result.config = config;
    const auto setup_start = clock_type::now();
    conference_run run(config);
    if (!run.set_up(error)) return false;
    result.setup_seconds = seconds_between(setup_start, clock_type::now());
    result.period_seconds = run.period_seconds();

    int64_t index = 0;
    // Warm-up: queues reach their depth and caches fill; a failed call here
    // counts as much as a timed one.
    for (; index < length.warmup_blocks; ++index) result.failed_calls += run.period(index);

    std::vector<double> times;
    times.reserve(static_cast<size_t>(length.max_blocks));
    double spent = 0.0;
    const double cpu_start = thread_cpu_seconds();
    while (static_cast<int32_t>(times.size()) < length.max_blocks &&
           (static_cast<int32_t>(times.size()) < length.min_blocks || spent < length.target_seconds)) {
        const auto start = clock_type::now();
        result.failed_calls += run.period(index++);
        const double elapsed = seconds_between(start, clock_type::now());
        times.push_back(elapsed);
        spent += elapsed;
    }
    result.blocks = static_cast<int32_t>(times.size());
    result.mean_seconds = spent / static_cast<double>(times.size());
    // The loop's own bookkeeping is in the CPU time too; it is a few hundred
    // nanoseconds per period against microseconds of audio calls.
    result.cpu_mean_seconds = (thread_cpu_seconds() - cpu_start) / static_cast<double>(times.size());
    std::sort(times.begin(), times.end());
    result.p50_seconds = percentile(times, 0.50);
    result.p99_seconds = percentile(times, 0.99);
    result.max_seconds = times.back();
    return true;
}

} // namespace quelora::bench
