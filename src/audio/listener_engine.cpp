#include "audio/listener_engine.h"

#include "dsp/vector_ops.h"

#include <algorithm>

namespace quelora {

listener_engine::listener_engine(int32_t frames, size_t expected_sources,
                                 const spatial_filter_bank* bank)
    : frames_(frames) {
    slots_.reserve(expected_sources);
    slot_ids_.reserve(expected_sources);
    render_view_.reserve(expected_sources);
    if (bank != nullptr) renderer_ = std::make_unique<binaural_renderer>(*bank, frames);
}

listener_engine::~listener_engine() {
    for (source_slot& slot : slots_) release_all(slot);
}

listener_engine::source_slot* listener_engine::find(int32_t source_id) {
    // Scanned in the ids alone: every talker's input call looks its slot up
    // in every listener, and the slots themselves span a cache line or more.
    const auto it = std::find(slot_ids_.begin(), slot_ids_.end(), source_id);
    return it == slot_ids_.end() ? nullptr : &slots_[static_cast<size_t>(it - slot_ids_.begin())];
}

const listener_engine::source_slot* listener_engine::find(int32_t source_id) const {
    return const_cast<listener_engine*>(this)->find(source_id);
}

void listener_engine::add_source(int32_t source_id, int32_t channels) {
    source_slot slot;
    slot.source_id = source_id;
    slot.channels = channels;
    if (renderer_) slot.render_state = renderer_->make_source_state();
    std::lock_guard lock(mutex_);
    slots_.push_back(std::move(slot));
    slot_ids_.push_back(source_id);
    render_view_.reserve(slots_.size());
}

void listener_engine::remove_source(int32_t source_id) {
    std::lock_guard lock(mutex_);
    source_slot* slot = find(source_id);
    if (slot == nullptr) return;
    release_all(*slot);
    const auto index = static_cast<std::ptrdiff_t>(slot - slots_.data());
    slots_.erase(slots_.begin() + index);
    slot_ids_.erase(slot_ids_.begin() + index);
}

void listener_engine::recycle(source_slot& slot, std::unique_ptr<queue_node> node) {
    if (!node) return;
    if (node->spectra != nullptr) {
        node->spectra->release();
        node->spectra = nullptr;
    }
    node->next = std::move(slot.free_nodes);
    slot.free_nodes = std::move(node);
}

void listener_engine::discard_queue(source_slot& slot) {
    while (slot.head) {
        std::unique_ptr<queue_node> node = std::move(slot.head);
        slot.head = std::move(node->next);
        recycle(slot, std::move(node));
    }
    slot.tail = nullptr;
    slot.queued = 0;
}

// Drops every node of a slot, releasing its spectrum references. Queues are
// singly linked through unique_ptr: unlinked iteratively so that a long
// queue cannot overflow the stack.
void listener_engine::release_all(source_slot& slot) {
    discard_queue(slot);
    recycle(slot, std::move(slot.popped));
    recycle(slot, std::move(slot.previous));
    while (slot.free_nodes) slot.free_nodes = std::move(slot.free_nodes->next);
}

bool listener_engine::flush_source(int32_t source_id) {
    std::lock_guard lock(mutex_);
    source_slot* slot = find(source_id);
    if (slot == nullptr) return false;
    discard_queue(*slot);
    return true;
}

void listener_engine::flush() {
    std::lock_guard lock(mutex_);
    for (source_slot& slot : slots_) discard_queue(slot);
    // The renderer and the held blocks may be in use by a rendering that runs
    // outside the mutex; the next mix, which owns them, forgets them.
    reset_requested_ = true;
}

std::unique_ptr<listener_engine::queue_node> listener_engine::take_node(source_slot& slot) {
    if (slot.free_nodes) {
        std::unique_ptr<queue_node> node = std::move(slot.free_nodes);
        slot.free_nodes = std::move(node->next);
        return node;
    }
    // The one allocation a block can cost: a queue node, made
    // only while the slot's queue is deeper than it has been before.
    auto node = std::make_unique<queue_node>();
    node->data = std::make_unique<float[]>(static_cast<size_t>(slot.channels) *
                                           static_cast<size_t>(frames_));
    return node;
}

bool listener_engine::submit(int32_t source_id, const float* block, float gain,
                             spectrum_record* spectra, uint64_t sequence) {
    std::lock_guard lock(mutex_);
    source_slot* slot = find(source_id);
    if (slot == nullptr) return false;
    std::unique_ptr<queue_node> node = take_node(*slot);
    const int32_t samples = slot->channels * frames_;
    dsp::copy(block, node->data.get(), samples);
    if (gain != 1.0f) dsp::scale(node->data.get(), gain, samples);
    if (spectra != nullptr) spectra->acquire();
    node->spectra = spectra;
    node->sequence = sequence;
    node->gain = gain;
    queue_node* raw = node.get();
    if (slot->tail == nullptr) {
        slot->head = std::move(node);
    } else {
        slot->tail->next = std::move(node);
    }
    slot->tail = raw;
    ++slot->queued;
    return true;
}

bool listener_engine::pop(source_slot& slot) {
    if (!slot.head) return false;
    recycle(slot, std::move(slot.previous));
    slot.previous = std::move(slot.popped);
    slot.popped = std::move(slot.head);
    slot.head = std::move(slot.popped->next);
    if (!slot.head) slot.tail = nullptr;
    --slot.queued;
    return true;
}

void listener_engine::mix_plainly(const source_slot& slot, float* destination) const {
    const float* left = slot.popped->data.get();
    float* mix_left = destination;
    float* mix_right = destination + frames_;
    if (slot.channels == 1) {
        // The mono block times 1/sqrt(2) into both ears.
        dsp::multiply_add_twice(left, mono_to_stereo_gain, mix_left, mix_right, frames_);
    } else {
        dsp::add(left, mix_left, frames_);
        dsp::add(left + frames_, mix_right, frames_);
    }
}

bool listener_engine::renders(const control_values& listener) const {
    // Without a filter bank a 3D listener is mixed plainly rather than not at all.
    return renderer_ != nullptr && listener.get(QEL_CONTROL_MIXING_3D_ENABLE) != 0 &&
           listener.get(QEL_CONTROL_STEREO_BYPASS_ENABLE) == 0;
}

int32_t listener_engine::mix(float* destination, const control_values& listener) {
    const bool rendered = renders(listener);
    dsp::zero(destination, 2 * frames_);
    {
        std::lock_guard lock(mutex_);
        if (reset_requested_) {
            reset_requested_ = false;
            for (source_slot& slot : slots_) {
                recycle(slot, std::move(slot.popped));
                recycle(slot, std::move(slot.previous));
            }
            if (renderer_) renderer_->reset();
        }
        bool present = false;
        for (source_slot& slot : slots_) {
            slot.received = false;
            // A source has a new block when its queue holds a full one: every
            // queued node is full, so a non-empty queue says it.
            if (!pop(slot)) continue;
            slot.received = true;
            present = true;
            if (!rendered) mix_plainly(slot, destination);
        }
        if (!present) return 0;
        if (!rendered) return frames_;
        prepare_render();
    }
    renderer_->render(render_view_.data(), static_cast<int32_t>(render_view_.size()), listener,
                      destination);
    dsp::scale(destination, rendered_mix_gain, 2 * frames_);
    return frames_;
}

void listener_engine::prepare_render() {
    const auto block_of = [](const std::unique_ptr<queue_node>& node) {
        if (!node) return rendered_block{};
        return rendered_block{node->data.get(), node->spectra, node->sequence, node->gain};
    };
    render_view_.clear(); // capacity reserved in add_source: no allocation
    for (source_slot& slot : slots_) {
        render_view_.push_back({slot.channels, &slot.direction, block_of(slot.popped),
                                block_of(slot.previous), slot.received, slot.render_state.get()});
    }
}

void listener_engine::store_direction(int32_t source_id, int32_t azimuth, int32_t elevation,
                                      int32_t distance) {
    std::lock_guard lock(mutex_);
    source_slot* slot = find(source_id);
    if (slot == nullptr) {
        return;
    }
    // One lock for the three fields rather than one per field: the difference
    // is not observable, since writers hold the room's participants lock
    // exclusively.
    source_direction& d = slot->direction;
    d.azimuth = azimuth;
    d.elevation = elevation;
    if (distance >= 0) {
        if (distance < near_distance_limit) {
            d.near_distance = distance;
            d.far_distance = 0;
        } else {
            d.near_distance = near_distance_limit;
            d.far_distance = distance - near_distance_limit;
        }
    }
    ++d.version;
}

std::optional<source_direction> listener_engine::direction_of(int32_t source_id) const {
    std::lock_guard lock(mutex_);
    const source_slot* slot = find(source_id);
    if (slot == nullptr) return std::nullopt;
    return slot->direction;
}

std::optional<int32_t> listener_engine::channels_of(int32_t source_id) const {
    std::lock_guard lock(mutex_);
    const source_slot* slot = find(source_id);
    if (slot == nullptr) return std::nullopt;
    return slot->channels;
}

int32_t listener_engine::queued_blocks(int32_t source_id) const {
    std::lock_guard lock(mutex_);
    const source_slot* slot = find(source_id);
    return slot == nullptr ? 0 : slot->queued;
}

size_t listener_engine::source_count() const {
    std::lock_guard lock(mutex_);
    return slots_.size();
}

} // namespace quelora
