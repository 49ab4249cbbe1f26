#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace recordings_test {

/// Gives each test a file name in a folder of its own.
class RecordingFileTest : public testing::Test {
protected:
    RecordingFileTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "borven-recording-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
        path = (folder / "file.mcap").string();
    }
    ~RecordingFileTest() override { std::filesystem::remove_all(folder); }

    std::filesystem::path folder;
    std::string path;
};

} // namespace recordings_test
