// A stand-in talker for machines without espeak-ng: voiced syllables with
// moving formants, so the listener files still carry speech-like sound.
#pragma once

#include "wav_io.h"

namespace quelora::conference {

// Deterministic for a given talker index; talkers differ in pitch and
// rhythm. About `seconds` long at 22050 Hz, mono, peak 0.5.
audio_clip speech_like_signal(int talker_index, double seconds);

} // namespace quelora::conference
