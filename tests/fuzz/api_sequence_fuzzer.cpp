// libFuzzer target for the C interface: byte 0 picks the room layout document (the built-in open
// room, a conference, one whose default names no layout), the entry point, callback tables and
// logging, bytes 1-2 the output format; the rest is a program of calls (api_program.h). The corpus
// is what -merge=1 kept of fuzzing sessions: after an encoding change, fuzz afresh and merge again.
#include "api_program.h"

#include <quelora/qel_logger.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <utility>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static struct : qel_logger_handler {
        void handle(qel_log_level, const char*) override {}
    } discard;
    qel_logger::get_logger().initialize(&discard);
    return qel_set_log_level(QEL_LOG_VERBOSE) == QEL_ERROR_NONE ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t b[3] = {};
    const size_t header = std::min<size_t>(size, 3);
    std::copy_n(data, header, b);
    qel_enable_logging((b[0] & 0xE0) == 0xE0); // every call formats its line: one input in eight
    const int32_t outputs[][2] = {{8000, 80},   {8000, 160},  {16000, 160}, {16000, 320},
                                  {24000, 240}, {24000, 480}, {24000, 256}, {32000, 320},
                                  {32000, 640}, {48000, 480}, {48000, 960}, {48000, 512},
                                  {48000, 1024}};
    const int32_t* f = outputs[b[1] % std::size(outputs)];
    const qel_library_configuration configuration{f[0], f[1], 1 + (b[2] & 1), (b[2] & 2) != 0,
                                                  1 + (b[2] >> 2) % 5};
    // One library per filter-bank size lives for the whole run, as a host's
    // would, so that every input's fresh library shares its filter banks
    // instead of spending most of the run building them.
    // (Never destroyed, so that they stay reachable, not leaked, at exit.)
    static auto& keepers = *new std::map<std::pair<int32_t, int32_t>, qel_handle>;
    const int32_t block = 48000 / f[0] * f[1] > 512 ? 1024 : 512;
    qel_handle& keeper = keepers[{block, configuration.spatial_quality}];
    if (keeper == nullptr) {
        int keeper_error = 0;
        keeper = qel_initialize_library(nullptr, nullptr, configuration, &keeper_error);
        if (keeper == nullptr) std::abort();
    }
    const char* const documents[] = {nullptr, QUELORA_FUZZ_LAYOUTS "/conference.json",
                                     QUELORA_FUZZ_LAYOUTS "/headless.json"};
    int error = 0;
    const auto initialize =
        b[0] & 0x10 ? qel_initialize_library_from_memory : qel_initialize_library;
    const qel_handle h = initialize(documents[b[0] % 3], nullptr, configuration, &error);
    if (h == nullptr || error != QEL_ERROR_NONE) std::abort();
    quelora::testing::api_world world{h, configuration,
                                      std::array<std::optional<int32_t>, 3>{1, 10, {}}[b[0] % 3]};
    for (int i = 0; i < (b[0] >> 2) % 3; ++i) quelora::testing::register_api_events(world);
    quelora::testing::api_program{world, 0}.run({data + header, size - header});
    if (qel_destroy_library(h) != QEL_ERROR_NONE) std::abort();
    return 0;
}
