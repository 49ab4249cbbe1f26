#pragma once

#include "msgbus/error.h"

#include <chrono>
#include <cstdint>
#include <string>

// From a status (backend.h) to an exception.

namespace msgbus {

/// Throws the exception for `status` unless it is 0. For a result code of the bus that is a RefusedError with
/// `sentence`, or with DescribeResult if `sentence` is empty.
void ThrowUnlessOk(std::int32_t status, const std::string& sentence = {});

/// Throws TimedOutError if `status` says that the server has not answered in time. `unknown` completes "whether ... is
/// unknown", `unsent` completes "... was not sent", `limit` is "within 5 ms" or the like.
void ThrowIfTimedOut(std::int32_t status, const std::string& limit, const std::string& unknown,
                     const std::string& unsent);
void ThrowIfTimedOut(std::int32_t status, std::chrono::milliseconds timeout, const std::string& unknown,
                     const std::string& unsent);

/// Throws: std::invalid_argument, which names `what` (such as "topic"), unless `text` fits into a request.
void CheckText(const std::string& text, const char* what);

/// Throws: ServerGoneError in a child of the process that made an object when the count was `forks`.
void CheckProcess(unsigned forks);

/// Returns: how often this process is a forked child: another number than in its parent.
unsigned ForkCount() noexcept;

} // namespace msgbus
