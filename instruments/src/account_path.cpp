#include "instruments/read_account.h"
#include "kn/runtime_directory.h"
#include "kn/status.h"

#include <array>
#include <climits>

namespace instruments {

namespace {

std::string InRuntimeDirectory(const char* name) {
    std::array<char, PATH_MAX> directory{};
    const auto status = KnRuntimeDirectory(KnMissingDirectory::Fails, directory.data(), directory.size());
    if (status == KnStatusNotFound) {
        throw NoAccountError("there is no runtime directory, so no server has run here");
    }
    if (status != KnStatusOk) {
        throw AccountError(std::string("the runtime directory cannot be used: ") + KnStatusText(status));
    }
    return std::string(directory.data()) + '/' + name;
}

} // namespace

std::string AccountPath() {
    return InRuntimeDirectory("account");
}

std::string PreviousAccountPath() {
    return InRuntimeDirectory("account.previous");
}

} // namespace instruments
