// Participant state (spec Part 3.4) and the value checks of the audio controls
// (spec Part 1.4), driven through the C interface: defaults, ranges and their
// messages, the auto EQ rule, set all, layout default states, log lines.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <quelora/quelora.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace {

namespace qt = quelora::testing;

constexpr uint32_t room = 1;

qel_audio_control control(int value) { return static_cast<qel_audio_control>(value); }

int add(qel_handle h, uint32_t room_id, uint32_t participant,
        qel_participant_configuration configuration = qt::regular()) {
    return qel_add_participant(h, room_id, participant, "someone", configuration);
}

int get_state(qel_handle h, uint32_t room_id, uint32_t participant, int control_number) {
    int value = -12345;
    EXPECT_EQ(qel_get_participant_state(h, room_id, participant, control(control_number), &value),
              QEL_ERROR_NONE)
        << "control " << control_number;
    return value;
}

// Closed layout 10 (four seats) with room 1 in it, no default states.
qt::library_handle closed_library() {
    qt::library_handle lib = qt::library_handle::from_layout_text(qt::four_seat_layouts_json());
    EXPECT_EQ(lib.init_error(), QEL_ERROR_NONE);
    EXPECT_EQ(qel_create_room(lib, room), QEL_ERROR_NONE);
    return lib;
}

// Builds layouts JSON: a closed layout "closed" (id 10) and an open layout
// "open" (id 30), each with the given "defaultStates" object text (or none).
std::string layouts_with_defaults(const std::string& closed_defaults,
                                  const std::string& open_defaults = "") {
    const auto defaults = [](const std::string& text) {
        return text.empty() ? std::string() : ", \"defaultStates\": " + text;
    };
    return R"({"default": "closed", "room_list": {
  "closed": {"id": 10, "desc": "closed", "allowParticipantStacking": false, "stackDelta": 50,
             "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
             "seats": [{"x": 0, "y": 0, "z": 100}, {"x": 100, "y": 0, "z": 0},
                       {"x": 0, "y": 0, "z": -100}, {"x": -100, "y": 0, "z": 0}])" +
           defaults(closed_defaults) + R"(},
  "open": {"id": 30, "desc": "open", "allowParticipantStacking": true, "openRoom": true,
           "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 0}])" +
           defaults(open_defaults) + R"(}}})";
}

// The sixteen defaults of Part 3.4, indexed by control.
constexpr int default_values[17] = {0,  /* unused */
                                    0,   // 1 stereo bypass
                                    0,   // 2 mute
                                    0,   // 3 noise cancellation
                                    1,   // 4 noise cancellation strength
                                    100, // 5 noise cancellation mix
                                    0,   // 6 AGC
                                    0,   // 7 auto EQ
                                    0,   // 8 3D mixing
                                    6,   // 9 attenuation
                                    300, // 10 max distance
                                    1,   // 11 reverb
                                    1,   // 12 device
                                    15,  // 13 half span angle
                                    100, // 14 master gain
                                    0,   // 15 whisper room
                                    0};  // 16 sidebar room

void expect_defaults(qel_handle h, uint32_t room_id, uint32_t participant) {
    SCOPED_TRACE(::testing::Message() << "participant " << participant);
    for (int c = 1; c <= 16; ++c) {
        EXPECT_EQ(get_state(h, room_id, participant, c), default_values[c]) << "control " << c;
    }
}

// Range of each control (Part 1.4) with its message.
struct control_range {
    int control;
    int64_t low;
    int64_t high; // INT32_MAX for "no upper bound"
    const char* message;
};

const std::vector<control_range>& control_ranges() {
    static const std::vector<control_range> ranges = {
        {1, 0, 1, "You must use a value of either 0 or 1 for stereo bypass control"},
        {2, 0, 1, "You must use a value of either 0 or 1 for mute control"},
        {3, 0, 1, "You must use a value of either 0 or 1 for noise cancellation control"},
        {4, 0, 1, "You must use a value of either 0 or 1 for noise cancellation level control"},
        {5, 0, 100, "You must use a value from 0 to 100 for anc level control"},
        {6, 0, 1, "You must use a value of either 0 or 1 for automatic gain control"},
        {7, 0, 1, "You must use a value of either 0 or 1 for auto EQ control"},
        {8, 0, 1, "You must use a value of either 0 or 1 for 3d mixing control"},
        {9, 0, 40, "You must use a value of between 0 and 40 dB for distance attenuation"},
        {10, 0, INT32_MAX, "You must use a value of 0 or greater for max distance"},
        {11, 0, 1, "You must use a value of either 0 or 1 for reverb control"},
        {12, 1, 2, "You must use a valid qel_device_types value to change the device"},
        {13, 0, 89, "You must use a value of between 1 and 90 for half span angle control"},
        {14, 0, 100, "You must use a value of between 0 and 100 for master gain control"},
        {15, 0, 100, "You must use a value of between 0 and 100 for whisper room control"},
        {16, 0, 100, "You must use a value of between 0 and 100 for sidebar room control"},
    };
    return ranges;
}

// Control callbacks recorded by the tests that register an event manager.
int g_state_calls = 0;
int g_all_calls = 0;
int g_add_calls = 0;
void count_state(int32_t, int32_t, qel_audio_control, int32_t) { ++g_state_calls; }
void count_all(int32_t, qel_audio_control, int32_t) { ++g_all_calls; }
void count_add(int32_t, int32_t, const char*, const qel_participant_configuration*) {
    ++g_add_calls;
}

// ---------------------------------------------------------------------------
// Part 1.4: value checks.

TEST(Part1_4_Controls, HalfSpanAngleAcceptsZeroAndRefusesNinety) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE, 0),
              QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE), 0);
    log.clear();
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE, 90),
              QEL_ERROR_INVALID_VALUE);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message,
              "You must use a value of between 1 and 90 for half span angle control");
    EXPECT_EQ(log.lines()[0].level, QEL_LOG_WARNING);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE), 0);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE, 89),
              QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_HALF_SPAN_ANGLE), 89);
}

