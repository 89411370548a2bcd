// Participants (spec Part 3.2), driven through the C interface: adding with
// its validation order, removing, count, configuration, names, flush, and the
// listener/source links, with exact return codes and exact log lines.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <quelora/quelora.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include "support/log_expect.h"
#include <string>
#include <utility>
#include <vector>

namespace {

using quelora::testing::four_seat_layouts_json;
using quelora::testing::library_handle;
using quelora::testing::log_capture;
using quelora::testing::log_line;
using quelora::testing::participant_count;
using quelora::testing::regular;
using quelora::testing::state_of;

using quelora::testing::dfn_created;
using quelora::testing::dfn_destroyed;
using quelora::testing::expect_call;
using quelora::testing::expect_failure_message;
using quelora::testing::info;
using quelora::testing::warning;
using quelora::testing::error;

qel_participant_configuration configuration(int32_t rate, int32_t channels, int32_t type) {
    return qel_participant_configuration{rate, channels, type};
}

std::string added_line(int participant, int room) {
    return "A new participant with id " + std::to_string(participant) + " has been added to room " +
           std::to_string(room);
}

std::string not_in_room(int participant, int room) {
    return "The participant id " + std::to_string(participant) + " is not in room " +
           std::to_string(room);
}

std::string channels_message(int channels) {
    return "You provided " + std::to_string(channels) +
           " but Quelora currently only supports 1 or 2 channel input for new participants";
}

const char* const type_message =
    "Must pick Regular, source only, or listener only for a new participant";

std::string ratio_message(int rate, int output_rate) {
    return "You provided " + std::to_string(rate) +
           " but you must make input sampling rate an integer ratio of the output sampling rate " +
           std::to_string(output_rate);
}

std::string above_message(int rate) {
    return "You provided " + std::to_string(rate) +
           " but the Quelora library does not support sampling rates above 48000";
}

qel_participant_configuration configuration_of(qel_handle handle, uint32_t room,
                                               uint32_t participant) {
    qel_participant_configuration got{-7, -7, -7};
    EXPECT_EQ(qel_get_participant_configuration(handle, room, participant, &got), QEL_ERROR_NONE);
    return got;
}

void expect_configuration(const qel_participant_configuration& got,
                          const qel_participant_configuration& want,
                          quelora::testing::call_site where = quelora::testing::call_site::current()) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()),
                                 "configuration");
    EXPECT_EQ(got.input_sampling_rate, want.input_sampling_rate);
    EXPECT_EQ(got.input_number_channels, want.input_number_channels);
    EXPECT_EQ(got.participant_type, want.participant_type);
}

std::string name_of(qel_handle handle, uint32_t room, uint32_t participant) {
    char buffer[256] = {};
    EXPECT_EQ(qel_get_participant_name(handle, room, participant, buffer, sizeof buffer - 1),
              QEL_ERROR_NONE);
    return buffer;
}

void add(qel_handle handle, uint32_t room, uint32_t participant,
         qel_participant_configuration config = regular(), const char* name = "someone") {
    ASSERT_EQ(qel_add_participant(handle, room, participant, name, config), QEL_ERROR_NONE)
        << "participant " << participant;
}

// A fallback library (open room layout 1) with room 1 created.
struct open_room {
    log_capture log;
    library_handle library;
    open_room() { EXPECT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE); }
};

// The four-seat closed layout (id 10) with room 1 created.
struct closed_room {
    log_capture log;
    library_handle library = library_handle::from_layout_text(four_seat_layouts_json());
    closed_room() { EXPECT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE); }
};

// ---- Add --------------------------------------------------------------------------

TEST(Part3_2_Participants, AddParticipantLogsAdditionLine) {
    open_room room;
    // The participant's noise canceller (Part 5.2) is built before the line.
    expect_call(room.log, QEL_ERROR_NONE, {dfn_created(), info(added_line(1, 1))},
                [&] { return qel_add_participant(room.library, 1, 1, "Alice", regular()); });
    EXPECT_EQ(participant_count(room.library, 1), 1);
    EXPECT_EQ(name_of(room.library, 1, 1), "Alice");
}

