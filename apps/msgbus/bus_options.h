#pragma once

#include "command_line/command.h"
#include "end_watch.h"
#include "msgbus/options.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

/// How a command is a client of the bus.
struct BusAccess {
    msgbus::Options options;
    std::chrono::milliseconds waitForServer{0};
    std::chrono::milliseconds waitForTopic{0};
    bool isQuiet = false; ///< print errors only
};

/// The options of every command that is a client of the bus, under one heading.
class BusOptions final {
public:
    /// Lifetime: `command` must outlive this object, and this object the parsing.
    explicit BusOptions(command_line::Command& command);
    BusOptions(const BusOptions&) = delete;
    BusOptions& operator=(const BusOptions&) = delete;

    /// Throws: std::invalid_argument.
    BusAccess Resolve() const;

private:
    bool isStatic = false;
    bool isDynamic = false;
    bool isQuiet = false;
    std::optional<std::string> reconnectTime;
    std::optional<std::string> timeout;
    const CLI::Option* wait = nullptr;
};

/// Parses the value of `--wait`: nothing stands for a time without end.
/// Throws: std::invalid_argument.
std::chrono::milliseconds ParseWait(const std::string& word);

/// Calls `connect` until there is a server, and the topic has no other publisher, as long as `access` says.
/// Returns: false when the program is to end first. Throws: what the last attempt throws.
bool Connect(const BusAccess& access, const EndWatch& watch, const std::function<void()>& connect);

/// Prints `sentence` on stderr unless only errors are wanted.
void Say(const BusAccess& access, const std::string& sentence);
