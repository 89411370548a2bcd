#include "denoise/rnn_model.h"
#include "dsp/embedded_file.h"

// The compiled-in model is the `.rnnn` text itself, so that the file the
// training scripts export is the file the library carries (no generated
// source to keep in step). QUELORA_RNN_MODEL is the file's absolute path
// (src/CMakeLists.txt, which also makes this object depend on it).
#ifndef QUELORA_RNN_MODEL
#error "QUELORA_RNN_MODEL must name data/rnn_suppressor.rnnn"
#endif

QUELORA_EMBED_FILE(quelora_rnn_model, QUELORA_RNN_MODEL, char);

namespace quelora::denoise {

const rnn_model& builtin_rnn_model() {
    static const rnn_model model = parse_rnnn(std::string_view(
        quelora_rnn_model_begin,
        static_cast<std::size_t>(quelora_rnn_model_end - quelora_rnn_model_begin)));
    return model;
}

} // namespace quelora::denoise