TEST(Part3_2_Participants, AddingExistingIdFailsAndKeepsTheFirst) {
    open_room room;
    add(room.library, 1, 1, regular(48000, 1), "Alice");
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID,
                {warning("The participant id 1 already exists in room 1")},
                [&] { return qel_add_participant(room.library, 1, 1, "Bob", regular(16000, 2)); });
    EXPECT_EQ(participant_count(room.library, 1), 1);
    EXPECT_EQ(name_of(room.library, 1, 1), "Alice");
    expect_configuration(configuration_of(room.library, 1, 1), regular(48000, 1));
}

TEST(Part3_2_Participants, DuplicateIdIsCheckedBeforeTheConfiguration) {
    open_room room;
    add(room.library, 1, 1);
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID,
                {warning("The participant id 1 already exists in room 1")}, [&] {
                    return qel_add_participant(room.library, 1, 1, "x", configuration(44100, 3, 9));
                });
}

TEST(Part3_2_Participants, SameIdInDifferentRoomsIsAllowed) {
    open_room room;
    ASSERT_EQ(qel_create_room(room.library, 2), QEL_ERROR_NONE);
    add(room.library, 1, 1);
    expect_call(room.log, QEL_ERROR_NONE, {dfn_created(), info(added_line(1, 2))},
                [&] { return qel_add_participant(room.library, 2, 1, "twin", regular()); });
}

TEST(Part3_2_Participants, AddingToMissingRoomFails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_add_participant(room.library, 7, 1, "x", regular()); });
}

TEST(Part3_2_Participants, ChannelCountOtherThanOneOrTwoFails) {
    open_room room;
    for (int32_t channels : {0, 3, -1, 8}) {
        SCOPED_TRACE(channels);
        expect_call(room.log, QEL_ERROR_NUM_CHANNELS, {error(channels_message(channels))}, [&] {
            return qel_add_participant(room.library, 1, 1, "x",
                                       configuration(48000, channels, QEL_PARTICIPANT_REGULAR));
        });
    }
    EXPECT_EQ(participant_count(room.library, 1), 0);
}

TEST(Part3_2_Participants, ParticipantTypeOutsideOneToThreeFails) {
    open_room room;
    for (int32_t type : {0, 4, -1}) {
        SCOPED_TRACE(type);
        expect_call(room.log, QEL_ERROR_PARTICIPANT_TYPE, {error(type_message)}, [&] {
            return qel_add_participant(room.library, 1, 1, "x", configuration(48000, 1, type));
        });
    }
    EXPECT_EQ(participant_count(room.library, 1), 0);
}

TEST(Part3_2_Participants, InputRateThatIsNoIntegerRatioFails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_SAMPLE_RATE, {error(ratio_message(44100, 48000))},
                [&] { return qel_add_participant(room.library, 1, 1, "x", regular(44100)); });
    EXPECT_EQ(participant_count(room.library, 1), 0);
}

TEST(Part3_2_Participants, InputRateAbove48000Fails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_SAMPLE_RATE, {error(above_message(96000))},
                [&] { return qel_add_participant(room.library, 1, 1, "x", regular(96000)); });
    EXPECT_EQ(participant_count(room.library, 1), 0);
}

TEST(Part3_2_Participants, SupportedInputRatesAreAccepted) {
    open_room room;
    uint32_t participant = 1;
    for (int32_t rate : {8000, 16000, 24000, 32000, 48000}) {
        for (int32_t channels : {1, 2}) {
            SCOPED_TRACE(::testing::Message() << rate << " Hz, " << channels << " channels");
            const int id = static_cast<int>(participant);
            expect_call(room.log, QEL_ERROR_NONE, {dfn_created(), info(added_line(id, 1))},
                        [&] {
                            return qel_add_participant(room.library, 1, participant, "x",
                                                       regular(rate, channels));
                        });
            expect_configuration(configuration_of(room.library, 1, participant),
                                 regular(rate, channels));
            ++participant;
        }
    }
    EXPECT_EQ(participant_count(room.library, 1), 10);
}

