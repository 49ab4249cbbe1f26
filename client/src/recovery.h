#pragma once

#include "msgbus/error.h"
#include "msgbus/options.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace msgbus {

inline constexpr std::chrono::milliseconds TimeBetweenAttempts{50};

/// How long one request of an attempt may take in a call that must not wait.
inline constexpr std::chrono::milliseconds ShortestAttempt{50};

/// Returns: how long one request of an attempt may take in a call that ends at `deadline`.
std::chrono::milliseconds LongestAttempt(Deadline deadline) noexcept;

/// Passes `notice` to `options.onNotice`, if that is set.
void Notify(const Options& options, Notice notice, const std::string& sentence);

/// Calls `attempt`. Returns: false when it throws NoServerError, ServerGoneError, TimedOutError or RefusedError with
/// the code of a server that stops: another server may follow. Throws: what else `attempt` throws.
bool SucceedsWithServer(const std::function<void()>& attempt);

/// Calls `attempt` until there is a server, up to Options::waitForServer. Throws: what the last attempt throws.
void AwaitServer(const Options& options, const std::function<void()>& attempt);

/// The search for a restarted server.
class Recovery final {
public:
    /// `end`: in place of Options::reconnectFor. Throws: `loss` when that is zero.
    Recovery(const Options& options, const ServerGoneError& loss, std::optional<Deadline> end = {});

    /// Calls `attempt`. Returns: as SucceedsWithServer. Throws: the loss after Options::reconnectFor, unless there is
    /// an end in its place; what `attempt` throws.
    bool Try(const std::function<void()>& attempt);

private:
    ServerGoneError loss;
    Deadline deadline;
};

} // namespace msgbus
