#include "recovery.h"

#include "cor/result_code.h"
#include "time_limit.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace msgbus {

namespace {

/// How a server that is about to stop answers registrations.
constexpr auto Stopping = static_cast<std::int32_t>(cor::ResultCode::Failed);

} // namespace

std::chrono::milliseconds LongestAttempt(Deadline deadline) noexcept {
    return std::max(ShortestAttempt, std::chrono::milliseconds(MillisecondsUntil(deadline)));
}

void Notify(const Options& options, Notice notice, const std::string& sentence) {
    if (options.onNotice) {
        options.onNotice(notice, sentence);
    }
}

bool SucceedsWithServer(const std::function<void()>& attempt) {
    try {
        attempt();
        return true;
    } catch (const NoServerError&) {
    } catch (const ServerGoneError&) {
    } catch (const TimedOutError&) {
    } catch (const RefusedError& refusal) {
        if (refusal.Code() != Stopping) {
            throw;
        }
    }
    return false;
}

void AwaitServer(const Options& options, const std::function<void()>& attempt) {
    const auto deadline = DeadlineIn(options.waitForServer);
    bool isNoted = false;
    while (std::chrono::steady_clock::now() < deadline) {
        if (SucceedsWithServer(attempt)) {
            return;
        }
        if (!std::exchange(isNoted, true)) {
            Notify(options, Notice::WaitingForServer, "no message bus server is running; waiting for one");
        }
        std::this_thread::sleep_for(TimeBetweenAttempts);
    }
    attempt();
}

Recovery::Recovery(const Options& options, const ServerGoneError& why, std::optional<Deadline> end)
    : loss(why), deadline(end ? Deadline::max() : DeadlineIn(options.reconnectFor)) {
    if (options.reconnectFor <= std::chrono::milliseconds::zero()) {
        throw loss;
    }
    Notify(options, Notice::ServerLost, "the message bus server is gone; looking for a restarted one");
}

bool Recovery::Try(const std::function<void()>& attempt) {
    if (SucceedsWithServer(attempt)) {
        return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
        throw loss;
    }
    return false;
}

} // namespace msgbus
