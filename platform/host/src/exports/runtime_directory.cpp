#include "kn/runtime_directory.h"

#include "base/no_throw.h"
#include "names/runtime_directory.h"

#include <cstring>

using namespace borven_host;

std::int32_t KnRuntimeDirectory(KnMissingDirectory missing, char* path, std::size_t size) noexcept {
    return NoThrow([&]() -> std::int32_t {
        const std::string text = RuntimeDirectoryPath();
        if (path == nullptr || size <= text.size()) {
            return KnStatusInvalidArgument;
        }
        UniqueFd directory;
        const auto status = OpenRuntimeDirectory(
            text, missing == KnMissingDirectory::Fails ? Missing::Fails : Missing::IsCreated, directory);
        if (status == KnStatusOk) {
            std::memcpy(path, text.c_str(), text.size() + 1);
        }
        return status;
    });
}
