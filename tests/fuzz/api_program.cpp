// After every call a program checks what a host relies on: the code is one the call documents,
// success agrees with a model of the rooms and participants, what was set reads back, counts add
// up, output samples are finite and bounded, and a call fires one callback per registered table
// when it succeeds and none when it fails. A broken expectation prints its line and aborts, so that
// libFuzzer keeps the input and a stress test fails loudly.
#include "api_program.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            std::fprintf(stderr, "api_program.cpp:%d: %s\n", __LINE__, #condition), std::abort();  \
    } while (0)

namespace quelora::testing {
namespace {

constexpr int none = QEL_ERROR_NONE, R = QEL_ERROR_INVALID_ROOM_ID,
              P = QEL_ERROR_INVALID_PARTICIPANT_ID, D = QEL_ERROR_DATA_NULL,
              L = QEL_ERROR_DATA_LENGTH, V = QEL_ERROR_INVALID_VALUE, C = QEL_ERROR_INVALID_CONTROL,
              T = QEL_ERROR_PARTICIPANT_TYPE, H = QEL_ERROR_INVALID_HEADING;
using values = std::array<int64_t, 4>;

// What this thread's callbacks saw since the last check (they run on the thread making the change).
struct event_record {
    int fired = 0;
    size_t slot = 0;
    values v{};
    std::string name;
};
thread_local event_record t_event;
void fired(size_t slot, values v, const char* name = "") {
    t_event = {t_event.fired + 1, slot, v, name};
}
// clang-format off
qel_event_manager_t checking_table{
    [](int32_t r) { fired(0, {r}); },
    [](int32_t r) { fired(1, {r}); },
    [](int32_t r, int32_t p, const char* name, const qel_participant_configuration* c) {
        fired(2, {r, p, c->input_sampling_rate, c->participant_type}, name);
    },
    [](int32_t r, int32_t p) { fired(3, {r, p}); },
    [](int32_t r, int32_t p, const qel_seat* s) { fired(4, {r, p, s->seat_index, s->z}); },
    [](int32_t r, int32_t p, const qel_position* q, qel_heading h) {
        fired(5, {r, p, q->z, h.elevation});
    },
    [](int32_t r, int32_t p, qel_audio_control c, int32_t v) { fired(6, {r, p, c, v}); },
    [](int32_t r, qel_audio_control c, int32_t v) { fired(7, {r, c, v}); },
    [](int32_t r, int32_t layout) { fired(8, {r, layout}); },
    [](int32_t r, int32_t p, const char* name) { fired(9, {r, p}, name); }};
// clang-format on

template <typename T, size_t N> T at(const T (&table)[N], unsigned index) {
    return table[index % N];
}
const int32_t extremes[] = {INT32_MIN, INT32_MAX, -1, 1000000, 89, 90, 40, 41, 2, 3};
const int32_t layout_ids[] = {1, 2, 3, 10, 20, 30, 40, 50, 60, 0, -1, 7, INT32_MIN, INT32_MAX};
const int32_t input_rates[] = {48000, 48000, 16000, 8000, 24000, 32000, 44100, 96000, 0, -48000};
const std::string long_name(300, 'x');
const char* const names[] = {
    nullptr, "", "Alice", "%s%n%x%s", long_name.c_str(), "\xC3\xA9l\xC3\xA8ve", "\xFF"};
int32_t coordinate(uint8_t b) { return b < 224 ? static_cast<int8_t>(b) * 10 : at(extremes, b); }
float sample(uint8_t b) { // denormals, full scale and speech-range values
    if (b < 96) return std::numeric_limits<float>::denorm_min() * static_cast<float>(b);
    return b < 128 ? static_cast<float>(b % 2 * 2 - 1) : static_cast<float>(b - 192) / 64.0f;
}
bool same(const qel_seat& a, const qel_seat& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
// The call may succeed when `possible`, and must fail otherwise.
std::optional<bool> only_if(bool possible) {
    return possible ? std::nullopt : std::optional(false);
}

} // namespace

void register_api_events(api_world& world) {
    REQUIRE(qel_add_event_manager(world.handle, &checking_table) == none);
    ++world.tables;
}

void api_program::run(std::span<const uint8_t> bytes, std::span<const api_op> ops) {
    if (world.programs > 1)
        for (const uint32_t r : api_shared_rooms) rooms[r].shared = true;
    for (size_t i = 0; i < bytes.size(); i += 8) {
        uint8_t s[8] = {};
        std::copy_n(bytes.begin() + static_cast<long>(i), std::min<size_t>(8, bytes.size() - i), s);
        const api_op op =
            ops.empty() ? api_op(s[0] % static_cast<int>(api_op::count)) : ops[s[0] % ops.size()];
        step(s, op);
        REQUIRE(t_event.fired == 0); // a query fired, or a change fired more than once per table
    }
}

bool api_program::check(int code, std::initializer_list<int> documented,
                        std::optional<bool> succeeds) {
    const bool ok = code == none;
    REQUIRE(ok || std::find(documented.begin(), documented.end(), code) != documented.end());
    REQUIRE(!succeeds || *succeeds == ok);
    return ok;
}

bool api_program::event(bool ok, size_t slot, values v, const std::string& name) {
    REQUIRE(t_event.fired == (ok ? world.tables : 0));
    REQUIRE(!t_event.fired || (t_event.slot == slot && t_event.v == v && t_event.name == name));
    t_event = {};
    return ok;
}

void api_program::step(const uint8_t* s, api_op op) {
    const qel_handle h = world.handle;
    const qel_library_configuration& o = world.configuration;
    const int n = world.programs;
    const uint32_t r = n == 1         ? s[1] % 8u
                       : s[1] % 8 < 4 ? api_shared_rooms[s[1] % 2]
                                      : 1000u * (index + 1) + s[1] % 8;
    room* rm = rooms.contains(r) ? &rooms[r] : nullptr;
    const bool shared = rm && rm->shared; // others change it too: fewer exact expectations
    const uint32_t p = static_cast<uint32_t>(shared ? s[2] % 8 * n + index : s[2] % 8);
    participant* pm = rm && rm->members.contains(p) ? &rm->members[p] : nullptr;
    const bool null = s[3] < 16;        // a null output pointer or block,
    const int null_code = null ? D : R; // the only case that documents D
    const char* name = at(names, s[4]);
    const std::string stored = name ? name : "";
    const int32_t layout = at(layout_ids, s[4]);
    const auto control =
        static_cast<qel_audio_control>(s[4] < 224 ? s[4] % 18 : at(extremes, s[4]));
    const int32_t value = s[5] < 200 ? s[5] % 104 - 2 : at(extremes, s[5]);
    int got = -1;
    switch (op) {
    case api_op::create_room:
        if (event(check(qel_create_room(h, r), {R}, !rm), 0, {r}))
            rooms[r].layout = world.default_layout;
        break;
    case api_op::destroy_room:
        if (!shared && event(check(qel_destroy_room(h, r), {R}, rm != nullptr), 1, {r}))
            rooms.erase(r);
        break;
    case api_op::set_layout: // V: no such layout; C or V: a member refuses a default state
        if (event(check(qel_set_room_layout(h, r, layout), {R, V, C}, only_if(rm)), 8,
                  {r, layout})) {
            rm->layout = layout;
        }
        break;
    case api_op::query_room: // V: a room without a layout; a shared room has others' members too
        if (check(qel_get_participant_count(h, r, null ? nullptr : &got), {R, null_code},
                  !null && rm)) {
            REQUIRE(got == int(rm->members.size()) ||
                    (shared && got > int(rm->members.size()) && got <= 8 * n));
        }
        if (check(qel_get_room_layout(h, r, null ? nullptr : &got), {R, V, null_code},
                  shared ? only_if(!null) : std::optional(!null && rm && rm->layout)) &&
            !shared) {
            REQUIRE(got == *rm->layout);
        }
        break;
    case api_op::add: {
        const qel_participant_configuration c{at(input_rates, s[7]),
                                              s[5] < 200 ? 1 + s[5] % 2 : s[5] % 4,
                                              s[6] < 200 ? 1 + s[6] % 3 : s[6] % 5};
        const int code = qel_add_participant(h, r, p, name, c);
        if (event(check(code, {R, P, QEL_ERROR_NUM_CHANNELS, T, QEL_ERROR_SAMPLE_RATE, C, V},
                        only_if(rm && !pm)),
                  2, {r, p, c.input_sampling_rate, c.participant_type}, stored)) {
            rm->members[p] = {stored, c};
        }
        break;
    }
    case api_op::remove:
        if (event(check(qel_remove_participant(h, r, p), {R, P}, pm != nullptr), 3, {r, p}))
            rm->members.erase(p);
        break;
    case api_op::set_name: // a buffer of just the name's length passes and takes the terminator too
        if (event(check(qel_set_participant_name(h, r, p, name), {R, P}, pm != nullptr), 9, {r, p},
                  stored)) {
            pm->name = stored;
            std::vector<char> back(stored.size() + 1, '\x7f');
            const int length = int(stored.size()) - (s[5] % 4 == 0); // or one byte short
            check(qel_get_participant_name(h, r, p, back.data(), length), {L},
                  length == int(stored.size()));
            REQUIRE(length < int(stored.size()) || back.data() == stored);
        }
        break;
    case api_op::set_seat: {
        const int code =
            qel_set_participant_seat(h, r, p, s[5] < 224 ? s[5] % 12 - 2 : at(extremes, s[5]));
        qel_seat now{};
        if (check(code, {R, P, V}, only_if(pm)) && !shared)
            REQUIRE(qel_get_participant_seat(h, r, p, &now) == none);
        event(code == none, 4,
              {r, p, shared ? t_event.v[2] : now.seat_index, shared ? t_event.v[3] : now.z});
        break;
    }
    case api_op::set_position: { // C: a closed layout; the heading is checked before any lookup
        const qel_position q{coordinate(s[3]), coordinate(s[4]), coordinate(s[5])};
        const qel_heading hd{s[6] * 363 / 256 - 181, s[7] * 183 / 256 - 91};
        const int code = qel_set_participant_position(h, r, p, q, hd);
        REQUIRE((std::abs(hd.azimuth) <= 180 && std::abs(hd.elevation) <= 90) || code == H);
        const qel_seat placed{-1, q.x, q.y, q.z, hd.azimuth, hd.elevation};
        qel_seat now{};
        if (event(check(code, {H, R, P, C}, only_if(pm)), 5, {r, p, q.z, hd.elevation}) &&
            !shared) {
            REQUIRE(qel_get_participant_seat(h, r, p, &now) == none && same(now, placed));
        }
        break;
    }
    case api_op::set_state:
    case api_op::set_all_states: {
        // Before anyone can hear it.
        if (rm && control == QEL_CONTROL_STEREO_BYPASS_ENABLE && value != 0) {
            rm->bypass = true;
            if (shared) world.shared_bypass = true;
        }
        const bool one = op == api_op::set_state;
        const int code = one ? qel_set_participant_state(h, r, p, control, value)
                             : qel_set_all_participants_state(h, r, control, value);
        if (event(check(code, {R, one ? P : R, C, V}, only_if(one ? pm != nullptr : rm != nullptr)),
                  one ? 6 : 7, one ? values{r, p, control, value} : values{r, control, value}) &&
            !shared) {
            // A stored value passed its range check: it reads back exactly.
            for (const auto& [id, member] : rm->members) {
                REQUIRE(
                    (one && id != p) ||
                    (qel_get_participant_state(h, r, id, control, &got) == none && got == value));
            }
        }
        break;
    }
    case api_op::flush:
        check(qel_flush_data(h, r, p), {R, P}, pm != nullptr);
        break;
    case api_op::input_audio: { // three sample bytes repeated, in one of the three sample types
        const int rate = pm ? pm->configuration.input_sampling_rate : 48000;
        const auto required =
            static_cast<int>(int64_t{o.output_number_frames} * rate / o.output_sampling_rate);
        const int frames = s[4] < 230 ? required : s[4] * 8 - 1900;
        std::vector<float> f(static_cast<size_t>(std::max(frames, 0)) * 2 + 1);
        for (size_t i = 0; i < f.size(); ++i) f[i] = sample(s[5 + i % 3]);
        const std::vector<double> d(f.begin(), f.end());
        std::vector<int16_t> i16(f.size());
        std::transform(f.begin(), f.end(), i16.begin(),
                       [](float v) { return static_cast<int16_t>(v * 32767.0f); });
        const int code =
            s[3] % 3 == 0   ? qel_input_audio_short(h, r, p, null ? nullptr : i16.data(), frames)
            : s[3] % 3 == 1 ? qel_input_audio_float(h, r, p, null ? nullptr : f.data(), frames)
                            : qel_input_audio_double(h, r, p, null ? nullptr : d.data(), frames);
        const bool talks =
            pm && pm->configuration.participant_type != QEL_PARTICIPANT_LISTENER_ONLY;
        // A muted talker takes even a null block that fits.
        const bool fits = talks && frames == required;
        check(code, {R, P, L, T, null_code}, fits && null ? std::nullopt : std::optional(fits));
        break;
    }
    case api_op::output_audio: {
        const auto count = static_cast<size_t>(o.output_number_frames * o.output_number_channels);
        std::vector<double> out(count, -3.0); // room for every sample type
        void* buffer = null ? nullptr : out.data();
        const int type = s[3] % 3;
        const int code = type == 0 ? qel_output_audio_short(h, r, p, static_cast<int16_t*>(buffer))
                         : type == 1
                             ? qel_output_audio_float(h, r, p, static_cast<float*>(buffer))
                             : qel_output_audio_double(h, r, p, static_cast<double*>(buffer));
        const bool silent = code == QEL_ERROR_NO_INPUT_AUDIO; // and the block zero-filled
        const bool listens =
            pm && pm->configuration.participant_type != QEL_PARTICIPANT_SOURCE_ONLY && !null;
        REQUIRE(!silent || listens);
        if (!check(silent ? none : code, {R, P, T, null_code}, listens)) break;
        world.heard += !silent;
        // The limiter holds a block below full scale; the mono downmix and the output resampler's
        // ripple can raise it; stereo bypass adds up the talkers' blocks, each within full scale.
        const double cap = (o.output_number_channels == 1 ? 1.415 : 1) *
                           (o.output_sampling_rate == 48000 ? 1 : 1.25);
        const double bound = silent                                               ? 0.0
                             : (shared ? world.shared_bypass.load() : rm->bypass) ? 32.0 * n
                                                                                  : cap;
        for (size_t i = 0; i < count; ++i) {
            const double v = type == 0   ? static_cast<int16_t*>(buffer)[i] / 32768.0
                             : type == 1 ? static_cast<float*>(buffer)[i]
                                         : out[i];
            REQUIRE(std::isfinite(v) && std::fabs(v) <= bound);
        }
        break;
    }
    case api_op::count:
        break;
    }
}

} // namespace quelora::testing
