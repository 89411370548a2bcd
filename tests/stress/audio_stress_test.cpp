// Concurrency stress of the audio path (spec Parts 4.1 and 4.2 under the lock
// order of the Overview's "Threads and locks") through the C interface only.
//
// One library (48 kHz, 480 frames, stereo, interleaved). Room 1 uses closed
// layouts with eight seats and holds six long-lived participants of mixed
// formats and types, each driven by a host thread of its own that makes, per
// block period, one input call and one output call (short, float and double
// mixed). Room 2 is open and has two participants with host threads of their
// own. A third host thread talks and listens for the extra participants of
// room 1, and one control thread meanwhile adds and removes those extras,
// changes controls (mute, whisper and sidebar rooms, master gain, 3D, stereo
// bypass, device), seats and positions, switches room 1 between two layouts,
// flushes queues, and destroys and re-creates room 2 with its members.
//
// Checks: every call returns one of the codes documented for it in the
// situation the test can know (the control thread is the only one that
// changes membership, so its own calls have exact expectations; host calls on
// a participant or room that may be gone also accept the lookup failures);
// every float and double output sample is finite and bounded (see
// output_bound); at the end, with the controls reset, every listener of room 1
// hears its talkers again. Run under ThreadSanitizer by `make tsan` (the suite
// name carries "Stress": ctest label "stress").
#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <quelora/quelora.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <numbers>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace qt = quelora::testing;

constexpr int32_t output_frames = 480; // 10 ms at 48 kHz
constexpr int32_t output_channels = 2;
constexpr uint32_t main_room = 1;
constexpr uint32_t open_room = 2;
constexpr int32_t closed_circle = 40; // eight seats, no stacking
constexpr int32_t closed_rows = 41;   // eight seats, stacking allowed
constexpr int32_t open_layout = 50;

// Each host thread runs at least this many block periods (a few thousand in
// all) and goes on until the control thread has made this many rounds of all
// its operations, so that audio and control overlap whatever the speed of
// either. The deadline is a safety net for much slower builds; the checks
// hold however many blocks ran.
constexpr int blocks_per_thread = 1500;
constexpr long control_rounds = 40;
constexpr auto safety_deadline = std::chrono::seconds(45);
// Host threads call back to back, with no pause between block periods: the
// library and room locks prefer writers, so the control thread's exclusive
// operations are not starved (with glibc's reader-preferring shared_mutex an
// exclusive operation waited 41 s here).

// Amplitude of every talker's sinusoid (Part 4.1 nominal range [-1, 1)).
constexpr double talker_level = 0.4;

constexpr int none = QEL_ERROR_NONE;
constexpr int no_room = QEL_ERROR_INVALID_ROOM_ID;
constexpr int no_participant = QEL_ERROR_INVALID_PARTICIPANT_ID;
constexpr int no_audio = QEL_ERROR_NO_INPUT_AUDIO;
constexpr int wrong_type = QEL_ERROR_PARTICIPANT_TYPE;
constexpr int bad_control = QEL_ERROR_INVALID_CONTROL;

enum class sample { s16, f32, f64 };

struct member {
    uint32_t room;
    uint32_t id;
    int32_t rate;
    int32_t channels;
    int32_t type;
    sample input;
    sample output;
    // Whether the control thread toggles this participant's stereo bypass.
    bool bypass_toggled;
    // Whether the control thread toggles its noise cancellation (the DFN
    // canceller of Part 5.2 then runs on its input thread).
    bool anc_toggled = false;

    bool talks() const { return type != QEL_PARTICIPANT_LISTENER_ONLY; }
    bool listens() const { return type != QEL_PARTICIPANT_SOURCE_ONLY; }
    int32_t input_frames() const { return output_frames * rate / 48000; }
    qel_participant_configuration configuration() const { return {rate, channels, type}; }
};

constexpr int32_t regular = QEL_PARTICIPANT_REGULAR;
constexpr int32_t source_only = QEL_PARTICIPANT_SOURCE_ONLY;
constexpr int32_t listener_only = QEL_PARTICIPANT_LISTENER_ONLY;

