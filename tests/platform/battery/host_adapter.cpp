#include "adapter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace platform_test {

namespace {

std::filesystem::path runtimeDirectory;

} // namespace

void BeginTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "borven-platform-XXXXXX").string();
    ASSERT_NE(nullptr, ::mkdtemp(pattern.data()));
    runtimeDirectory = pattern;
    ::setenv("BORVEN_RUNTIME_DIR", pattern.c_str(), 1);
}

void EndTest() {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(runtimeDirectory)) {
        ADD_FAILURE() << "left behind: " << entry.path();
    }
    std::filesystem::remove_all(runtimeDirectory);
    ::unsetenv("BORVEN_RUNTIME_DIR");
}

} // namespace platform_test
