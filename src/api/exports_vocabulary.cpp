// Vocabulary converters; they take no handle and never fail.
#include "api/controls.h"

extern "C" {

QEL_API const char* qel_audio_control_to_string(qel_audio_control control) {
    return quelora::control_name(control);
}

QEL_API qel_audio_control qel_string_to_audio_control(const char* text) {
    return static_cast<qel_audio_control>(quelora::control_from_name(text));
}

QEL_API int qel_string_to_participant_value(const char* text) {
    return quelora::participant_value_from_text(text);
}

} // extern "C"
