// Any arguments for msgbus and msgbusd. A command line is accepted, and its settings are as the help promises; or it is
// rejected with the exit status for usage errors and a sentence; or it prints the help or the version.
//
// Input: the words of a command line, the program's name first, separated by NUL bytes.

#include "arguments.h"
#include "diagnosis/autopsy.h"
#include "diagnosis/check.h"
#include "diagnosis/report.h"
#include "fuzzing.h"
#include "look/account_source.h"
#include "look/get.h"
#include "look/hz.h"
#include "look/info.h"
#include "look/list.h"
#include "look/watch.h"
#include "msgbusd/options/options.h"
#include "program.h"
#include "publish/publish.h"
#include "receive/receive.h"
#include "recordings/record.h"
#include "stream/stream.h"
#include "terminal/write_out.h"
#include "top/top.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using fuzzing::Require;

int commandsRun = 0;

void CheckAccess(const BusAccess& access) {
    Require(access.options.reconnectFor.count() >= 0 && access.waitForServer.count() >= 0 &&
                access.waitForTopic.count() >= 0,
            "a time is not negative");
    Require(static_cast<bool>(access.options.onNotice), "there is a handler of notices");
}

void CheckTopics(const topics::Selection& topics) {
    Require(!topics.named.empty() || !topics.globs.empty(), "there is a topic, or a pattern");
}

void CheckCount(const std::optional<std::uint64_t>& count) {
    Require(!count || *count > 0, "a count is 1 or more");
}

void CheckTime(const std::optional<std::chrono::milliseconds>& time) {
    constexpr std::chrono::milliseconds longest{1'000'000'000'000};
    Require(!time || (time->count() >= 1 && *time <= longest), "a time is 1 ms or more");
}

/// Captures what is written to a stream during its lifetime.
class Captured final {
public:
    explicit Captured(std::ostream& written) : stream(written), before(written.rdbuf(kept.rdbuf())) {}
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;
    ~Captured() { stream.rdbuf(before); }

    std::string Text() const { return kept.str(); }

private:
    std::ostringstream kept;
    std::ostream& stream;
    std::streambuf* before;
};

/// Returns: whether what the command does is replaced below, or does no more than print. Of the others only the parsing
/// is fuzzed: they read and write files that the command line names, or wait for clients.
bool IsHarmless(const command_line::Command& program) {
    constexpr std::array others{"bench", "dashboard", "delay", "doctor", "export", "inspect", "play", "trace"};
    return std::none_of(others.begin(), others.end(), [&](const char* name) { return program.got_subcommand(name); });
}

/// Returns: the exit status; nothing for a command that is not run.
std::optional<int> RunCommandLine(int count, const char* const* words) {
    Action chosen;
    const auto program = MakeProgram(chosen);
    try {
        command_line::Parse(*program, count, words);
    } catch (const CLI::ParseError& error) {
        return command_line::Report(*program, error) ? 0 : UsageStatus(*program);
    }
    Require(static_cast<bool>(chosen), "a command line that is accepted chooses what to do");
    return IsHarmless(*program) ? std::optional(static_cast<int>(Run(chosen))) : std::nullopt;
}

/// Returns: the exit status; nothing for a server that would start.
std::optional<int> RunServerOptions(int count, const char* const* words) {
    msgbusd::ChosenOptions chosen;
    const auto status = msgbusd::ReadOptions(count, words, chosen);
    if (!status) {
        for (const auto& limit : msgbus_server::LimitNames()) {
            Require(chosen.settings.limits.*limit.value > 0, "a limit is 1 or more");
        }
    }
    return status;
}

void CheckEnd(const std::vector<std::string>& words, int status, const std::string& output, const std::string& errors) {
    const std::string ownName = words.front() == "msgbusd" ? "msgbusd: " : "msgbus: ";
    switch (status) {
    case 0:
        Require(commandsRun == 1 || !output.empty(), "success means that a command ran or a text was printed");
        break;
    case 2:
    case 3: // msgbus check, for which 2 is a verdict
        Require(status == 2 || std::find(words.begin(), words.end(), "check") != words.end(),
                "only a check has a usage error of its own");
        Require(errors.starts_with(ownName) || errors.find('\n' + ownName) != std::string::npos,
                "a usage error is a sentence that begins with the program's name");
        Require(output.empty(), "a usage error goes to the standard error stream");
        break;
    default:
        Require(false, "no other status follows from arguments alone");
    }
}

} // namespace

// These replace what the commands do: the linker takes the first definition that it meets.

