// Participant control values within a room.
#include "conference/room.h"

#include "api/quelora_exception.h"

#include <mutex>

namespace quelora {

void room::check_state(const participant& p, int32_t control, int32_t value) const {
    // Auto EQ works on 48 kHz input only, so no auto EQ value, 0 included, can
    // be written for a participant with an input resampler.
    if (p.has_input_resampler() && control == QEL_CONTROL_AUTO_EQ_ENABLE) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_CONTROL,
                                "The Auto EQ effect is only available for 48 kHz inputs currently. "
                                "It will not be enabled for participant %i",
                                p.id());
    }
    check_control(control, control_access::setting);
    check_control_value(control, value);
}

void room::apply_state(participant& p, int32_t control, int32_t value) {
    check_state(p, control, value);
    p.identity().set_control(control, value);
}

void room::check_default_states(const participant& p, const quelora_room_layout& layout) const {
    for (const auto& [control, value] : layout.default_states) check_state(p, control, value);
}

void room::apply_default_states(participant& p, const quelora_room_layout& layout) {
    for (const auto& [control, value] : layout.default_states) apply_state(p, control, value);
}

void room::set_state(int32_t participant_id, int32_t control, int32_t value) {
    std::shared_lock participants(participants_lock_);
    apply_state(find(participant_id), control, value);
}

void room::set_all_states(int32_t control, int32_t value) {
    std::shared_lock participants(participants_lock_);
    // The first failure stops the loop; earlier participants keep the new
    // value, deliberately (a layout switch checks everyone first instead).
    for (auto& p : participants_) apply_state(*p, control, value);
}

int32_t room::get_state(int32_t participant_id, int32_t control) const {
    std::shared_lock participants(participants_lock_);
    return find(participant_id).identity().get_control(control);
}

} // namespace quelora
