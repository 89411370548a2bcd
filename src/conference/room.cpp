// Room lifetime and participants.
#include "conference/room.h"

#include "api/quelora_exception.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace quelora {

room::room(int32_t id, const quelora_room_layout* layout,
           const qel_library_configuration& audio_configuration, filter_banks banks)
    : id_(id), audio_configuration_(audio_configuration), banks_(banks), layout_(layout) {
    participants_.reserve(room_reserved_participants);
}

room::~room() { tear_down(); }

participant* room::find_if_present(int32_t participant_id) const {
    for (const auto& p : participants_) {
        if (p->id() == participant_id) return p.get();
    }
    return nullptr;
}

participant& room::find(int32_t participant_id) {
    if (participant* found = find_if_present(participant_id)) return *found;
    throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_PARTICIPANT_ID,
                            "The participant id %i is not in room %i", participant_id, id_);
}

const participant& room::find(int32_t participant_id) const {
    return const_cast<room*>(this)->find(participant_id);
}

void room::add_participant(int32_t participant_id, const std::string& name,
                           const qel_participant_configuration& configuration) {
    std::unique_lock participants(participants_lock_);
    for (const auto& p : participants_) {
        if (p->id() == participant_id) {
            throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_PARTICIPANT_ID,
                                    "The participant id %i already exists in room %i",
                                    participant_id, id_);
        }
    }
    auto added = std::make_unique<participant>(participant_id, name, configuration,
                                               audio_configuration_, banks_,
                                               room_reserved_participants);

    std::shared_lock layout_guard(layout_lock_);
    const quelora_room_layout& layout = effective_layout();
    if (!layout.open_room) {
        // Seated and given the defaults before it joins the vector, so that a
        // refused default state (out of range, or auto EQ with an input
        // resampler) leaves the room unchanged.
        // The new participant holds no seat yet, so the free seat is the same.
        place seat = lookup_seat(layout, first_free_seat());
        added->identity().set_place(seat);
        apply_default_states(*added, layout);
    }
    participants_.push_back(std::move(added));
    participant& joined = *participants_.back();

    for (auto& other_ptr : participants_) {
        participant& other = *other_ptr;
        if (&other == &joined) continue;
        if (other.listener() != nullptr) other.listener()->add_source(joined.id(), joined.channels());
        if (joined.listener() != nullptr) joined.listener()->add_source(other.id(), other.channels());
        update_direction(joined, other);
        update_direction(other, joined);
    }
}

void room::remove_participant(int32_t participant_id) {
    std::unique_lock participants(participants_lock_);
    auto it = std::find_if(participants_.begin(), participants_.end(),
                           [&](const auto& p) { return p->id() == participant_id; });
    if (it == participants_.end()) {
        find(participant_id); // throws the lookup's exception
    }
    // Every listener drops the leaver's slot first: its queued blocks refer
    // to the leaver's spectrum records, which die with it.
    for (auto& p : participants_) {
        if (p.get() != it->get() && p->listener() != nullptr) {
            p->listener()->remove_source(participant_id);
        }
    }
    participants_.erase(it); // later participants move up one place
}

void room::tear_down() {
    while (true) {
        std::unique_lock participants(participants_lock_);
        if (participants_.empty()) return;
        const int32_t leaving = participants_.front()->id();
        // Slots first, as in remove_participant.
        for (auto& p : participants_) {
            if (p != participants_.front() && p->listener() != nullptr) {
                p->listener()->remove_source(leaving);
            }
        }
        participants_.erase(participants_.begin());
    }
}

size_t room::participant_count() const {
    std::shared_lock participants(participants_lock_);
    return participants_.size();
}

qel_participant_configuration room::participant_configuration(int32_t participant_id) const {
    std::shared_lock participants(participants_lock_);
    return find(participant_id).configuration();
}

void room::set_name(int32_t participant_id, const std::string& name) {
    std::shared_lock participants(participants_lock_);
    find(participant_id).identity().set_name(name);
}

void room::copy_name(int32_t participant_id, char* buffer, int buffer_length) const {
    std::shared_lock participants(participants_lock_);
    const std::string name = find(participant_id).identity().name();
    // Deliberately compares without the terminator: a buffer of exactly the
    // name's length passes and receives length + 1 bytes.
    if (buffer_length < 0 || name.size() > static_cast<size_t>(buffer_length)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_DATA_LENGTH,
                                "To use get name you must allocate a character buffer. For this "
                                "participant the buffer must have at least %i characters allocated",
                                static_cast<int>(name.size()));
    }
    std::memcpy(buffer, name.c_str(), name.size() + 1);
}

void room::flush(int32_t participant_id) {
    std::shared_lock participants(participants_lock_);
    participant& flushed = find(participant_id);
    for (auto& p : participants_) {
        if (p.get() != &flushed && !p->is_source_only() && p->listener() != nullptr) {
            p->listener()->flush_source(participant_id);
        }
    }
    if (!flushed.is_source_only() && flushed.listener() != nullptr) {
        flushed.listener()->flush();
    }
}

} // namespace quelora
