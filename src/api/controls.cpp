#include "api/controls.h"

#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quelora {
namespace {

struct control_rule {
    const char* name;
    uint32_t maximum; // inclusive upper bound, tested on the value as unsigned
    uint32_t minimum; // inclusive lower bound (device: 1)
    int32_t default_value;
    const char* message;
};

// Indexed by control number; entry 0 unused.
constexpr control_rule rules[control_count + 1] = {
    {"", 0, 0, 0, ""},
    {"QEL_CONTROL_STEREO_BYPASS_ENABLE", 1, 0, 0,
     "You must use a value of either 0 or 1 for stereo bypass control"},
    {"QEL_CONTROL_MUTE_ENABLE", 1, 0, 0, "You must use a value of either 0 or 1 for mute control"},
    {"QEL_CONTROL_ANC_ENABLE", 1, 0, 0,
     "You must use a value of either 0 or 1 for noise cancellation control"},
    {"QEL_CONTROL_ANC_HIGH", 1, 0, 1,
     "You must use a value of either 0 or 1 for noise cancellation level control"},
    {"QEL_CONTROL_ANC_MIX", 100, 0, 100, "You must use a value from 0 to 100 for anc level control"},
    {"QEL_CONTROL_AGC_ENABLE", 1, 0, 0,
     "You must use a value of either 0 or 1 for automatic gain control"},
    {"QEL_CONTROL_AUTO_EQ_ENABLE", 1, 0, 0,
     "You must use a value of either 0 or 1 for auto EQ control"},
    {"QEL_CONTROL_MIXING_3D_ENABLE", 1, 0, 0,
     "You must use a value of either 0 or 1 for 3d mixing control"},
    {"QEL_CONTROL_MIXING_3D_ATTENUATION", 40, 0, 6,
     "You must use a value of between 0 and 40 dB for distance attenuation"},
    // Maximum distance is tested as signed with no upper bound (see check_control_value).
    {"QEL_CONTROL_MIXING_3D_MAX_DISTANCE", 0, 0, 300,
     "You must use a value of 0 or greater for max distance"},
    {"QEL_CONTROL_MIXING_3D_REVERB_ENABLE", 1, 0, 1,
     "You must use a value of either 0 or 1 for reverb control"},
    {"QEL_CONTROL_DEVICE", 2, 1, 1,
     "You must use a valid qel_device_types value to change the device"},
    // Deliberately 0..89, one less at each end than the message's 1 to 90;
    // range and message are both kept as hosts know them.
    {"QEL_CONTROL_HALF_SPAN_ANGLE", 89, 0, 15,
     "You must use a value of between 1 and 90 for half span angle control"},
    {"QEL_CONTROL_MASTER_GAIN", 100, 0, 100,
     "You must use a value of between 0 and 100 for master gain control"},
    {"QEL_CONTROL_WHISPER_ROOM", 100, 0, 0,
     "You must use a value of between 0 and 100 for whisper room control"},
    {"QEL_CONTROL_SIDEBAR_ROOM", 100, 0, 0,
     "You must use a value of between 0 and 100 for sidebar room control"},
};

bool is_control(int32_t control) { return control >= 1 && control <= control_count; }

std::string upper_case(const char* text) {
    std::string upper(text);
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return upper;
}

} // namespace

const char* control_name(int32_t control) {
    if (!is_control(control)) {
        qel_logger::get_logger().log(QEL_LOG_WARNING, "State %i is not valid, must be between %i and %i.",
                                     control, 1, control_count);
        return "";
    }
    return rules[control].name;
}

int32_t control_from_name(const char* text) {
    if (text != nullptr) {
        const std::string upper = upper_case(text);
        for (int32_t control = 1; control <= control_count; ++control) {
            if (upper == rules[control].name) {
                return control;
            }
        }
    }
    qel_logger::get_logger().log(QEL_LOG_WARNING, "%s is not a valid control.",
                                 text != nullptr ? text : "(null)");
    return control_not_a_control;
}

int32_t participant_value_from_text(const char* text) {
    if (text != nullptr) {
        const std::string upper = upper_case(text);
        if (upper == "QEL_DEVICE_HEADPHONE") return QEL_DEVICE_HEADPHONE;
        if (upper == "QEL_DEVICE_SPEAKER") return QEL_DEVICE_SPEAKER;
        if (upper == "QEL_ENABLE" || upper == "TRUE") return 1;
        if (upper == "QEL_DISABLE" || upper == "FALSE") return 0;
        // std::stoi semantics: leading blanks and a sign, stop at the first
        // non-digit, reject text without digits and values outside int32.
        errno = 0;
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        if (end != text && errno != ERANGE && value >= INT32_MIN && value <= INT32_MAX) {
            return static_cast<int32_t>(value);
        }
    }
    qel_logger::get_logger().log(
        QEL_LOG_WARNING,
        "State value %s is invalid. You must enter an integer value, the string "
        "QEL_DEVICE_HEADPHONE, the string QEL_DEVICE_SPEAKER, the string QEL_ENABLE, or the "
        "string QEL_DISABLE ",
        text != nullptr ? text : "(null)");
    return QEL_ERROR_INVALID_VALUE;
}

void check_control(int32_t control, control_access access) {
    if (!is_control(control)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_CONTROL, "%s",
                                access == control_access::setting
                                    ? "You must use a valid control to edit from the qel_audio_control list"
                                    : "You did not input a valid control to edit");
    }
}

void check_control_value(int32_t control, int32_t value) {
    const control_rule& rule = rules[control];
    bool valid;
    if (control == QEL_CONTROL_MIXING_3D_MAX_DISTANCE) {
        valid = value >= 0; // the one signed test, no upper bound
    } else {
        const auto unsigned_value = static_cast<uint32_t>(value);
        valid = unsigned_value >= rule.minimum && unsigned_value <= rule.maximum;
    }
    if (!valid) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "%s", rule.message);
    }
}

control_values::control_values() {
    for (int32_t control = 1; control <= control_count; ++control) {
        values_[control] = static_cast<uint32_t>(rules[control].default_value);
    }
}

void control_values::set(int32_t control, int32_t value) {
    check_control(control, control_access::setting);
    check_control_value(control, value);
    if (control == QEL_CONTROL_MASTER_GAIN) {
        master_gain_ = static_cast<float>(value);
    } else {
        values_[control] = static_cast<uint32_t>(value);
    }
}

int32_t control_values::get(int32_t control) const {
    check_control(control, control_access::fetching);
    if (control == QEL_CONTROL_MASTER_GAIN) {
        return static_cast<int32_t>(master_gain_); // truncated toward zero
    }
    return static_cast<int32_t>(values_[control]);
}

} // namespace quelora
