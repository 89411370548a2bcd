// A listening participant's engine (spec Parts 4.2, 4.3): one source slot per
// other participant of the room, keyed by the source's id. This control-plane
// part holds what Part 3.3 writes into each slot (direction and distance);
// the queues, mix buffers and renderer state arrive with the audio path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace quelora {

// What Part 3.3 stores for one source, as the renderer of Part 4.3 reads it.
struct source_direction {
    int32_t azimuth = 0;
    int32_t elevation = 0;
    int32_t near_distance = 0; // min(distance, 300)
    int32_t far_distance = 0;  // distance beyond 300
    bool dirty = false;        // set on every write, cleared by the renderer
};

inline constexpr int32_t near_distance_limit = 300;

class listener_engine {
public:
    // frames: the processing frame length at 48000 Hz. Capacity for
    // `expected_sources` slots is reserved up front.
    listener_engine(int32_t frames, size_t expected_sources);

    int32_t frames() const { return frames_; }

    // A slot for a new source (Part 3.2 step 6); channels is its input channel count.
    void add_source(int32_t source_id, int32_t channels);
    // Drops the slot of a source that left the room (Part 3.2 remove).
    void remove_source(int32_t source_id);
    // Discards what is buffered from one source / from every source
    // (qel_flush_data, Part 1.1). Returns whether the slot exists.
    bool flush_source(int32_t source_id);
    void flush();

    // Part 3.3 "Storing the result": azimuth and elevation as given; a
    // distance below 300 is near, beyond it near 300 plus far; a negative
    // distance leaves the distance fields as they were. No slot: nothing.
    void store_direction(int32_t source_id, int32_t azimuth, int32_t elevation, int32_t distance);

    std::optional<source_direction> direction_of(int32_t source_id) const;
    std::optional<int32_t> channels_of(int32_t source_id) const;
    size_t source_count() const;

private:
    struct source_slot {
        int32_t source_id;
        int32_t channels;
        source_direction direction;
    };

    source_slot* find(int32_t source_id);
    const source_slot* find(int32_t source_id) const;

    int32_t frames_;
    mutable std::mutex mutex_; // the engine mutex of Part 4.2
    std::vector<source_slot> slots_;
};

} // namespace quelora
