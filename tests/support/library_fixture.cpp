#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace quelora::testing {

std::string write_temp_file(const std::string& name, const std::string& text) {
    static std::atomic<int> counter{0};
    const auto dir = std::filesystem::temp_directory_path() /
                     ("quelora-tests-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto path = dir / (std::to_string(counter++) + "-" + name);
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
}

library_handle::library_handle(const char* layout_file, qel_library_configuration configuration) {
    handle_ = qel_initialize_library(layout_file, nullptr, configuration, &error_);
}

library_handle library_handle::from_layout_text(const std::string& json_text,
                                                qel_library_configuration configuration) {
    const std::string path = write_temp_file("layouts.json", json_text);
    return library_handle(path.c_str(), configuration);
}

library_handle::library_handle(library_handle&& other) noexcept
    : handle_(other.handle_), error_(other.error_) {
    other.handle_ = nullptr;
}

library_handle::~library_handle() {
    if (handle_ != nullptr) {
        EXPECT_EQ(qel_destroy_library(handle_), QEL_ERROR_NONE);
    }
}

int room_count(qel_handle handle) {
    int count = -1;
    EXPECT_EQ(qel_get_room_count(handle, &count), QEL_ERROR_NONE);
    return count;
}

int participant_count(qel_handle handle, uint32_t room) {
    int count = -1;
    EXPECT_EQ(qel_get_participant_count(handle, room, &count), QEL_ERROR_NONE);
    return count;
}

int state_of(qel_handle handle, uint32_t room, uint32_t participant, qel_audio_control control) {
    int value = -12345;
    EXPECT_EQ(qel_get_participant_state(handle, room, participant, control, &value), QEL_ERROR_NONE);
    return value;
}

qel_seat seat_of(qel_handle handle, uint32_t room, uint32_t participant) {
    qel_seat seat{-12345, -12345, -12345, -12345, -12345, -12345};
    EXPECT_EQ(qel_get_participant_seat(handle, room, participant, &seat), QEL_ERROR_NONE);
    return seat;
}

std::string four_seat_layouts_json() {
    return R"({
  "default": "closed",
  "room_list": {
    "closed": {
      "id": 10, "desc": "four seats, no stacking", "allowParticipantStacking": false,
      "stackDelta": 50, "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 100}, {"x": 100, "y": 0, "z": 0},
                {"x": 0, "y": 0, "z": -100}, {"x": -100, "y": 0, "z": 0}]
    },
    "open": {
      "id": 30, "desc": "open room", "allowParticipantStacking": true, "openRoom": true,
      "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 0}]
    },
    "stacking": {
      "id": 20, "desc": "four seats, stacking", "allowParticipantStacking": true,
      "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 100}, {"x": 100, "y": 0, "z": 0},
                {"x": 0, "y": 0, "z": -100}, {"x": -100, "y": 0, "z": 0}]
    }
  }
})";
}

} // namespace quelora::testing
