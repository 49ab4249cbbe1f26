// Writes the manual of the programs: write_manual DIRECTORY makes NAME.1 for man(1) and NAME.md for the site.

#include "command_line/manual.h"
#include "msgbusd/options/options.h"
#include "program.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

/// Returns: the date of the build, which SOURCE_DATE_EPOCH may set, so that two builds are alike.
std::string BuildDate() {
    const char* const set = std::getenv("SOURCE_DATE_EPOCH");
    const std::time_t seconds = set != nullptr && *set != '\0' ? std::strtoll(set, nullptr, 10) : std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char date[sizeof "2026-11-23"] = {};
    std::strftime(date, sizeof date, "%Y-%m-%d", &parts);
    return date;
}

void Write(const std::filesystem::path& file, const std::string& text) {
    std::ofstream stream(file);
    stream << text << std::flush;
    if (!stream) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

void WriteBoth(const std::filesystem::path& directory, const command_line::Command& program,
               const std::vector<std::string>& seeAlso) {
    const command_line::ManualMargins margins{"1", BuildDate(), program.get_name() + " " BORVEN_VERSION};
    Write(directory / (program.get_name() + ".1"), ManualPage(program, margins, seeAlso));
    Write(directory / (program.get_name() + ".md"), MarkdownPage(program));
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::cerr << "usage: write_manual DIRECTORY\n";
        return 2;
    }
    const std::filesystem::path directory = argv[1];
    std::filesystem::create_directories(directory);
    Action none;
    WriteBoth(directory, *MakeProgram(none), {"msgbusd(1)", "msgbus-recording(5)"});
    WriteBoth(directory, *msgbusd::MakeCommand(), {"msgbus(1)"});
    return 0;
} catch (const std::exception& error) {
    std::cerr << "write_manual: " << error.what() << '\n';
    return 1;
}
