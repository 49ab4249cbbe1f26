#include "receive/receive.h"

#include "arguments.h"
#include "end_watch.h"
#include "msgbus/subscriber.h"
#include "terminal/write_out.h"
#include "topics/subscribe.h"

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

ExitStatus Print(topics::Subscription& subscription, const EndWatch& watch, const Arguments& arguments,
                 MessageFormat& format) {
    if (const std::string header = format.Header(); !header.empty() && !terminal::WriteOut(header)) {
        return ExitStatus::Done;
    }
    for (std::uint64_t received = 0; received != arguments.count; ++received) {
        auto result = subscription.NextUntil(
            arguments.idleLimit ? std::chrono::steady_clock::now() + *arguments.idleLimit : msgbus::Deadline::max());
        if (!result) {
            return StatusWithoutMessage(result.outcome == msgbus::Outcome::TimedOut, watch, arguments);
        }
        if (!terminal::WriteOut(format.Line({std::move(result.message), received + 1, Receipt::Now()}))) {
            return ExitStatus::Done;
        }
    }
    return ExitStatus::Done;
}

} // namespace

ExitStatus Receive(const Arguments& arguments) {
    const Receipt start = Receipt::Now();
    const auto format = FormatOf(arguments, start);
    for (const auto& topic : arguments.topics.named) {
        WarnAboutCutTopic(topic);
    }
    // Constructed after the watch, which must block the signals before anything is registered; destroyed after it too,
    // because the watch's threads use it.
    std::unique_ptr<topics::Subscription> subscription;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    if (!Connect(arguments.access, watch,
                 [&] { subscription = topics::Subscribe(arguments.access, arguments.name, arguments.topics); })) {
        return StatusWithoutMessage(false, watch, arguments);
    }
    Say(arguments.access, "subscribed as '" + arguments.name + "' (id " + std::to_string(subscription->Id()) + ")");
    watch.OnEnd([&subscription] { subscription->Cancel(); });

    const ExitStatus status = Print(*subscription, watch, arguments, *format);
    if (const auto lost = subscription->Lost().values; lost != 0) {
        Say("lost " + std::to_string(lost) + " values, which the server dropped because they were not read in time");
    }
    subscription->Cancel(); // not left to the destructor: a server that does not answer is then handled by the watch
    return subscription->HasGap() && status == ExitStatus::Done ? ExitStatus::Failed : status;
}

std::string DefaultName() {
    const auto uid = ::geteuid();
    const auto* const user = ::getpwuid(uid); // there is no other thread yet
    return "msgbus-" + (user != nullptr ? std::string(user->pw_name) : std::to_string(uid)) + '-' +
           std::to_string(::getpid());
}

} // namespace receive
