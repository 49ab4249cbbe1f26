// Any arguments for msgbus and msgbusd. A command line is accepted, and its settings are as the help promises; or it is
// rejected with the exit status for usage errors and a sentence; or it prints the help or the version.
//
// Input: the words of a command line, the program's name first, separated by NUL bytes.

#include "arguments.h"
#include "diagnosis/autopsy.h"
#include "diagnosis/check.h"
#include "diagnosis/report.h"
#include "exit_status.h"
#include "fuzzing.h"
#include "look/get.h"
#include "look/hz.h"
#include "look/info.h"
#include "look/list.h"
#include "look/watch.h"
#include "top/top.h"

#include <fcntl.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// The main functions of the programs, renamed in this build.
int MsgbusMain(int argc, char** argv);
int MsgbusdMain(int argc, char** argv);

namespace {

using fuzzing::Require;

int commandsRun = 0;

void CheckOptions(const msgbus::Options& options) {
    Require(options.reconnectFor.count() >= 0, "a time is not negative");
    Require(static_cast<bool>(options.onNotice), "there is a handler of notices");
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

} // namespace

// These replace the commands.

ExitStatus Publish(const PublishArguments& arguments) {
    ++commandsRun;
    CheckOptions(arguments.options);
    Require(arguments.values.empty() == arguments.fromInput, "values come from one place");
    WarnAboutCutTopic(arguments.topic);
    for (const auto& text : arguments.values) {
        const auto value = ParseValue(text);
        const bool hasSign = text.starts_with('-');
        Require(text.find_first_not_of("0123456789", hasSign ? 1 : 0) == std::string::npos, "a value is digits");
        errno = 0;
        Require(value == std::strtoll(text.c_str(), nullptr, 10) && errno == 0, "a value is what its digits say");
    }
    return ExitStatus::Done;
}

ExitStatus Receive(const ReceiveArguments& arguments) {
    ++commandsRun;
    CheckOptions(arguments.options);
    Require(!arguments.topics.empty(), "there is a topic");
    CheckCount(arguments.count);
    CheckTime(arguments.timeLimit);
    return ExitStatus::Done;
}

namespace look {

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
    // This directory cannot be created: msgbusd exits before it serves.
    ::setenv("BORVEN_RUNTIME_DIR", "/dev/null/none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> words;
    std::string_view left(reinterpret_cast<const char*>(data), size);
    for (std::size_t end = 0; end != std::string_view::npos; left.remove_prefix(std::min(left.size(), end + 1))) {
        end = left.find('\0');
        words.emplace_back(left.substr(0, end));
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const bool isServer = words.front() == "msgbusd";

    sigset_t signals;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &signals);
    commandsRun = 0;
    const Captured output(std::cout);
    const Captured errors(std::cerr);
    const int status = (isServer ? MsgbusdMain : MsgbusMain)(static_cast<int>(words.size()), arguments.data());
    ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);

    const std::string ownName = isServer ? "msgbusd: " : "msgbus: ";
    switch (status) {
    case 0:
        Require(commandsRun == 1 || !output.Text().empty(), "success means that a command ran or a text was printed");
        break;
    case 1: // msgbusd, which cannot create its directory
        Require(isServer && errors.Text().starts_with(ownName), "the server reports why it cannot serve");
        break;
    case 2:
    case 3: // msgbus check, for which 2 is a verdict
        Require(status == 2 || std::find(words.begin(), words.end(), "check") != words.end(),
                "only a check has a usage error of its own");
        Require(errors.Text().starts_with(ownName) || errors.Text().find('\n' + ownName) != std::string::npos,
                "a usage error is a sentence that begins with the program's name");
        Require(output.Text().empty(), "a usage error goes to the standard error stream");
        break;
    default:
        Require(false, "no other status follows from arguments alone");
    }
    return 0;
}
