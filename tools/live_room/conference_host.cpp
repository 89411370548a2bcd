#include "conference_host.h"

#include <nlohmann/json.hpp>

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quelora::live_room {

namespace {

using clock = std::chrono::steady_clock;
using json = nlohmann::ordered_json;

constexpr std::chrono::microseconds period(10000);

// Microphone blocks a client's ring holds before its voice is taken: 30 ms
// absorbs the bursts in which browsers deliver audio. A ring that has grown
// past keep_depth (a browser's burst as it starts, or a clock running fast)
// is cut back to start_depth at once: one skip, rather than a full ring
// that keeps the delay up and drops a block at every hiccup.
constexpr std::size_t start_depth = 3;
constexpr std::size_t keep_depth = 6;

// The controls the page may set, in the order it shows them.
constexpr qel_audio_control page_controls[] = {
    QEL_CONTROL_MIXING_3D_ENABLE, QEL_CONTROL_MIXING_3D_REVERB_ENABLE,
    QEL_CONTROL_ANC_ENABLE,       QEL_CONTROL_ANC_HIGH,
    QEL_CONTROL_AGC_ENABLE,       QEL_CONTROL_AUTO_EQ_ENABLE,
    QEL_CONTROL_MASTER_GAIN};

// The library's callbacks carry no user pointer: the one host of the process.
conference_host* instance = nullptr;

// Talking: 100 ms above -45 dBFS, held for 300 ms after the last such.
constexpr int level_blocks = 10;
constexpr float talking_db = -45.0f;
constexpr int talking_hold_blocks = 30;

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void check(int code, const char* what) {
    if (code != QEL_ERROR_NONE)
        throw std::runtime_error(std::string(what) + ": " + qel_error_code_to_string(code));
}

// The place, name and page controls of one participant, as the engine holds them.
json describe(qel_handle h, const member& m, uint32_t for_id) {
    qel_seat seat{};
    qel_get_participant_seat(h, room_id, m.id, &seat);
    json controls = json::object();
    for (qel_audio_control c : page_controls) {
        int value = 0;
        if (qel_get_participant_state(h, room_id, m.id, c, &value) == QEL_ERROR_NONE)
            controls[qel_audio_control_to_string(c)] = value;
    }
    json described{{"id", m.id},   {"name", m.name},        {"seat", seat.seat_index},
                   {"x", seat.x},  {"z", seat.z},           {"azimuth", seat.azimuth},
                   {"bot", m.bot}, {"you", m.id == for_id}, {"controls", controls}};
    // Where the recipient hears this participant, as the engine computed it
    // (azimuth clockwise from straight ahead, 90 = right).
    int32_t azimuth = 0, elevation = 0, distance = 0;
    if (m.id != for_id && qel_get_participant_spherical(h, room_id, for_id, m.id, &azimuth,
                                                        &elevation, &distance) == QEL_ERROR_NONE)
        described["heard_from"] = {{"azimuth", azimuth}, {"distance", distance}};
    return described;
}

} // namespace

conference_host::conference_host(const options& o) {
    if (instance != nullptr) throw std::runtime_error("one live room per process");
    layouts_json_ = read_file(o.layouts_file);
    qel_library_configuration configuration{sample_rate, block_frames, 2, true, o.spatial_quality};
    int code = QEL_ERROR_NONE;
    handle_ = qel_initialize_library(o.layouts_file.c_str(), nullptr, configuration, &code);
    if (handle_ == nullptr)
        throw std::runtime_error(std::string("qel_initialize_library: ") +
                                 qel_error_code_to_string(code));
    instance = this;
    // Every notification means "show the room again": the page draws what the
    // engine did, not what it was asked.
    events_.create_room = [](int32_t) { engine_changed(); };
    events_.add_participant = [](int32_t, int32_t, const char*,
                                 const qel_participant_configuration*) { engine_changed(); };
    events_.remove_participant = [](int32_t, int32_t) { engine_changed(); };
    events_.move_participant = [](int32_t, int32_t, const qel_seat*) { engine_changed(); };
    events_.set_participant_position = [](int32_t, int32_t, const qel_position*, qel_heading) {
        engine_changed();
    };
    events_.set_participant_state = [](int32_t, int32_t, qel_audio_control, int32_t) {
        engine_changed();
    };
    events_.set_all_participants_state = [](int32_t, qel_audio_control, int32_t) {
        engine_changed();
    };
    events_.set_room_layout = [](int32_t, int32_t) { engine_changed(); };
    events_.set_name = [](int32_t, int32_t, const char*) { engine_changed(); };
    check(qel_add_event_manager(handle_, &events_), "qel_add_event_manager");
    check(qel_create_room(handle_, room_id), "qel_create_room");
    if (o.layout_id >= 0) check(qel_set_room_layout(handle_, room_id, o.layout_id), "--layout");
    check(qel_get_room_layout(handle_, room_id, &layout_id_), "qel_get_room_layout");
    members_ = std::make_shared<const member_list>();
    started_ = clock::now();
}

conference_host::~conference_host() {
    stop_audio();
    qel_destroy_library(handle_);
    instance = nullptr;
}

void conference_host::engine_changed() {
    if (instance != nullptr && instance->changed_) instance->changed_();
}

std::shared_ptr<const conference_host::member_list> conference_host::members() const {
    std::lock_guard lock(members_mutex_);
    return members_;
}

void conference_host::publish(std::shared_ptr<const member_list> list) {
    std::lock_guard lock(members_mutex_);
    members_ = std::move(list);
}

void conference_host::add_bot(const std::string& name, std::vector<float> clip) {
    std::lock_guard edit(edit_mutex_);
    auto m = std::make_shared<member>();
    m->id = next_id_++;
    m->name = name;
    m->bot = true;
    m->clip = std::move(clip);
    // A bot only talks: a source-only participant has no mix to compute.
    check(qel_add_participant(handle_, room_id, m->id, name.c_str(),
                              {sample_rate, 1, QEL_PARTICIPANT_SOURCE_ONLY}),
          "qel_add_participant");
    auto list = std::make_shared<member_list>(*members());
    list->push_back(std::move(m));
    publish(std::move(list));
}

void conference_host::spread_bots() {
    const json document = json::parse(layouts_json_, nullptr, false);
    std::size_t seats = 0;
    if (document.is_object() && document.contains("room_list"))
        for (const auto& [key, room] : document["room_list"].items())
            if (room.value("id", -1) == layout_id_)
                seats = room.value("seats", json::array()).size();
    const auto list = members();
    const std::size_t bots = static_cast<std::size_t>(
        std::count_if(list->begin(), list->end(), [](const auto& m) { return m->bot; }));
    if (bots == 0 || seats < bots) return;
    std::size_t k = 0;
    for (const auto& m : *list)
        if (m->bot)
            qel_set_participant_seat(handle_, room_id, m->id,
                                     static_cast<int32_t>(1 + k++ * seats / bots));
}

std::shared_ptr<member> conference_host::join(const std::string& name, std::function<void()> wake,
                                              std::string& error) {
    std::lock_guard edit(edit_mutex_);
    auto m = std::make_shared<member>();
    m->id = next_id_++;
    m->name = name;
    m->wake = std::move(wake);
    const int code = qel_add_participant(handle_, room_id, m->id, name.c_str(),
                                         {sample_rate, 1, QEL_PARTICIPANT_REGULAR});
    if (code != QEL_ERROR_NONE) {
        error =
            std::string("the engine refused the participant: ") + qel_error_code_to_string(code);
        return nullptr;
    }
    auto list = std::make_shared<member_list>(*members());
    list->push_back(m);
    publish(std::move(list));
    return m;
}

void conference_host::leave(uint32_t id) {
    std::lock_guard edit(edit_mutex_);
    auto list = std::make_shared<member_list>(*members());
    std::erase_if(*list, [id](const std::shared_ptr<member>& m) { return m->id == id; });
    // The audio thread may still hold the previous list for a period: the
    // member object outlives it, and calls for a removed id simply fail.
    publish(std::move(list));
    qel_remove_participant(handle_, room_id, id);
}

int conference_host::move(uint32_t id, int32_t seat_index) {
    return qel_set_participant_seat(handle_, room_id, id, seat_index);
}

int conference_host::set_control(uint32_t id, const std::string& control, int value) {
    const qel_audio_control c = qel_string_to_audio_control(control.c_str());
    if (std::find(std::begin(page_controls), std::end(page_controls), c) == std::end(page_controls))
        return QEL_ERROR_INVALID_CONTROL;
    return qel_set_participant_state(handle_, room_id, id, c, value);
}

void conference_host::start_audio() {
    running_ = true;
    audio_thread_ = std::thread([this] { run_audio(); });
}

void conference_host::stop_audio() {
    running_ = false;
    if (audio_thread_.joinable()) audio_thread_.join();
}

// One period every 10 ms on the steady clock. A period that ends after its
// deadline counts as late; one that falls far behind (the machine stalled)
// restarts the schedule instead of racing to catch up.
void conference_host::run_audio() {
    // A real-time scheduling class where the process may have one (root, or
    // CAP_SYS_NICE): the browsers and everything else on the machine then
    // cannot delay a period. Elsewhere the thread runs as it is, and /stats
    // says so.
    sched_param priority{};
    priority.sched_priority = sched_get_priority_min(SCHED_FIFO) + 10;
    stats_.realtime = pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) == 0;
    std::vector<float> in(block_frames), out(2 * block_frames);
    auto deadline = clock::now() + period;
    while (running_) {
        const auto begin = clock::now();
        process_period(*members(), in, out);
        const auto end = clock::now();
        const auto spent = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(end - begin).count());
        stats_.last_processing_us = spent;
        stats_.total_processing_us += spent;
        if (spent > stats_.max_processing_us) stats_.max_processing_us = spent;
        ++stats_.periods;
        if (end > deadline) {
            ++stats_.late_periods;
            if (end - deadline > 10 * period) deadline = end;
        }
        std::this_thread::sleep_until(deadline);
        deadline += period;
    }
}

