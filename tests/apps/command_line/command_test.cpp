// Command lines: options before the command, options whose value may be left out, and the sentences about mistakes.

#include "command_line/command.h"

#include "command_line/usage_error.h"

#include <gtest/gtest.h>

namespace {

using command_line::Command;
using command_line::OptionalValueOf;

class CommandTest : public testing::Test {
protected:
    CommandTest() : program("tool", "A tool.") {
        program.require_subcommand(1);
        program.set_version_flag("--version", "tool 1");
        Command& get = program.AddCommand("get", "Get it.", "Commands");
        get.add_option("TOPIC", topic, "topic")->required();
        get.add_option("-n,--count", count, "how many");
        get.add_flag("-q,--quiet", isQuiet, "say nothing");
        wait = command_line::AddOptionWithOptionalValue(get, "--wait", "DURATION", "wait");
        program.AddCommand("put", "Put it.", "Commands");
    }

    void Parse(std::vector<const char*> words) {
        words.insert(words.begin(), "tool");
        command_line::Parse(program, static_cast<int>(words.size()), words.data());
    }

    /// Returns: what is wrong with these words.
    std::string Mistake(const std::vector<const char*>& words) {
        try {
            Parse(words);
        } catch (const CLI::ParseError& error) {
            return command_line::DescribeUsageError(program, error);
        }
        return "nothing";
    }

    Command program;
    std::string topic, count;
    bool isQuiet = false;
    CLI::Option* wait = nullptr;
};

TEST_F(CommandTest, OptionsBeforeTheCommand_AreThoseOfTheCommand) {
    Parse({"-n", "3", "-q", "--wait", "get", "t"});
    EXPECT_EQ(topic, "t");
    EXPECT_EQ(count, "3");
    EXPECT_TRUE(isQuiet);
    EXPECT_EQ(wait->count(), 1U);
}

TEST_F(CommandTest, OptionsOnBothSidesOfTheCommand_AreOneCommandLine) {
    Parse({"--wait=5s", "get", "t", "--count=7"});
    EXPECT_EQ(OptionalValueOf(*wait), "5s");
    EXPECT_EQ(count, "7");
}

TEST_F(CommandTest, AnOptionWithoutItsOptionalValue_TakesNoOtherWord) {
    Parse({"get", "--wait", "t"});
    EXPECT_EQ(topic, "t");
    EXPECT_EQ(OptionalValueOf(*wait), "");
}

TEST_F(CommandTest, AnOptionThatIsNotGiven_HasNoOptionalValue) {
    Parse({"get", "t"});
    EXPECT_EQ(OptionalValueOf(*wait), std::nullopt);
}

TEST_F(CommandTest, AValueThatLooksLikeACommand_IsAValue) {
    Parse({"--count", "put", "get", "t"});
    EXPECT_EQ(count, "put");
    EXPECT_EQ(program.Parsed().Path(), "tool get");
}

TEST_F(CommandTest, WordsBehindTwoDashes_AreArguments) {
    Parse({"get", "--", "--count"});
    EXPECT_EQ(topic, "--count");
}

TEST_F(CommandTest, HelpAndVersion_AreThoseOfWhatIsNamed) {
    EXPECT_THROW(Parse({"get", "--help"}), CLI::CallForHelp);
    EXPECT_EQ(program.Parsed().Path(), "tool get");
    EXPECT_THROW(Parse({"--help", "get"}), CLI::CallForHelp);
    EXPECT_EQ(program.Parsed().Path(), "tool get");
    EXPECT_THROW(Parse({"--help"}), CLI::CallForHelp);
    EXPECT_EQ(program.Parsed().Path(), "tool");
    EXPECT_THROW(Parse({"--version"}), CLI::CallForVersion);
}

TEST_F(CommandTest, AMistake_IsOneSentence) {
    EXPECT_EQ(Mistake({}), "no command given");
    EXPECT_EQ(Mistake({"pot"}), "unknown command 'pot'; did you mean 'put'?");
    EXPECT_EQ(Mistake({"frobnicate"}), "unknown command 'frobnicate'");
    EXPECT_EQ(Mistake({"--frobnicate"}), "unknown option '--frobnicate'");
    EXPECT_EQ(Mistake({"get"}), "TOPIC is required");
    EXPECT_EQ(Mistake({"get", "t", "u"}), "unexpected argument 'u'");
    EXPECT_EQ(Mistake({"get", "t", "--count"}), "option '--count' needs a value");
    EXPECT_EQ(Mistake({"get", "t", "-n", "1", "-n", "2"}), "option '--count' may be given only once");
    EXPECT_EQ(Mistake({"get", "t", "--quiet=maybe"}), "option '--quiet' takes no value");
}

TEST_F(CommandTest, AnUnknownOption_IsNamedBeforeWhatIsMissing) {
    EXPECT_EQ(Mistake({"get", "--cuont=5"}), "unknown option '--cuont' of 'tool get'; did you mean '--count'?");
    EXPECT_EQ(Mistake({"--wiat", "get"}), "unknown option '--wiat' of 'tool get'; did you mean '--wait'?");
    EXPECT_EQ(Mistake({"get", "-x"}), "unknown option '-x' of 'tool get'");
}

TEST_F(CommandTest, AMistakeThatIsQuoted_CannotControlTheTerminal) {
    EXPECT_EQ(Mistake({"\x1b[31m"}), "unknown command '\\x1b[31m'");
}

} // namespace
