// The library's event sinks: the host's C tables and the websocket server,
// called in registration order. A null slot of a C table is skipped. A quelora_exception raised by a sink propagates and
// ends the notifying operation with its code.
#pragma once

#include "conference/event_sink.h"

#include <quelora/quelora.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace quelora {

class event_notifier {
public:
    // Neither is owned (the host keeps its table alive until
    // qel_destroy_library; the library object owns the websocket server).
    // No lock: sinks are registered before other threads use the library
    // (quelora.h asks this of hosts); notifications only read the list.
    void add(const qel_event_manager_t* table);
    void add(event_sink* sink) { sinks_.push_back(sink); }

    // call(event_sink&) once per sink, in registration order.
    template <typename Call>
    void notify(Call&& call) const {
        for (event_sink* sink : sinks_) call(*sink);
    }

private:
    std::vector<event_sink*> sinks_;
    // The adapters that make the host's C tables sinks (owned here, so they
    // go with the conference at teardown).
    std::vector<std::unique_ptr<event_sink>> table_adapters_;
};

} // namespace quelora