// Room 1, one host thread each.
constexpr member long_lived[] = {
    {main_room, 1, 48000, 2, regular, sample::f32, sample::f32, false, true},
    {main_room, 2, 16000, 1, regular, sample::s16, sample::s16, false},
    {main_room, 3, 48000, 1, regular, sample::f64, sample::f64, true},
    {main_room, 4, 16000, 1, regular, sample::f32, sample::f64, false},
    {main_room, 5, 48000, 2, listener_only, sample::f32, sample::f32, false},
    {main_room, 6, 48000, 1, source_only, sample::s16, sample::s16, true},
};
// Room 1, added and removed by the control thread, driven by one host thread.
constexpr member extras[] = {
    {main_room, 101, 16000, 2, regular, sample::s16, sample::f32, false},
    {main_room, 102, 48000, 1, regular, sample::f64, sample::f64, false, true},
    {main_room, 103, 8000, 1, regular, sample::f32, sample::s16, false},
};
// Room 2 (open), destroyed and re-created by the control thread.
constexpr member open_members[] = {
    {open_room, 21, 48000, 1, regular, sample::f32, sample::f32, false},
    {open_room, 22, 16000, 2, regular, sample::s16, sample::f64, false},
};

// The largest magnitude an output sample may have. With the limiter in the
// path (bypass off), Part 4.2 step 6 holds the mix near the threshold
// t = 10^(-0.2/20) = 0.977: by the time the delayed peak leaves the 9-sample
// look-ahead the envelope is within a few per cent of it, so the output may
// pass t slightly (0.983 seen) but stays below 1, and the master gain (at
// most 100 %) only lowers it; speaker and spatial stages come before the
// limiter. So 1 is the bound. With stereo bypass the limiter and master gain
// are skipped, and the plain mix (Part 4.2 mix step 4) is bounded by the sum
// over every possible source of its level times its ear gain (1 for stereo,
// 1/sqrt(2) for mono; pair gains are at most 1, and AGC and auto EQ stay
// off). A talker whose noise cancellation is toggled may reach full scale
// instead: the canceller's output is only bounded by its clip to [-1, 1]
// (Part 5.2 block routine step 6). The factor 1.1 covers the input
// resampler's passband ripple.
double output_bound(const member& m) {
    if (!m.bypass_toggled) return 1.0;
    double sum = 0.0;
    auto add = [&](const member& source) {
        if (source.id != m.id && source.talks()) {
            const double level = source.anc_toggled ? 1.0 : talker_level;
            sum += level * (source.channels == 2 ? 1.0 : 0.70710678);
        }
    };
    for (const member& s : long_lived) add(s);
    for (const member& s : extras) add(s);
    return 1.1 * sum;
}

// Sinusoids of a distinct pitch per participant and channel, continuous
// across blocks, in the library's interleaved layout for two channels.
class talker_signal {
public:
    explicit talker_signal(const member& m) : m_(m) {
        const size_t samples = static_cast<size_t>(m.input_frames() * m.channels);
        s16_.resize(samples);
        f32_.resize(samples);
        f64_.resize(samples);
    }

    void next_block() {
        const int32_t n = m_.input_frames();
        for (int32_t i = 0; i < n; ++i, ++t_) {
            for (int32_t c = 0; c < m_.channels; ++c) {
                const double hz = 150.0 + 90.0 * static_cast<double>(m_.id % 16) + 330.0 * c;
                const double v =
                    talker_level * std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(t_) /
                                            static_cast<double>(m_.rate));
                const size_t k = static_cast<size_t>(i * m_.channels + c);
                f64_[k] = v;
                f32_[k] = static_cast<float>(v);
                s16_[k] = static_cast<int16_t>(std::lround(v * 32767.0));
            }
        }
    }

    int send(qel_handle h) const {
        const int32_t n = m_.input_frames();
        switch (m_.input) {
        case sample::s16: return qel_input_audio_short(h, m_.room, m_.id, s16_.data(), n);
        case sample::f32: return qel_input_audio_float(h, m_.room, m_.id, f32_.data(), n);
        case sample::f64: return qel_input_audio_double(h, m_.room, m_.id, f64_.data(), n);
        }
        return 0;
    }

