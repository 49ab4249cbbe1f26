#include "kn/runtime_directory.h"

#include "base/no_throw.h"
#include "names/runtime_directory.h"

#include <algorithm>
#include <cstring>

using namespace borven_host;

std::int32_t KnRuntimeDirectory(KnMissingDirectory missing, char* path, std::size_t size) noexcept {
    return NoThrow([&]() -> std::int32_t {
        const std::string text = RuntimeDirectoryPath();
        if (path == nullptr || size <= text.size()) {
            return KnStatusInvalidArgument;
        }
        UniqueFd directory;
        const auto status = missing == KnMissingDirectory::Fails
                                ? OpenRuntimeDirectory(text, Purpose::Connects, Missing::Fails, directory)
                                : OpenRuntimeDirectory(text, Purpose::Serves, Missing::IsCreated, directory);
        if (status == KnStatusOk) {
            std::memcpy(path, text.c_str(), text.size() + 1);
        }
        return status;
    });
}

void KnDescribeRuntimeDirectory(char* text, std::size_t size) noexcept {
    if (text == nullptr || size == 0) {
        return;
    }
    text[0] = '\0';
    NoThrow([&]() -> std::int32_t {
        const std::string phrase = DescribeRuntimeDirectory();
        const std::size_t length = std::min(phrase.size(), size - 1);
        std::memcpy(text, phrase.data(), length);
        text[length] = '\0';
        return KnStatusOk;
    });
}
