#include "explain/errors.h"

#include "arguments.h"
#include "kn/status.h"
#include "msgbus/error.h"
#include "terminal/write_out.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace explain {

namespace {

struct Advice {
    std::int32_t code;
    std::string_view text; ///< what to do
};

/// The results of the bus, then the statuses of the platform, in the order in which they are listed.
constexpr std::array Codes{
    Advice{0, "Nothing."},
    Advice{1, "The subscriber was unregistered, by Cancel or by 'msgbusd' when its process ended. Register again."},
    Advice{2,
           "Push again a little later, as the client library does for ten seconds. If it stays, a subscriber that does "
           "not read may hold the bus up: 'msgbus top'."},
    Advice{3, "'msgbus list' shows who has them; 'msgbusd --limits' the limits, which --limit changes."},
    Advice{4, "A registration that another client began was not finished; it ends with that client. 'msgbusd --limits' "
              "shows how many there may be."},
    Advice{5, "The server is stopping, or has lost a connection. Connect again."},
    Advice{6, "The server could not start to serve; its log has the reason."},
    Advice{7, "Use shorter names, or fewer; 'msgbusd --limits' shows how many bytes there may be."},
    Advice{8, "A topic has one publisher at a time: 'msgbus info TOPIC' shows which process has it, and 'msgbus pub "
              "--wait-topic' waits for it to end. A subscriber names each topic once."},
    Advice{9, "Read faster, or let 'msgbusd --slow-subscriber' drop values in place of the subscriber."},
    Advice{10,
           "Look for a restarted server, as the client library does with reconnectFor; if the server runs on, its log "
           "has the reason."},
    Advice{KnStatusInvalidArgument, "A name is empty or too long, or the program has a fault."},
    Advice{KnStatusUnimplemented, "The server is older than the client. 'msgbus doctor' compares the versions."},
    Advice{KnStatusClosed,
           "The server has ended. Look for a restarted one, as the client library does with reconnectFor."},
    Advice{KnStatusPeerGone, "Nothing: the client has ended."},
    Advice{KnStatusBadRecord, "Something other than a client of the bus has connected; the server's log names it."},
    Advice{KnStatusTimedOut, "The server is stopped or overloaded: 'msgbus autopsy' shows what its threads do."},
    Advice{KnStatusBusy, "Too many connections: 'msgbusd --limits' shows how many one process, and all, may have."},
    Advice{KnStatusDenied, "The server belongs to another user, or the runtime directory is not safe to use: 'msgbus "
                           "doctor' says why."},
    Advice{KnStatusNoResources, "Memory, descriptors or threads ran out: look at 'ulimit -a' of the client and of the "
                                "server."},
    Advice{KnStatusAbandoned, "The server dropped the request, most likely because it is stopping. Connect again."},
    Advice{KnStatusNotFound, "No server runs in this runtime directory: start 'msgbusd', or look at BORVEN_RUNTIME_DIR "
                             "and XDG_RUNTIME_DIR."},
    Advice{KnStatusAlreadyExists, "Another server serves in this runtime directory; 'msgbus doctor' names it."},
    Advice{KnStatusBadReply, "Client and server do not fit each other. 'msgbus doctor' compares the versions."},
    Advice{KnStatusOtherVersion, "Client and server do not fit each other. 'msgbus doctor' compares the versions."},
    Advice{KnStatusNoReply, "Nothing: such a request gets no reply."},
};

std::string MeaningOf(std::int32_t code) {
    return code < 0 ? KnStatusText(code) : msgbus::DescribeResult(code);
}

std::int32_t ParseCode(const std::string& word) {
    std::int32_t code = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), code);
    if (error != std::errc() || end != word.data() + word.size()) {
        throw std::invalid_argument("'" + word + "' is not a code; it must be a number");
    }
    return code;
}

ExitStatus PrintCode(const std::string& word) {
    const auto code = ParseCode(word);
    const auto text = CodeText(code);
    if (!text) {
        Say("there is no code " + std::to_string(code) + "; 'msgbus errors' lists them");
        return ExitStatus::Failed;
    }
    terminal::WriteOut(*text);
    return ExitStatus::Done;
}

ExitStatus PrintAll() {
    for (const auto& advice : Codes) {
        if (!terminal::WriteOut(*CodeText(advice.code))) {
            break;
        }
    }
    return ExitStatus::Done;
}

} // namespace

std::optional<std::string> CodeText(std::int32_t code) {
    const auto* const found =
        std::find_if(Codes.begin(), Codes.end(), [&](const Advice& advice) { return advice.code == code; });
    if (found == Codes.end()) {
        return std::nullopt;
    }
    return std::to_string(code) + ": " + MeaningOf(code) + "\n    " + std::string(found->text) + '\n';
}

void AddErrorsCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("errors", "Explain the codes that programs, logs and exceptions name.", "Help");
    const auto word = std::make_shared<std::string>();
    command.add_option("CODE", *word, "one code (default: all)")->type_name("CODE");
    command.notes.description = {"Codes from 0 to 10 are the bus's answers to requests; those below 0 come from the "
                                 "connection to the server."};
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage});
    command.notes.examples = {{"msgbus errors 8", "What the bus means by 8"}, {"msgbus errors -11", "No server"}};
    command.callback([&chosen, word] { chosen = [word] { return word->empty() ? PrintAll() : PrintCode(*word); }; });
}

} // namespace explain
