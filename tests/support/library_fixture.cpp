#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace quelora::testing {

std::string write_temp_file(const std::string& name, const std::string& text) {
    static std::atomic<int> counter{0};
    const auto dir =
        std::filesystem::temp_directory_path() / ("quelora-tests-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto path = dir / (std::to_string(counter++) + "-" + name);
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
}

library_handle::library_handle(const char* layout_file, qel_library_configuration configuration) {
    handle_ = qel_initialize_library(layout_file, nullptr, configuration, &error_);
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

} // namespace quelora::testing