private:
    const member& m_;
    int64_t t_ = 0;
    std::vector<int16_t> s16_;
    std::vector<float> f32_;
    std::vector<double> f64_;
};

// One output block of the library's format in the member's sample type.
class listener_block {
public:
    explicit listener_block(const member& m)
        : m_(m), s16_(block_size()), f32_(block_size()), f64_(block_size()) {}

    int receive(qel_handle h) {
        switch (m_.output) {
        case sample::s16: return qel_output_audio_short(h, m_.room, m_.id, s16_.data());
        case sample::f32: return qel_output_audio_float(h, m_.room, m_.id, f32_.data());
        case sample::f64: return qel_output_audio_double(h, m_.room, m_.id, f64_.data());
        }
        return 0;
    }

    // Index of the first sample that is not finite or exceeds bound, or -1.
    long first_bad_sample(double bound, double& value) const {
        for (size_t i = 0; i < block_size(); ++i) {
            value = m_.output == sample::f32   ? static_cast<double>(f32_[i])
                    : m_.output == sample::f64 ? f64_[i]
                                               : 0.0;
            if (!std::isfinite(value) || std::fabs(value) > bound) return static_cast<long>(i);
        }
        return -1;
    }

    // Largest finite magnitude in the block, in full-scale units.
    double peak() const {
        double p = 0.0;
        for (size_t i = 0; i < block_size(); ++i) {
            const double v = m_.output == sample::f32   ? static_cast<double>(f32_[i])
                             : m_.output == sample::f64 ? f64_[i]
                                                        : static_cast<double>(s16_[i]) / 32768.0;
            if (std::isfinite(v)) p = std::max(p, std::fabs(v));
        }
        return p;
    }

private:
    static size_t block_size() { return static_cast<size_t>(output_frames * output_channels); }

    const member& m_;
    std::vector<int16_t> s16_;
    std::vector<float> f32_;
    std::vector<double> f64_;
};

// Control operations, counted by kind.
enum control_op : int {
    op_add_extra,
    op_remove_extra,
    op_mute,
    op_whisper_sidebar,
    op_master_gain,
    op_3d,
    op_bypass,
    op_device,
    op_noise_cancellation,
    op_seat,
    op_position,
    op_layout,
    op_flush,
    op_destroy_room,
    op_create_room,
    op_kinds
};

const char* op_name_of(int kind) {
    static const char* names[op_kinds] = {
        "add extra",     "remove extra", "mute", "whisper/sidebar", "master gain", "3D",
        "stereo bypass", "device",       "noise cancellation", "seat", "position", "layout",
        "flush",         "destroy room", "create room"};
    return names[kind];
}

struct workload {
    qel_handle handle = nullptr;
    std::chrono::steady_clock::time_point deadline;
    std::atomic<int> host_threads_running{0};
    std::atomic<long> control_rounds_done{0};
    std::atomic<long> slowest_control_call_us{0};
    // Largest float/double output magnitude seen, in millionths of full
    // scale, for listeners behind the limiter and for the bypass listener
    // (above 1 there shows that the limiter had sums to hold).
    std::atomic<long> peak_limited_ppm{0}, peak_bypass_ppm{0};
    std::atomic<long> inputs{0}, inputs_accepted{0};
    std::atomic<long> outputs{0}, outputs_heard{0};
    std::array<std::atomic<long>, op_kinds> control_calls{};
    std::atomic<long> violations{0};
    std::mutex violation_mutex;
    std::vector<std::string> first_violations;

    void violation(const std::string& text) {
        if (violations.fetch_add(1) < 25) {
            std::lock_guard lock(violation_mutex);
            first_violations.push_back(text);
        }
    }

    void check(const char* call, int rc, std::initializer_list<int> allowed, uint32_t room,
               uint32_t id) {
        if (std::find(allowed.begin(), allowed.end(), rc) == allowed.end()) {
            std::ostringstream text;
            text << call << "(room " << room << ", participant " << id << ") returned " << rc
                 << " (" << qel_error_code_to_string(rc) << ")";
            violation(text.str());
        }
    }

