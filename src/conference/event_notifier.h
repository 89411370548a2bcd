// The host's registered callback tables (spec Part 3.5), called in
// registration order; null slots are skipped. A quelora_exception raised by a
// callback propagates and ends the notifying operation with its code.
#pragma once

#include <quelora/quelora.h>

#include <cstddef>
#include <vector>

namespace quelora {

class event_notifier {
public:
    // Not owned. No lock: tables are registered before other threads use the
    // library (Part 3.5); notifications only read the list.
    void add(qel_event_manager_t* table) { tables_.push_back(table); }
    size_t size() const { return tables_.size(); }

    template <typename Slot, typename... Args>
    void notify(Slot qel_event_manager_t::*slot, const Args&... args) const {
        for (const qel_event_manager_t* table : tables_) {
            if (table->*slot != nullptr) (table->*slot)(args...);
        }
    }

private:
    std::vector<qel_event_manager_t*> tables_;
};

} // namespace quelora
