// Concurrency stress of the conference model (spec Part 3.1's lock table,
// Parts 3.2 to 3.5) through the C interface: eight host threads with fixed
// seeds create and destroy rooms, switch layouts, add and remove participants,
// change seats, positions, states and names and query them, all on one
// handle. Every call must answer with one of its documented codes; at the end
// the rooms and participants must agree with a single-threaded check. Logging
// stays disabled here (no log_capture) to keep the runs fast.
//
// Suite names contain "Stress": the ctest label "stress", run under
// ThreadSanitizer by `make tsan`.
#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <quelora/quelora.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace qt = quelora::testing;

constexpr int thread_count = 8;
constexpr int iterations_per_thread = 30000;
// A safety net only: the runs are bounded by iteration counts; this keeps a
// much slower build (sanitizers, a heavier audio path later) within ctest's
// limit. The checks hold for however many operations ran.
constexpr auto safety_deadline = std::chrono::seconds(60);

constexpr uint32_t long_lived_rooms[] = {1, 2, 3};
constexpr uint32_t churn_first = 100;
constexpr uint32_t churn_count = 10; // rooms 100..109
constexpr uint32_t max_participant = 12;
constexpr int32_t layouts[] = {10, 20, 30};

bool is_long_lived(uint32_t room) { return room >= 1 && room <= 3; }
bool is_churned(uint32_t room) { return room >= churn_first && room < churn_first + churn_count; }

// The type and format of a participant depend on its id only, so that every
// thread knows what a given id is whichever thread added it.
bool is_source_only(uint32_t id) { return id % 5 == 0; }
bool is_listener_only(uint32_t id) { return id % 7 == 0; }
bool is_16k(uint32_t id) { return id % 4 == 3; }
qel_participant_configuration configuration_of(uint32_t id) {
    const int32_t type = is_source_only(id)     ? QEL_PARTICIPANT_SOURCE_ONLY
                         : is_listener_only(id) ? QEL_PARTICIPANT_LISTENER_ONLY
                                                : QEL_PARTICIPANT_REGULAR;
    return qel_participant_configuration{is_16k(id) ? 16000 : 48000, id % 2 == 0 ? 2 : 1, type};
}

// Value range of each control (Part 1.4); max distance capped for the draws.
struct range {
    int low, high;
};
constexpr range control_ranges[17] = {{0, 0},   {0, 1}, {0, 1},  {0, 1},   {0, 1},  {0, 100},
                                      {0, 1},   {0, 1}, {0, 1},  {0, 40},  {0, 100000},
                                      {0, 1},   {1, 2}, {0, 89}, {0, 100}, {0, 100}, {0, 100}};

// Operation kinds; the first ten notify (Part 3.5 slot order).
enum op : int {
    op_create_room,
    op_destroy_room,
    op_add,
    op_remove,
    op_seat,
    op_position,
    op_state,
    op_all_state,
    op_layout,
    op_name,
    op_room_count,
    op_count,
    op_get_state,
    op_spherical,
    op_get_seat,
    op_get_position,
    op_get_name,
    op_get_layout,
    op_get_configuration,
    op_flush,
    op_kinds
};

const char* op_name_of(int kind) {
    static const char* names[op_kinds] = {
        "create_room", "destroy_room",  "add_participant", "remove_participant", "set_seat",
        "set_position", "set_state",    "set_all_state",   "set_room_layout",    "set_name",
        "room_count",  "participant_count", "get_state",   "spherical",          "get_seat",
        "get_position", "get_name",     "get_room_layout", "get_configuration",  "flush"};
    return names[kind];
}

// Host callback counters for the event test (registered before any thread).
struct callback_counts {
    std::array<std::atomic<long>, 10> calls{};
    std::array<std::atomic<long>, 10> anomalies{};
};
callback_counts* g_callbacks = nullptr;