TEST(Part3_2_Participants, AllThreeParticipantTypesAreAccepted) {
    open_room room;
    for (int32_t type : {1, 2, 3}) {
        const auto id = static_cast<uint32_t>(type);
        // Regular and source-only participants have an input side with a
        // noise canceller (Part 5.2); a listener-only one has none and logs
        // only the addition.
        std::vector<log_line> expected;
        if (type != QEL_PARTICIPANT_LISTENER_ONLY) expected.push_back(dfn_created());
        expected.push_back(info(added_line(type, 1)));
        expect_call(room.log, QEL_ERROR_NONE, expected, [&] {
            return qel_add_participant(room.library, 1, id, "x", configuration(16000, 2, type));
        });
    }
    EXPECT_EQ(participant_count(room.library, 1), 3);
}

TEST(Part3_2_Participants, ChannelsAreValidatedBeforeType) {
    open_room room;
    expect_call(room.log, QEL_ERROR_NUM_CHANNELS, {error(channels_message(3))}, [&] {
        return qel_add_participant(room.library, 1, 1, "x", configuration(44100, 3, 0));
    });
    expect_call(room.log, QEL_ERROR_NUM_CHANNELS, {error(channels_message(0))}, [&] {
        return qel_add_participant(room.library, 1, 1, "x", configuration(96000, 0, 5));
    });
}

TEST(Part3_2_Participants, TypeIsValidatedBeforeRate) {
    open_room room;
    expect_call(room.log, QEL_ERROR_PARTICIPANT_TYPE, {error(type_message)}, [&] {
        return qel_add_participant(room.library, 1, 1, "x", configuration(44100, 2, 4));
    });
    expect_call(room.log, QEL_ERROR_PARTICIPANT_TYPE, {error(type_message)}, [&] {
        return qel_add_participant(room.library, 1, 1, "x", configuration(96000, 1, 0));
    });
}

TEST(Part3_2_Participants, RatioIsValidatedBeforeAbove) {
    open_room room;
    // 96050 Hz is above 48000 and, with 480 output frames, takes 960 input
    // frames, which 48000/96050 scales to 479: not an accepted length.
    expect_call(room.log, QEL_ERROR_SAMPLE_RATE, {error(ratio_message(96050, 48000))},
                [&] { return qel_add_participant(room.library, 1, 1, "x", regular(96050)); });
}

TEST(Part3_2_Participants, RateMessagesNameTheLibrarysOutputRate) {
    log_capture log;
    library_handle library(nullptr, qel_library_configuration{16000, 160, 1, false, 1});
    ASSERT_NE(library.get(), nullptr) << library.init_error();
    ASSERT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    // 22050 Hz takes 220 input frames per 160 output frames: 479 at 48 kHz.
    expect_call(log, QEL_ERROR_SAMPLE_RATE, {error(ratio_message(22050, 16000))},
                [&] { return qel_add_participant(library, 1, 1, "x", regular(22050)); });
    // The "above" message always names 48000, not the output rate.
    expect_call(log, QEL_ERROR_SAMPLE_RATE, {error(above_message(96000))},
                [&] { return qel_add_participant(library, 1, 1, "x", regular(96000)); });
    expect_call(log, QEL_ERROR_NONE, {dfn_created(), info(added_line(1, 1))},
                [&] { return qel_add_participant(library, 1, 1, "x", regular(48000)); });
}

// ---- Remove ---------------------------------------------------------------------

