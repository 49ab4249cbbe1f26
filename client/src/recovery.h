#pragma once

#include "msgbus/error.h"
#include "msgbus/options.h"

#include <chrono>
#include <functional>
#include <string>

namespace msgbus {

/// Tells `options.onNotice`, if there is one.
void Notify(const Options& options, const std::string& sentence);

/// Looks for a restarted server: calls `attempt` until it stops throwing NoServerError and ServerGoneError. `pause`
/// waits for the given time and returns false to give up early. Rethrows `loss` when the time of the options is over,
/// or there is none.
/// Returns: false when `pause` gave up.
bool Recover(const Options& options, const ServerGoneError& loss, const std::function<void()>& attempt,
             const std::function<bool(std::chrono::milliseconds)>& pause);

} // namespace msgbus
