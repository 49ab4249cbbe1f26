#include "recordings/about.h"

#include "look/account_source.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <utility>

namespace recordings {

recording::Time Now() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now());
}

recording::Texts About() {
    recording::Texts about{{"program", "msgbus " BORVEN_VERSION}};
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0) {
        about["host"] = host.data();
    }
    try {
        const auto server =
            look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency).server;
        about["server_version"] = server.version;
        about["server_pid"] = std::to_string(server.pid);
        about["server_start_unix_ns"] = std::to_string(server.startedAt + server.clockOffset);
    } catch (const std::exception&) { // Justified: a server without an account says nothing about itself.
    }
    return about;
}

recording::Note NoteNow(const char* name, recording::Texts texts) {
    texts["time_unix_ns"] = std::to_string(Now().time_since_epoch().count());
    return {name, std::move(texts)};
}

} // namespace recordings
