// What the word at the cursor may become, in each place of a command line.

#include "completion/complete.h"

#include "program.h"

#include <gtest/gtest.h>

namespace {

class Complete : public testing::Test {
protected:
    /// Returns: the words that the last of these may become, in the order in which they are listed.
    std::vector<std::string> Words(const std::vector<std::string>& words) {
        std::vector<std::string> found;
        for (const auto& candidate : At(words).words) {
            found.push_back(candidate.word);
        }
        return found;
    }
    completion::Candidates At(const std::vector<std::string>& words) {
        return completion::Complete(*program, words,
                                    {[] {
                                         return std::vector<std::string>{"inside",  "a b",          "two\nlines",
                                                                         "\033[2J", "\xE2\x80\xAE", "\xFF",
                                                                         "--force", ":files",       "c:\\d"};
                                     },
                                     [] { return std::vector<std::string>{"reader"}; }});
    }

    Action chosen;
    std::unique_ptr<command_line::Command> program = MakeProgram(chosen);
};

using Strings = std::vector<std::string>;

TEST_F(Complete, TheFirstWord_IsACommandButNoHiddenOne) {
    EXPECT_EQ(Words({"su"}), Strings{"sub"});
    EXPECT_EQ(Words({"__"}), Strings{});
    EXPECT_GT(Words({""}).size(), 10U);
    EXPECT_EQ(Words({}), Words({""}));
}

TEST_F(Complete, TheCommandMayStandBehindOptions) {
    EXPECT_EQ(Words({"--wait", "su"}), Strings{"sub"});
}

TEST_F(Complete, AnOption_IsOneOfTheCommand) {
    EXPECT_EQ(Words({"sub", "--js"}), Strings{"--json"});
    EXPECT_EQ(Words({"pub", "--js"}), Strings{});
    EXPECT_NE(At({"sub", "--json"}).words.front().meaning, "");
}

TEST_F(Complete, ATopic_IsOneThatIsOnTheBus) {
    const Strings topics{"inside", "a b", "c:\\d"}; // the others cannot be shown, or are something else there
    EXPECT_EQ(Words({"sub", ""}), topics);
    EXPECT_EQ(Words({"sub", "inside", ""}), topics);
    EXPECT_EQ(Words({"sub", "-t", ""}), topics);
    EXPECT_EQ(Words({"sub", "--topic=i"}), Strings{"--topic=inside"});
    EXPECT_EQ(Words({"sub", "--", "i"}), Strings{"inside"});
    EXPECT_EQ(Words({"sub", "--", "--f"}), Strings{"--force"});
    EXPECT_EQ(Words({"sub", "--topic=--f"}), Strings{"--topic=--force"});
    EXPECT_EQ(Words({"pub", "-t", "in"}), Strings{"inside"});
}

TEST_F(Complete, AName_IsATopicOrASubscriber) {
    EXPECT_EQ(Words({"info", ""}), (Strings{"inside", "a b", "c:\\d", "reader"}));
}

TEST_F(Complete, ChoicesAreThoseOfTheOptionOrArgument) {
    EXPECT_EQ(Words({"bench", "p"}), Strings{"pub"});
    EXPECT_EQ(Words({"sub", "--ts="}), (Strings{"--ts=rel", "--ts=delta", "--ts=unix"}));
    EXPECT_EQ(Words({"sub", "--json="}), Strings{"--json=str"});
    EXPECT_EQ(Words({"top", "--sort", "r"}), Strings{"rate"});
    EXPECT_EQ(Words({"completion", "z"}), Strings{"zsh"});
    EXPECT_EQ(Words({"help", "su"}), Strings{"sub"});
}

TEST_F(Complete, AValueThatCannotBeKnown_HasNoCandidates) {
    for (const auto& words :
         {Strings{"sub", "-n", ""}, Strings{"sub", "--name", ""}, Strings{"pub", "t", "1", "-r", ""}}) {
        EXPECT_EQ(Words(words).size(), words[1] == "--name" ? 4U : 0U) << words[1];
    }
}

TEST_F(Complete, AFile_IsLeftToTheShell) {
    EXPECT_TRUE(At({"list", "--account", ""}).areFilesToo);
    EXPECT_FALSE(At({"list", ""}).areFilesToo);
}

} // namespace