TEST(Part3_2_Participants, RemoveParticipantLogsRemovalLine) {
    open_room room;
    add(room.library, 1, 1);
    add(room.library, 1, 2);
    add(room.library, 1, 3, configuration(48000, 2, QEL_PARTICIPANT_LISTENER_ONLY));
    // Freeing the participant frees its noise canceller (Part 5.2) before
    // the removal line.
    expect_call(room.log, QEL_ERROR_NONE,
                {dfn_destroyed(), info("Participant 1 has been removed from room 1")},
                [&] { return qel_remove_participant(room.library, 1, 1); });
    EXPECT_EQ(participant_count(room.library, 1), 2);
    qel_participant_configuration config{};
    EXPECT_EQ(qel_get_participant_configuration(room.library, 1, 1, &config),
              QEL_ERROR_INVALID_PARTICIPANT_ID);
    // A listener-only participant owns no canceller: its removal logs only
    // the removal line.
    expect_call(room.log, QEL_ERROR_NONE, {info("Participant 3 has been removed from room 1")},
                [&] { return qel_remove_participant(room.library, 1, 3); });
    EXPECT_EQ(participant_count(room.library, 1), 1);
}

TEST(Part3_2_Participants, RemovingUnknownParticipantFails) {
    open_room room;
    add(room.library, 1, 1);
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {warning(not_in_room(9, 1))},
                [&] { return qel_remove_participant(room.library, 1, 9); });
    EXPECT_EQ(participant_count(room.library, 1), 1);
}

TEST(Part3_2_Participants, RemovingFromMissingRoomFails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_remove_participant(room.library, 7, 1); });
}

TEST(Part3_2_Participants, RemovedIdCanBeAddedAgain) {
    open_room room;
    add(room.library, 1, 1, regular(48000, 1), "first");
    ASSERT_EQ(qel_remove_participant(room.library, 1, 1), QEL_ERROR_NONE);
    expect_call(room.log, QEL_ERROR_NONE, {dfn_created(), info(added_line(1, 1))}, [&] {
        return qel_add_participant(room.library, 1, 1, "second", regular(16000, 2));
    });
    EXPECT_EQ(name_of(room.library, 1, 1), "second");
    expect_configuration(configuration_of(room.library, 1, 1), regular(16000, 2));
}

TEST(Part3_2_Participants, RemovingFromTheMiddleKeepsTheOrderOfTheOthers) {
    open_room room;
    add(room.library, 1, 1, regular(48000));
    add(room.library, 1, 2, regular(48000));
    add(room.library, 1, 3, regular(16000));
    add(room.library, 1, 4, regular(48000));
    ASSERT_EQ(qel_remove_participant(room.library, 1, 2), QEL_ERROR_NONE);

    // "Set all" walks the vector in order and stops at the 16 kHz participant:
    // with the order 1, 3, 4 only participant 1 takes the new value.
    expect_call(
        room.log, QEL_ERROR_INVALID_CONTROL,
        {warning("The Auto EQ effect is only available for 48 kHz inputs currently. It will "
                 "not be enabled for participant 3")},
        [&] {
            return qel_set_all_participants_state(room.library, 1, QEL_CONTROL_AUTO_EQ_ENABLE, 1);
        });
    EXPECT_EQ(state_of(room.library, 1, 1, QEL_CONTROL_AUTO_EQ_ENABLE), 1);
    EXPECT_EQ(state_of(room.library, 1, 3, QEL_CONTROL_AUTO_EQ_ENABLE), 0);
    EXPECT_EQ(state_of(room.library, 1, 4, QEL_CONTROL_AUTO_EQ_ENABLE), 0);
}

TEST(Part3_2_Participants, RemovingFromTheMiddleKeepsTheOthersSeats) {
    closed_room room;
    for (uint32_t participant : {1u, 2u, 3u}) add(room.library, 1, participant);
    ASSERT_EQ(qel_remove_participant(room.library, 1, 2), QEL_ERROR_NONE);
    qel_seat seat{};
    ASSERT_EQ(qel_get_participant_seat(room.library, 1, 1, &seat), QEL_ERROR_NONE);
    EXPECT_EQ(seat.seat_index, 1);
    ASSERT_EQ(qel_get_participant_seat(room.library, 1, 3, &seat), QEL_ERROR_NONE);
    EXPECT_EQ(seat.seat_index, 3);
    // The freed seat 2 is the first free seat for the next participant.
    add(room.library, 1, 4);
    ASSERT_EQ(qel_get_participant_seat(room.library, 1, 4, &seat), QEL_ERROR_NONE);
    EXPECT_EQ(seat.seat_index, 2);
}

