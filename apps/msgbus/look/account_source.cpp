#include "account_source.h"

#include "arguments.h"

#include <utility>

namespace look {

AccountSource::AccountSource(const std::optional<std::string>& file)
    : path(file ? *file : instruments::AccountPath()), reader(path) {}

bool AccountSource::FollowRestart() {
    if (!reader.IsReplaced()) {
        return false;
    }
    try {
        reader = instruments::AccountReader(path);
    } catch (const instruments::NoAccountError&) {
        return false; // not yet
    }
    return true;
}

std::string WarningAbout(const instruments::ServerAccount& server) {
    const std::string who = "the server (process " + std::to_string(server.pid) + ")";
    if (server.state == instruments::ServerState::Stopped) {
        return who + " has stopped; this is what it left";
    }
    if (!server.isAlive) {
        return who + " is gone and did not stop in order; this is what it left";
    }
    return server.isPaused ? who + " is paused by a signal or a debugger" : "";
}

void ServerWarning::Update(const instruments::ServerAccount& server) {
    std::string warning = WarningAbout(server);
    if (!warning.empty() && warning != last) {
        Say(warning);
    }
    last = std::move(warning);
}

} // namespace look
