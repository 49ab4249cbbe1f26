#pragma once

#include "command_line/command.h"

#include <functional>
#include <string>
#include <vector>

namespace completion {

/// The line that stands for names of files, for the scripts of the shells.
constexpr const char* FilesMark = ":files";

struct Candidate {
    std::string word;
    std::string meaning; ///< may be empty

    bool operator==(const Candidate&) const = default;
};

struct Candidates {
    std::vector<Candidate> words;
    bool areFilesToo = false; ///< names of files are candidates as well
};

/// What is on the bus now.
struct LiveNames {
    std::function<std::vector<std::string>()> topics;
    std::function<std::vector<std::string>()> subscribers;
};

/// Returns: what the last of the words of a command line may become. `words`: without the program's name, up to the
/// cursor; the last one may be empty. The types of options and arguments say what they take: TOPIC, NAME, FILE, or
/// choices such as "rtt|pub".
Candidates Complete(const command_line::Command& program, const std::vector<std::string>& words,
                    const LiveNames& names);

} // namespace completion
