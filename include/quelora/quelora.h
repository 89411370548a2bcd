/*
 * Quelora: spatial-audio conferencing engine, C interface.
 *
 * Threading: every function may be called from any host thread; the library
 * serialises internally with reader/writer locks (rooms and layout changes
 * exclude everything else, calls within one room run side by side), except
 * qel_add_event_manager, which must be called before other threads use the
 * handle, and qel_destroy_library, which must not race any other call on the
 * same handle. The only thread the library starts is the websocket server's
 * I/O thread (qel_enable_websockets), joined by qel_destroy_library; it logs
 * client connections and failures too. The logger is process-wide; make the
 * first library call of the process from one thread. Audio calls are
 * real-time safe once a listener's queues have reached their depth: no
 * allocation, no I/O, no logging except the level-1 "no input audio" line
 * when that level is enabled; they wait only on the locks above, which a room
 * change in progress holds briefly.
 *
 * Ownership: strings returned by the library (qel_get_version,
 * qel_error_code_to_string, qel_audio_control_to_string,
 * qel_get_json_all_room_layouts) belong to the library and stay valid until
 * qel_destroy_library (literals forever). Output values go through pointers the
 * host owns; a null output pointer returns QEL_ERROR_DATA_NULL. Callback tables
 * given to qel_add_event_manager stay owned by the host and must outlive the
 * handle.
 *
 * Errors: functions returning int return a qel_error_code; QEL_ERROR_NONE
 * (-10000) is success. No C++ exception ever leaves these functions: a failure
 * that has no code of its own (a JSON type error in a room layout file, an
 * allocation failure) is logged at level 4 and reported with the code that
 * docs/errors.md gives for it.
 */
#ifndef QUELORA_QUELORA_H
#define QUELORA_QUELORA_H

#include <stdbool.h>
#include <stdint.h>

#if defined(QUELORA_BUILDING_LIBRARY)
#define QEL_API __attribute__((visibility("default")))
#else
#define QEL_API
#endif

/* In C++ the enumerations get a fixed 32-bit underlying type, so that every
 * value a C host may pass (5 as a log level, 17 as a control) is a valid
 * value of the type; in C they are int, the same 32 bits. */
#ifdef __cplusplus
#define QEL_ENUM(name) enum name : int32_t
#else
#define QEL_ENUM(name) enum name
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Error codes. Two codes deliberately have no name: -9988 (the room layout
 * document is not valid) and -9980 (the room layout file does not exist);
 * qel_error_code_to_string gives "QEL_ERROR_NONE" for them, as for any code
 * not listed here. */
typedef QEL_ENUM(qel_error_code) {
    QEL_ERROR_NONE = -10000,
    QEL_ERROR_HANDLE_NULL = -9999,
    QEL_ERROR_DATA_NULL = -9998,
    QEL_ERROR_DATA_LENGTH = -9997,
    QEL_ERROR_NUM_CHANNELS = -9996,
    QEL_ERROR_SAMPLE_RATE = -9995,
    QEL_ERROR_SPATIAL_QUALITY = -9994,
    QEL_ERROR_INVALID_ROOM_ID = -9993,
    QEL_ERROR_INVALID_PARTICIPANT_ID = -9992,
    QEL_ERROR_INVALID_CONTROL = -9991,
    QEL_ERROR_INVALID_VALUE = -9990,
    QEL_ERROR_INVALID_HEADING = -9989,
    QEL_ERROR_NO_INPUT_AUDIO = -9987,
    QEL_ERROR_PARTICIPANT_TYPE = -9986,
    QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED = -9985
} qel_error_code;

/* Log levels. A line is written when logging is enabled (qel_enable_logging,
 * off at first) and its level is at least the threshold (QEL_LOG_WARNING
 * until qel_set_log_level). */
typedef QEL_ENUM(qel_log_level) {
    QEL_LOG_VERBOSE = 0,
    QEL_LOG_DEBUG = 1,
    QEL_LOG_INFO = 2,
    QEL_LOG_WARNING = 3,
    QEL_LOG_ERROR = 4
} qel_log_level;

/* Audio controls. qel_string_to_audio_control returns 17 for a name that is
 * not a control. */
typedef QEL_ENUM(qel_audio_control) {
    QEL_CONTROL_STEREO_BYPASS_ENABLE = 1,
    QEL_CONTROL_MUTE_ENABLE = 2,
    QEL_CONTROL_ANC_ENABLE = 3,
    QEL_CONTROL_ANC_HIGH = 4,
    QEL_CONTROL_ANC_MIX = 5,
    QEL_CONTROL_AGC_ENABLE = 6,
    QEL_CONTROL_AUTO_EQ_ENABLE = 7,
    QEL_CONTROL_MIXING_3D_ENABLE = 8,
    QEL_CONTROL_MIXING_3D_ATTENUATION = 9,
    QEL_CONTROL_MIXING_3D_MAX_DISTANCE = 10,
    QEL_CONTROL_MIXING_3D_REVERB_ENABLE = 11,
    QEL_CONTROL_DEVICE = 12,
    QEL_CONTROL_HALF_SPAN_ANGLE = 13,
    QEL_CONTROL_MASTER_GAIN = 14,
    QEL_CONTROL_WHISPER_ROOM = 15,
    QEL_CONTROL_SIDEBAR_ROOM = 16
} qel_audio_control;

