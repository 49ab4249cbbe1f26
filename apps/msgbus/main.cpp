// The command line of the bus.

#include "action.h"
#include "program.h"
#include "standard_descriptors.h"

#include <signal.h>

int main(int argc, char** argv) {
    OccupyStandardDescriptors();
    ::signal(SIGPIPE, SIG_IGN);
    Action chosen;
    const auto program = MakeProgram(chosen);
    try {
        command_line::Parse(*program, argc, argv);
    } catch (const CLI::ParseError& error) {
        return command_line::Report(*program, error) ? 0 : UsageStatus(*program);
    }
    return static_cast<int>(Run(chosen));
}
