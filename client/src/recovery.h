#pragma once

#include "msgbus/error.h"
#include "msgbus/options.h"

#include <chrono>
#include <functional>
#include <string>

namespace msgbus {

/// Passes `sentence` to `options.onNotice`, if that is set.
void Notify(const Options& options, const std::string& sentence);

/// Looks for a restarted server: calls `attempt` again while it throws NoServerError, ServerGoneError or RefusedError
/// with the code of a server that stops, with a call of `pause` in between, which waits for the given time.
/// Returns: true when `attempt` succeeded, false when `pause` returned false.
/// Throws: `loss` after Options::reconnectFor, at once if that is zero; what else `attempt` throws.
/// Blocks: for about Options::reconnectFor, and for the attempt that is then in progress.
bool Recover(const Options& options, const ServerGoneError& loss, const std::function<void()>& attempt,
             const std::function<bool(std::chrono::milliseconds)>& pause);

} // namespace msgbus