typedef QEL_ENUM(qel_device_types) {
    QEL_DEVICE_HEADPHONE = 1,
    QEL_DEVICE_SPEAKER = 2
} qel_device_types;

typedef QEL_ENUM(qel_participant_type) {
    QEL_PARTICIPANT_REGULAR = 1,
    QEL_PARTICIPANT_SOURCE_ONLY = 2,
    QEL_PARTICIPANT_LISTENER_ONLY = 3
} qel_participant_type;

typedef struct qel_library* qel_handle; /* opaque */

typedef struct {
    int32_t output_sampling_rate;   /* 8000, 16000, 24000, 32000 or 48000 */
    int32_t output_number_frames;   /* 10 or 20 ms at the output rate (512/1024 at 48 kHz too) */
    int32_t output_number_channels; /* 1 or 2 */
    bool interleaved;               /* two-channel blocks are L R L R ... */
    /* 1 to 5: head-related filters of 512, 1024, 2048, 4096 or 8192 taps
     * (at least one block). Higher keeps more of the modelled room's
     * reverberation and costs more: about 5.5 to 88 MB of filters (shared by
     * the process's libraries of the same block size and quality), 40 to
     * 140 ms of initialisation, and more per listener-source pair. */
    int32_t spatial_quality;
} qel_library_configuration;

typedef struct {
    int32_t input_sampling_rate;
    int32_t input_number_channels;
    int32_t participant_type; /* qel_participant_type */
} qel_participant_configuration;

typedef struct { int32_t x, y, z; } qel_position;
typedef struct { int32_t azimuth, elevation; } qel_heading;
typedef struct { int32_t seat_index, x, y, z, azimuth, elevation; } qel_seat; /* the place record */

/* Host callbacks. Any slot may be null. Callbacks run on the thread that made
 * the change, after the room's locks are released but with the library lock
 * held shared: a callback must not call back into the library with the
 * handle (queue the work for later instead). The lock admits no new reader
 * while a writer (room creation or destruction, a layout change) waits, so
 * that audio calls cannot starve those changes; even a getter called from a
 * callback can therefore deadlock behind another thread's writer.
 * Pointers passed in are valid during the call only. */
typedef struct qel_event_manager_t {
    void (*create_room)(int32_t room_id);
    void (*destroy_room)(int32_t room_id);
    void (*add_participant)(int32_t room_id, int32_t participant_id, const char* name,
                            const qel_participant_configuration* configuration);
    void (*remove_participant)(int32_t room_id, int32_t participant_id);
    void (*move_participant)(int32_t room_id, int32_t participant_id, const qel_seat* seat);
    void (*set_participant_position)(int32_t room_id, int32_t participant_id,
                                     const qel_position* position, qel_heading heading);
    void (*set_participant_state)(int32_t room_id, int32_t participant_id,
                                  qel_audio_control control, int32_t value);
    void (*set_all_participants_state)(int32_t room_id, qel_audio_control control, int32_t value);
    void (*set_room_layout)(int32_t room_id, int32_t layout_id);
    void (*set_name)(int32_t room_id, int32_t participant_id, const char* name);
} qel_event_manager_t;

/* ---- Library lifetime and information ---------------------------------- */

/* Returns a new library, or null with the failure's code in *error (error
 * may be null). room_layout_file may be null (built-in fallback layout). */
QEL_API qel_handle qel_initialize_library(const char* room_layout_file,
                                          const char* websocket_configuration_file,
                                          qel_library_configuration configuration, int* error);
/* As above, but a missing, null or bad room layout file falls back to the
 * built-in layout instead of failing, and a websocket configuration that
 * cannot be used leaves the library without a websocket server. */
QEL_API qel_handle qel_initialize_library_from_memory(const char* room_layout_file,
                                                      const char* websocket_configuration_file,
                                                      qel_library_configuration configuration,
                                                      int* error);
/* Frees the library and everything it owns. A null handle returns
 * QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED. */
QEL_API int qel_destroy_library(qel_handle handle);
QEL_API const char* qel_get_version(void);
QEL_API qel_library_configuration qel_get_library_configuration(qel_handle handle);
/* Compact JSON text of the whole room configuration document; owned by the
 * library, valid until qel_destroy_library. */
QEL_API const char* qel_get_json_all_room_layouts(qel_handle handle);
QEL_API int qel_get_room_layout(qel_handle handle, uint32_t room_id, int* layout_id);
QEL_API int qel_enable_logging(bool enable);
QEL_API int qel_set_log_level(qel_log_level level);
QEL_API const char* qel_error_code_to_string(int error_code);
/* Registers a callback table (not copied, not owned). Not thread-safe:
 * register before other threads use the handle. */
