// The sixteen controls: names, defaults, ranges, messages; set-all, auto EQ, layout defaults.
#include "conference_fixture.h"

#include <climits>
#include <cstring>

using namespace quelora::testing;

namespace {

struct control_row {
    int control;
    const char* name;
    int default_value, low, high; // high INT_MAX: no upper bound
    std::string message;
};
const std::string value_of = "You must use a value of ";
const std::string either = value_of + "either 0 or 1 for ";
const control_row controls[] = {
    {1, "STEREO_BYPASS_ENABLE", 0, 0, 1, "stereo bypass control"},
    {2, "MUTE_ENABLE", 0, 0, 1, "mute control"},
    {3, "ANC_ENABLE", 0, 0, 1, "noise cancellation control"},
    {4, "ANC_HIGH", 1, 0, 1, "noise cancellation level control"},
    {5, "ANC_MIX", 100, 0, 100, "You must use a value from 0 to 100 for anc level control"},
    {6, "AGC_ENABLE", 0, 0, 1, "automatic gain control"},
    {7, "AUTO_EQ_ENABLE", 0, 0, 1, "auto EQ control"},
    {8, "MIXING_3D_ENABLE", 0, 0, 1, "3d mixing control"},
    {9, "MIXING_3D_ATTENUATION", 6, 0, 40,
     value_of + "between 0 and 40 dB for distance attenuation"},
    {10, "MIXING_3D_MAX_DISTANCE", 300, 0, INT_MAX, value_of + "0 or greater for max distance"},
    {11, "MIXING_3D_REVERB_ENABLE", 1, 0, 1, "reverb control"},
    {12, "DEVICE", 1, 1, 2, "You must use a valid qel_device_types value to change the device"},
    // Deliberately 0 to 89 although the message says 1 to 90: hosts rely on 0.
    {13, "HALF_SPAN_ANGLE", 15, 0, 89, value_of + "between 1 and 90 for half span angle control"},
    {14, "MASTER_GAIN", 100, 0, 100, value_of + "between 0 and 100 for master gain control"},
    {15, "WHISPER_ROOM", 0, 0, 100, value_of + "between 0 and 100 for whisper room control"},
    {16, "SIDEBAR_ROOM", 0, 0, 100, value_of + "between 0 and 100 for sidebar room control"}};
log_line refusal(const control_row& r) {
    return warning(r.high == 1 ? either + r.message : r.message);
}

int set(const conference& f, uint32_t participant, int control, int value, bool all = false) {
    const auto c = static_cast<qel_audio_control>(control);
    return all ? qel_set_all_participants_state(f.library, 1, c, value)
               : qel_set_participant_state(f.library, 1, participant, c, value);
}

} // namespace

TEST(ControlValues, EachControlsNameDefaultRangeAndMessage) {
    conference f;
    f.join(1);
    for (const control_row& r : controls) {
        const std::string name = "QEL_CONTROL_" + std::string(r.name);
        SCOPED_TRACE(name);
        EXPECT_EQ(qel_audio_control_to_string(static_cast<qel_audio_control>(r.control)), name);
        EXPECT_EQ(qel_string_to_audio_control(name.c_str()), r.control);
        EXPECT_EQ(f.state(1, r.control), r.default_value);
        for (const int value : {r.high, r.low}) {
            const std::string v = std::to_string(value);
            expect_call(f.log, QEL_ERROR_NONE,
                        {event("set_participant_state 1 1 " + std::to_string(r.control) + " " + v),
                         info("Participant 1 in room 1 set " + name + " to " + v)},
                        [&] { return set(f, 1, r.control, value); });
        }
        // Values are tested as unsigned, so negative ones fail an upper bound too.
        std::vector<int> refused{r.low - 1, INT_MIN};
        if (r.high != INT_MAX) refused.insert(refused.end(), {r.high + 1, INT_MAX});
        for (const int value : refused) {
            expect_call(f.log, QEL_ERROR_INVALID_VALUE, {refusal(r)},
                        [&] { return set(f, 1, r.control, value); });
        }
        EXPECT_EQ(f.state(1, r.control), r.low);
    }
}