void conference_host::process_period(const member_list& list, std::vector<float>& in,
                                     std::vector<float>& out) {
    for (const auto& m : list) {
        if (m->bot) {
            for (float& v : in) {
                v = m->clip.empty() ? 0.0f : m->clip[m->clip_position];
                if (++m->clip_position >= m->clip.size()) m->clip_position = 0;
            }
        } else if (m->receiving && m->inbound.pop(in.data())) {
            if (m->inbound.size() > keep_depth) {
                while (m->inbound.size() > start_depth) m->inbound.pop(in.data());
                ++m->skips;
            }
        } else {
            // Not yet enough, or a block late: the engine gets silence and
            // the room keeps its pace. The ring then fills to its start depth
            // again before the client is heard, so that a browser sending in
            // bursts is not chopped into blocks and gaps.
            std::fill(in.begin(), in.end(), 0.0f);
            if (m->receiving) ++m->underruns;
            m->receiving = m->inbound.size() >= start_depth;
        }
        qel_input_audio_float(handle_, room_id, m->id, in.data(), block_frames);
        measure_level(*m, in.data());
    }
    for (const auto& m : list) {
        if (m->bot) continue;
        qel_output_audio_float(handle_, room_id, m->id, out.data());
        if (!m->outbound.push(out.data())) ++m->dropped_out;
        if (m->wake) m->wake();
    }
}