bool valid_room_id(int32_t room) {
    return is_long_lived(static_cast<uint32_t>(room)) || is_churned(static_cast<uint32_t>(room));
}
bool valid_participant_id(int32_t id) { return id >= 1 && id <= static_cast<int32_t>(max_participant); }
void note(int slot, bool sane) {
    g_callbacks->calls[static_cast<size_t>(slot)].fetch_add(1, std::memory_order_relaxed);
    if (!sane) g_callbacks->anomalies[static_cast<size_t>(slot)].fetch_add(1, std::memory_order_relaxed);
}

void on_create_room(int32_t room) { note(op_create_room, is_churned(static_cast<uint32_t>(room)) || is_long_lived(static_cast<uint32_t>(room))); }
void on_destroy_room(int32_t room) { note(op_destroy_room, is_churned(static_cast<uint32_t>(room))); }
void on_add(int32_t room, int32_t id, const char* name, const qel_participant_configuration* c) {
    bool sane = valid_room_id(room) && valid_participant_id(id) && name != nullptr && c != nullptr;
    if (sane) {
        const qel_participant_configuration want = configuration_of(static_cast<uint32_t>(id));
        sane = c->input_sampling_rate == want.input_sampling_rate &&
               c->input_number_channels == want.input_number_channels &&
               c->participant_type == want.participant_type;
    }
    note(op_add, sane);
}
void on_remove(int32_t room, int32_t id) { note(op_remove, valid_room_id(room) && valid_participant_id(id)); }
void on_move(int32_t room, int32_t id, const qel_seat* seat) {
    note(op_seat, valid_room_id(room) && valid_participant_id(id) && seat != nullptr &&
                    seat->seat_index >= -1); // -1: an open-room place asking for the seat it maps to
}
void on_position(int32_t room, int32_t id, const qel_position* position, qel_heading heading) {
    note(op_position, valid_room_id(room) && valid_participant_id(id) && position != nullptr &&
                          heading.azimuth >= -180 && heading.azimuth <= 180 &&
                          heading.elevation >= -90 && heading.elevation <= 90);
}
void on_state(int32_t room, int32_t id, qel_audio_control control, int32_t value) {
    const int c = static_cast<int>(control);
    note(op_state, valid_room_id(room) && valid_participant_id(id) && c >= 1 && c <= 16 &&
                       value >= control_ranges[c].low && value <= control_ranges[c].high);
}
void on_all_state(int32_t room, qel_audio_control control, int32_t value) {
    const int c = static_cast<int>(control);
    // Set all in an empty room succeeds whatever the value: only the control is checked here.
    note(op_all_state, valid_room_id(room) && c >= 1 && c <= 16);
    (void)value;
}
void on_layout(int32_t room, int32_t layout) {
    note(op_layout, valid_room_id(room) && (layout == 10 || layout == 20 || layout == 30));
}
void on_name(int32_t room, int32_t id, const char* name) {
    note(op_name, valid_room_id(room) && valid_participant_id(id) && name != nullptr && name[0] == 'p');
}

// Everything the threads share, besides the handle.
struct workload {
    qel_handle handle = nullptr;
    std::array<std::atomic<long>, op_kinds> successes{};
    std::array<std::atomic<long>, op_kinds> calls{};
    // Net successful creates minus destroys of each churned room.
    std::array<std::atomic<int>, churn_count> room_net{};
    // Net successful adds minus removes per long-lived room and id.
    std::array<std::array<std::atomic<int>, max_participant + 1>, 3> participant_net{};
    std::atomic<long> violations{0};
    std::mutex violation_mutex;
    std::vector<std::string> first_violations;
    std::chrono::steady_clock::time_point deadline;

    void violation(const std::string& text) {
        if (violations.fetch_add(1) < 25) {
            std::lock_guard lock(violation_mutex);
            first_violations.push_back(text);
        }
    }

