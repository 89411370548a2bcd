// Participants through the C interface: joining, its lines and callbacks, leaving, names, flushing.
#include "conference_fixture.h"

using namespace quelora::testing;

// Duplicate id, then channels, then type, then the rate's ratio, then its
// upper bound; a refused participant leaves no trace and calls nothing.
TEST(Participants, JoiningIsCheckedInOrderWithTheFirstFaultsMessage) {
    conference f(30);
    f.join(1, regular(48000, 1));
    library_handle slow(nullptr, {16000, 160, 1, false, 1});
    ASSERT_EQ(qel_create_room(slow, 1), QEL_ERROR_NONE);
    const auto provided = [](int n, const std::string& rest) {
        return error("You provided " + std::to_string(n) + rest);
    };
    const auto channels = [&](int n) {
        return provided(
            n, " but Quelora currently only supports 1 or 2 channel input for new participants");
    };
    const auto ratio = [&](int rate, int output_rate) {
        return provided(rate, " but you must make input sampling rate an integer ratio of the "
                              "output sampling rate " +
                                  std::to_string(output_rate));
    };
    const log_line above =
        provided(96000, " but the Quelora library does not support sampling rates above 48000");
    const log_line type =
        error("Must pick Regular, source only, or listener only for a new participant");
    // clang-format off
    const std::tuple<qel_handle, uint32_t, qel_participant_configuration, int, log_line> rows[] = {
        {f.library, 1, {44100, 3, 9}, QEL_ERROR_INVALID_PARTICIPANT_ID,
         warning("The participant id 1 already exists in room 1")},
        {f.library, 2, {48000, 0, 1},  QEL_ERROR_NUM_CHANNELS,     channels(0)},
        {f.library, 2, {48000, -1, 1}, QEL_ERROR_NUM_CHANNELS,     channels(-1)},
        {f.library, 2, {44100, 3, 0},  QEL_ERROR_NUM_CHANNELS,     channels(3)},
        {f.library, 2, {48000, 1, 0},  QEL_ERROR_PARTICIPANT_TYPE, type},
        {f.library, 2, {96000, 2, 4},  QEL_ERROR_PARTICIPANT_TYPE, type},
        {f.library, 2, {44100, 1, 1},  QEL_ERROR_SAMPLE_RATE,      ratio(44100, 48000)},
        {f.library, 2, {96000, 1, 1},  QEL_ERROR_SAMPLE_RATE,      above},
        // 960 frames scale to 479
        {f.library, 2, {96050, 1, 1},  QEL_ERROR_SAMPLE_RATE,      ratio(96050, 48000)},
        {slow,      2, {22050, 1, 1},  QEL_ERROR_SAMPLE_RATE,      ratio(22050, 16000)},
        {slow,      2, {96000, 1, 1},  QEL_ERROR_SAMPLE_RATE,      above}}; // always names 48000
    // clang-format on
    for (const auto& [library, id, config, code, line] : rows) {
        expect_call(f.log, code, {line}, [l = library, p = id, c = config] {
            return qel_add_participant(l, 1, p, "x", c);
        });
    }
    qel_participant_configuration kept{};
    ASSERT_EQ(qel_get_participant_configuration(f.library, 1, 1, &kept), QEL_ERROR_NONE);
    EXPECT_EQ((std::array{participant_count(f.library, 1), kept.input_sampling_rate,
                          kept.input_number_channels}),
              (std::array{1, 48000, 1}));
}

// Every rate, channel count and type joins and reads back; only those with an input side build a
// canceller.
TEST(Participants, EveryRateChannelCountAndTypeJoinsFlushesAndLeaves) {
    conference f(30);
    for (uint32_t id = 1; id <= 10; ++id) {
        const int32_t rate = std::array{8000, 16000, 24000, 32000, 48000}[id / 2 % 5];
        const int32_t channels = 1 + id % 2,
                      type = 1 + id % 3; // every rate with both counts, every type
        const std::string args =
            std::to_string(id) + " x " + std::to_string(rate) + " " + std::to_string(channels);
        std::vector<log_line> lines{dfn_created(),
                                    event("add_participant 1 " + args + " " + std::to_string(type)),
                                    joined(static_cast<int>(id))};
        if (type == QEL_PARTICIPANT_LISTENER_ONLY) lines.erase(lines.begin());
        expect_call(f.log, QEL_ERROR_NONE, lines, [&] {
            return qel_add_participant(f.library, 1, id, "x", {rate, channels, type});
        });
        qel_participant_configuration got{};
        f.log.clear();
        EXPECT_EQ((std::array{qel_get_participant_configuration(f.library, 1, id, &got),
                              got.input_sampling_rate, got.input_number_channels,
                              got.participant_type, qel_flush_data(f.library, 1, id)}),
                  (std::array{-10000, rate, channels, type, -10000}));
        EXPECT_TRUE(f.log.lines().empty()); // reading and flushing are silent
    }
    expect_call(f.log, QEL_ERROR_NONE,
                {dfn_destroyed(), event("remove_participant 1 1"),
                 info("Participant 1 has been removed from room 1")},
                [&] { return qel_remove_participant(f.library, 1, 1); });
    expect_call(
        f.log, QEL_ERROR_NONE,
        {event("remove_participant 1 2"), info("Participant 2 has been removed from room 1")},
        [&] { return qel_remove_participant(f.library, 1, 2); }); // listener only
    EXPECT_EQ((std::array{participant_count(f.library, 1),
                          qel_add_participant(f.library, 1, 2, "x", regular())}),
              (std::array{8, -10000}));
}

// The buffer length must be at least the name's length and the name is written with its terminating
// zero: hosts that size the buffer to the name's length rely on this. A null name is taken as "".
TEST(Participants, NamesAreCopiedAndReadBackWithTheirTerminator) {
    conference f(30);
    ASSERT_EQ(qel_add_participant(f.library, 1, 1, nullptr, regular()), QEL_ERROR_NONE);
    char buffer[8] = {'#', '#'};
    EXPECT_EQ(qel_get_participant_name(f.library, 1, 1, buffer, 0), QEL_ERROR_NONE);
    EXPECT_EQ(std::string(buffer, 2), std::string("\0#", 2));
    expect_call(f.log, QEL_ERROR_NONE,
                {event("set_name 1 1 Bob"), info("Set participant 1 in room 1 name to Bob")},
                [&] { return qel_set_participant_name(f.library, 1, 1, "Bob"); });
    std::fill(std::begin(buffer), std::end(buffer), '#');
    EXPECT_EQ(qel_get_participant_name(f.library, 1, 1, buffer, 3), QEL_ERROR_NONE);
    EXPECT_EQ(std::string(buffer, 5), std::string("Bob\0#", 5));
    for (const int length : {2, -1}) {
        expect_call(f.log, QEL_ERROR_DATA_LENGTH,
                    {warning("To use get name you must allocate a character buffer. For this "
                             "participant the buffer must have at least 3 characters allocated")},
                    [&] { return qel_get_participant_name(f.library, 1, 1, buffer, length); });
    }
}
