#include "recordings/file_names.h"

#include "recording/recording.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string_view>

namespace recordings {

namespace {

std::filesystem::path DirectoryOf(const std::filesystem::path& name) {
    return name.has_parent_path() ? name.parent_path() : ".";
}

} // namespace

std::string NumberedPath(const std::string& name, std::size_t number) {
    const std::filesystem::path whole(name);
    return (whole.parent_path() / (whole.stem().string() + '_' + std::to_string(number) + whole.extension().string()))
        .string();
}

std::size_t NextNumber(const std::string& name) {
    const std::filesystem::path whole(name);
    const std::string before = whole.stem().string() + '_';
    const std::string behind = whole.extension().string();
    std::size_t next = 0;
    std::error_code ignored; // then creating the file says what is wrong
    for (std::filesystem::directory_iterator entry(DirectoryOf(whole), ignored), end; !ignored && entry != end;
         entry.increment(ignored)) {
        const std::string file = entry->path().filename().string();
        std::string_view digits(file);
        if (!digits.starts_with(before) || digits.size() <= before.size() + behind.size() ||
            !digits.ends_with(behind)) {
            continue;
        }
        digits = digits.substr(before.size(), digits.size() - before.size() - behind.size());
        std::uint32_t number = 0;
        const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (error == std::errc() && rest == digits.data() + digits.size()) {
            next = std::max<std::size_t>(next, std::size_t{number} + 1);
        }
    }
    return next;
}

void CheckDirectoryOf(const std::string& name) {
    const std::string directory = DirectoryOf(name).string();
    if (!std::filesystem::is_directory(directory)) {
        throw recording::RecordingError("cannot create files in '" + directory + "': it is no directory");
    }
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        throw recording::RecordingError("cannot create files in '" + directory + "': " + std::strerror(errno));
    }
}

} // namespace recordings
