#include "bus_options.h"

#include "arguments.h"
#include "cor/result_code.h"
#include "msgbus/error.h"

#include <poll.h>

#include <algorithm>
#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds DefaultReconnectTime{5000};
constexpr milliseconds WithoutEnd = std::chrono::hours(24 * 365 * 10);
constexpr milliseconds TimeBetweenAttempts{20};
constexpr const char* AnotherServer = "the message bus server is stopping; waiting for another";

const char* const Group = "Connection";

/// The bus's answer to a second publisher of a topic, and of a server that stops.
constexpr auto TopicIsTaken = static_cast<std::int32_t>(cor::ResultCode::Conflict);
constexpr auto Stopping = static_cast<std::int32_t>(cor::ResultCode::Failed);

bool EndsWithin(const EndWatch& watch, milliseconds time) {
    pollfd ended{watch.Descriptor(), POLLIN, 0};
    return ::poll(&ended, 1, static_cast<int>(time.count())) > 0;
}

/// Tries once. Returns: whether there is a reason to try again, as a sentence; empty: it is done.
std::string Attempt(const BusAccess& access, milliseconds elapsed, const std::function<void()>& connect) {
    try {
        connect();
        return {};
    } catch (const msgbus::NoServerError&) {
        if (elapsed >= access.waitForServer) {
            throw;
        }
        return "no message bus server is running; waiting for one";
    } catch (const msgbus::ServerGoneError&) {
        if (elapsed >= access.waitForServer) {
            throw;
        }
        return AnotherServer;
    } catch (const msgbus::RefusedError& refusal) {
        if (refusal.Code() == TopicIsTaken && elapsed < access.waitForTopic) {
            return "the topic has another publisher; waiting for it to end";
        }
        if (refusal.Code() == Stopping && elapsed < access.waitForServer) {
            return AnotherServer;
        }
        throw;
    }
}

} // namespace

BusOptions::BusOptions(command_line::Command& command) {
    auto* const staticFlag =
        command.add_flag("--static", isStatic, "connect in static mode (not with --dynamic)")->group(Group);
    command.add_flag("--dynamic", isDynamic, "connect in dynamic mode (not with --static)")
        ->excludes(staticFlag)
        ->group(Group);
    wait = command_line::AddOptionWithOptionalValue(command, "--wait", "DURATION",
                                                    "wait for a server that is not up yet; without a duration for as "
                                                    "long as it takes")
               ->group(Group);
    command
        .add_option("--reconnect", reconnectTime,
                    "how long to look for a restarted server when the server is gone (default: 5s, 0: not at all)")
        ->type_name("DURATION")
        ->group(Group);
    command
        .add_option("--timeout", timeout,
                    "how long one request may take: an answer (default: 5s), room in the bus's full queue (10s)")
        ->type_name("DURATION")
        ->group(Group);
    command.add_flag("-q,--quiet", isQuiet, "print nothing but errors and losses on standard error")->group(Group);
    command.notes.environment = {
        {"BORVEN_BUS", "static or dynamic: the mode without --static and --dynamic; if unset, dynamic, then static"},
        {"BORVEN_RUNTIME_DIR", "directory of the server's sockets; if unset, $XDG_RUNTIME_DIR/borven, else a directory "
                               "of the user's own in /tmp"},
        {"BORVEN_LOG_LIMIT", "off: log every record, however often it recurs"},
        {"BORVEN_PLACEMENT", "off: do not choose a CPU for any thread"}};
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage, ExitStatus::Refused,
                                           ExitStatus::NoServer, ExitStatus::TimedOut});
}

BusAccess BusOptions::Resolve() const {
    BusAccess access;
    access.isQuiet = isQuiet;
    if (const auto word = command_line::OptionalValueOf(*wait)) {
        access.waitForServer = ParseWait(*word);
    }
    auto& options = access.options;
    options.route = isStatic ? msgbus::Route::Static : isDynamic ? msgbus::Route::Dynamic : msgbus::Route::Automatic;
    options.reconnectFor = DefaultReconnectTime;
    if (reconnectTime) {
        options.reconnectFor = *reconnectTime == "0" ? milliseconds::zero() : ParseDuration(*reconnectTime);
    }
    if (timeout) {
        options.callTimeout = options.connectTimeout = options.fullQueueTimeout = ParseDuration(*timeout);
    }
    options.onNotice = [quiet = isQuiet](msgbus::Notice, const std::string& sentence) {
        if (!quiet) {
            Say(sentence);
        }
    };
    return access;
}

milliseconds ParseWait(const std::string& word) {
    return word.empty() ? WithoutEnd : ParseDuration(word);
}

bool Connect(const BusAccess& access, const EndWatch& watch, const std::function<void()>& connect) {
    const auto start = steady_clock::now();
    std::string last;
    while (true) {
        std::string reason =
            Attempt(access, std::chrono::duration_cast<milliseconds>(steady_clock::now() - start), connect);
        if (reason.empty()) {
            return true;
        }
        if (reason != last) {
            Say(access, reason);
            last = std::move(reason);
        }
        if (EndsWithin(watch, TimeBetweenAttempts)) {
            return false;
        }
    }
}

void Say(const BusAccess& access, const std::string& sentence) {
    if (!access.isQuiet) {
        Say(sentence);
    }
}
