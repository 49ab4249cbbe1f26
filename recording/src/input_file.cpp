#include "input_file.h"

#include "encoding.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace recording {

namespace {

constexpr std::size_t AheadBytes = 256U << 10;

int Open(const std::string& path) {
    // Not blocking, or a pipe that has no writer would be waited for.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        throw RecordingError("cannot read '" + path + "': " + std::strerror(errno));
    }
    return descriptor;
}

} // namespace

InputFile::InputFile(const std::string& path) : descriptor(Open(path)) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(descriptor);
        throw RecordingError("cannot read '" + path + "': it is not a regular file");
    }
    size = static_cast<std::uint64_t>(status.st_size);
}

InputFile::~InputFile() {
    ::close(descriptor);
}

void InputFile::Read(char* into, std::size_t count, std::uint64_t from) {
    while (count != 0) {
        const ssize_t part = ::pread(descriptor, into, count, static_cast<off_t>(from));
        if (part < 0 && errno == EINTR) {
            continue;
        }
        if (part <= 0) {
            position = size;
            throw RecordingError(part == 0 ? "the file has become shorter while it was read"
                                           : std::string("cannot read the file: ") + std::strerror(errno));
        }
        into += part;
        from += static_cast<std::uint64_t>(part);
        count -= static_cast<std::size_t>(part);
    }
}

std::string_view InputFile::Take(std::uint64_t count) {
    const auto wanted = static_cast<std::size_t>(count);
    std::string_view taken;
    if (wanted > AheadBytes) {
        joined.resize(wanted);
        Read(joined.data(), wanted, position);
        taken = joined;
    } else {
        if (position < aheadAt || position + wanted > aheadAt + ahead.size()) {
            ahead.resize(static_cast<std::size_t>(std::min<std::uint64_t>(AheadBytes, Left())));
            Read(ahead.data(), ahead.size(), position);
            aheadAt = position;
        }
        taken = std::string_view(ahead).substr(static_cast<std::size_t>(position - aheadAt), wanted);
    }
    position += count;
    crc = Crc32(taken, crc);
    return taken;
}

void InputFile::Pass(std::uint64_t count) {
    while (count != 0) {
        const auto part = std::min<std::uint64_t>(count, AheadBytes);
        Take(part);
        count -= part;
    }
}

} // namespace recording