TEST(ControlValues, NumbersNamesAndTextsOutsideTheVocabularyAreRefused) {
    conference f;
    f.join(1);
    int value = 0;
    for (const int control : {0, 17}) {
        const log_line to_edit =
            warning("You must use a valid control to edit from the qel_audio_control list");
        expect_call(f.log, QEL_ERROR_INVALID_CONTROL, {to_edit},
                    [&] { return set(f, 1, control, 0); });
        expect_call(f.log, QEL_ERROR_INVALID_CONTROL, {to_edit},
                    [&] { return set(f, 1, control, 0, true); });
        expect_call(f.log, QEL_ERROR_INVALID_CONTROL,
                    {warning("You did not input a valid control to edit")}, [&] {
                        return qel_get_participant_state(
                            f.library, 1, 1, static_cast<qel_audio_control>(control), &value);
                    });
        expect_call(f.log, 0,
                    {warning("State " + std::to_string(control) +
                             " is not valid, must be between 1 and 16.")},
                    [&] {
                        return int(
                            std::strlen(qel_audio_control_to_string(qel_audio_control(control))));
                    });
    }
    // Names are compared whole after upper-casing; value texts read like stoi.
    for (const auto& [text, control] : {std::pair{"qel_control_mute_enable", 2},
                                        {"QEL_CONTROL_MUTE_ENABLE ", 17},
                                        {"QEL_CONTROL", 17},
                                        {nullptr, 17}}) {
        const std::vector<log_line> bad{
            warning((text ? text : "(null)") + std::string(" is not a valid control."))};
        expect_call(f.log, control, control == 2 ? std::vector<log_line>{} : bad,
                    [t = text] { return qel_string_to_audio_control(t); });
    }
    // clang-format off
    const std::pair<const char*, int> texts[] = {
        {"true", 1}, {"False", 0}, {"qel_enable", 1}, {"QEL_DISABLE", 0},
        {"qel_device_speaker", 2}, {"QEL_DEVICE_HEADPHONE", 1}, {"  42abc", 42}, {"-17", -17},
        {"+5", 5}, {"2147483647", INT_MAX}, {"-2147483648", INT_MIN},
        {"letters", -9990}, {"12345678901", -9990}, {"", -9990}, {"2147483648", -9990},
        {nullptr, -9990}};
    // clang-format on
    for (const auto& [text, result] : texts) {
        std::vector<log_line> lines;
        if (result == -9990) {
            lines.push_back(warning("State value " + std::string(text ? text : "(null)") +
                                    " is invalid. You must enter an integer value, the string "
                                    "QEL_DEVICE_HEADPHONE, the string QEL_DEVICE_SPEAKER, the "
                                    "string QEL_ENABLE, or the string QEL_DISABLE "));
        }
        expect_call(f.log, result, lines,
                    [t = text] { return qel_string_to_participant_value(t); });
    }
}

// Auto EQ is refused for inputs other than 48 kHz, whatever the value. Set-all checks the value
// once, writes members in joining order, stops at the first refusal and reports once, for the room.
TEST(ParticipantState, AutoEqNeeds48kHzAndSetAllStopsAtTheFirstRefusal) {
    conference f;
    for (const int32_t rate : {48000, 48000, 16000, 48000})
        f.join(participant_count(f.library, 1) + 1, regular(rate));
    ASSERT_EQ(qel_remove_participant(f.library, 1, 2), QEL_ERROR_NONE);
    for (const int value : {0, 1, 7}) {
        expect_call(f.log, QEL_ERROR_INVALID_CONTROL, {auto_eq_refused(3)},
                    [&] { return set(f, 3, 7, value); });
    }
    expect_call(f.log, QEL_ERROR_NONE,
                {event("set_all_participants_state 1 8 1"),
                 info("Set all participant's QEL_CONTROL_MIXING_3D_ENABLE in room 1 to 1")},
                [&] { return set(f, 0, 8, 1, true); });
    expect_call(f.log, QEL_ERROR_INVALID_VALUE, {refusal(controls[13])},
                [&] { return set(f, 0, 14, 101, true); });
    expect_call(f.log, QEL_ERROR_INVALID_CONTROL, {auto_eq_refused(3)},
                [&] { return set(f, 0, 7, 1, true); });
    ASSERT_EQ(set(f, 4, QEL_CONTROL_MUTE_ENABLE, 1), QEL_ERROR_NONE);
    for (const auto& [control, values] : {std::pair{8, std::array{1, 1, 1}},
                                          {14, {100, 100, 100}},
                                          {7, {1, 0, 0}},
                                          {2, {0, 0, 1}}}) {
        EXPECT_EQ((std::array{f.state(1, control), f.state(3, control), f.state(4, control)}),
                  values)
            << control;
    }
}

// Closed layouts set their default states on joining, open ones do not; a
// default state the joiner refuses refuses the join and leaves no trace.
TEST(ParticipantState, ClosedLayoutsSetTheirDefaultStatesOnJoining) {
    conference f(50);
    std::array<int, 17> want{};
    for (const control_row& r : controls) want[r.control] = r.default_value;
    want[2] = 1, want[8] = 1, want[9] = 12, want[13] = 30; // keys in any case, true, 30.7
    f.join(1);
    for (int c = 1; c <= 16; ++c) EXPECT_EQ(f.state(1, c), want[c]) << c;
    for (const auto& [room, layout, hz, code, lines] :
         // clang-format off
         {std::tuple{2, 60, 48000, QEL_ERROR_NONE,
          std::vector{dfn_created(), event("add_participant 2 1 x 48000 1 1"), joined(1, 2)}},
          {3, 40, 16000, QEL_ERROR_INVALID_CONTROL,
           {dfn_created(), auto_eq_refused(1), dfn_destroyed()}},
          {4, 70, 48000, QEL_ERROR_INVALID_VALUE,
           {dfn_created(), refusal(controls[13]), dfn_destroyed()}}}) {
        // clang-format on
        ASSERT_EQ(qel_create_room(f.library, room), QEL_ERROR_NONE);
        ASSERT_EQ(qel_set_room_layout(f.library, room, layout), QEL_ERROR_NONE);
        expect_call(f.log, code, lines, [&, r = room, c = regular(hz)] {
            return qel_add_participant(f.library, r, 1, "x", c);
        });
    }
    EXPECT_EQ(f.state(1, QEL_CONTROL_MUTE_ENABLE, 2), 0);
    EXPECT_EQ((std::array{participant_count(f.library, 3), participant_count(f.library, 4)}),
              (std::array{0, 0}));
    f.join(2, regular(), 3);
    EXPECT_EQ((std::array{f.place(2, 3)[0], f.state(2, QEL_CONTROL_AUTO_EQ_ENABLE, 3)}),
              (std::array{1, 1})); // seat 1 free
}
