// What the parser fuzz targets share: logging that runs every format path
// on fuzzed text but writes nothing, and an invariant check that ends the
// run (so that libFuzzer reports the input) instead of throwing.
#pragma once

#include <quelora/qel_logger.h>

#include <cstdlib>

namespace quelora::fuzz {

class discard_handler final : public qel_logger_handler {
public:
    void handle(qel_log_level, const char*) override {}
};

inline void discard_all_log_lines() {
    static discard_handler handler;
    qel_logger& logger = qel_logger::get_logger();
    logger.initialize(&handler);
    logger.set_log_level(QEL_LOG_VERBOSE);
    logger.set_enabled(true);
}

inline void require(bool condition) {
    if (!condition) std::abort();
}

} // namespace quelora::fuzz
