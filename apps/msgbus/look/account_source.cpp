#include "account_source.h"

#include "arguments.h"
#include "search_place.h"

#include <thread>
#include <utility>

namespace look {

namespace {

constexpr std::chrono::milliseconds TimeBetweenLooks{20};

/// Opens an account. What throws says where it was looked for, unless the user has named the file.
instruments::AccountReader Open(const std::optional<std::string>& file, std::string& path) {
    try {
        path = file ? *file : instruments::AccountPath();
        return instruments::AccountReader(path);
    } catch (const instruments::NoAccountError& error) {
        throw instruments::NoAccountError(error.what() + (file ? std::string() : SearchPlace()));
    }
}

bool IsServed(const std::optional<std::string>& file) {
    const auto server = AccountSource(file).Read(instruments::AccountReader::Depth::WithoutLatency).server;
    return server.isAlive && server.state != instruments::ServerState::Stopped;
}

} // namespace

AccountSource::AccountSource(const std::optional<std::string>& file) : reader(Open(file, path)) {}

void AwaitServer(const std::optional<std::string>& file, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    bool isNoted = false;
    while (true) {
        try {
            if (IsServed(file)) {
                return;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                throw instruments::NoAccountError("no message bus server is running" +
                                                  (file ? std::string() : SearchPlace()));
            }
        } catch (const instruments::NoAccountError&) {
            if (std::chrono::steady_clock::now() >= deadline) {
                throw;
            }
        }
        if (!std::exchange(isNoted, true)) {
            Say("no message bus server is running; waiting for one");
        }
        std::this_thread::sleep_for(TimeBetweenLooks);
    }
}

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