namespace terminal {

bool WriteOut(std::string_view text) {
    std::cout << text;
    return true;
}

} // namespace terminal

namespace publish {

ExitStatus Publish(const Arguments& arguments) {
    ++commandsRun;
    CheckAccess(arguments.access);
    Require(arguments.values.empty() == (arguments.source != Source::List), "values come from one place");
    Require(!arguments.interval || arguments.interval->count() > 0, "a rate is a time between two values");
    WarnAboutCutTopic(arguments.topic);
    return ExitStatus::Done;
}

} // namespace publish

namespace receive {

std::string DefaultName() {
    return "fuzz";
}

ExitStatus Receive(const Arguments& arguments) {
    ++commandsRun;
    CheckAccess(arguments.access);
    CheckTopics(arguments.topics);
    CheckCount(arguments.count);
    CheckTime(arguments.timeLimit);
    CheckTime(arguments.idleLimit);
    return ExitStatus::Done;
}

} // namespace receive

namespace recordings {

ExitStatus Record(const RecordArguments& arguments) {
    ++commandsRun;
    CheckAccess(arguments.access);
    CheckTopics(arguments.topics);
    CheckCount(arguments.count);
    CheckTime(arguments.timeLimit);
    Require(!arguments.ring || (arguments.ring->age.count() > 0 && arguments.ring->bytes > 0),
            "a ring holds something");
    Require(!arguments.ring || !(arguments.rules.bytes || arguments.rules.time), "a ring is not split");
    return ExitStatus::Done;
}

} // namespace recordings

namespace stream {

ExitStatus Stream(const Arguments& arguments) {
    ++commandsRun;
    CheckAccess(arguments.access);
    Require(!arguments.topics.empty(), "there is a topic");
    return ExitStatus::Done;
}

} // namespace stream

namespace look {

void AwaitServer(const std::optional<std::string>&, std::chrono::milliseconds patience) {
    Require(patience.count() >= 0, "a time is not negative");
}

ExitStatus List(const ListArguments&) {
    ++commandsRun;
    return ExitStatus::Done;
}

ExitStatus Info(const InfoArguments&) {
    ++commandsRun;
    return ExitStatus::Done;
}

ExitStatus Get(const GetArguments& arguments) {
    ++commandsRun;
    CheckTime(arguments.timeLimit);
    return ExitStatus::Done;
}

ExitStatus Hz(const HzArguments& arguments) {
    ++commandsRun;
    CheckCount(arguments.count);
    CheckTime(arguments.timeLimit);
    return ExitStatus::Done;
}

ExitStatus Watch(const WatchArguments& arguments) {
    ++commandsRun;
    CheckCount(arguments.count);
    CheckTime(arguments.timeLimit);
    return ExitStatus::Done;
}

} // namespace look

namespace top {

ExitStatus Top(const TopArguments& arguments) {
    ++commandsRun;
    CheckTime(arguments.interval);
    Require(arguments.once || !arguments.json, "a page that refreshes itself is no JSON");
    return ExitStatus::Done;
}

} // namespace top

namespace diagnosis {

ExitStatus Check(const CheckArguments& arguments) {
    ++commandsRun;
    Require(arguments.format == "nagios" || arguments.format == "json" || arguments.format == "prometheus",
            "a format is known");
    return ExitStatus::Done;
}

ExitStatus Report(const ReportArguments&) {
    ++commandsRun;
    return ExitStatus::Done;
}

ExitStatus Autopsy(const AutopsyArguments& arguments) {
    ++commandsRun;
    Require(!arguments.isPrevious || !arguments.account, "one account is chosen");
    return ExitStatus::Done;
}

} // namespace diagnosis

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ::setenv("BORVEN_RUNTIME_DIR", "/dev/null/none", 1); // where no account is
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> words;
    std::string_view left(reinterpret_cast<const char*>(data), size);
    for (std::size_t end = 0; end != std::string_view::npos; left.remove_prefix(std::min(left.size(), end + 1))) {
        end = left.find('\0');
        words.emplace_back(left.substr(0, end));
    }
    std::vector<const char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const auto& word : words) {
        arguments.push_back(word.c_str());
    }
    arguments.push_back(nullptr);

    commandsRun = 0;
    const Captured output(std::cout);
    const Captured errors(std::cerr);
    const auto run = words.front() == "msgbusd" ? RunServerOptions : RunCommandLine;
    if (const auto status = run(static_cast<int>(words.size()), arguments.data())) {
        CheckEnd(words, *status, output.Text(), errors.Text());
    }
    return 0;
}
