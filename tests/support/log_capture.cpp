#include "support/log_capture.h"

#include <algorithm>

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

void log_capture::handle(qel_log_level level, const char* message) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, message});
}

std::vector<log_line> log_capture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> log_capture::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& line : lines_) out.push_back(line.message);
    return out;
}

std::vector<std::string> log_capture::messages_at(qel_log_level level) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& line : lines_) {
        if (line.level == level) out.push_back(line.message);
    }
    return out;
}

bool log_capture::contains(const std::string& message) const { return count(message) > 0; }

size_t log_capture::count(const std::string& message) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(),
                                             [&](const log_line& l) { return l.message == message; }));
}

void log_capture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

} // namespace quelora::testing