    bool past_deadline() const { return std::chrono::steady_clock::now() > deadline; }

    // Whether a host thread that has made `blocks` block periods goes on.
    bool host_goes_on(int blocks) const {
        if (past_deadline()) return false;
        return blocks < blocks_per_thread || control_rounds_done.load() < control_rounds;
    }
};

// One block period of one participant: an input call and an output call. A
// listener-only participant's input and a source-only participant's output
// are tried every sixteenth block and must be refused (Parts 4.1, 4.2).
// `transient`: the participant or its room may be gone (lookup failures allowed).
void block_period(workload& w, const member& m, talker_signal& signal, listener_block& block,
                  int index, bool transient) {
    const qel_handle h = w.handle;
    if (m.talks()) {
        signal.next_block();
        const int rc = signal.send(h);
        w.inputs.fetch_add(1, std::memory_order_relaxed);
        if (rc == none) w.inputs_accepted.fetch_add(1, std::memory_order_relaxed);
        if (transient) {
            w.check("input", rc, {none, no_room, no_participant}, m.room, m.id);
        } else {
            w.check("input", rc, {none}, m.room, m.id);
        }
    } else if (index % 16 == 0) {
        w.check("input of a listener-only participant", signal.send(h), {wrong_type}, m.room, m.id);
    }
    if (m.listens()) {
        const int rc = block.receive(h);
        w.outputs.fetch_add(1, std::memory_order_relaxed);
        if (rc == none) w.outputs_heard.fetch_add(1, std::memory_order_relaxed);
        if (transient) {
            w.check("output", rc, {none, no_audio, no_room, no_participant}, m.room, m.id);
        } else {
            w.check("output", rc, {none, no_audio}, m.room, m.id);
        }
        if ((rc == none || rc == no_audio) && m.output != sample::s16) {
            std::atomic<long>& peak = m.bypass_toggled ? w.peak_bypass_ppm : w.peak_limited_ppm;
            const long ppm = std::lround(block.peak() * 1e6);
            long seen = peak.load();
            while (ppm > seen && !peak.compare_exchange_weak(seen, ppm)) {}
            double value = 0.0;
            const long bad = block.first_bad_sample(output_bound(m), value);
            if (bad >= 0) {
                std::ostringstream text;
                text << "participant " << m.id << " output sample " << bad << " = " << value
                     << " (bound " << output_bound(m) << ")";
                w.violation(text.str());
            }
        }
    } else if (index % 16 == 0) {
        w.check("output of a source-only participant", block.receive(h), {wrong_type}, m.room,
                m.id);
    }
}

void host_thread(workload& w, const member& m, bool transient) {
    talker_signal signal(m);
    listener_block block(m);
    for (int b = 0; w.host_goes_on(b); ++b) {
        block_period(w, m, signal, block, b, transient);
    }
    w.host_threads_running.fetch_sub(1);
}

// All extras in turn, each block; they come and go under the control thread.
void extras_thread(workload& w) {
    std::vector<talker_signal> signals;
    std::vector<listener_block> blocks;
    signals.reserve(std::size(extras));
    blocks.reserve(std::size(extras));
    for (const member& m : extras) {
        signals.emplace_back(m);
        blocks.emplace_back(m);
    }
    for (int b = 0; w.host_goes_on(b); ++b) {
        for (size_t e = 0; e < std::size(extras); ++e) {
            block_period(w, extras[e], signals[e], blocks[e], b, true);
        }
    }
    w.host_threads_running.fetch_sub(1);
}

class controller {
public:
    explicit controller(workload& w) : w_(w), rng_(4242u) {}

