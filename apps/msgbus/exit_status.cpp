#include "exit_status.h"

#include <string>

namespace {

const char* MeaningOf(ExitStatus status) {
    switch (status) {
    case ExitStatus::Done:
        return "success, or ended by SIGINT or SIGTERM where that is how the command ends";
    case ExitStatus::Failed:
        return "failure";
    case ExitStatus::Usage:
        return "usage error, bad input included";
    case ExitStatus::Refused:
        return "rejected by the bus";
    case ExitStatus::NoServer:
        return "no server, or the server is gone or does not answer";
    case ExitStatus::TimedOut:
        return "time limit reached";
    }
    return "";
}

} // namespace

std::vector<command_line::Entry> Describe(std::initializer_list<ExitStatus> statuses) {
    std::vector<command_line::Entry> entries;
    for (const auto status : statuses) {
        entries.push_back({std::to_string(static_cast<int>(status)), MeaningOf(status)});
    }
    return entries;
}
