// The help, the manual page and the page in Markdown that are made of one command line.

#include "command_line/manual.h"

#include <gtest/gtest.h>

namespace {

using command_line::Command;
using command_line::HelpText;
using command_line::ManualPage;
using command_line::MarkdownPage;

class Manual : public testing::Test {
protected:
    Manual() : program("tool", "Do things with <files>.") {
        program.require_subcommand(1);
        Command& get = program.AddCommand("get", "Get one.", "Commands");
        get.add_option("FILE", files, "files to get")->required();
        get.add_option("-n,--count", count, "how many")->type_name("COUNT");
        command_line::AddOptionWithOptionalValue(get, "--ts", "rel|abs", "with the time")->group("Output");
        get.add_flag("--hidden", isHidden, "not for people")->group("");
        get.notes.description = {".A paragraph that's first a dot, with a back\\slash."};
        get.notes.environment = {{"HOME", "where files are"}};
        get.notes.exitStatuses = {{"0", "success"}};
        get.notes.examples = {{"tool get 'a b' | wc", "One file"}};
    }

    const Command& Get() const { return *program.Find("get"); }

    Command program;
    std::vector<std::string> files;
    std::string count;
    bool isHidden = false;
};

constexpr std::size_t Wide = 100;

TEST_F(Manual, Help_ShowsUsageOptionsAndNotes) {
    EXPECT_EQ(HelpText(Get(), Wide), R"(Usage: tool get [OPTION...] FILE...

Get one.

.A paragraph that's first a dot, with a back\slash.

Arguments:
  FILE  files to get

Options:
  -h, --help         print this help and exit
  -n, --count COUNT  how many

Output:
  --ts[=rel|abs]  with the time

Environment:
  HOME  where files are

Exit status:
  0  success

Examples:
  tool get 'a b' | wc
      One file
)");
}

TEST_F(Manual, HelpOfAProgram_ListsItsCommands) {
    EXPECT_EQ(HelpText(program, Wide), R"(Usage: tool [OPTION...] COMMAND

Do things with <files>.

Options:
  -h, --help  print this help and exit

Commands:
  get  Get one.

See 'tool COMMAND --help' for the options of a command.
)");
}

TEST_F(Manual, Help_IsNoWiderThanTheTerminal) {
    program.notes.description = {std::string(20, 'w') + ' ' + std::string(20, 'x') + ' ' + std::string(20, 'y')};
    constexpr std::size_t narrow = 45;
    EXPECT_NE(HelpText(program, narrow)
                  .find(std::string(20, 'w') + ' ' + std::string(20, 'x') + '\n' + std::string(20, 'y') + '\n'),
              std::string::npos);
}

TEST_F(Manual, AManualPage_SaysTheSameInTheLanguageOfMan) {
    const std::string page = ManualPage(program, {"1", "2026-11-23", "tool 1"}, {"other(8)", "third(5)"});
    EXPECT_TRUE(page.starts_with(".TH TOOL 1 \"2026-11-23\" \"tool 1\"\n.SH NAME\ntool \\- do things with <files>\n"))
        << page;
    for (const char* part : {
             ".SS \\fBtool get [OPTION...] FILE...\\fR\nGet one.\n",
             ".PP\n\\&.A paragraph that\\(aqs first a dot, with a back\\eslash.\n",
             ".TP\n\\fB\\-n, \\-\\-count COUNT\\fR\nhow many\n",
             ".TP\n\\fB\\-\\-ts[=rel|abs]\\fR\nwith the time\n",
             ".TP\n\\fBHOME\\fR\nwhere files are\n",
             ".PP\nOne file:\n.PP\n.in +4n\n.EX\ntool get \\(aqa b\\(aq | wc\n.EE\n.in\n",
             ".SH SEE ALSO\n.BR other (8),\n.BR third (5)\n",
         }) {
        EXPECT_NE(page.find(part), std::string::npos) << part << "\nis not in\n" << page;
    }
    EXPECT_EQ(page.find("hidden"), std::string::npos);
}

TEST_F(Manual, APageInMarkdown_SaysTheSame) {
    const std::string page = MarkdownPage(program);
    for (const char* part : {
             "# tool\n\n```text\ntool [OPTION...] COMMAND\n```\n\nDo things with &lt;files&gt;.\n",
             "| [`get`](#get) | Get one. |\n",
             "## get\n\n```text\ntool get [OPTION...] FILE...\n```\n",
             "| `--ts[=rel\\|abs]` | with the time |\n",
             "One file:\n\n```sh\ntool get 'a b' | wc\n```\n",
         }) {
        EXPECT_NE(page.find(part), std::string::npos) << part << "\nis not in\n" << page;
    }
}

} // namespace
