#pragma once

#include "action.h"
#include "command_line/command.h"

#include <cstdint>
#include <string_view>

/// `msgbus dashboard`
struct DashboardArguments {
    std::uint16_t port = 0; ///< 0: a free one
    bool opensBrowser = false;
};

/// Parses the number of a port; 0 stands for a free one.
/// Throws: std::invalid_argument with a sentence.
std::uint16_t ParsePort(std::string_view text);

/// Runs `msgbus dashboard`: serves the live page on 127.0.0.1 until SIGINT, SIGTERM or SIGHUP, and prints its address.
/// It needs no server to start, and goes on when the server is started again. Throws: std::system_error when the port
/// cannot be had.
ExitStatus ShowDashboard(const DashboardArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddDashboardCommand(command_line::Command& program, Action& chosen);
