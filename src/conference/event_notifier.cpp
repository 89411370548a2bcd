// A host's qel_event_manager_t as an event sink: each operation calls its
// slot when the host filled it in.
#include "conference/event_notifier.h"

namespace quelora {

namespace {

class c_table_sink final : public event_sink {
public:
    explicit c_table_sink(const qel_event_manager_t& table) : table_(table) {}

    void create_room(int32_t room_id) override {
        if (table_.create_room != nullptr) table_.create_room(room_id);
    }
    void destroy_room(int32_t room_id) override {
        if (table_.destroy_room != nullptr) table_.destroy_room(room_id);
    }
    void add_participant(int32_t room_id, int32_t participant_id, const char* name,
                         const qel_participant_configuration* configuration) override {
        if (table_.add_participant != nullptr)
            table_.add_participant(room_id, participant_id, name, configuration);
    }
    void remove_participant(int32_t room_id, int32_t participant_id) override {
        if (table_.remove_participant != nullptr) table_.remove_participant(room_id, participant_id);
    }
    void move_participant_event(int32_t room_id, int32_t participant_id,
                                const qel_seat* seat) override {
        if (table_.move_participant != nullptr) table_.move_participant(room_id, participant_id, seat);
    }
    void set_participant_position(int32_t room_id, int32_t participant_id,
                                  const qel_position* position, qel_heading heading) override {
        if (table_.set_participant_position != nullptr)
            table_.set_participant_position(room_id, participant_id, position, heading);
    }
    void set_participant_state(int32_t room_id, int32_t participant_id, qel_audio_control control,
                               int32_t value) override {
        if (table_.set_participant_state != nullptr)
            table_.set_participant_state(room_id, participant_id, control, value);
    }
    void set_all_participants_state(int32_t room_id, qel_audio_control control,
                                    int32_t value) override {
        if (table_.set_all_participants_state != nullptr)
            table_.set_all_participants_state(room_id, control, value);
    }
    void set_room_layout(int32_t room_id, int32_t layout_id) override {
        if (table_.set_room_layout != nullptr) table_.set_room_layout(room_id, layout_id);
    }
    void set_name(int32_t room_id, int32_t participant_id, const char* name) override {
        if (table_.set_name != nullptr) table_.set_name(room_id, participant_id, name);
    }

private:
    // Read at each call, not copied: the host may fill slots in after registering.
    const qel_event_manager_t& table_;
};

} // namespace

void event_notifier::add(const qel_event_manager_t* table) {
    table_adapters_.push_back(std::make_unique<c_table_sink>(*table));
    sinks_.push_back(table_adapters_.back().get());
}

} // namespace quelora
