#include "conference/participant_identity.h"

namespace quelora {

std::string participant_identity::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void participant_identity::set_name(std::string name) {
    std::lock_guard lock(mutex_);
    name_ = std::move(name);
}

place participant_identity::get_place() const {
    std::lock_guard lock(mutex_);
    return place_;
}

void participant_identity::set_place(const place& p) {
    std::lock_guard lock(mutex_);
    place_ = p;
}

int32_t participant_identity::seat_index() const {
    std::lock_guard lock(mutex_);
    return place_.seat_index;
}

void participant_identity::set_control(int32_t control, int32_t value) {
    std::lock_guard lock(mutex_);
    controls_.set(control, value);
}

int32_t participant_identity::get_control(int32_t control) const {
    std::lock_guard lock(mutex_);
    return controls_.get(control);
}

control_values participant_identity::controls() const {
    std::lock_guard lock(mutex_);
    return controls_;
}

} // namespace quelora
