// A qel_logger_handler that records every line, installed for one test's
// lifetime with logging enabled at `threshold`; restores the defaults after.
#pragma once

#include <quelora/qel_logger.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace quelora::testing {

struct log_line {
    qel_log_level level;
    std::string message;
};

class log_capture : public qel_logger_handler {
public:
    explicit log_capture(qel_log_level threshold = QEL_LOG_VERBOSE);
    ~log_capture() override;
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    void handle(qel_log_level level, const char* message) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({level, message});
    }
    std::vector<log_line> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }
    std::vector<std::string> messages() const { return select(nullptr); }
    std::vector<std::string> messages_at(qel_log_level level) const { return select(&level); }
    bool contains(const std::string& message) const {
        const auto all = messages();
        return std::find(all.begin(), all.end(), message) != all.end();
    }

private:
    std::vector<std::string> select(const qel_log_level* level) const; // all levels when null

    mutable std::mutex mutex_;
    std::vector<log_line> lines_;
};

} // namespace quelora::testing
