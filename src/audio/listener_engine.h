// A listening participant's engine: one source slot per other
// participant of the room, each with a first-in-first-out queue of blocks
// that the sources' input calls submit and this listener's output call pops,
// plus each source's stored direction and distance.
//
// Threads: the queues are guarded by the engine mutex. Submissions come from
// other participants' input threads, mixes from the listener's output
// thread, flushes from control threads; the engine mutex is the last lock in
// the lock order (docs/design.md, "Locks"). A mix holds it only to pop one
// block per source; the binaural rendering runs after it is released, so a
// talker's submission never waits for a listener's convolution. That is
// safe because the popped blocks, the directions and the renderer's states
// belong to the mix: submissions and flushes touch only the queues, while
// slots are added and removed and directions stored under the room's
// participants lock held exclusively, which no output call overlaps.
//
// Memory: a slot's buffers (and its renderer state) are allocated when the
// slot is added. Queue nodes are allocated on submission when the slot has
// no recycled node; popped and flushed nodes are kept on the slot's free
// list, so a listener that keeps up allocates nothing per block once its
// queues have reached their depth.
#pragma once

#include "api/controls.h"
#include "audio/binaural_renderer.h"
#include "audio/source_spectra.h"
#include "audio/spatial_filter_bank.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace quelora {

// The stored direction of one source, as the spatial renderer reads it.
struct source_direction {
    int32_t azimuth = 0;
    int32_t elevation = 0;
    int32_t near_distance = 0; // min(distance, 300)
    int32_t far_distance = 0;  // distance beyond 300
    // Counts the writes: the renderer rebuilds a source's filters when it
    // differs from the one they were built for (the "moved" signal, kept as a
    // count so that readers of the direction never write to it).
    uint64_t version = 0;
};

inline constexpr int32_t near_distance_limit = 300;
// A mono source reaches each ear at 1/sqrt(2) (equal power).
inline constexpr float mono_to_stereo_gain = 0.70710677f;
// The rendered mix is lifted by 1.07, deliberately.
inline constexpr float rendered_mix_gain = 1.07f;

class listener_engine {
public:
    // frames: N, the processing frame length at 48000 Hz. Capacity for
    // `expected_sources` slots is reserved up front. With a filter bank
    // (which must outlive the engine) a listener with 3D on is rendered
    // binaurally; without one it is mixed plainly.
    listener_engine(int32_t frames, size_t expected_sources,
                    const spatial_filter_bank* bank = nullptr);
    ~listener_engine();
    listener_engine(const listener_engine&) = delete;
    listener_engine& operator=(const listener_engine&) = delete;

    int32_t frames() const { return frames_; }

    // A slot for a new source; channels is its input channel count.
    void add_source(int32_t source_id, int32_t channels);
    // Drops the slot of a source that left the room with its queue, at once
    // rather than at the next mix: removal runs under the room's exclusive
    // lock, so no mix can observe the difference.
    void remove_source(int32_t source_id);
    // qel_flush_data: discards the blocks queued from one source /
    // from every source, and on a full flush the renderer's carried state
    // (at the start of the next mix, which owns it). flush_source returns
    // whether the slot exists.
    bool flush_source(int32_t source_id);
    void flush();

    // Queues source channels x N samples of `block`
    // (planar, channel stride N), scaled by gain unless it is exactly 1.0,
    // with the source's spectrum record of it (a reference is taken; null
    // when the source analysed none) and its sequence number.
    // Returns false and does nothing when no slot holds that source.
    bool submit(int32_t source_id, const float* block, float gain,
                spectrum_record* spectra = nullptr, uint64_t sequence = 0);

    // Mixes into `destination` (planar stereo, 2 x N). Pops one block
    // per source that has one; returns N when at least one source
    // contributed, else 0 (the destination is then zeros).
    int32_t mix(float* destination, const control_values& listener);

    bool has_renderer() const { return renderer_ != nullptr; }
    // Whether this listener's next mix renders binaurally with these controls.
    bool renders(const control_values& listener) const;

    // Stores a source's direction: azimuth and elevation as given; a
    // distance below 300 is near, beyond it near 300 plus far; a negative
    // distance leaves the distance fields as they were. No slot: nothing.
    void store_direction(int32_t source_id, int32_t azimuth, int32_t elevation, int32_t distance);

    std::optional<source_direction> direction_of(int32_t source_id) const;
    std::optional<int32_t> channels_of(int32_t source_id) const;
    // Full blocks waiting in a source's queue (0 for an unknown source).
    int32_t queued_blocks(int32_t source_id) const;
    size_t source_count() const;

private:
    struct queue_node {
        std::unique_ptr<queue_node> next;
        std::unique_ptr<float[]> data;      // source channels x N, planar
        spectrum_record* spectra = nullptr; // one reference held while queued or popped
        uint64_t sequence = 0;
        float gain = 1.0f;
    };

    struct source_slot {
        int32_t source_id = 0;
        int32_t channels = 1;
        source_direction direction;
        bool received = false; // got a block in the current mix
        std::unique_ptr<queue_node> head;
        queue_node* tail = nullptr;
        int32_t queued = 0;
        std::unique_ptr<queue_node> free_nodes;
        // The block popped by the last mix and the one before it, which the
        // renderer reads as its current block and its frame A: the nodes
        // themselves are held here until later mixes recycle them, so a pop
        // copies nothing.
        std::unique_ptr<queue_node> popped;
        std::unique_ptr<queue_node> previous;
        std::unique_ptr<binaural_source_state> render_state; // with a renderer only
    };

    source_slot* find(int32_t source_id);
    const source_slot* find(int32_t source_id) const;
    static void recycle(source_slot& slot, std::unique_ptr<queue_node> node);
    static void discard_queue(source_slot& slot);
    void release_all(source_slot& slot);
    std::unique_ptr<queue_node> take_node(source_slot& slot);
    // Recycles the oldest held node and pops the head block into
    // slot.popped; false when none is queued.
    bool pop(source_slot& slot);
    void mix_plainly(const source_slot& slot, float* destination) const;
    // Fills render_view_ (under the engine mutex) for render_view().
    void prepare_render();

    int32_t frames_;
    mutable std::mutex mutex_; // the engine mutex
    std::vector<source_slot> slots_;
    std::vector<int32_t> slot_ids_; // slots_[i].source_id, for find()
    std::unique_ptr<binaural_renderer> renderer_;
    std::vector<binaural_source> render_view_; // one per slot, refilled per mix
    bool reset_requested_ = false;             // a full flush awaits the next mix
};

} // namespace quelora
