// Part 3.5 failure rule: a callback that raises quelora_exception ends the
// operation with that code, after the change; later tables are not called
// and the success line is not written. (C hosts cannot raise it; internal
// C++ sinks such as the websocket publisher can.)
#include "api/quelora_exception.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"
#include "support/log_expect.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

using quelora::testing::library_handle;
using quelora::testing::log_capture;

namespace {

int later_table_calls = 0;

void refuse_room(int32_t room_id) {
    throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "callback refused room %d", room_id);
}

void refuse_participant(int32_t, int32_t participant_id, const char*, const qel_participant_configuration*) {
    throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "callback refused participant %d",
                            participant_id);
}

void count_room(int32_t) { ++later_table_calls; }
void count_participant(int32_t, int32_t, const char*, const qel_participant_configuration*) {
    ++later_table_calls;
}

} // namespace

TEST(Part3_5_EventFailures, RaisingCallbackEndsTheCallAfterTheChange) {
    library_handle library;
    qel_event_manager_t refusing{};
    refusing.create_room = refuse_room;
    refusing.add_participant = refuse_participant;
    qel_event_manager_t counting{};
    counting.create_room = count_room;
    counting.add_participant = count_participant;
    ASSERT_EQ(qel_add_event_manager(library, &refusing), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_event_manager(library, &counting), QEL_ERROR_NONE);
    later_table_calls = 0;

    log_capture capture;
    EXPECT_EQ(qel_create_room(library, 3), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(qel_add_participant(library, 3, 7, "x", quelora::testing::regular()), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(later_table_calls, 0);
    // The participant, and with it its noise canceller (Part 5.2), is built
    // before the callback refuses it.
    quelora::testing::check_lines(capture.lines(),
                                  {quelora::testing::warning("callback refused room 3"),
                                   quelora::testing::dfn_created(),
                                   quelora::testing::warning("callback refused participant 7")});

    // The changes themselves stay made (Part 3.1 failure handling).
    int rooms = 0;
    EXPECT_EQ(qel_get_room_count(library, &rooms), QEL_ERROR_NONE);
    EXPECT_EQ(rooms, 1);
    int participants = 0;
    EXPECT_EQ(qel_get_participant_count(library, 3, &participants), QEL_ERROR_NONE);
    EXPECT_EQ(participants, 1);
}
