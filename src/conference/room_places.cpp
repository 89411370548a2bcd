// Seats, positions, directions and layout switches of a room.
#include "conference/room.h"

#include "api/quelora_exception.h"

#include <climits>
#include <mutex>

namespace quelora {

namespace {

// Stands in for a missing layout (a document whose "default" names no
// layout): closed, without seats or default states (docs/design.md).
const quelora_room_layout& no_layout() {
    static const quelora_room_layout layout = [] {
        quelora_room_layout l;
        l.id = -1;
        return l;
    }();
    return layout;
}

} // namespace

const quelora_room_layout& room::effective_layout() const {
    return layout_ != nullptr ? *layout_ : no_layout();
}

const quelora_room_layout* room::layout() const {
    std::shared_lock layout_guard(layout_lock_);
    return layout_;
}

void room::update_direction(participant& listener, const participant& source) {
    if (&listener == &source || listener.is_source_only() || listener.listener() == nullptr) {
        return;
    }
    const direction d =
        compute_direction(listener.identity().get_place(), source.identity().get_place());
    listener.listener()->store_direction(source.id(), d.azimuth, d.elevation, d.distance);
}

void room::update_directions_of(participant& moved) {
    for (auto& p : participants_) {
        update_direction(moved, *p);
        update_direction(*p, moved);
    }
}

int32_t room::first_free_seat() const {
    std::vector<int32_t> taken;
    taken.reserve(participants_.size());
    for (const auto& p : participants_) taken.push_back(p->identity().seat_index());
    return quelora::first_free_seat(taken);
}

place room::set_seat(int32_t participant_id, int32_t seat_index) {
    std::unique_lock participants(participants_lock_);
    std::shared_lock layout_guard(layout_lock_);
    const quelora_room_layout& layout = effective_layout();
    const auto seat_count = static_cast<int64_t>(layout.seats.size());
    // Refused when k < 1 and, as an unsigned 64-bit number, above n: in effect
    // only negative indices are refused (0 is placed at the origin).
    if (seat_index < 1 &&
        static_cast<uint64_t>(static_cast<int64_t>(seat_index)) > static_cast<uint64_t>(seat_count)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "seat index %d does not exist in room layout %i.", seat_index,
                                layout.id);
    }
    participant& moving = find(participant_id);
    const int32_t current = moving.identity().seat_index();
    // Nothing changes when the participant already holds that physical seat,
    // tested with C++ remainder semantics; a layout without seats compares the
    // indices themselves (no division by zero).
    const int64_t current_seat =
        seat_count > 0 ? (static_cast<int64_t>(current) - 1) % seat_count + 1 : current;
    if (current_seat == seat_index) {
        return moving.identity().get_place();
    }
    int64_t k = seat_index;
    auto held_by_other = [&](int64_t index) {
        for (const auto& p : participants_) {
            if (p.get() != &moving && p->identity().seat_index() == index) return true;
        }
        return false;
    };
    while (seat_count > 0 && held_by_other(k)) {
        k += seat_count; // the next stacking level of the same physical seat
        if (k > INT32_MAX) {
            // Stacked past what a seat index can hold (docs/design.md).
            throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                    "seat index %d does not exist in room layout %i.", seat_index,
                                    layout.id);
        }
    }
    const place seat = lookup_seat(layout, static_cast<int32_t>(k));
    moving.identity().set_place(seat);
    update_directions_of(moving);
    return seat;
}

void room::set_position(int32_t participant_id, const qel_position& position,
                        const qel_heading& heading) {
    std::unique_lock participants(participants_lock_);
    std::shared_lock layout_guard(layout_lock_);
    if (!effective_layout().open_room) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_CONTROL,
                                "You can only use set_position for an open room. Change room %i "
                                "to an open room layout to use set_position",
                                id_);
    }
    participant& moving = find(participant_id);
    moving.identity().set_place(
        {-1, position.x, position.y, position.z, heading.azimuth, heading.elevation});
    update_directions_of(moving);
}

place room::get_place(int32_t participant_id) const {
    std::shared_lock participants(participants_lock_);
    return find(participant_id).identity().get_place();
}

std::optional<participant_snapshot> room::snapshot(int32_t participant_id) const {
    std::shared_lock participants(participants_lock_);
    const participant* p = find_if_present(participant_id);
    if (p == nullptr) return std::nullopt;
    const control_values values = p->identity().controls();
    participant_snapshot result;
    result.seat = to_seat_record(p->identity().get_place());
    for (int32_t control = 1; control <= control_count; ++control)
        result.controls[static_cast<size_t>(control - 1)] = values.get(control);
    return result;
}

source_direction room::spherical(int32_t listener_id, int32_t source_id) const {
    std::shared_lock participants(participants_lock_);
    const participant& listener = find(listener_id);
    find(source_id);
    if (listener.is_source_only() || listener.listener() == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "Participant %i in room %i is source only and therefore doesn't "
                                "experience 3D",
                                listener_id, id_);
    }
    const auto entry = listener.listener()->direction_of(source_id);
    // Every pair of a room is linked when its later member joins, so a
    // missing entry cannot arise; report it as the unknown source it would be.
    if (!entry) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_PARTICIPANT_ID,
                                "The participant id %i is not in room %i", source_id, id_);
    }
    return *entry;
}

void room::switch_layout(const quelora_room_layout* layout) {
    std::unique_lock participants(participants_lock_);
    std::unique_lock layout_guard(layout_lock_);
    if (layout_ != nullptr && layout != nullptr && layout_->id == layout->id) {
        return; // same id: nothing changes, defaults are not reapplied
    }
    const quelora_room_layout& next = layout != nullptr ? *layout : no_layout();
    // Every default state is checked for every participant first, in the order
    // the switch applies them, so that the first refusal is reported with its
    // own message and code while nothing has changed yet (docs/design.md).
    for (const auto& p : participants_) check_default_states(*p, next);

    layout_ = layout;
    for (auto& p : participants_) {
        apply_default_states(*p, next);
        const int32_t seat = p->identity().seat_index();
        p->identity().set_place(lookup_seat(next, seat == -1 ? first_free_seat() : seat));
    }
    for (auto& listener : participants_) {
        for (auto& source : participants_) update_direction(*listener, *source);
    }
}

} // namespace quelora
