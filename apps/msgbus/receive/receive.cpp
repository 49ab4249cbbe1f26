#include "receive/receive.h"

#include "arguments.h"
#include "end_watch.h"
#include "msgbus/subscriber.h"
#include "terminal/write_out.h"

#include <pwd.h>
#include <unistd.h>

#include <optional>
#include <string>

namespace receive {

namespace {

std::unique_ptr<MessageFormat> FormatOf(const Arguments& arguments, const Receipt& start) {
    return arguments.pattern ? MakeFormat(*arguments.pattern, start)
                             : MakeFormat(arguments.style, arguments.time, arguments.name, start);
}

/// Why there is no further message.
ExitStatus StatusWithoutMessage(bool isIdle, const EndWatch& watch, const Arguments& arguments) {
    if (isIdle) {
        return arguments.count ? ExitStatus::TimedOut : ExitStatus::Done;
    }
    return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
}

ExitStatus Print(msgbus::Subscriber& subscriber, const EndWatch& watch, const Arguments& arguments,
                 MessageFormat& format) {
    if (const std::string header = format.Header(); !header.empty() && !terminal::WriteOut(header)) {
        return ExitStatus::Done;
    }
    for (std::uint64_t received = 0; received != arguments.count; ++received) {
        std::optional<msgbus::Message> message;
        bool isIdle = false;
        if (arguments.idleLimit) {
            auto result = subscriber.NextFor(*arguments.idleLimit);
            isIdle = result.outcome == msgbus::Outcome::TimedOut;
            if (result) {
                message = std::move(result.message);
            }
        } else {
            message = subscriber.Next();
        }
        if (!message) {
            return StatusWithoutMessage(isIdle, watch, arguments);
        }
        if (!terminal::WriteOut(format.Line({std::move(*message), received + 1, Receipt::Now()}))) {
            return ExitStatus::Done;
        }
    }
    return ExitStatus::Done;
}

} // namespace

ExitStatus Receive(const Arguments& arguments) {
    const Receipt start = Receipt::Now();
    const auto format = FormatOf(arguments, start);
    for (const auto& topic : arguments.topics) {
        WarnAboutCutTopic(topic);
    }
    // Constructed after the watch, which must block the signals before anything is registered; destroyed after it too,
    // because the watch's threads use it.
    std::optional<msgbus::Subscriber> subscriber;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    if (!Connect(arguments.access, watch,
                 [&] { subscriber.emplace(arguments.name, arguments.topics, arguments.access.options); })) {
        return StatusWithoutMessage(false, watch, arguments);
    }
    Say(arguments.access, "subscribed as '" + arguments.name + "' (id " + std::to_string(subscriber->Id()) + ")");
    watch.OnEnd([&subscriber] { subscriber->Cancel(); });

    const ExitStatus status = Print(*subscriber, watch, arguments, *format);
    if (const auto lost = subscriber->Lost().values; lost != 0) {
        Say("lost " + std::to_string(lost) + " values, which the server dropped because they were not read in time");
    }
    subscriber->Cancel(); // not left to the destructor: a server that does not answer is then handled by the watch
    return status;
}

std::string DefaultName() {
    const auto uid = ::geteuid();
    const auto* const user = ::getpwuid(uid); // there is no other thread yet
    return "msgbus-" + (user != nullptr ? std::string(user->pw_name) : std::to_string(uid)) + '-' +
           std::to_string(::getpid());
}

} // namespace receive
