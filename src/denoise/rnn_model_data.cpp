#include "denoise/rnn_model.h"

// The compiled-in model is the `.rnnn` text itself, embedded with .incbin, so
// that the file the training scripts export is the file the library carries
// (no generated source to keep in step). QUELORA_RNN_MODEL is the file's
// absolute path (src/CMakeLists.txt, which also makes this object depend on
// it). The symbols stay local to the shared library (api/quelora.map exports
// qel_* only).
#ifndef QUELORA_RNN_MODEL
#error "QUELORA_RNN_MODEL must name data/rnn_suppressor.rnnn"
#endif

asm(".section .rodata.quelora_rnn_model,\"a\",@progbits\n"
    ".globl quelora_rnn_model_begin\n"
    ".hidden quelora_rnn_model_begin\n"
    "quelora_rnn_model_begin:\n"
    ".incbin \"" QUELORA_RNN_MODEL "\"\n"
    ".globl quelora_rnn_model_end\n"
    ".hidden quelora_rnn_model_end\n"
    "quelora_rnn_model_end:\n"
    ".previous\n");

extern "C" const char quelora_rnn_model_begin[];
extern "C" const char quelora_rnn_model_end[];

namespace quelora::denoise {

const rnn_model& builtin_rnn_model() {
    static const rnn_model model = parse_rnnn(std::string_view(
        quelora_rnn_model_begin,
        static_cast<std::size_t>(quelora_rnn_model_end - quelora_rnn_model_begin)));
    return model;
}

} // namespace quelora::denoise