TEST(Part1_4_Controls, AttenuationOfMinusOneIsRefused) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    log.clear();
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MIXING_3D_ATTENUATION, -1),
              QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count("You must use a value of between 0 and 40 dB for distance attenuation"), 1u);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MIXING_3D_ATTENUATION), 6);
}

TEST(Part1_4_Controls, MaxDistanceHasNoUpperBound) {
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, 1000000),
              QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE), 1000000);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, INT_MAX),
              QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE), INT_MAX);
    // Tested as signed: negative values are refused.
    qt::log_capture log;
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, -1),
              QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count("You must use a value of 0 or greater for max distance"), 1u);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MIXING_3D_MAX_DISTANCE), INT_MAX);
}

TEST(Part1_4_Controls, MasterGain55ReadsBack55) {
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN, 55), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN), 55);
}

TEST(Part1_4_Controls, DeviceZeroAndThreeAreRefusedWithTheDeviceMessage) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    log.clear();
    const char* message = "You must use a valid qel_device_types value to change the device";
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_DEVICE, 0), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count(message), 1u);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_DEVICE, 3), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count(message), 2u);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_DEVICE), QEL_DEVICE_HEADPHONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_DEVICE, QEL_DEVICE_SPEAKER),
              QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_DEVICE), QEL_DEVICE_SPEAKER);
}

TEST(Part1_4_Controls, EveryControlAcceptsItsRangeAndRefusesBeyondItWithItsMessage) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    for (const control_range& r : control_ranges()) {
        SCOPED_TRACE(::testing::Message() << "control " << r.control);
        const auto c = control(r.control);
        const int low = static_cast<int>(r.low);
        const int high = static_cast<int>(r.high);
        EXPECT_EQ(qel_set_participant_state(lib, room, 1, c, high), QEL_ERROR_NONE);
        EXPECT_EQ(get_state(lib, room, 1, r.control), high);
        EXPECT_EQ(qel_set_participant_state(lib, room, 1, c, low), QEL_ERROR_NONE);
        EXPECT_EQ(get_state(lib, room, 1, r.control), low);

        // Below the range (a negative value fails every unsigned test too),
        // and above it where there is an upper bound; the value stays.
        std::vector<int> refused{low - 1, INT_MIN};
        if (r.high != INT32_MAX) {
            refused.push_back(high + 1);
            refused.push_back(INT_MAX);
        }
        for (const int bad : refused) {
            log.clear();
            EXPECT_EQ(qel_set_participant_state(lib, room, 1, c, bad), QEL_ERROR_INVALID_VALUE)
                << "value " << bad;
            ASSERT_EQ(log.lines().size(), 1u) << "value " << bad;
            EXPECT_EQ(log.lines()[0].message, r.message);
            EXPECT_EQ(log.lines()[0].level, QEL_LOG_WARNING);
            EXPECT_EQ(get_state(lib, room, 1, r.control), low) << "value " << bad;
        }
    }
}

