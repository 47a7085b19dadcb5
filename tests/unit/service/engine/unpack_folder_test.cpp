#include "service/engine/unpack_folder.h"

#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace keldra {
namespace {

// A folder that did not change is not read again; what a scan leaves must not reach the next file for all that.
TEST(UnpackFolderTest, WhatAScanLeftIsGoneHoweverLongNothingWasLeft) {
    const TempDir room;
    UnpackFolder folder(room.path(), "scan-1", ::getuid(), ::getgid());
    ASSERT_TRUE(folder.usable());
    const std::filesystem::path path = std::filesystem::path(room.path()) / "scan-1";
    for (const int seconds : {0, 3}) {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        for (int file = 0; file < 3; ++file) {
            folder.empty();
            std::filesystem::create_directories(path / "member");
            std::ofstream(path / "member" / "left") << "left";
            std::ofstream(path / "left") << "left";
            folder.empty();
            EXPECT_TRUE(std::filesystem::is_empty(path)) << "after " << seconds << " s";
        }
    }
}

}  // namespace
}  // namespace keldra
