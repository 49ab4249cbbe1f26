#include "instruments/process_state.h"

#include <fstream>
#include <sstream>
#include <string>

namespace instruments {

std::optional<ProcessState> StateOfProcess(std::int64_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return std::nullopt;
    }
    // The name, in parentheses, may contain anything; the fields behind it are those from the third on.
    const auto nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(line.substr(nameEnd + 1));
    char state = 0;
    fields >> state;
    std::string skipped;
    constexpr int fieldsBetween = 18; // up to the 22nd, which is the start time
    for (int i = 0; i < fieldsBetween; ++i) {
        fields >> skipped;
    }
    ProcessState result;
    fields >> result.startTime;
    result.isPaused = state == 'T' || state == 't';
    result.hasEnded = state == 'Z' || state == 'X';
    return result;
}

} // namespace instruments