TEST(Part1_4_Controls, ControlsZeroAndSeventeenAreInvalidForSet) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    log.clear();
    const char* message = "You must use a valid control to edit from the qel_audio_control list";
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, control(0), 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, control(17), 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(log.count(message), 2u);
    EXPECT_EQ(log.lines().size(), 2u);
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, QEL_LOG_WARNING);
    // The same for set all.
    log.clear();
    EXPECT_EQ(qel_set_all_participants_state(lib, room, control(0), 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(qel_set_all_participants_state(lib, room, control(17), 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(log.count(message), 2u);
    expect_defaults(lib, room, 1);
}

TEST(Part1_4_Controls, ControlsZeroAndSeventeenAreInvalidForGetAndWriteZero) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    log.clear();
    for (const int c : {0, 17}) {
        int value = 12345;
        EXPECT_EQ(qel_get_participant_state(lib, room, 1, control(c), &value),
                  QEL_ERROR_INVALID_CONTROL)
            << "control " << c;
        EXPECT_EQ(value, 0) << "control " << c;
    }
    EXPECT_EQ(log.count("You did not input a valid control to edit"), 2u);
    EXPECT_EQ(log.lines().size(), 2u);
}

// ---------------------------------------------------------------------------
// Part 3.4: participant state.

TEST(Part3_4_ParticipantState, NewParticipantStartsWithTheSixteenDefaults) {
    {
        qt::library_handle lib = closed_library();
        ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
        ASSERT_EQ(add(lib, room, 2, {16000, 2, QEL_PARTICIPANT_REGULAR}), QEL_ERROR_NONE);
        ASSERT_EQ(add(lib, room, 3, {48000, 1, QEL_PARTICIPANT_SOURCE_ONLY}), QEL_ERROR_NONE);
        ASSERT_EQ(add(lib, room, 4, {48000, 1, QEL_PARTICIPANT_LISTENER_ONLY}), QEL_ERROR_NONE);
        for (uint32_t id = 1; id <= 4; ++id) expect_defaults(lib, room, id);
    }
    {
        qt::library_handle lib; // fallback layout: an open room
        ASSERT_EQ(qel_create_room(lib, room), QEL_ERROR_NONE);
        ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
        expect_defaults(lib, room, 1);
    }
}

TEST(Part3_4_ParticipantState, MasterGain37ReadsBack37) {
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN, 37), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN), 37);
    for (int gain = 0; gain <= 100; ++gain) {
        ASSERT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN, gain),
                  QEL_ERROR_NONE);
        EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN), gain);
    }
}

TEST(Part3_4_ParticipantState, ValuesArePerParticipant) {
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 2), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_MUTE_ENABLE, 1), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_MUTE_ENABLE), 1);
    EXPECT_EQ(get_state(lib, room, 2, QEL_CONTROL_MUTE_ENABLE), 0);
}

TEST(Part3_4_ParticipantState, AutoEqOnA16kHzParticipantIsRefusedEvenForZero) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    qel_event_manager_t events{};
    events.set_participant_state = count_state;
    g_state_calls = 0;
    ASSERT_EQ(qel_add_event_manager(lib, &events), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 5, qt::regular(16000)), QEL_ERROR_NONE);
    log.clear();
    const char* message = "The Auto EQ effect is only available for 48 kHz inputs currently. It "
                          "will not be enabled for participant 5";
    for (const int value : {0, 1, 7}) {
        EXPECT_EQ(qel_set_participant_state(lib, room, 5, QEL_CONTROL_AUTO_EQ_ENABLE, value),
                  QEL_ERROR_INVALID_CONTROL)
            << "value " << value;
    }
    EXPECT_EQ(log.count(message), 3u);
    EXPECT_EQ(log.lines().size(), 3u);
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, QEL_LOG_WARNING);
    EXPECT_EQ(get_state(lib, room, 5, QEL_CONTROL_AUTO_EQ_ENABLE), 0);
    EXPECT_EQ(g_state_calls, 0); // a failed set notifies nothing
    // Other controls of that participant, and auto EQ of a 48 kHz one, work.
    EXPECT_EQ(qel_set_participant_state(lib, room, 5, QEL_CONTROL_MUTE_ENABLE, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(lib, room, 1, QEL_CONTROL_AUTO_EQ_ENABLE, 1), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_AUTO_EQ_ENABLE), 1);
    EXPECT_EQ(g_state_calls, 2);
}

