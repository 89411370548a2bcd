// qel_websocket_server: an event sink that turns each of the ten
// notifications into its JSON message and hands it to the TLS websocket
// transport. Created at initialisation from the configuration file,
// listening from qel_enable_websockets on, stopped and joined when the
// library is destroyed.
#pragma once

#include "conference/event_sink.h"
#include "events/websocket_configuration.h"
#include "events/websocket_transport.h"

#include <mutex>
#include <string>

namespace quelora::events {

class qel_websocket_server final : public event_sink {
public:
    // Reads the configuration (throws quelora_exception with the
    // configuration's messages); does not listen yet. reader must outlive
    // the server's notifications: it is the conference that notifies it.
    qel_websocket_server(const char* configuration_path, const notification_reader& reader,
                         transport_limits limits = {});

    const websocket_configuration& configuration() const { return configuration_; }

    // qel_enable_websockets: starts listening. Throws quelora_exception when
    // the TLS files or the port fail (the transport's message); a second
    // call while listening only logs that it already is.
    void enable();
    // qel_send_custom_websocket_event: the host's text, checked to be JSON,
    // sent as given to every authenticated client. json_text is not null.
    void send_custom_event(const char* json_text);

    void create_room(int32_t room_id) override;
    void destroy_room(int32_t room_id) override;
    // Fills the seat and control fields from inside the notification, under
    // the library lock the notifying call holds (docs/design.md).
    void add_participant(int32_t room_id, int32_t participant_id, const char* name,
                         const qel_participant_configuration* configuration) override;
    void remove_participant(int32_t room_id, int32_t participant_id) override;
    void move_participant_event(int32_t room_id, int32_t participant_id,
                                const qel_seat* seat) override;
    void set_participant_position(int32_t room_id, int32_t participant_id,
                                  const qel_position* position, qel_heading heading) override;
    void set_participant_state(int32_t room_id, int32_t participant_id, qel_audio_control control,
                               int32_t value) override;
    void set_all_participants_state(int32_t room_id, qel_audio_control control,
                                    int32_t value) override;
    void set_room_layout(int32_t room_id, int32_t layout_id) override;
    void set_name(int32_t room_id, int32_t participant_id, const char* name) override;

private:
    // Until qel_enable_websockets no client can exist, so no message is built.
    bool publishing() const { return transport_.running(); }

    websocket_configuration configuration_;
    const notification_reader& reader_;
    websocket_transport transport_;
    std::mutex enable_mutex_; // two hosts threads enabling at once start one listener
};

} // namespace quelora::events