    void run() {
        for (long step = 0; w_.host_threads_running.load() > 0; ++step) {
            const auto start = std::chrono::steady_clock::now();
            operate(static_cast<int>(step % op_kinds));
            // Recorded, not asserted: how long an exclusive-lock operation
            // can wait behind the audio calls' shared locks.
            const long us = static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                  std::chrono::steady_clock::now() - start)
                                                  .count());
            if (us > w_.slowest_control_call_us.load()) w_.slowest_control_call_us.store(us);
            if (step % op_kinds == op_kinds - 1) w_.control_rounds_done.fetch_add(1);
            // Leave the audio threads room between exclusive-lock operations.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    // Room 2 with its layout and members, as at the start of the test.
    void create_open_room() {
        const qel_handle h = w_.handle;
        call(op_create_room, qel_create_room(h, open_room), {none}, open_room, 0);
        call(op_create_room, qel_set_room_layout(h, open_room, open_layout), {none}, open_room, 0);
        for (const member& m : open_members) {
            call(op_create_room, qel_add_participant(h, m.room, m.id, "open", m.configuration()),
                 {none}, m.room, m.id);
        }
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    void call(int kind, int rc, std::initializer_list<int> allowed, uint32_t room, uint32_t id) {
        w_.control_calls[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
        w_.check(op_name_of(kind), rc, allowed, room, id);
    }

    // A participant of room 1 that exists now (long-lived or a present extra).
    const member& present_member() {
        std::vector<const member*> choices;
        for (const member& m : long_lived) choices.push_back(&m);
        for (size_t e = 0; e < std::size(extras); ++e) {
            if (present_[e]) choices.push_back(&extras[e]);
        }
        return *choices[static_cast<size_t>(pick(static_cast<int>(choices.size())))];
    }

    void set(int kind, const member& m, qel_audio_control control, int value) {
        call(kind, qel_set_participant_state(w_.handle, m.room, m.id, control, value), {none},
             m.room, m.id);
    }

    void operate(int kind) {
        const qel_handle h = w_.handle;
        switch (kind) {
        case op_add_extra:
        case op_remove_extra: {
            const size_t e = static_cast<size_t>(pick(static_cast<int>(std::size(extras))));
            const member& m = extras[e];
            if (present_[e]) {
                call(op_remove_extra, qel_remove_participant(h, m.room, m.id), {none}, m.room,
                     m.id);
            } else {
                call(op_add_extra, qel_add_participant(h, m.room, m.id, "extra", m.configuration()),
                     {none}, m.room, m.id);
            }
            present_[e] = !present_[e];
            break;
        }
        case op_mute:
            // Mostly unmuting, so that listeners usually hear someone.
            set(kind, present_member(), QEL_CONTROL_MUTE_ENABLE, pick(3) == 0 ? 1 : 0);
            break;
        case op_whisper_sidebar: {
            const member& m = present_member();
            const int choice = pick(6);
            set(kind, m, QEL_CONTROL_WHISPER_ROOM, choice == 0 ? 1 : choice == 1 ? 2 : 0);
            set(kind, m, QEL_CONTROL_SIDEBAR_ROOM, choice == 2 ? 1 : 0);
            break;
        }
        case op_master_gain: set(kind, present_member(), QEL_CONTROL_MASTER_GAIN, pick(101)); break;
        case op_3d: set(kind, present_member(), QEL_CONTROL_MIXING_3D_ENABLE, pick(2)); break;
        case op_bypass: {
            std::vector<const member*> toggled;
            for (const member& m : long_lived) {
                if (m.bypass_toggled) toggled.push_back(&m);
            }
            set(kind, *toggled[static_cast<size_t>(pick(static_cast<int>(toggled.size())))],
                QEL_CONTROL_STEREO_BYPASS_ENABLE, pick(2));
            break;
        }
        case op_device: set(kind, present_member(), QEL_CONTROL_DEVICE, 1 + pick(2)); break;
        case op_noise_cancellation: {
            // The members marked anc_toggled: long-lived 1, and extra 102 while present.
            const member& m = present_[1] && pick(2) == 0 ? extras[1] : long_lived[0];
            set(kind, m, QEL_CONTROL_ANC_ENABLE, pick(2));
            break;
        }
        case op_seat: {
            const member& m = present_member();
            call(kind, qel_set_participant_seat(h, m.room, m.id, 1 + pick(8)), {none}, m.room,
                 m.id);
            break;
        }
        case op_position: {
            const qel_position position{pick(601) - 300, pick(201) - 100, pick(601) - 300};
            const qel_heading heading{pick(361) - 180, pick(181) - 90};
            // Room 1 is always closed: set position is refused there (Part 3.3).
            const member& m = present_member();
            call(kind, qel_set_participant_position(h, m.room, m.id, position, heading),
                 {bad_control}, m.room, m.id);
            if (room_exists_) {
                const member& o = open_members[static_cast<size_t>(pick(2))];
                call(kind, qel_set_participant_position(h, o.room, o.id, position, heading), {none},
                     o.room, o.id);
            }
            break;
        }
        case op_layout:
            layout_ = layout_ == closed_circle ? closed_rows : closed_circle;
            call(kind, qel_set_room_layout(h, main_room, layout_), {none}, main_room, 0);
            break;
        case op_flush: {
            const member& m = present_member();
            call(kind, qel_flush_data(h, m.room, m.id), {none}, m.room, m.id);
            const size_t e = static_cast<size_t>(pick(static_cast<int>(std::size(extras))));
            call(kind, qel_flush_data(h, main_room, extras[e].id),
                 {present_[e] ? none : no_participant}, main_room, extras[e].id);
            break;
        }
        case op_destroy_room:
        case op_create_room:
            if (room_exists_) {
                call(op_destroy_room, qel_destroy_room(h, open_room), {none}, open_room, 0);
            } else {
                create_open_room();
            }
            room_exists_ = !room_exists_;
            break;
        default: break;
        }
    }

    workload& w_;
    std::mt19937 rng_;
    std::array<bool, std::size(extras)> present_{};
    bool room_exists_ = true;
    int32_t layout_ = closed_circle;
};

// Two closed layouts of eight seats (40 without stacking, 41 with) and an
// open one (50); room 1 starts in the default, 40.
std::string eight_seat_layouts_json() {
    return R"({
  "default": "circle",
  "room_list": {
    "circle": {"id": 40, "desc": "eight seats on a circle", "allowParticipantStacking": false,
      "stackDelta": 50, "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 200}, {"x": 141, "y": 0, "z": 141},
        {"x": 200, "y": 0, "z": 0}, {"x": 141, "y": 0, "z": -141}, {"x": 0, "y": 0, "z": -200},
        {"x": -141, "y": 0, "z": -141}, {"x": -200, "y": 0, "z": 0}, {"x": -141, "y": 0, "z": 141}]},
    "rows": {"id": 41, "desc": "two rows of four", "allowParticipantStacking": true,
      "stackDelta": 30, "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 250},
      "seats": [{"x": -150, "y": 0, "z": 100}, {"x": -50, "y": 0, "z": 100},
        {"x": 50, "y": 0, "z": 100}, {"x": 150, "y": 0, "z": 100}, {"x": -150, "y": 0, "z": 400},
        {"x": -50, "y": 0, "z": 400}, {"x": 50, "y": 0, "z": 400}, {"x": 150, "y": 0, "z": 400}]},
    "open": {"id": 50, "desc": "open floor", "allowParticipantStacking": true, "openRoom": true,
      "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 0}]}
  }
})";
}

