// Quelora process-wide logger and its replaceable sink.
//
// One qel_logger exists per process, shared by every library instance. A host
// installs its own sink by deriving from qel_logger_handler and passing it to
// qel_logger::get_logger().initialize(); the logger does not own the handler,
// which must stay alive while installed. handle() is called with the logger's
// (non-recursive) mutex held, so lines never interleave and a handler needs no
// lock of its own, but a handler must not log through the logger.
#ifndef QUELORA_QEL_LOGGER_H
#define QUELORA_QEL_LOGGER_H

#include <quelora/quelora.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class QEL_API qel_logger_handler {
public:
    qel_logger_handler() = default;
    qel_logger_handler(const qel_logger_handler&) = default;
    qel_logger_handler& operator=(const qel_logger_handler&) = default;
    virtual ~qel_logger_handler();

    // Default: one line "[Quelora] [<time>] [<LEVEL>]: <message>\n" written to
    // standard output with a single write.
    virtual void handle(qel_log_level level, const char* message);
};

class QEL_API qel_logger {
public:
    // The single logger; created on first use with logging disabled,
    // threshold QEL_LOG_WARNING and the standard-output handler.
    static qel_logger& get_logger();

    // Installs handler (not owned); null reinstalls the standard-output handler.
    void initialize(qel_logger_handler* handler);
    void set_enabled(bool enabled);
    void set_log_level(qel_log_level level); // no range check (qel_set_log_level checks)

    virtual ~qel_logger();
    // printf-style; passed to the handler when enabled and level >= threshold.
    virtual void log(qel_log_level level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    // "VERBOSE", "DEBUG", "INFO", "WARNING"; any other value gives "ERROR".
    static std::string to_string(qel_log_level level);

    qel_logger(const qel_logger&) = delete;
    qel_logger& operator=(const qel_logger&) = delete;

private:
    qel_logger();

    qel_logger_handler* handler_;
    std::mutex mutex_;
    // Atomic so that a line below the threshold (the audio path's
    // "no input audio" at level 1, on every silent output call) is dropped
    // without taking the mutex that every thread's log lines share.
    std::atomic<bool> enabled_ = false;
    std::atomic<qel_log_level> threshold_ = QEL_LOG_WARNING;
};

#endif // QUELORA_QEL_LOGGER_H
