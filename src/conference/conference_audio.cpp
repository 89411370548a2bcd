// The audio calls of the library object: the library lock is held shared for
// the whole call, so rooms and participants stay put while any number of
// audio calls run in parallel.
#include "conference/conference.h"

#include "dsp/denormal_guard.h"

namespace quelora {

void conference::input_audio(int32_t room_id, int32_t participant_id, const void* samples,
                             int32_t frames, sample_type type) const {
    dsp::denormal_guard denormals;
    std::shared_lock library(library_lock_);
    find_room(room_id).input_audio(participant_id, samples, frames, type);
}

bool conference::output_audio(int32_t room_id, int32_t participant_id, void* samples,
                              sample_type type) const {
    dsp::denormal_guard denormals;
    std::shared_lock library(library_lock_);
    return find_room(room_id).output_audio(participant_id, samples, type);
}

} // namespace quelora
