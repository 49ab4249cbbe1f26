#pragma once

#include <cstddef>
#include <string>

// The names of the files of one recording: `NAME_0.mcap`, `NAME_1.mcap` and so on for `NAME.mcap`.

namespace recordings {

/// Returns: `NAME_3.mcap` for `NAME.mcap` and 3.
std::string NumberedPath(const std::string& name, std::size_t number);

/// Returns: the number behind the greatest one that such a file has already, so that files are in order and none is in
/// the way; 0 when there is none.
std::size_t NextNumber(const std::string& name);

/// Throws: recording::RecordingError when files cannot be created in the directory of `name`.
void CheckDirectoryOf(const std::string& name);

} // namespace recordings
