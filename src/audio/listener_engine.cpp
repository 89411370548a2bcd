#include "audio/listener_engine.h"

#include <algorithm>

namespace quelora {

listener_engine::listener_engine(int32_t frames, size_t expected_sources) : frames_(frames) {
    slots_.reserve(expected_sources);
}

listener_engine::source_slot* listener_engine::find(int32_t source_id) {
    auto it = std::find_if(slots_.begin(), slots_.end(),
                           [&](const source_slot& s) { return s.source_id == source_id; });
    return it == slots_.end() ? nullptr : &*it;
}

const listener_engine::source_slot* listener_engine::find(int32_t source_id) const {
    return const_cast<listener_engine*>(this)->find(source_id);
}

void listener_engine::add_source(int32_t source_id, int32_t channels) {
    std::lock_guard lock(mutex_);
    slots_.push_back({source_id, channels, {}});
}

void listener_engine::remove_source(int32_t source_id) {
    std::lock_guard lock(mutex_);
    std::erase_if(slots_, [&](const source_slot& s) { return s.source_id == source_id; });
}

bool listener_engine::flush_source(int32_t source_id) {
    std::lock_guard lock(mutex_);
    // No audio is queued in a slot until the audio path lands (docs/status.md);
    // the lookup is what the control plane owns here.
    return find(source_id) != nullptr;
}

void listener_engine::flush() {
    std::lock_guard lock(mutex_);
    // As flush_source: the slots hold no queued audio yet (docs/status.md).
}

void listener_engine::store_direction(int32_t source_id, int32_t azimuth, int32_t elevation,
                                      int32_t distance) {
    std::lock_guard lock(mutex_);
    source_slot* slot = find(source_id);
    if (slot == nullptr) {
        return;
    }
    // One lock for the three fields: the spec's per-field lock-unlock is not
    // observable here, since writers hold the room's participants lock exclusively.
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
    d.dirty = true;
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

size_t listener_engine::source_count() const {
    std::lock_guard lock(mutex_);
    return slots_.size();
}

} // namespace quelora
