#include "kn/task.h"

#include "kn/status.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

std::int32_t KnTaskGetName(char* buffer, std::size_t sizeBytes) noexcept {
    if (buffer == nullptr || sizeBytes == 0) {
        return KnStatusInvalidArgument;
    }
    const std::string_view name = program_invocation_short_name;
    const std::size_t length = std::min(name.size(), sizeBytes - 1);
    std::copy_n(name.data(), length, buffer);
    buffer[length] = '\0';
    return KnStatusOk;
}
