// Defends the files of settings: every line is read as documented or is a mistake with its number, and what is written
// is read back.
#include "msgbusd/options/config_file.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using msgbusd::ConfigFileError;
using msgbusd::ConfigValue;
using msgbusd::ParseConfig;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::literals;

/// Returns: the only line that `text` has, or what is wrong with it.
std::string ReadOne(std::string_view text) {
    const auto config = ParseConfig(text);
    if (config.lines.size() + config.mistakes.size() != 1) {
        return std::to_string(config.lines.size()) + " lines, " + std::to_string(config.mistakes.size()) + " mistakes";
    }
    return config.mistakes.empty() ? config.lines[0].key + "|" + config.lines[0].value : config.mistakes[0].sentence;
}

TEST(ConfigFile, ParseConfig_ReadsKeysAndValuesWithoutTheBlanksAroundThem) {
    EXPECT_EQ(ReadOne("key=value"), "key|value");
    EXPECT_EQ(ReadOne("\t key \t=  two words \t"), "key|two words");
    EXPECT_EQ(ReadOne("key = a=b=c\r\n"), "key|a=b=c");
    EXPECT_EQ(ReadOne("key ="), "key|");
    EXPECT_EQ(ReadOne("\xef\xbb\xbfkey = v"), "key|v");
    EXPECT_EQ(ReadOne("key = \xff\xc3"), "key|\xff\xc3");
}

TEST(ConfigFile, ParseConfig_LeavesOutCommentsAndEmptyLines) {
    const auto config = ParseConfig("# one\n\n  # two = 2\n \t\na = 1 # remark\nb = x#y\nc = #\n");
    ASSERT_EQ(config.lines.size(), 3U);
    EXPECT_THAT(config.mistakes, IsEmpty());
    EXPECT_EQ(config.lines[0].value, "1");
    EXPECT_EQ(config.lines[0].number, 5U);
    EXPECT_EQ(config.lines[1].value, "x#y");
    EXPECT_EQ(config.lines[2].value, "");
}

TEST(ConfigFile, ParseConfig_ReadsQuotedValues) {
    EXPECT_EQ(ReadOne(R"(k = "  a # b  "  # remark)"), "k|  a # b  ");
    EXPECT_EQ(ReadOne(R"(k = "\"\\\n\t\x41\xfF")"), "k|\"\\\n\tA\xff");
    EXPECT_EQ(ReadOne(R"(k = "")"), "k|");
}

TEST(ConfigFile, ParseConfig_SaysWhatIsWrong) {
    EXPECT_EQ(ReadOne("mode static"), "'mode static' is not KEY = VALUE");
    EXPECT_EQ(ReadOne("= 1"), "'= 1' is not KEY = VALUE");
    EXPECT_EQ(ReadOne("[section]"), "'[section]' is not KEY = VALUE");
    EXPECT_EQ(ReadOne("\x1b[31m"), "'\\x1b[31m' is not KEY = VALUE");
    EXPECT_EQ(ReadOne("k = \"open"), "the quotes are not closed");
    EXPECT_EQ(ReadOne("k = \"a\" b"), "something follows the quoted value");
    EXPECT_THAT(ReadOne(R"(k = "\q")"), HasSubstr("a backslash stands before"));
    EXPECT_THAT(ReadOne(R"(k = "\x4")"), HasSubstr("a backslash stands before"));
    EXPECT_THAT(ReadOne(R"(k = "\)"), HasSubstr("a backslash stands before"));
    EXPECT_THAT(ReadOne("k = a\0b"sv), HasSubstr("a control character"));
}

TEST(ConfigFile, ParseConfig_FindsEveryMistakeWithItsLine) {
    const auto config = ParseConfig("a\nb = 1\n\nc\n");
    ASSERT_EQ(config.mistakes.size(), 2U);
    EXPECT_EQ(config.mistakes[0].line, 1U);
    EXPECT_EQ(config.mistakes[1].line, 4U);
    EXPECT_EQ(config.lines.size(), 1U);
}

TEST(ConfigFile, ConfigValue_IsReadBackWhateverItHas) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    for (const auto& value :
         {"plain"s, "two words"s, ""s, " x"s, "x "s, "\"x\""s, "a #b"s, "#"s, "a#b"s, "a\\b"s, all}) {
        EXPECT_EQ(ReadOne("k = " + ConfigValue(value) + "  # remark"), "k|" + value);
    }
    EXPECT_EQ(ConfigValue("a=b:5*"), "a=b:5*");
    EXPECT_EQ(ConfigValue("a\\b"), "a\\b");
}

class ConfigFiles : public testing::Test {
protected:
    ConfigFiles() {
        std::string name = testing::TempDir() + "msgbusd-config-XXXXXX";
        folder = ::mkdtemp(name.data());
    }
    ~ConfigFiles() override { std::filesystem::remove_all(folder); }

    std::string Write(const std::string& name, const std::string& text) const {
        const auto path = folder / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
        return path.string();
    }

    static std::string WhyNot(const std::string& path) {
        try {
            msgbusd::ReadConfigFile(path);
        } catch (const ConfigFileError& error) {
            return error.what();
        }
        return "nothing";
    }

    std::filesystem::path folder;
};

TEST_F(ConfigFiles, ReadConfigFile_ReturnsTheText) {
    EXPECT_EQ(msgbusd::ReadConfigFile(Write("a", "k = 1\n")), "k = 1\n");
    EXPECT_EQ(msgbusd::ReadConfigFile("/dev/null"), "");
}

TEST_F(ConfigFiles, ReadConfigFile_SaysWhyItCannot) {
    EXPECT_THAT(WhyNot(folder / "missing"), HasSubstr("/missing': No such file or directory"));
    EXPECT_THAT(WhyNot(folder), HasSubstr("': Is a directory"));
    EXPECT_THAT(WhyNot("/dev/zero"), HasSubstr("'/dev/zero': it is longer than a mebibyte"));
}

TEST_F(ConfigFiles, DefaultConfigFile_IsThatOfTheUser) {
    const std::string path = Write("config/borven/msgbusd.conf", "");
    ::setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
    EXPECT_EQ(msgbusd::DefaultConfigFile(), path);
    ::unsetenv("XDG_CONFIG_HOME");
    const std::string hidden = Write(".config/borven/msgbusd.conf", "");
    ::setenv("HOME", folder.c_str(), 1);
    EXPECT_EQ(msgbusd::DefaultConfigFile(), hidden);
}

} // namespace