    // Records the call and checks its code against the allowed set.
    void check(int kind, int rc, std::initializer_list<int> allowed, uint32_t room, uint32_t id = 0,
               const std::string& detail = std::string()) {
        calls[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
        if (rc == QEL_ERROR_NONE) successes[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
        if (std::find(allowed.begin(), allowed.end(), rc) == allowed.end()) {
            std::ostringstream text;
            text << op_name_of(kind) << "(room " << room << ", id " << id << detail << ") returned "
                 << rc << " (" << qel_error_code_to_string(rc) << ")";
            violation(text.str());
        }
    }
};

constexpr int none = QEL_ERROR_NONE;
constexpr int no_room = QEL_ERROR_INVALID_ROOM_ID;
constexpr int no_participant = QEL_ERROR_INVALID_PARTICIPANT_ID;
constexpr int bad_control = QEL_ERROR_INVALID_CONTROL;
constexpr int bad_value = QEL_ERROR_INVALID_VALUE;
constexpr int bad_heading = QEL_ERROR_INVALID_HEADING;

class worker {
public:
    worker(workload& w, int index) : w_(w), index_(index), rng_(1000u + static_cast<unsigned>(index)) {}

    void run() {
        for (int i = 0; i < iterations_per_thread; ++i) {
            if ((i & 63) == 0 && std::chrono::steady_clock::now() > w_.deadline) break;
            if (index_ < 2) {
                // Room threads: mostly registry work, some participant work.
                if (pick(100) < 65) room_op(); else participant_op();
            } else if (index_ < 6) {
                participant_op();
            } else {
                if (pick(100) < 70) reader_op(); else participant_op();
            }
        }
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng_); }

    uint32_t any_room() {
        if (pick(100) < 60) return long_lived_rooms[pick(3)];
        return churn_first + static_cast<uint32_t>(pick(churn_count));
    }
    uint32_t churned_room() { return churn_first + static_cast<uint32_t>(pick(churn_count)); }
    uint32_t any_id() { return static_cast<uint32_t>(between(1, max_participant)); }

    void room_op() {
        qel_handle h = w_.handle;
        const int choice = pick(100);
        if (choice < 30) {
            const uint32_t room = churned_room();
            const int rc = qel_create_room(h, room);
            // Count before the next operation on the room can run on this thread.
            if (rc == none) w_.room_net[room - churn_first].fetch_add(1);
            w_.check(op_create_room, rc, {none, no_room}, room);
        } else if (choice < 55) {
            const uint32_t room = churned_room();
            const int rc = qel_destroy_room(h, room);
            if (rc == none) w_.room_net[room - churn_first].fetch_sub(1);
            w_.check(op_destroy_room, rc, {none, no_room}, room);
        } else if (choice < 85) {
            const uint32_t room = any_room();
            const int32_t layout = layouts[pick(3)];
            w_.check(op_layout, qel_set_room_layout(h, room, layout), {none, no_room}, room, 0,
                     ", layout " + std::to_string(layout));
        } else if (choice < 92) {
            int count = -1;
            const int rc = qel_get_room_count(h, &count);
            w_.check(op_room_count, rc, {none}, 0);
            if (rc == none && (count < 3 || count > 3 + static_cast<int>(churn_count))) {
                w_.violation("room count " + std::to_string(count));
            }
        } else {
            const uint32_t room = any_room();
            int layout = -1;
            const int rc = qel_get_room_layout(h, room, &layout);
            w_.check(op_get_layout, rc, {none, no_room}, room);
            if (rc == none && layout != 10 && layout != 20 && layout != 30) {
                w_.violation("room " + std::to_string(room) + " layout " + std::to_string(layout));
            }
        }
    }

    void participant_op() {
        qel_handle h = w_.handle;
        const uint32_t room = any_room();
        const uint32_t id = any_id();
        const int choice = pick(100);
        if (choice < 18) {
            const int rc = qel_add_participant(h, room, id, "p", configuration_of(id));
            if (rc == none && is_long_lived(room)) w_.participant_net[room - 1][id].fetch_add(1);
            w_.check(op_add, rc, {none, no_room, no_participant}, room, id);
        } else if (choice < 32) {
            const int rc = qel_remove_participant(h, room, id);
            if (rc == none && is_long_lived(room)) w_.participant_net[room - 1][id].fetch_sub(1);
            w_.check(op_remove, rc, {none, no_room, no_participant}, room, id);
        } else if (choice < 46) {
            if (pick(20) == 0) {
                const int32_t seat = -between(1, 3);
                // The seat test comes after the room lookup and before the
                // participant lookup (Part 3.3 step 1).
                w_.check(op_seat, qel_set_participant_seat(h, room, id, seat), {bad_value, no_room},
                         room, id, ", seat " + std::to_string(seat));
            } else {
                const int32_t seat = pick(10) == 0 ? between(10, 40) : between(0, 9);
                w_.check(op_seat, qel_set_participant_seat(h, room, id, seat),
                         {none, no_room, no_participant}, room, id, ", seat " + std::to_string(seat));
            }
        } else if (choice < 58) {
            const qel_position position{between(-500, 500), between(-500, 500), between(-500, 500)};
            if (pick(20) == 0) {
                const qel_heading heading{pick(2) ? 181 : -181, 0};
                w_.check(op_position, qel_set_participant_position(h, room, id, position, heading),
                         {bad_heading}, room, id);
            } else {
                const qel_heading heading{between(-180, 180), between(-90, 90)};
                // -9991 when the room's layout is closed at that moment.
                w_.check(op_position, qel_set_participant_position(h, room, id, position, heading),
                         {none, no_room, no_participant, bad_control}, room, id);
            }
        } else if (choice < 72) {
            const int c = between(1, 16);
            const bool auto_eq_refusal = c == QEL_CONTROL_AUTO_EQ_ENABLE && is_16k(id);
            const bool bad = pick(10) == 0;
            const int value = bad ? control_ranges[c].high + 1 : between(control_ranges[c].low, control_ranges[c].high);
            const int cv = c == QEL_CONTROL_MIXING_3D_MAX_DISTANCE && bad ? -1 : value;
            const int rc = qel_set_participant_state(h, room, id, static_cast<qel_audio_control>(c), cv);
            const std::string detail = ", control " + std::to_string(c) + " = " + std::to_string(cv);
            if (bad && auto_eq_refusal) {
                // -9991 when the 16 kHz input has a resampler; a listener-only
                // participant has none (Part 3.2 3f), so its value is checked.
                w_.check(op_state, rc, {bad_control, bad_value, no_room, no_participant}, room, id,
                         detail);
            } else if (bad) {
                w_.check(op_state, rc, {bad_value, no_room, no_participant}, room, id, detail);
            } else if (auto_eq_refusal) {
                // A listener-only participant has no input resampler (Part 3.2 3f).
                w_.check(op_state, rc, {bad_control, none, no_room, no_participant}, room, id, detail);
            } else {
                w_.check(op_state, rc, {none, no_room, no_participant}, room, id, detail);
            }
        } else if (choice < 76) {
            // Set all: any room may hold a 16 kHz participant, so auto EQ may
            // be refused; an empty room accepts any value.
            int c = between(1, 16);
            const bool bad = pick(8) == 0;
            const int value = bad ? control_ranges[c].high + 1 : between(control_ranges[c].low, control_ranges[c].high);
            const int rc = qel_set_all_participants_state(h, room, static_cast<qel_audio_control>(c), value);
            const std::string detail = ", control " + std::to_string(c) + " = " + std::to_string(value);
            if (c == QEL_CONTROL_AUTO_EQ_ENABLE) {
                w_.check(op_all_state, rc, {none, no_room, bad_control, bad_value}, room, 0, detail);
            } else if (bad) {
                w_.check(op_all_state, rc, {none, no_room, bad_value}, room, 0, detail);
            } else {
                w_.check(op_all_state, rc, {none, no_room}, room, 0, detail);
            }
        } else if (choice < 82) {
            const std::string name = "p" + std::to_string(index_) + "-" + std::to_string(pick(1000));
            w_.check(op_name, qel_set_participant_name(h, room, id, name.c_str()),
                     {none, no_room, no_participant}, room, id);
        } else {
            reader_op_in(room, id);
        }
    }

    void reader_op() { reader_op_in(any_room(), any_id()); }

    void reader_op_in(uint32_t room, uint32_t id) {
        qel_handle h = w_.handle;
        const int choice = pick(8);
        switch (choice) {
        case 0: {
            int count = -1;
            const int rc = qel_get_participant_count(h, room, &count);
            w_.check(op_count, rc, {none, no_room}, room);
            if ((rc == none && (count < 0 || count > static_cast<int>(max_participant))) ||
                (rc == no_room && count != 0)) {
                w_.violation("room " + std::to_string(room) + " count " + std::to_string(count) +
                             " with code " + std::to_string(rc));
            }
            break;
        }
        case 1: {
            const int c = between(1, 16);
            int value = -12345;
            const int rc = qel_get_participant_state(h, room, id, static_cast<qel_audio_control>(c), &value);
            w_.check(op_get_state, rc, {none, no_room, no_participant}, room, id);
            if ((rc == none && (value < control_ranges[c].low ||
                                (c != QEL_CONTROL_MIXING_3D_MAX_DISTANCE && value > control_ranges[c].high))) ||
                (rc != none && value != 0)) {
                w_.violation("control " + std::to_string(c) + " of " + std::to_string(id) + " in room " +
                             std::to_string(room) + " reads " + std::to_string(value));
            }
            break;
        }
        case 2:
        case 3: {
            uint32_t source = any_id();
            if (source == id) source = id % max_participant + 1;
            int32_t azimuth = 999, elevation = 999, distance = -1;
            const int rc = qel_get_participant_spherical(h, room, id, source, &azimuth, &elevation, &distance);
            if (is_source_only(id)) {
                w_.check(op_spherical, rc, {bad_value, no_room, no_participant}, room, id);
            } else {
                w_.check(op_spherical, rc, {none, no_room, no_participant}, room, id);
            }
            if (rc == none && (azimuth < -180 || azimuth > 180 || elevation < -90 || elevation > 90 ||
                               distance < 0)) {
                w_.violation("spherical " + std::to_string(azimuth) + "," + std::to_string(elevation) +
                             "," + std::to_string(distance));
            }
            break;
        }
        case 4: {
            qel_seat seat{};
            w_.check(op_get_seat, qel_get_participant_seat(h, room, id, &seat),
                     {none, no_room, no_participant}, room, id);
            break;
        }
        case 5: {
            qel_position position{};
            qel_heading heading{};
            const int rc = qel_get_participant_position(h, room, id, &position, &heading);
            w_.check(op_get_position, rc, {none, no_room, no_participant}, room, id);
            if (rc == none && (heading.azimuth < -180 || heading.azimuth > 180 ||
                               heading.elevation < -90 || heading.elevation > 90)) {
                w_.violation("heading " + std::to_string(heading.azimuth) + "," +
                             std::to_string(heading.elevation));
            }
            break;
        }
        case 6: {
            char name[64];
            std::memset(name, 'x', sizeof name);
            const int rc = qel_get_participant_name(h, room, id, name, static_cast<int>(sizeof name) - 1);
            w_.check(op_get_name, rc, {none, no_room, no_participant}, room, id);
            if (rc == none && name[0] != 'p') w_.violation(std::string("name ") + name[0]);
            break;
        }
        default: {
            if (pick(2) == 0) {
                w_.check(op_flush, qel_flush_data(h, room, id), {none, no_room, no_participant}, room, id);
            } else {
                qel_participant_configuration c{};
                const int rc = qel_get_participant_configuration(h, room, id, &c);
                w_.check(op_get_configuration, rc, {none, no_room, no_participant}, room, id);
                const qel_participant_configuration want = configuration_of(id);
                if (rc == none && (c.input_sampling_rate != want.input_sampling_rate ||
                                   c.input_number_channels != want.input_number_channels ||
                                   c.participant_type != want.participant_type)) {
                    w_.violation("configuration of " + std::to_string(id));
                }
            }
            break;
        }
        }
    }

    workload& w_;
    int index_;
    std::mt19937 rng_;
};

// Expected place of a seat index in the four-seat layouts (Part 3.3 lookup).
bool expected_seat_place(int32_t layout, int32_t k, int32_t& x, int32_t& y, int32_t& z) {
    static constexpr int32_t seats[4][3] = {{0, 0, 100}, {100, 0, 0}, {0, 0, -100}, {-100, 0, 0}};
    if (layout == 30) return false; // open: places set by position too
    if (k <= 0) {
        x = y = z = 0;
        return true;
    }
    const int32_t* base = seats[(k - 1) % 4];
    x = base[0];
    y = base[1];
    z = base[2] + (layout == 10 ? ((k - 1) / 4) * 50 : 0);
    return true;
}

// Runs the workload on a fresh library; `setup` runs before rooms 1..3 are
// created and before any thread starts.
template <typename Setup>
void run_conference_stress(Setup setup, workload& w) {
    qel_enable_logging(false);
    qt::library_handle lib = qt::library_handle::from_layout_text(qt::four_seat_layouts_json());
    ASSERT_EQ(lib.init_error(), QEL_ERROR_NONE);
    w.handle = lib;
    setup(lib.get());
    for (const uint32_t room : long_lived_rooms) {
        w.check(op_create_room, qel_create_room(lib, room), {none}, room);
    }
    w.deadline = std::chrono::steady_clock::now() + safety_deadline;

    std::vector<std::thread> threads;
    std::vector<worker> workers;
    workers.reserve(thread_count);
    for (int t = 0; t < thread_count; ++t) workers.emplace_back(w, t);
    for (int t = 0; t < thread_count; ++t) threads.emplace_back([&workers, t] { workers[static_cast<size_t>(t)].run(); });
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(w.violations.load(), 0);
    for (const auto& text : w.first_violations) ADD_FAILURE() << text;

    for (int kind = 0; kind < op_kinds; ++kind) {
        ::testing::Test::RecordProperty(op_name_of(kind),
                                        std::to_string(w.successes[static_cast<size_t>(kind)].load()) +
                                            " of " + std::to_string(w.calls[static_cast<size_t>(kind)].load()));
    }
    // Every kind of call ran, and most of the mutating kinds succeeded sometimes.
    for (int kind = 0; kind < op_kinds; ++kind) {
        EXPECT_GT(w.calls[static_cast<size_t>(kind)].load(), 0) << op_name_of(kind);
    }
    for (const int kind : {op_create_room, op_destroy_room, op_add, op_remove, op_seat, op_position,
                           op_state, op_all_state, op_layout, op_name, op_spherical}) {
        EXPECT_GT(w.successes[static_cast<size_t>(kind)].load(), 0) << op_name_of(kind);
    }

    // Final single-threaded check: rooms.
    int expected_rooms = 3;
    std::vector<uint32_t> live_rooms(std::begin(long_lived_rooms), std::end(long_lived_rooms));
    for (uint32_t r = 0; r < churn_count; ++r) {
        const int net = w.room_net[r].load();
        const uint32_t room = churn_first + r;
        EXPECT_TRUE(net == 0 || net == 1) << "room " << room << " net " << net;
        int count = -1;
        const int rc = qel_get_participant_count(lib, room, &count);
        if (net == 1) {
            ++expected_rooms;
            live_rooms.push_back(room);
            EXPECT_EQ(rc, none) << "room " << room;
        } else {
            EXPECT_EQ(rc, no_room) << "room " << room;
        }
    }
    int room_count = -1;
    ASSERT_EQ(qel_get_room_count(lib, &room_count), none);
    EXPECT_EQ(room_count, expected_rooms);

    // Participants of the long-lived rooms: exactly those with a net add.
    for (const uint32_t room : long_lived_rooms) {
        int expected = 0;
        for (uint32_t id = 1; id <= max_participant; ++id) {
            const int net = w.participant_net[room - 1][id].load();
            EXPECT_TRUE(net == 0 || net == 1) << "room " << room << " id " << id << " net " << net;
            qel_participant_configuration c{};
            const int rc = qel_get_participant_configuration(lib, room, id, &c);
            EXPECT_EQ(rc, net == 1 ? none : no_participant) << "room " << room << " id " << id;
            expected += net == 1 ? 1 : 0;
        }
        int count = -1;
        ASSERT_EQ(qel_get_participant_count(lib, room, &count), none);
        EXPECT_EQ(count, expected) << "room " << room;
    }

    // Every live room: its count matches its members, every ordered pair has a
    // direction, seats are distinct and placed where the layout says.
    for (const uint32_t room : live_rooms) {
        SCOPED_TRACE(::testing::Message() << "room " << room);
        std::vector<uint32_t> members;
        for (uint32_t id = 1; id <= max_participant; ++id) {
            qel_participant_configuration c{};
            if (qel_get_participant_configuration(lib, room, id, &c) == none) members.push_back(id);
        }
        int count = -1;
        ASSERT_EQ(qel_get_participant_count(lib, room, &count), none);
        EXPECT_EQ(count, static_cast<int>(members.size()));
        int layout = -1;
        ASSERT_EQ(qel_get_room_layout(lib, room, &layout), none);
        std::set<int32_t> seats;
        for (const uint32_t listener : members) {
            qel_seat seat{};
            ASSERT_EQ(qel_get_participant_seat(lib, room, listener, &seat), none);
            if (layout != 30) {
                EXPECT_NE(seat.seat_index, -1) << "participant " << listener << " unseated in a closed room";
            }
            if (seat.seat_index != -1) {
                EXPECT_TRUE(seats.insert(seat.seat_index).second)
                    << "seat " << seat.seat_index << " held twice";
            }
            int32_t x = 0, y = 0, z = 0;
            if (expected_seat_place(layout, seat.seat_index, x, y, z)) {
                EXPECT_EQ(seat.x, x) << "participant " << listener << " seat " << seat.seat_index;
                EXPECT_EQ(seat.y, y) << "participant " << listener << " seat " << seat.seat_index;
                EXPECT_EQ(seat.z, z) << "participant " << listener << " seat " << seat.seat_index;
            }
            for (const uint32_t source : members) {
                if (source == listener) continue;
                int32_t a = 0, e = 0, d = 0;
                const int rc = qel_get_participant_spherical(lib, room, listener, source, &a, &e, &d);
                EXPECT_EQ(rc, is_source_only(listener) ? bad_value : none)
                    << listener << " hears " << source;
            }
        }
    }
    w.handle = nullptr;
}

TEST(ConferenceStress, ConcurrentRoomAndParticipantChurnKeepsDocumentedCodesAndConsistentCounts) {
    workload w;
    run_conference_stress([](qel_handle) {}, w);
}

TEST(ConferenceStress, EventCallbacksMatchSuccessfulOperations) {
    callback_counts counts;
    g_callbacks = &counts;
    qel_event_manager_t table{};
    table.create_room = on_create_room;
    table.destroy_room = on_destroy_room;
    table.add_participant = on_add;
    table.remove_participant = on_remove;
    table.move_participant = on_move;
    table.set_participant_position = on_position;
    table.set_participant_state = on_state;
    table.set_all_participants_state = on_all_state;
    table.set_room_layout = on_layout;
    table.set_name = on_name;
    workload w;
    run_conference_stress(
        [&table](qel_handle h) { ASSERT_EQ(qel_add_event_manager(h, &table), QEL_ERROR_NONE); }, w);
    // The library is destroyed: no callback can still be running.
    for (int slot = 0; slot < 10; ++slot) {
        EXPECT_EQ(counts.calls[static_cast<size_t>(slot)].load(),
                  w.successes[static_cast<size_t>(slot)].load())
            << op_name_of(slot);
    }
    for (int slot = 0; slot < 10; ++slot) {
        EXPECT_EQ(counts.anomalies[static_cast<size_t>(slot)].load(), 0)
            << "callback arguments out of range for " << op_name_of(slot);
    }
    g_callbacks = nullptr;
}

} // namespace