// ---- Count ----------------------------------------------------------------------

TEST(Part3_2_Participants, CountFollowsAddsAndRemoves) {
    open_room room;
    int count = -1;
    expect_call(room.log, QEL_ERROR_NONE, {},
                [&] { return qel_get_participant_count(room.library, 1, &count); });
    EXPECT_EQ(count, 0);
    for (uint32_t participant : {1u, 2u, 3u}) add(room.library, 1, participant);
    EXPECT_EQ(participant_count(room.library, 1), 3);
    ASSERT_EQ(qel_remove_participant(room.library, 1, 2), QEL_ERROR_NONE);
    EXPECT_EQ(participant_count(room.library, 1), 2);
    EXPECT_EQ(qel_add_participant(room.library, 1, 1, "dup", regular()),
              QEL_ERROR_INVALID_PARTICIPANT_ID);
    EXPECT_EQ(participant_count(room.library, 1), 2);
}

TEST(Part3_2_Participants, CountWithNullPointerFails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_DATA_NULL, {error("Your participant_count variable was NULL")},
                [&] { return qel_get_participant_count(room.library, 1, nullptr); });
}

TEST(Part3_2_Participants, CountOfMissingRoomWritesZeroAndFails) {
    open_room room;
    int count = 42;
    expect_call(room.log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_get_participant_count(room.library, 7, &count); });
    EXPECT_EQ(count, 0);
}

// ---- Configuration ---------------------------------------------------------------

TEST(Part3_2_Participants, ConfigurationRoundTrips) {
    open_room room;
    const std::vector<qel_participant_configuration> configs = {
        configuration(16000, 2, QEL_PARTICIPANT_LISTENER_ONLY),
        configuration(48000, 1, QEL_PARTICIPANT_SOURCE_ONLY),
        configuration(8000, 2, QEL_PARTICIPANT_REGULAR),
    };
    for (size_t i = 0; i < configs.size(); ++i)
        add(room.library, 1, static_cast<uint32_t>(i + 1), configs[i]);
    for (size_t i = 0; i < configs.size(); ++i) {
        SCOPED_TRACE(i + 1);
        qel_participant_configuration got{-7, -7, -7};
        expect_call(room.log, QEL_ERROR_NONE, {}, [&] {
            return qel_get_participant_configuration(room.library, 1, static_cast<uint32_t>(i + 1),
                                                     &got);
        });
        expect_configuration(got, configs[i]);
    }
}

TEST(Part3_2_Participants, ConfigurationWithNullPointerFails) {
    open_room room;
    add(room.library, 1, 1);
    expect_failure_message(room.log, QEL_ERROR_DATA_NULL, "Your config variable was NULL", [&] {
        return qel_get_participant_configuration(room.library, 1, 1, nullptr);
    });
}

TEST(Part3_2_Participants, ConfigurationOfUnknownParticipantFails) {
    open_room room;
    add(room.library, 1, 1);
    qel_participant_configuration got{};
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {warning(not_in_room(9, 1))},
                [&] { return qel_get_participant_configuration(room.library, 1, 9, &got); });
}

// ---- Names -----------------------------------------------------------------------

TEST(Part3_2_Participants, SetNameStoresItAndLogsNameLine) {
    open_room room;
    add(room.library, 1, 1, regular(), "Alice");
    expect_call(room.log, QEL_ERROR_NONE, {info("Set participant 1 in room 1 name to Bob")},
                [&] { return qel_set_participant_name(room.library, 1, 1, "Bob"); });
    EXPECT_EQ(name_of(room.library, 1, 1), "Bob");
}