void conference_host::measure_level(member& m, const float* block) {
    double energy = 0.0;
    for (int i = 0; i < block_frames; ++i) energy += double{block[i]} * block[i];
    m.energy += energy / block_frames;
    if (++m.energy_blocks < level_blocks) return;
    const auto db = static_cast<float>(10.0 * std::log10(m.energy / level_blocks + 1e-12));
    m.level_db = db;
    m.hangover = db > talking_db ? talking_hold_blocks : std::max(0, m.hangover - level_blocks);
    m.talking = m.hangover > 0;
    m.energy = 0.0;
    m.energy_blocks = 0;
}

std::string conference_host::welcome_json(uint32_t id) const {
    json controls = json::object();
    for (qel_audio_control c : page_controls) {
        const bool gain = c == QEL_CONTROL_MASTER_GAIN;
        controls[qel_audio_control_to_string(c)] = {{"min", 0}, {"max", gain ? 100 : 1}};
    }
    return json{{"type", "welcome"},          {"participant_id", id},  {"room_id", room_id},
                {"sample_rate", sample_rate}, {"block", block_frames}, {"controls", controls}}
        .dump();
}

std::string conference_host::room_json(uint32_t for_id) const {
    json seats = json::array();
    json layout{{"id", layout_id_}};
    // The layout's seats, from the room configuration the library was given.
    const json document = json::parse(layouts_json_, nullptr, false);
    if (document.is_object() && document.contains("room_list")) {
        for (const auto& [key, room] : document["room_list"].items()) {
            if (!room.contains("id") || room["id"] != layout_id_) continue;
            layout["description"] = room.value("desc", key);
            int index = 1;
            for (const auto& s : room.value("seats", json::array()))
                seats.push_back(
                    {{"seat", index++}, {"x", s.value("x", 0)}, {"z", s.value("z", 0)}});
        }
    }
    layout["seats"] = seats;
    json participants = json::array();
    for (const auto& m : *members()) participants.push_back(describe(handle_, *m, for_id));
    return json{{"type", "room"}, {"layout", layout}, {"participants", participants}}.dump();
}

std::string conference_host::levels_json() const {
    json levels = json::object();
    for (const auto& m : *members()) {
        levels[std::to_string(m->id)] = {{"level", std::round(m->level_db * 10.0f) / 10.0f},
                                         {"talking", m->talking.load()}};
    }
    return json{{"type", "levels"}, {"levels", levels}}.dump();
}