QEL_API int qel_add_event_manager(qel_handle handle, qel_event_manager_t* event_manager);
/* Websocket event publishing (docs/websocket.md). Server builds: starts
 * listening, with TLS, on the port of the websocket configuration file
 * given at initialisation; from then on every room and participant change
 * is sent as JSON to every authenticated client, from the library's one I/O
 * thread (the calling thread never waits for the network; a client that
 * cannot keep up is disconnected). Fails with
 * QEL_ERROR_INVALID_VALUE when no configuration was given or a TLS file or
 * the port fails (a later call may succeed); a second call while listening
 * succeeds. Client builds (QUELORA_WEBSOCKETS=OFF): QEL_ERROR_INVALID_CONTROL. */
QEL_API int qel_enable_websockets(qel_handle handle);
/* Sends json_text (one JSON value, at most 1 MiB, copied; sent exactly as
 * given) to every authenticated client; nothing before qel_enable_websockets.
 * Invalid JSON gives QEL_ERROR_INVALID_VALUE, null QEL_ERROR_DATA_NULL. */
QEL_API int qel_send_custom_websocket_event(qel_handle handle, const char* json_text);

/* ---- Rooms and participants --------------------------------------------- */

QEL_API int qel_create_room(qel_handle handle, uint32_t room_id);
QEL_API int qel_destroy_room(qel_handle handle, uint32_t room_id);
QEL_API int qel_get_room_count(qel_handle handle, int* room_count);
QEL_API int qel_set_room_layout(qel_handle handle, uint32_t room_id, int32_t layout_id);
/* participant_name: zero-terminated bytes, copied; null is taken as "". */
QEL_API int qel_add_participant(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                const char* participant_name,
                                qel_participant_configuration configuration);
QEL_API int qel_remove_participant(qel_handle handle, uint32_t room_id, uint32_t participant_id);
QEL_API int qel_get_participant_count(qel_handle handle, uint32_t room_id, int* participant_count);
QEL_API int qel_get_participant_configuration(qel_handle handle, uint32_t room_id,
                                              uint32_t participant_id,
                                              qel_participant_configuration* configuration);
/* name: zero-terminated bytes, copied; null is taken as "". */
QEL_API int qel_set_participant_name(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     const char* name);
/* Writes the name and its terminating zero. buffer_length is deliberately
 * compared with the name's length without the terminator: a buffer_length of
 * exactly the length passes and receives length + 1 bytes, so size the buffer
 * for the terminator too. */
QEL_API int qel_get_participant_name(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     char* name, int buffer_length);
QEL_API int qel_set_participant_position(qel_handle handle, uint32_t room_id,
                                         uint32_t participant_id, qel_position position,
                                         qel_heading heading);
QEL_API int qel_get_participant_position(qel_handle handle, uint32_t room_id,
                                         uint32_t participant_id, qel_position* position,
                                         qel_heading* heading);
QEL_API int qel_set_participant_seat(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     int32_t seat_index);
QEL_API int qel_get_participant_seat(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     qel_seat* seat);
QEL_API int qel_get_participant_spherical(qel_handle handle, uint32_t room_id,
                                          uint32_t listener_id, uint32_t source_id,
                                          int32_t* azimuth, int32_t* elevation,
                                          int32_t* distance);
QEL_API int qel_set_participant_state(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                      qel_audio_control control, int value);
QEL_API int qel_get_participant_state(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                      qel_audio_control control, int* value);
QEL_API int qel_set_all_participants_state(qel_handle handle, uint32_t room_id,
                                           qel_audio_control control, int value);
QEL_API int qel_flush_data(qel_handle handle, uint32_t room_id, uint32_t participant_id);

/* ---- Audio --------------------------------------------------------------
 * For each participant and block period: one input call with exactly the
 * participant's required input frames (output frames x input rate / output
 * rate) of input_number_channels channels, and one output call that fills
 * output_number_frames x output_number_channels samples. Two-channel blocks
 * are L R L R ... when the library's interleaved flag is set, else all left
 * then all right samples. The library keeps no pointer to either buffer.
 * Any thread may call; calls for different participants run in parallel,
 * calls for one participant are serialised. An output call returns
 * QEL_ERROR_NO_INPUT_AUDIO, with silence in the buffer, when no source had
 * a block for this listener. */
QEL_API int qel_input_audio_short(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                  const int16_t* samples, int number_frames);
QEL_API int qel_input_audio_float(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                  const float* samples, int number_frames);
QEL_API int qel_input_audio_double(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   const double* samples, int number_frames);
QEL_API int qel_output_audio_short(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   int16_t* samples);
QEL_API int qel_output_audio_float(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                   float* samples);
QEL_API int qel_output_audio_double(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                    double* samples);

/* ---- Vocabulary converters ---------------------------------------------- */

QEL_API const char* qel_audio_control_to_string(qel_audio_control control);
QEL_API qel_audio_control qel_string_to_audio_control(const char* text);
QEL_API int qel_string_to_participant_value(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* QUELORA_QUELORA_H */
