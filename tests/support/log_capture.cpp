#include "support/log_capture.h"

namespace quelora::testing {

log_capture::log_capture(qel_log_level threshold) {
    qel_logger& logger = qel_logger::get_logger();
    logger.initialize(this);
    logger.set_log_level(threshold);
    logger.set_enabled(true);
}

log_capture::~log_capture() {
    qel_logger& logger = qel_logger::get_logger();
    logger.set_enabled(false);
    logger.set_log_level(QEL_LOG_WARNING);
    logger.initialize(nullptr);
}

std::vector<std::string> log_capture::select(const qel_log_level* level) const {
    std::vector<std::string> out;
    for (const auto& line : lines()) {
        if (level == nullptr || line.level == *level) out.push_back(line.message);
    }
    return out;
}

} // namespace quelora::testing
