#include "recovery.h"

namespace msgbus {

namespace {

constexpr std::chrono::milliseconds TimeBetweenAttempts{50};

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
