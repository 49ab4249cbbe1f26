#include "recovery.h"

#include "cor/result_code.h"

namespace msgbus {

namespace {

constexpr std::chrono::milliseconds TimeBetweenAttempts{50};

/// How a server that is about to stop answers registrations. Another one may follow it.
constexpr auto Stopping = static_cast<std::int32_t>(cor::ResultCode::Failed);

} // namespace

void Notify(const Options& options, const std::string& sentence) {
    if (options.onNotice) {
        options.onNotice(sentence);
    }
}

bool Recover(const Options& options, const ServerGoneError& loss, const std::function<void()>& attempt,
             const std::function<bool(std::chrono::milliseconds)>& pause) {
    if (options.reconnectFor <= std::chrono::milliseconds::zero()) {
        throw loss;
    }
    Notify(options, "the message bus server is gone; looking for a restarted one");
    const auto deadline = std::chrono::steady_clock::now() + options.reconnectFor;
    while (true) {
        try {
            attempt();
            return true;
        } catch (const NoServerError&) {
        } catch (const ServerGoneError&) {
        } catch (const RefusedError& refusal) {
            if (refusal.Code() != Stopping) {
                throw;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw loss;
        }
        if (!pause(TimeBetweenAttempts)) {
            return false;
        }
    }
}

} // namespace msgbus