TEST(Part3_4_ParticipantState, SetAllStopsAtTheFirstFailingParticipant) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    qel_event_manager_t events{};
    events.set_all_participants_state = count_all;
    g_all_calls = 0;
    ASSERT_EQ(qel_add_event_manager(lib, &events), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 2, qt::regular(16000)), QEL_ERROR_NONE);
    ASSERT_EQ(add(lib, room, 3), QEL_ERROR_NONE);
    log.clear();
    EXPECT_EQ(qel_set_all_participants_state(lib, room, QEL_CONTROL_AUTO_EQ_ENABLE, 1),
              QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_AUTO_EQ_ENABLE), 1);
    EXPECT_EQ(get_state(lib, room, 2, QEL_CONTROL_AUTO_EQ_ENABLE), 0);
    EXPECT_EQ(get_state(lib, room, 3, QEL_CONTROL_AUTO_EQ_ENABLE), 0);
    EXPECT_EQ(log.count("The Auto EQ effect is only available for 48 kHz inputs currently. It "
                        "will not be enabled for participant 2"),
              1u);
    EXPECT_EQ(log.lines().size(), 1u); // no success line
    EXPECT_EQ(g_all_calls, 0);
}

TEST(Part3_4_ParticipantState, SetAllWithABadValueChangesNobody) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    for (uint32_t id = 1; id <= 3; ++id) ASSERT_EQ(add(lib, room, id), QEL_ERROR_NONE);
    log.clear();
    EXPECT_EQ(qel_set_all_participants_state(lib, room, QEL_CONTROL_MASTER_GAIN, 101),
              QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count("You must use a value of between 0 and 100 for master gain control"), 1u);
    EXPECT_EQ(log.lines().size(), 1u);
    for (uint32_t id = 1; id <= 3; ++id) EXPECT_EQ(get_state(lib, room, id, QEL_CONTROL_MASTER_GAIN), 100);
}

TEST(Part3_4_ParticipantState, SetAllWritesEveryParticipantAndLogsOnce) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    qel_event_manager_t events{};
    events.set_all_participants_state = count_all;
    events.set_participant_state = count_state;
    g_all_calls = 0;
    g_state_calls = 0;
    ASSERT_EQ(qel_add_event_manager(lib, &events), QEL_ERROR_NONE);
    for (uint32_t id = 1; id <= 3; ++id) ASSERT_EQ(add(lib, room, id), QEL_ERROR_NONE);
    log.clear();
    ASSERT_EQ(qel_set_all_participants_state(lib, room, QEL_CONTROL_MIXING_3D_ENABLE, 1),
              QEL_ERROR_NONE);
    for (uint32_t id = 1; id <= 3; ++id) {
        EXPECT_EQ(get_state(lib, room, id, QEL_CONTROL_MIXING_3D_ENABLE), 1);
    }
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message, "Set all participant's QEL_CONTROL_MIXING_3D_ENABLE in room 1 to 1");
    EXPECT_EQ(log.lines()[0].level, QEL_LOG_INFO);
    EXPECT_EQ(g_all_calls, 1);
    EXPECT_EQ(g_state_calls, 0);
}

TEST(Part3_4_ParticipantState, SetAllInAnEmptyRoomSucceeds) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    log.clear();
    EXPECT_EQ(qel_set_all_participants_state(lib, room, QEL_CONTROL_MUTE_ENABLE, 1), QEL_ERROR_NONE);
    EXPECT_EQ(log.count("Set all participant's QEL_CONTROL_MUTE_ENABLE in room 1 to 1"), 1u);
}

