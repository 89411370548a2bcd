// The audio calls of a room, under the room's participants lock held shared:
// other participants' audio calls run in parallel, joins and leaves wait.
#include "conference/room.h"

#include "api/quelora_exception.h"
#include "audio/pair_gain.h"

#include <quelora/qel_logger.h>

namespace quelora {

namespace {

pair_rooms rooms_of(const control_values& controls) {
    return {controls.get(QEL_CONTROL_WHISPER_ROOM), controls.get(QEL_CONTROL_SIDEBAR_ROOM)};
}

} // namespace

void room::input_audio(int32_t participant_id, const void* samples, int32_t frames,
                       sample_type type) {
    std::shared_lock participants(participants_lock_);
    participant& source = find(participant_id);
    if (frames != source.required_input_frames()) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_DATA_LENGTH,
                                "the number of input frames %i does not match the required "
                                "number of frames %i",
                                frames, source.required_input_frames());
    }
    if (source.is_listener_only() || source.input() == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_PARTICIPANT_TYPE,
                                "Cannot input audio to participant %i in room %i because it is "
                                "LISTENER ONLY",
                                participant_id, id_);
    }
    const control_values controls = source.identity().controls();
    // A muted participant's block is dropped before any processing.
    if (controls.get(QEL_CONTROL_MUTE_ENABLE) != 0) return;

    std::lock_guard input(source.input_mutex());
    input_chain& chain = *source.input();
    chain.process(samples, type, controls);
    const float* block = chain.work_buffer();
    const pair_rooms source_rooms = rooms_of(controls);
    const auto gain_for = [&](participant& listener) {
        if (&listener == &source || listener.listener() == nullptr) return 0.0f;
        return pair_gain(source_rooms, rooms_of(listener.identity().controls()),
                         listener.is_source_only());
    };

    // The spectra every binaural listener of this block needs, once for all
    // of them; skipped (and so free) while nobody renders this talker.
    spectrum_record* spectra = nullptr;
    if (source_spectra* analysis = source.spectra()) {
        bool rendered = false;
        for (auto& p : participants_) {
            if (gain_for(*p) > 0.0f && p->listener()->renders(p->identity().controls())) {
                rendered = true;
                break;
            }
        }
        if (rendered) {
            spectra = analysis->analyse(block);
        } else {
            analysis->skip(block);
        }
    }
    const uint64_t sequence = source.spectra() != nullptr ? source.spectra()->sequence() : 0;
    for (auto& p : participants_) {
        const float gain = gain_for(*p);
        if (gain > 0.0f) p->listener()->submit(participant_id, block, gain, spectra, sequence);
    }
}

bool room::output_audio(int32_t participant_id, void* samples, sample_type type) {
    std::shared_lock participants(participants_lock_);
    participant& listener = find(participant_id);
    if (listener.is_source_only()) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_PARTICIPANT_TYPE,
                                "Participant %i has no output because it is source only",
                                participant_id);
    }
    if (listener.listener() == nullptr || listener.output() == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_HANDLE_NULL, "%s",
                                "your listener engine is null");
    }
    if (samples == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_DATA_NULL, "%s",
                                "your output buffer is not initialized");
    }
    std::lock_guard output(listener.output_mutex());
    const control_values controls = listener.identity().controls();
    if (!listener.output()->process(*listener.listener(), controls, type, samples)) {
        qel_logger::get_logger().log(QEL_LOG_DEBUG,
                                     "There was no input audio for this participant %i to process",
                                     participant_id);
        return false;
    }
    return true;
}

} // namespace quelora
