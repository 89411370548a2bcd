// Audio exports: the three sample types of each direction lead into one
// routine that takes the type as an argument.
#include "api/export_guard.h"

using quelora::guarded_export;
using quelora::sample_type;
using quelora::to_id;

namespace {

int input_audio(qel_handle handle, uint32_t room_id, uint32_t participant_id, const void* samples,
                int number_frames, sample_type type) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().input_audio(to_id(room_id), to_id(participant_id), samples, number_frames,
                                   type);
    });
}

int output_audio(qel_handle handle, uint32_t room_id, uint32_t participant_id, void* samples,
                 sample_type type) {
    int result = QEL_ERROR_NONE;
    const int code = guarded_export(handle, [&](qel_library& l) {
        // No source had a block: returned, not thrown, since it is no failure
        // (the buffer holds silence).
        if (!l.conference().output_audio(to_id(room_id), to_id(participant_id), samples, type)) {
            result = QEL_ERROR_NO_INPUT_AUDIO;
        }
    });
    return code == QEL_ERROR_NONE ? result : code;
}

} // namespace

extern "C" {

QEL_API int qel_input_audio_short(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                  const int16_t* samples, int number_frames) {
    return input_audio(handle, room_id, participant_id, samples, number_frames, sample_type::int16);
}

QEL_API int qel_input_audio_float(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                  const float* samples, int number_frames) {
    return input_audio(handle, room_id, participant_id, samples, number_frames,
                       sample_type::float32);
}

QEL_API int qel_input_audio_double(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   const double* samples, int number_frames) {
    return input_audio(handle, room_id, participant_id, samples, number_frames,
                       sample_type::float64);
}

QEL_API int qel_output_audio_short(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   int16_t* samples) {
    return output_audio(handle, room_id, participant_id, samples, sample_type::int16);
}

QEL_API int qel_output_audio_float(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   float* samples) {
    return output_audio(handle, room_id, participant_id, samples, sample_type::float32);
}

QEL_API int qel_output_audio_double(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                    double* samples) {
    return output_audio(handle, room_id, participant_id, samples, sample_type::float64);
}

} // extern "C"
