/*
 * C99 client of libquelora.so: compiles the public header as strict C99
 * (-std=c99 -pedantic -Werror) and runs one control-plane scenario through
 * the exported functions only. Prints "N passed, N failed" last; exits 1 on
 * any failed check.
 */
#include <quelora/quelora.h>

#include <stdio.h>
#include <string.h>

static int passed = 0, failed = 0;

static void check(int ok, const char* what, long got, long want) {
    if (ok)
        ++passed;
    else
        ++failed, printf("FAILED: %s (got %ld, want %ld)\n", what, got, want);
}

#define CHECK_EQ(got, want)                                                                        \
    do {                                                                                           \
        long g_ = (long)(got), w_ = (long)(want);                                                  \
        check(g_ == w_, #got " == " #want, g_, w_);                                                \
    } while (0)

static void check_str(const char* got, const char* want, const char* what) {
    if (got != NULL && strcmp(got, want) == 0)
        ++passed;
    else
        ++failed,
            printf("FAILED: %s (got \"%s\", want \"%s\")\n", what, got ? got : "(null)", want);
}

/* Event callbacks: count calls and remember the last arguments. */
static int create_room_calls = 0, add_participant_calls = 0;
static int32_t created_room_id = -1, added_room_id = -1, added_participant_ids[2] = {-1, -1};

static void on_create_room(int32_t room_id) { ++create_room_calls, created_room_id = room_id; }

static void on_add_participant(int32_t room_id, int32_t participant_id, const char* name,
                               const qel_participant_configuration* configuration) {
    (void)name, (void)configuration;
    if (add_participant_calls < 2) added_participant_ids[add_participant_calls] = participant_id;
    ++add_participant_calls, added_room_id = room_id;
}

int main(void) {
    /* Fallback room layout, no websocket configuration. */
    qel_library_configuration config = {48000, 480, 2, true, 3}, got_config;
    qel_participant_configuration participant = {48000, 1, QEL_PARTICIPANT_REGULAR};
    qel_event_manager_t events;
    qel_handle handle;
    int error = 0, count = -1, value = -1;
    int32_t azimuth = -1, elevation = -1, distance = -1;
    char name[64];
    qel_position position = {0, 0, 200};
    qel_heading heading = {0, 0};

    /* Library-independent exports. */
    check_str(qel_get_version(), "v1.0.23", "qel_get_version()");
    check_str(qel_error_code_to_string(-9985), "QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED",
              "qel_error_code_to_string(-9985)");

    handle = qel_initialize_library(NULL, NULL, config, &error);
    check(handle != NULL, "qel_initialize_library returns a handle", handle != NULL, 1);
    CHECK_EQ(error, QEL_ERROR_NONE);
    if (handle == NULL) {
        printf("%d passed, %d failed\n", passed, failed);
        return 1;
    }
    got_config = qel_get_library_configuration(handle);
    CHECK_EQ(got_config.output_sampling_rate, 48000);
    CHECK_EQ(got_config.output_number_frames, 480);
    CHECK_EQ(got_config.output_number_channels, 2);
    CHECK_EQ(got_config.interleaved, true);
    CHECK_EQ(got_config.spatial_quality, 3);

    /* Event manager with two counting callbacks; the other slots are null. */
    memset(&events, 0, sizeof events);
    events.create_room = on_create_room;
    events.add_participant = on_add_participant;
    CHECK_EQ(qel_add_event_manager(handle, &events), QEL_ERROR_NONE);

    /* Room and participants; state and name round trips. */
    CHECK_EQ(qel_create_room(handle, 1), QEL_ERROR_NONE);
    CHECK_EQ(qel_get_room_count(handle, &count), QEL_ERROR_NONE);
    CHECK_EQ(count, 1);
    CHECK_EQ(qel_add_participant(handle, 1, 10, "Ten", participant), QEL_ERROR_NONE);
    CHECK_EQ(qel_add_participant(handle, 1, 11, "Eleven", participant), QEL_ERROR_NONE);
    count = -1;
    CHECK_EQ(qel_get_participant_count(handle, 1, &count), QEL_ERROR_NONE);
    CHECK_EQ(count, 2);
    CHECK_EQ(qel_set_participant_state(handle, 1, 10, QEL_CONTROL_MASTER_GAIN, 55), QEL_ERROR_NONE);
    CHECK_EQ(qel_get_participant_state(handle, 1, 10, QEL_CONTROL_MASTER_GAIN, &value),
             QEL_ERROR_NONE);
    CHECK_EQ(value, 55);
    CHECK_EQ(qel_set_participant_name(handle, 1, 10, "Alice"), QEL_ERROR_NONE);
    memset(name, 'x', sizeof name);
    CHECK_EQ(qel_get_participant_name(handle, 1, 10, name, (int)sizeof name), QEL_ERROR_NONE);
    name[sizeof name - 1] = '\0';
    check_str(name, "Alice", "qel_get_participant_name after set");

    /* The fallback layout is an open room: both start at the origin. */
    CHECK_EQ(qel_get_participant_spherical(handle, 1, 10, 11, &azimuth, &elevation, &distance),
             QEL_ERROR_NONE);
    CHECK_EQ(distance, 0);
    CHECK_EQ(qel_set_participant_position(handle, 1, 11, position, heading), QEL_ERROR_NONE);
    azimuth = elevation = distance = -1;
    CHECK_EQ(qel_get_participant_spherical(handle, 1, 10, 11, &azimuth, &elevation, &distance),
             QEL_ERROR_NONE);
    CHECK_EQ(azimuth, 0);
    CHECK_EQ(elevation, 0);
    CHECK_EQ(distance, 200);

    /* Audio: participant 10 talks, 11 listens. The library is 48 kHz, 480
     * frames, stereo, interleaved, 3D off: a mono block reaches each ear at
     * 0.70710677, 9 samples later (the limiter's look-ahead). */
    {
        float microphone[480], headphones[2 * 480];
        short speaker[2 * 480];
        int i;
        for (i = 0; i < 480; ++i) microphone[i] = 0.25f;
        CHECK_EQ(qel_input_audio_float(handle, 1, 10, microphone, 480), QEL_ERROR_NONE);
        CHECK_EQ(qel_input_audio_float(handle, 1, 10, microphone, 479), QEL_ERROR_DATA_LENGTH);
        CHECK_EQ(qel_input_audio_float(handle, 1, 10, NULL, 480), QEL_ERROR_DATA_NULL);
        CHECK_EQ(qel_output_audio_float(handle, 1, 11, headphones), QEL_ERROR_NONE);
        CHECK_EQ(headphones[0] == 0.0f, 1);
        CHECK_EQ(headphones[2 * 100] == 0.25f * 0.70710677f, 1);
        CHECK_EQ(headphones[2 * 100 + 1] == 0.25f * 0.70710677f, 1);
        CHECK_EQ(qel_output_audio_short(handle, 1, 11, speaker), QEL_ERROR_NO_INPUT_AUDIO);
        CHECK_EQ(speaker[0], 0);
        CHECK_EQ(qel_output_audio_double(handle, 1, 11, NULL), QEL_ERROR_DATA_NULL);
    }

    /* Tear down. */
    CHECK_EQ(qel_remove_participant(handle, 1, 11), QEL_ERROR_NONE);
    count = -1;
    CHECK_EQ(qel_get_participant_count(handle, 1, &count), QEL_ERROR_NONE);
    CHECK_EQ(count, 1);
    CHECK_EQ(qel_destroy_room(handle, 1), QEL_ERROR_NONE);
    count = -1;
    CHECK_EQ(qel_get_room_count(handle, &count), QEL_ERROR_NONE);
    CHECK_EQ(count, 0);

    /* Callbacks: one room created, one call per added participant. */
    CHECK_EQ(create_room_calls, 1);
    CHECK_EQ(created_room_id, 1);
    CHECK_EQ(add_participant_calls, 2);
    CHECK_EQ(added_room_id, 1);
    CHECK_EQ(added_participant_ids[0], 10);
    CHECK_EQ(added_participant_ids[1], 11);

    CHECK_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
    CHECK_EQ(qel_destroy_library(NULL), QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED);
    CHECK_EQ(QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED, -9985);

    printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
