#pragma once

#include "base/log_limit.h"
#include "bos/logger.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace borven_host {

/// A log record as a line, without its end. Whatever bytes a record has, its line is one line of UTF-8 that cannot
/// control a terminal (common::AppendEscaped).
///
/// Text: "2026-11-23T06:53:50.475013Z INFO  [THREAD] FILE:LINE FUNCTION: MESSAGE", the time in UTC.
/// Journal: "<6>[THREAD] FILE:LINE FUNCTION: MESSAGE": the priority as in sd-daemon(3); the journal has the time.
/// Json: an object with time, level, origin, thread, file, line, function and message.
///
/// Paths are those of the source tree. `format`: not Auto.
std::string LineOf(const LogLimit::Record& record, bos::logger::LogFormat format);

/// Returns: the line that reports how many records the stream did not accept.
std::string LineOfDropped(std::uint64_t count, bos::logger::LogFormat format);

/// Longest line of the journal's format, in bytes. The journal splits those of more than 48 KiB (LineMax= in
/// journald.conf(5)), and the rest would have no priority.
constexpr std::size_t LongestJournalLine = 40 * 1024;

/// Returns: the colour that the level has on a terminal, as a control sequence; empty: none.
const char* ColourOf(bos::logger::LogLevel level) noexcept;

} // namespace borven_host