std::string conference_host::stats_json() const {
    long pages = 0, resident = 0;
    if (std::ifstream statm("/proc/self/statm"); statm) statm >> pages >> resident;
    json members_json = json::array();
    for (const auto& m : *members()) {
        members_json.push_back({{"id", m->id},
                                {"name", m->name},
                                {"bot", m->bot},
                                {"inbound_depth", m->inbound.size()},
                                {"outbound_depth", m->outbound.size()},
                                {"received", m->received.load()},
                                {"underruns", m->underruns.load()},
                                {"dropped_in", m->dropped_in.load()},
                                {"skips", m->skips.load()},
                                {"dropped_out", m->dropped_out.load()}});
    }
    const double uptime = std::chrono::duration<double>(clock::now() - started_).count();
    return json{{"uptime_s", uptime},
                {"periods", stats_.periods.load()},
                {"late_periods", stats_.late_periods.load()},
                {"max_processing_us", stats_.max_processing_us.load()},
                {"last_processing_us", stats_.last_processing_us.load()},
                {"total_processing_us", stats_.total_processing_us.load()},
                {"realtime_thread", stats_.realtime.load()},
                {"resident_kib", resident * 4},
                {"members", members_json}}
        .dump();
}

double conference_host::measure_engine_delay_ms(uint32_t id, std::string& error) {
    std::lock_guard edit(edit_mutex_);
    // A private room with one talker and one listener, both with the
    // requester's controls, so the burst takes the path the requester's
    // voice takes: canceller look-ahead, renderer, limiter.
    constexpr uint32_t probe_room = 999999;
    constexpr uint32_t talker = 1, listener = 2;
    if (qel_create_room(handle_, probe_room) != QEL_ERROR_NONE) {
        error = "cannot create the measuring room";
        return -1.0;
    }
    qel_add_participant(handle_, probe_room, talker, "probe talker",
                        {sample_rate, 1, QEL_PARTICIPANT_REGULAR});
    qel_add_participant(handle_, probe_room, listener, "probe listener",
                        {sample_rate, 1, QEL_PARTICIPANT_REGULAR});
    for (qel_audio_control c : page_controls) {
        int value = 0;
        if (qel_get_participant_state(handle_, room_id, id, c, &value) != QEL_ERROR_NONE) continue;
        qel_set_participant_state(handle_, probe_room, talker, c, value);
        qel_set_participant_state(handle_, probe_room, listener, c, value);
    }
    // Half a second of a quiet noise floor, then a 5 ms burst of 1 kHz at
    // block 20: the canceller sees speech-like onsets rather than digital
    // silence.
    constexpr int blocks = 60, burst_block = 20, burst_samples = 240;
    std::vector<float> in(block_frames), silence(block_frames), out(2 * block_frames), heard;
    heard.reserve(blocks * block_frames);
    uint32_t seed = 1;
    for (int b = 0; b < blocks; ++b) {
        for (int i = 0; i < block_frames; ++i) {
            seed = seed * 1664525u + 1013904223u;
            in[i] = 1e-4f * (static_cast<float>(seed >> 8) / 16777216.0f - 0.5f);
            if (b == burst_block && i < burst_samples) {
                const double t = i;
                in[i] +=
                    static_cast<float>(0.5 * std::sin(2.0 * 3.14159265 * 1000.0 * t / sample_rate) *
                                       std::sin(3.14159265 * t / burst_samples));
            }
        }
        qel_input_audio_float(handle_, probe_room, talker, in.data(), block_frames);
        qel_input_audio_float(handle_, probe_room, listener, silence.data(), block_frames);
        qel_output_audio_float(handle_, probe_room, listener, out.data());
        for (int i = 0; i < block_frames; ++i)
            heard.push_back(std::fabs(out[2 * i]) + std::fabs(out[2 * i + 1]));
    }
    qel_destroy_room(handle_, probe_room);
    // The burst's arrival: its envelope's first crossing of half its peak,
    // against the same point of the burst sent (a quarter of its length in).
    const std::size_t from = burst_block * block_frames;
    const auto peak = std::max_element(heard.begin() + static_cast<long>(from), heard.end());
    if (peak == heard.end() || *peak < 1e-3f) {
        error = "the burst did not come through (is the listener muted?)";
        return -1.0;
    }
    std::size_t arrival = from;
    while (arrival < heard.size() && heard[arrival] < 0.5f * *peak) ++arrival;
    const double sent = static_cast<double>(from) + burst_samples / 4.0;
    return (static_cast<double>(arrival) - sent) * 1000.0 / sample_rate;
}

} // namespace quelora::live_room
