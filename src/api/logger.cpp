// The process-wide logger.
#include <quelora/qel_logger.h>

#include "api/format_message.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <vector>

namespace {

qel_logger_handler& default_handler() {
    static qel_logger_handler handler;
    return handler;
}

} // namespace

qel_logger_handler::~qel_logger_handler() = default;

void qel_logger_handler::handle(qel_log_level level, const char* message) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char when[32] = {};
    std::strftime(when, sizeof when, "%a, %d.%m.%Y %H:%M:%S", &local);

    std::ostringstream line;
    line << "[Quelora] [" << when << "] [" << qel_logger::to_string(level) << "]: " << message
         << "\n";
    const std::string text = line.str();
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

qel_logger::qel_logger() : handler_(&default_handler()) {}

qel_logger::~qel_logger() = default;

qel_logger& qel_logger::get_logger() {
    // Created on first use and held by a process-wide shared owner until the
    // process ends (never destroyed before static handlers).
    static const std::shared_ptr<qel_logger> instance(new qel_logger());
    return *instance;
}

void qel_logger::initialize(qel_logger_handler* handler) {
    std::lock_guard lock(mutex_);
    handler_ = handler != nullptr ? handler : &default_handler();
}

void qel_logger::set_enabled(bool enabled) {
    std::lock_guard lock(mutex_);
    enabled_ = enabled;
}

void qel_logger::set_log_level(qel_log_level level) {
    std::lock_guard lock(mutex_);
    threshold_ = level;
}

void qel_logger::log(qel_log_level level, const char* format, ...) {
    const auto wanted = [&] {
        return enabled_.load(std::memory_order_relaxed) &&
               static_cast<int32_t>(level) >=
                   static_cast<int32_t>(threshold_.load(std::memory_order_relaxed));
    };
    if (!wanted()) return;
    std::lock_guard lock(mutex_);
    // Checked again under the mutex: a line races with a concurrent
    // set_enabled or set_log_level exactly as it did when only the mutex
    // guarded them.
    if (!wanted()) return;
    va_list args;
    va_start(args, format);
    const std::vector<char> message = quelora::format_message(format, args);
    va_end(args);
    handler_->handle(level, message.data());
}

std::string qel_logger::to_string(qel_log_level level) {
    switch (static_cast<int32_t>(level)) {
    case 0: return "VERBOSE";
    case 1: return "DEBUG";
    case 2: return "INFO";
    case 3: return "WARNING";
    default: return "ERROR";
    }
}
