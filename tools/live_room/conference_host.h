// The conference side of the live room: one library, one room, its
// participants (browser tabs and bots), and the audio thread that paces the
// room in 10 ms periods. The network thread joins, moves and controls
// participants and reads what the engine reports; the audio thread only
// exchanges blocks with it through lock-free rings, so a slow or vanished
// client never holds a period up.
#pragma once

#include "block_queue.h"
#include "options.h"

#include <quelora/quelora.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quelora::live_room {

inline constexpr int32_t sample_rate = 48000;
inline constexpr int32_t block_frames = 480; // 10 ms
inline constexpr uint32_t room_id = 1;

// One participant as both threads see it.
struct member {
    member() : inbound(block_frames, 8), outbound(2 * block_frames, 16) {}

    uint32_t id = 0;
    std::string name;
    bool bot = false;
    std::vector<float> clip;    // a bot's speech, 48 kHz mono, looped
    block_queue inbound;        // microphone blocks, network -> audio
    block_queue outbound;       // stereo mixes, audio -> network
    std::function<void()> wake; // the session's "mixes are waiting" (called by the audio thread)
    std::atomic<float> level_db{-120.0f}; // input level over the last 100 ms
    std::atomic<bool> talking{false};
    std::atomic<uint64_t> received{0};    // microphone blocks that arrived
    std::atomic<uint64_t> underruns{0};   // periods without a microphone block once it had sent one
    std::atomic<uint64_t> dropped_in{0};  // microphone blocks refused by a full ring
    std::atomic<uint64_t> skips{0};       // times the ring was cut back to its start depth
    std::atomic<uint64_t> dropped_out{0}; // mixes refused by a full ring (a slow client)
    // The audio thread's own.
    std::size_t clip_position = 0;
    bool receiving = false; // the ring reached its start depth and has not run dry since
    double energy = 0.0;
    int energy_blocks = 0;
    int hangover = 0;
};

struct audio_statistics {
    std::atomic<uint64_t> periods{0};
    std::atomic<uint64_t> late_periods{0}; // finished after the deadline
    std::atomic<uint64_t> max_processing_us{0};
    std::atomic<uint64_t> last_processing_us{0};
    std::atomic<uint64_t> total_processing_us{0};
    std::atomic<bool> realtime{false}; // the thread got a real-time scheduling class
};

class conference_host {
public:
    // Starts the library and the room; throws std::runtime_error with the reason.
    explicit conference_host(const options& o);
    ~conference_host();
    conference_host(const conference_host&) = delete;
    conference_host& operator=(const conference_host&) = delete;

    // changed runs (on the caller's thread of choice: it should post) after
    // the engine reports a room or participant change through its callbacks.
    void on_engine_change(std::function<void()> changed) { changed_ = std::move(changed); }

    void start_audio();
    void stop_audio();

    // A bot talking from clip (48 kHz mono). Throws on a library refusal.
    void add_bot(const std::string& name, std::vector<float> clip);
    // Spreads the bots evenly over the layout's seats (they arrive in the
    // first ones), so that they come from all around.
    void spread_bots();
    // A browser participant; null with error set when the engine refuses.
    std::shared_ptr<member> join(const std::string& name, std::function<void()> wake,
                                 std::string& error);
    void leave(uint32_t id);
    // Library codes (QEL_ERROR_NONE on success).
    int move(uint32_t id, int32_t seat_index);
    int set_control(uint32_t id, const std::string& control, int value);

    // The JSON messages of the page's protocol (docs/live_room.md).
    std::string welcome_json(uint32_t id) const;
    std::string room_json(uint32_t for_id) const;
    std::string levels_json() const;
    std::string stats_json() const;

    // The engine's delay from a talker's input to a listener's output with
    // the controls `id` has now, measured with a burst through a private
    // room (blocks for about half a second; call it off the network thread).
    double measure_engine_delay_ms(uint32_t id, std::string& error);

    qel_handle handle() const { return handle_; }

private:
    using member_list = std::vector<std::shared_ptr<member>>;
    std::shared_ptr<const member_list> members() const;
    void publish(std::shared_ptr<const member_list> list);
    void run_audio();
    void process_period(const member_list& list, std::vector<float>& in, std::vector<float>& out);
    static void measure_level(member& m, const float* block);
    static void engine_changed();

    qel_handle handle_ = nullptr;
    std::string layouts_json_; // the room configuration document the library holds
    int32_t layout_id_ = 0;
    std::function<void()> changed_;
    qel_event_manager_t events_{};

    mutable std::mutex members_mutex_; // guards the pointer swap only
    std::shared_ptr<const member_list> members_;
    std::mutex edit_mutex_; // serialises joins, leaves and probes
    uint32_t next_id_ = 1;

    std::atomic<bool> running_{false};
    std::thread audio_thread_;
    audio_statistics stats_;
    std::chrono::steady_clock::time_point started_;
};

} // namespace quelora::live_room
