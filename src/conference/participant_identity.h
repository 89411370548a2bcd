// A participant's identity record: name, place and the sixteen control
// values, guarded by a mutex of its own so that audio threads can read
// controls while the host sets them.
#pragma once

#include "api/controls.h"
#include "conference/place.h"

#include <mutex>
#include <string>

namespace quelora {

class participant_identity {
public:
    explicit participant_identity(std::string name) : name_(std::move(name)) {}

    std::string name() const;
    void set_name(std::string name);

    place get_place() const;
    void set_place(const place& p);
    int32_t seat_index() const;

    // Control check and store / fetch (control_values), each under the mutex.
    void set_control(int32_t control, int32_t value);
    int32_t get_control(int32_t control) const;
    // All sixteen values under one lock: what an audio call reads at its
    // start ("control changes take effect at the next audio block").
    control_values controls() const;

private:
    mutable std::mutex mutex_;
    std::string name_;
    place place_; // starts {-1, 0, 0, 0, 0, 0}
    control_values controls_;
};

} // namespace quelora
