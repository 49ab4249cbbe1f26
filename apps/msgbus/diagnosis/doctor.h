#pragma once

#include "action.h"
#include "bus_options.h"

#include <string>
#include <vector>

namespace diagnosis {

/// One thing that was looked at.
struct Finding {
    std::string what;
    std::string found;
    std::string advice; ///< what to do; empty when all is well
};

/// `msgbus doctor`
struct DoctorArguments {
    BusAccess access;
    bool json = false;
};

/// Runs `msgbus doctor`: looks at everything that a client of the bus needs, from the directory to a value there and
/// back. Returns: Failed when anything is wrong. Throws: std::system_error.
ExitStatus Doctor(const DoctorArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddDoctorCommand(command_line::Command& program, Action& chosen);

} // namespace diagnosis