TEST(Part3_2_Participants, SetNameOfUnknownParticipantFails) {
    open_room room;
    add(room.library, 1, 1, regular(), "Alice");
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {warning(not_in_room(9, 1))},
                [&] { return qel_set_participant_name(room.library, 1, 9, "Bob"); });
    EXPECT_EQ(name_of(room.library, 1, 1), "Alice");
}

TEST(Part3_2_Participants, GetNameWithBufferExactlyAsLongAsTheNameSucceeds) {
    open_room room;
    add(room.library, 1, 1, regular(), "Alice");
    // Room for the terminator, but the length passed is the name's length:
    // the library deliberately writes length + 1 bytes.
    std::vector<char> buffer(6, '#');
    expect_call(room.log, QEL_ERROR_NONE, {},
                [&] { return qel_get_participant_name(room.library, 1, 1, buffer.data(), 5); });
    EXPECT_EQ(std::string(buffer.data(), buffer.size()), std::string("Alice\0", 6));
}

TEST(Part3_2_Participants, GetNameWithBufferShorterThanTheNameFails) {
    open_room room;
    add(room.library, 1, 1, regular(), "Alice");
    std::vector<char> buffer(6, '#');
    const std::string message = "To use get name you must allocate a character buffer. For this "
                                "participant the buffer must have at least 5 characters allocated";
    expect_failure_message(room.log, QEL_ERROR_DATA_LENGTH, message, [&] {
        return qel_get_participant_name(room.library, 1, 1, buffer.data(), 4);
    });
    expect_failure_message(room.log, QEL_ERROR_DATA_LENGTH, message, [&] {
        return qel_get_participant_name(room.library, 1, 1, buffer.data(), -1);
    });
}

TEST(Part3_2_Participants, GetEmptyNameWithZeroLengthSucceeds) {
    open_room room;
    add(room.library, 1, 1, regular(), "");
    char buffer[1] = {'#'};
    EXPECT_EQ(qel_get_participant_name(room.library, 1, 1, buffer, 0), QEL_ERROR_NONE);
    EXPECT_EQ(buffer[0], '\0');
}

TEST(Part3_2_Participants, GetNameWithNullBufferFails) {
    open_room room;
    add(room.library, 1, 1, regular(), "Alice");
    expect_call(room.log, QEL_ERROR_DATA_NULL,
                {error("Your value point is null. Please initialize the char array before passing "
                       "to qel_get_participant_name.")},
                [&] { return qel_get_participant_name(room.library, 1, 1, nullptr, 16); });
}

TEST(Part3_2_Participants, GetNameOfUnknownParticipantFails) {
    open_room room;
    char buffer[16] = {};
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {warning(not_in_room(9, 1))},
                [&] { return qel_get_participant_name(room.library, 1, 9, buffer, 15); });
}

// ---- Links between participants ----------------------------------------------------

TEST(Part3_2_Participants, SecondParticipantIsLinkedBothWays) {
    closed_room room;
    add(room.library, 1, 1); // seat 1 at (0, 0, 100)
    add(room.library, 1, 2); // seat 2 at (100, 0, 0)
    for (const auto& [listener, source] : {std::pair{1u, 2u}, std::pair{2u, 1u}}) {
        SCOPED_TRACE(::testing::Message() << listener << " hears " << source);
        int32_t azimuth = 0, elevation = 0, distance = 0;
        EXPECT_EQ(qel_get_participant_spherical(room.library, 1, listener, source, &azimuth,
                                                &elevation, &distance),
                  QEL_ERROR_NONE);
        EXPECT_EQ(distance, 141); // sqrt(100^2 + 100^2)
    }
}

