#pragma once

namespace completion {

// What the shells run to complete a command line. Each calls `msgbus __complete -- WORD...` with the words up to the
// cursor, and reads a candidate a line, with its meaning behind a tab; ":files" stands for the names of files.

extern const char* const BashScript;
extern const char* const ZshScript;
extern const char* const FishScript;

} // namespace completion