TEST(AudioStress, ConcurrentAudioCallsWithMembershipLayoutAndControlChurn) {
    qel_enable_logging(false);
    const qel_library_configuration configuration{48000, output_frames, output_channels, true, 3};
    qt::library_handle lib =
        qt::library_handle::from_layout_text(eight_seat_layouts_json(), configuration);
    ASSERT_EQ(lib.init_error(), none);
    workload w;
    w.handle = lib;
    ASSERT_EQ(qel_create_room(lib, main_room), none);
    for (const member& m : long_lived) {
        ASSERT_EQ(qel_add_participant(lib, m.room, m.id, "talker", m.configuration()), none)
            << m.id;
    }
    controller control(w);
    control.create_open_room();
    ASSERT_EQ(w.violations.load(), 0);
    w.deadline = std::chrono::steady_clock::now() + safety_deadline;

    std::vector<std::thread> threads;
    w.host_threads_running = static_cast<int>(std::size(long_lived) + std::size(open_members) + 1);
    for (const member& m : long_lived) threads.emplace_back([&w, &m] { host_thread(w, m, false); });
    for (const member& m : open_members) {
        threads.emplace_back([&w, &m] { host_thread(w, m, true); });
    }
    threads.emplace_back([&w] { extras_thread(w); });
    std::thread control_thread([&control] { control.run(); });
    for (auto& thread : threads) thread.join();
    control_thread.join();

    EXPECT_EQ(w.violations.load(), 0);
    for (const auto& text : w.first_violations) ADD_FAILURE() << text;
    ::testing::Test::RecordProperty("inputs", std::to_string(w.inputs_accepted.load()) + " of " +
                                                  std::to_string(w.inputs.load()));
    ::testing::Test::RecordProperty("outputs", std::to_string(w.outputs_heard.load()) + " of " +
                                                   std::to_string(w.outputs.load()));
    ::testing::Test::RecordProperty("control rounds", std::to_string(w.control_rounds_done.load()));
    ::testing::Test::RecordProperty("slowest control operation (us)",
                                    std::to_string(w.slowest_control_call_us.load()));
    ::testing::Test::RecordProperty("peak output behind the limiter (ppm)",
                                    std::to_string(w.peak_limited_ppm.load()));
    ::testing::Test::RecordProperty("peak output with stereo bypass (ppm)",
                                    std::to_string(w.peak_bypass_ppm.load()));
    for (int kind = 0; kind < op_kinds; ++kind) {
        EXPECT_GT(w.control_calls[static_cast<size_t>(kind)].load(), 0) << op_name_of(kind);
        ::testing::Test::RecordProperty(
            op_name_of(kind), std::to_string(w.control_calls[static_cast<size_t>(kind)].load()));
    }
    // The audio really flowed: most inputs were taken and many outputs heard someone.
    EXPECT_GT(w.inputs_accepted.load(), w.inputs.load() / 2);
    EXPECT_GT(w.outputs_heard.load(), 0);

    // Afterwards, single-threaded: with the controls back at their defaults
    // and the queues flushed, one block period makes every listener of room 1
    // hear its talkers (QEL_ERROR_NONE and a non-silent block).
    for (const auto& [control_id, value] :
         {std::pair{QEL_CONTROL_MUTE_ENABLE, 0}, std::pair{QEL_CONTROL_WHISPER_ROOM, 0},
          std::pair{QEL_CONTROL_SIDEBAR_ROOM, 0}, std::pair{QEL_CONTROL_STEREO_BYPASS_ENABLE, 0},
          std::pair{QEL_CONTROL_MASTER_GAIN, 100}, std::pair{QEL_CONTROL_MIXING_3D_ENABLE, 0},
          std::pair{QEL_CONTROL_DEVICE, static_cast<int>(QEL_DEVICE_HEADPHONE)}}) {
        ASSERT_EQ(qel_set_all_participants_state(lib, main_room, control_id, value), none);
    }
    for (const member& m : long_lived) ASSERT_EQ(qel_flush_data(lib, m.room, m.id), none);
    std::vector<talker_signal> signals;
    std::vector<listener_block> blocks;
    signals.reserve(std::size(long_lived));
    blocks.reserve(std::size(long_lived));
    for (const member& m : long_lived) {
        signals.emplace_back(m);
        blocks.emplace_back(m);
    }
    for (size_t i = 0; i < std::size(long_lived); ++i) {
        if (!long_lived[i].talks()) continue;
        signals[i].next_block();
        EXPECT_EQ(signals[i].send(lib), none) << long_lived[i].id;
    }
    for (size_t i = 0; i < std::size(long_lived); ++i) {
        if (!long_lived[i].listens()) continue;
        EXPECT_EQ(blocks[i].receive(lib), none) << long_lived[i].id;
        EXPECT_GT(blocks[i].peak(), 0.01) << long_lived[i].id;
    }
    w.handle = nullptr;
}

} // namespace
