// The archive of `msgbus report`: a report that lacks a file, overwrites something or is left half-written misleads.

#include "diagnosis/archive.h"

#include "diagnosis/run_program.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

class ArchiveTest : public testing::Test {
protected:
    ArchiveTest() {
        std::string name = testing::TempDir() + "archive-XXXXXX";
        folder = ::mkdtemp(name.data());
        path = folder / "report.tar.gz";
    }
    ~ArchiveTest() override { std::filesystem::remove_all(folder); }

    std::filesystem::path folder;
    std::string path;
};

TEST_F(ArchiveTest, Finish_LeavesWhatTarReads) {
    const std::string large(3'000'000, 'x');
    {
        diagnosis::Archive archive(path);
        archive.Add("r/first.txt", "one\n");
        archive.Add("r/empty.txt", "");
        archive.Add("r/large.txt", large);
        archive.Finish();
    }
    EXPECT_EQ(diagnosis::OutputOf({"tar", "-tzf", path}), "r/first.txt\nr/empty.txt\nr/large.txt\n");
    EXPECT_EQ(diagnosis::OutputOf({"tar", "-xOzf", path, "r/first.txt"}), "one\n");
    EXPECT_EQ(diagnosis::OutputOf({"tar", "-xOzf", path, "r/large.txt"}), large);
}

TEST_F(ArchiveTest, TheFile_IsForItsUserOnly) {
    diagnosis::Archive archive(path);
    archive.Finish();
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(ArchiveTest, WithoutFinish_NothingIsLeft) {
    {
        diagnosis::Archive archive(path);
        archive.Add("r/first.txt", "one\n");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ArchiveTest, AFileThatExists_IsLeftAlone) {
    diagnosis::Archive(path).Finish();
    EXPECT_THROW(diagnosis::Archive{path}, std::runtime_error);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(ArchiveTest, AFolderThatDoesNotExist_IsAnError) {
    EXPECT_THROW(diagnosis::Archive{path + "/none/report"}, std::runtime_error);
}

TEST(RunProgramTest, OutputOf_AProgramThatFails_IsNothing) {
    EXPECT_EQ(diagnosis::OutputOf({"echo", "a b"}), "a b\n");
    EXPECT_FALSE(diagnosis::OutputOf({"false"}));
    EXPECT_FALSE(diagnosis::OutputOf({"/nonexistent/program"}));
}

} // namespace
