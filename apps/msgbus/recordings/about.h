#pragma once

#include "recording/recording.h"

namespace recordings {

/// Returns: the time, as recordings have it.
recording::Time Now();

/// Returns: what a file says about the program, the machine and the server.
recording::Texts About();

/// Returns: a note that happens now.
recording::Note NoteNow(const char* name, recording::Texts texts);

} // namespace recordings