TEST(Part3_2_Participants, SourceOnlyParticipantDoesNotExperience3D) {
    open_room room;
    add(room.library, 1, 1, regular());
    add(room.library, 1, 2, configuration(48000, 1, QEL_PARTICIPANT_SOURCE_ONLY));
    int32_t azimuth = 0, elevation = 0, distance = 0;
    expect_failure_message(
        room.log, QEL_ERROR_INVALID_VALUE,
        "Participant 2 in room 1 is source only and therefore doesn't experience 3D", [&] {
            return qel_get_participant_spherical(room.library, 1, 2, 1, &azimuth, &elevation,
                                                 &distance);
        });
    // The regular participant hears the source-only one.
    EXPECT_EQ(qel_get_participant_spherical(room.library, 1, 1, 2, &azimuth, &elevation, &distance),
              QEL_ERROR_NONE);
}

TEST(Part3_2_Participants, ListenerOnlyParticipantHearsOthers) {
    closed_room room;
    add(room.library, 1, 1, regular());
    add(room.library, 1, 2, configuration(48000, 2, QEL_PARTICIPANT_LISTENER_ONLY));
    int32_t azimuth = 0, elevation = 0, distance = 0;
    EXPECT_EQ(qel_get_participant_spherical(room.library, 1, 2, 1, &azimuth, &elevation, &distance),
              QEL_ERROR_NONE);
    EXPECT_EQ(distance, 141);
}

// ---- Flush -------------------------------------------------------------------------

int flush_callback_calls = 0;

qel_event_manager_t counting_table() {
    qel_event_manager_t table{};
    table.create_room = [](int32_t) { ++flush_callback_calls; };
    table.destroy_room = [](int32_t) { ++flush_callback_calls; };
    table.add_participant = [](int32_t, int32_t, const char*,
                               const qel_participant_configuration*) { ++flush_callback_calls; };
    table.remove_participant = [](int32_t, int32_t) { ++flush_callback_calls; };
    table.move_participant = [](int32_t, int32_t, const qel_seat*) { ++flush_callback_calls; };
    table.set_participant_position = [](int32_t, int32_t, const qel_position*, qel_heading) {
        ++flush_callback_calls;
    };
    table.set_participant_state = [](int32_t, int32_t, qel_audio_control, int32_t) {
        ++flush_callback_calls;
    };
    table.set_all_participants_state = [](int32_t, qel_audio_control, int32_t) {
        ++flush_callback_calls;
    };
    table.set_room_layout = [](int32_t, int32_t) { ++flush_callback_calls; };
    table.set_name = [](int32_t, int32_t, const char*) { ++flush_callback_calls; };
    return table;
}

TEST(Part3_2_Participants, FlushSucceedsWithoutCallbackOrLogLine) {
    open_room room;
    add(room.library, 1, 1, regular());
    add(room.library, 1, 2, configuration(48000, 1, QEL_PARTICIPANT_SOURCE_ONLY));
    add(room.library, 1, 3, configuration(16000, 2, QEL_PARTICIPANT_LISTENER_ONLY));
    qel_event_manager_t table = counting_table();
    ASSERT_EQ(qel_add_event_manager(room.library, &table), QEL_ERROR_NONE);
    flush_callback_calls = 0;
    for (uint32_t participant : {1u, 2u, 3u}) {
        SCOPED_TRACE(participant);
        expect_call(room.log, QEL_ERROR_NONE, {},
                    [&] { return qel_flush_data(room.library, 1, participant); });
    }
    EXPECT_EQ(flush_callback_calls, 0);
    EXPECT_EQ(participant_count(room.library, 1), 3);
}

TEST(Part3_2_Participants, FlushOfUnknownParticipantFails) {
    open_room room;
    add(room.library, 1, 1);
    expect_call(room.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {warning(not_in_room(9, 1))},
                [&] { return qel_flush_data(room.library, 1, 9); });
}

TEST(Part3_2_Participants, FlushInMissingRoomFails) {
    open_room room;
    expect_call(room.log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_flush_data(room.library, 7, 1); });
}

} // namespace