TEST(Part3_4_ParticipantState, SetStateLogsTheControlNameAndValue) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 2), QEL_ERROR_NONE);
    log.clear();
    ASSERT_EQ(qel_set_participant_state(lib, room, 2, QEL_CONTROL_MASTER_GAIN, 55), QEL_ERROR_NONE);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message, "Participant 2 in room 1 set QEL_CONTROL_MASTER_GAIN to 55");
    EXPECT_EQ(log.lines()[0].level, QEL_LOG_INFO);
    log.clear();
    ASSERT_EQ(qel_set_participant_state(lib, room, 2, QEL_CONTROL_SIDEBAR_ROOM, 0), QEL_ERROR_NONE);
    EXPECT_EQ(log.count("Participant 2 in room 1 set QEL_CONTROL_SIDEBAR_ROOM to 0"), 1u);
    log.clear();
    ASSERT_EQ(qel_set_participant_state(lib, room, 2, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, 1000000),
              QEL_ERROR_NONE);
    EXPECT_EQ(log.count("Participant 2 in room 1 set QEL_CONTROL_MIXING_3D_MAX_DISTANCE to 1000000"),
              1u);
}

TEST(Part3_4_ParticipantState, UnknownRoomOrParticipantIsRefused) {
    qt::log_capture log;
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    log.clear();
    EXPECT_EQ(qel_set_participant_state(lib, 7, 1, QEL_CONTROL_MUTE_ENABLE, 1),
              QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(log.count("Room 7 does not exist."), 1u);
    EXPECT_EQ(qel_set_participant_state(lib, room, 9, QEL_CONTROL_MUTE_ENABLE, 1),
              QEL_ERROR_INVALID_PARTICIPANT_ID);
    EXPECT_EQ(log.count("The participant id 9 is not in room 1"), 1u);
    EXPECT_EQ(qel_set_all_participants_state(lib, 7, QEL_CONTROL_MUTE_ENABLE, 1),
              QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(log.count("Room 7 does not exist."), 2u);
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, QEL_LOG_WARNING);
}

TEST(Part3_4_ParticipantState, GetFailuresWriteZero) {
    qt::library_handle lib = closed_library();
    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    int value = 12345;
    EXPECT_EQ(qel_get_participant_state(lib, 7, 1, QEL_CONTROL_MASTER_GAIN, &value),
              QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(value, 0);
    value = 12345;
    EXPECT_EQ(qel_get_participant_state(lib, room, 9, QEL_CONTROL_MASTER_GAIN, &value),
              QEL_ERROR_INVALID_PARTICIPANT_ID);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(qel_get_participant_state(lib, room, 1, QEL_CONTROL_MASTER_GAIN, nullptr),
              QEL_ERROR_DATA_NULL);
}

TEST(Part3_4_ParticipantState, LayoutDefaultStatesApplyInAClosedRoomOnly) {
    qt::library_handle lib = qt::library_handle::from_layout_text(layouts_with_defaults(
        R"({"QEL_CONTROL_MUTE_ENABLE": 1, "qel_control_master_gain": 55,
            "QEL_CONTROL_MIXING_3D_ENABLE": true, "QEL_CONTROL_DEVICE": 2,
            "QEL_CONTROL_HALF_SPAN_ANGLE": 30.7})",
        R"({"QEL_CONTROL_MUTE_ENABLE": 1, "QEL_CONTROL_MASTER_GAIN": 55})"));
    ASSERT_EQ(lib.init_error(), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(lib, 1), QEL_ERROR_NONE); // closed layout 10
    ASSERT_EQ(qel_create_room(lib, 2), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(lib, 2, 30), QEL_ERROR_NONE); // open layout 30

    ASSERT_EQ(add(lib, 1, 1), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, 1, 1, QEL_CONTROL_MUTE_ENABLE), 1);
    EXPECT_EQ(get_state(lib, 1, 1, QEL_CONTROL_MASTER_GAIN), 55);
    EXPECT_EQ(get_state(lib, 1, 1, QEL_CONTROL_MIXING_3D_ENABLE), 1);
    EXPECT_EQ(get_state(lib, 1, 1, QEL_CONTROL_DEVICE), QEL_DEVICE_SPEAKER);
    EXPECT_EQ(get_state(lib, 1, 1, QEL_CONTROL_HALF_SPAN_ANGLE), 30);
    // The others keep the Part 3.4 defaults.
    for (const int c : {1, 3, 4, 5, 6, 7, 9, 10, 11, 15, 16}) {
        EXPECT_EQ(get_state(lib, 1, 1, c), default_values[c]) << "control " << c;
    }
    // A later joiner gets them too, and the host can still change them.
    ASSERT_EQ(add(lib, 1, 2), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, 1, 2, QEL_CONTROL_MUTE_ENABLE), 1);
    ASSERT_EQ(qel_set_participant_state(lib, 1, 2, QEL_CONTROL_MUTE_ENABLE, 0), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, 1, 2, QEL_CONTROL_MUTE_ENABLE), 0);

    // In the open room no default state is applied.
    ASSERT_EQ(add(lib, 2, 1), QEL_ERROR_NONE);
    expect_defaults(lib, 2, 1);
}

