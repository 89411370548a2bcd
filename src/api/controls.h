// The control vocabulary: names, value texts, the range of every value with
// its rejection message, and the defaults.
#pragma once

#include <quelora/quelora.h>

#include <cstdint>

namespace quelora {

inline constexpr int32_t control_count = 16;
inline constexpr int32_t control_not_a_control = 17; // returned for unknown names

// Name of a control as a literal; any other number logs a warning and gives "".
const char* control_name(int32_t control);
// Upper-cases the text and matches whole names; unknown names log and give 17.
int32_t control_from_name(const char* text);
// Value text to integer: a device name, QEL_ENABLE/QEL_DISABLE, TRUE/FALSE
// (any case) or a decimal integer; rejected text logs and gives
// QEL_ERROR_INVALID_VALUE.
int32_t participant_value_from_text(const char* text);

enum class control_access { setting, fetching };

// Throws quelora_exception (level 3, QEL_ERROR_INVALID_CONTROL) when control is
// outside 1..16, with the setting or the fetching message.
void check_control(int32_t control, control_access access);
// Throws quelora_exception (level 3, QEL_ERROR_INVALID_VALUE, the control's
// message) when value is outside the control's range. control must be valid.
void check_control_value(int32_t control, int32_t value);

// The sixteen values of one participant, indexed by control: every value an
// integer except the master gain, kept as a float and read back truncated.
class control_values {
public:
    control_values();
    // Checks control and value and stores; throws on failure,
    // leaving the stored value unchanged.
    void set(int32_t control, int32_t value);
    // Checks the control (fetching message) and returns the stored value.
    int32_t get(int32_t control) const;

private:
    uint32_t values_[control_count + 1] = {};
    float master_gain_ = 100.0f;
};

} // namespace quelora