TEST(Part3_4_ParticipantState, FailingDefaultStateRefusesTheAddAndLeavesTheRoomUnchanged) {
    qt::log_capture log;
    qt::library_handle lib =
        qt::library_handle::from_layout_text(layouts_with_defaults(R"({"QEL_CONTROL_AUTO_EQ_ENABLE": 1})"));
    ASSERT_EQ(lib.init_error(), QEL_ERROR_NONE);
    qel_event_manager_t events{};
    events.add_participant = count_add;
    g_add_calls = 0;
    ASSERT_EQ(qel_add_event_manager(lib, &events), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(lib, room), QEL_ERROR_NONE);

    ASSERT_EQ(add(lib, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(get_state(lib, room, 1, QEL_CONTROL_AUTO_EQ_ENABLE), 1);
    log.clear();

    EXPECT_EQ(add(lib, room, 2, qt::regular(16000)), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(log.count("The Auto EQ effect is only available for 48 kHz inputs currently. It "
                        "will not be enabled for participant 2"),
              1u);
    EXPECT_FALSE(log.contains("A new participant with id 2 has been added to room 1"));
    EXPECT_EQ(g_add_calls, 1);

    // The room is as it was: one participant, no trace of the refused one.
    int count = -1;
    ASSERT_EQ(qel_get_participant_count(lib, room, &count), QEL_ERROR_NONE);
    EXPECT_EQ(count, 1);
    int value = 0;
    EXPECT_EQ(qel_get_participant_state(lib, room, 2, QEL_CONTROL_MUTE_ENABLE, &value),
              QEL_ERROR_INVALID_PARTICIPANT_ID);
    int32_t a = 0, e = 0, d = 0;
    EXPECT_EQ(qel_get_participant_spherical(lib, room, 1, 2, &a, &e, &d),
              QEL_ERROR_INVALID_PARTICIPANT_ID);

    // Its seat was not kept: the next joiner gets seat 2; and the refused id
    // can join afterwards with a 48 kHz input.
    ASSERT_EQ(add(lib, room, 3), QEL_ERROR_NONE);
    qel_seat seat{};
    ASSERT_EQ(qel_get_participant_seat(lib, room, 3, &seat), QEL_ERROR_NONE);
    EXPECT_EQ(seat.seat_index, 2);
    ASSERT_EQ(add(lib, room, 2), QEL_ERROR_NONE);
    ASSERT_EQ(qel_get_participant_seat(lib, room, 2, &seat), QEL_ERROR_NONE);
    EXPECT_EQ(seat.seat_index, 3);
    ASSERT_EQ(qel_get_participant_count(lib, room, &count), QEL_ERROR_NONE);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(get_state(lib, room, 2, QEL_CONTROL_AUTO_EQ_ENABLE), 1);
    // Directions between everyone exist.
    EXPECT_EQ(qel_get_participant_spherical(lib, room, 1, 2, &a, &e, &d), QEL_ERROR_NONE);
    EXPECT_EQ(qel_get_participant_spherical(lib, room, 2, 3, &a, &e, &d), QEL_ERROR_NONE);
    EXPECT_EQ(g_add_calls, 3);
}

TEST(Part3_4_ParticipantState, OutOfRangeDefaultStateRefusesTheAdd) {
    qt::log_capture log;
    qt::library_handle lib =
        qt::library_handle::from_layout_text(layouts_with_defaults(R"({"QEL_CONTROL_MASTER_GAIN": 500})"));
    ASSERT_EQ(lib.init_error(), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(lib, room), QEL_ERROR_NONE);
    log.clear();
    EXPECT_EQ(add(lib, room, 1), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(log.count("You must use a value of between 0 and 100 for master gain control"), 1u);
    EXPECT_FALSE(log.contains("A new participant with id 1 has been added to room 1"));
    int count = -1;
    ASSERT_EQ(qel_get_participant_count(lib, room, &count), QEL_ERROR_NONE);
    EXPECT_EQ(count, 0);
}

} // namespace
