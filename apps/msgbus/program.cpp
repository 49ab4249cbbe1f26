#include "program.h"

#include "command_line/usage_error.h"
#include "completion/command.h"
#include "dashboard/dashboard.h"
#include "diagnosis/doctor.h"
#include "explain/errors.h"
#include "look/commands.h"
#include "measure/bench.h"
#include "measure/delay.h"
#include "publish/publish.h"
#include "receive/receive.h"
#include "recordings/export.h"
#include "recordings/inspect.h"
#include "recordings/play.h"
#include "recordings/record.h"
#include "stream/stream.h"
#include "trace/trace.h"

#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

using command_line::Command;

namespace {

void AddHelp(Command& program, Action& chosen) {
    auto& command = program.AddCommand("help", "Print the help of a command.", "Help");
    const auto word = std::make_shared<std::string>();
    command.add_option("COMMAND", *word, "the command; without one, all are listed")->type_name("COMMAND");
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Usage});
    command.callback([&chosen, &program, word] {
        chosen = [&program, word] {
            const Command* const wanted = word->empty() ? &program : program.Find(*word);
            if (wanted == nullptr) {
                throw std::invalid_argument(command_line::DescribeUnknownCommand(program, *word));
            }
            command_line::PrintHelp(*wanted);
            return ExitStatus::Done;
        };
    });
}

void AddNotes(Command& program) {
    program.notes.description = {
        "Options may stand before the command too. Data goes to standard output, everything else to standard error. A "
        "duration is a number with ms, s, m or h; without one it means seconds."};
    program.notes.environment = {{"BORVEN_RUNTIME_DIR", "directory of the server's sockets and its account; if unset, "
                                                        "$XDG_RUNTIME_DIR/borven, else a directory of the user's own "
                                                        "in /tmp"},
                                 {"NO_COLOR", "print without colours, whatever its value"}};
    program.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage, ExitStatus::Refused,
                                           ExitStatus::NoServer, ExitStatus::TimedOut});
    program.notes.examples = {{"msgbus sub temperature", "Print what is published, in one terminal"},
                              {"msgbus pub temperature 21 22 23", "Publish, in another"},
                              {"msgbus top", "See what is on the bus"}};
}

} // namespace

std::unique_ptr<Command> MakeProgram(Action& chosen) {
    auto program = std::make_unique<Command>("msgbus", "Publish to the message bus, receive from it, or look into it.");
    program->set_version_flag("--version", "msgbus " BORVEN_VERSION, "print the version and exit");
    program->require_subcommand(1);
    publish::AddCommand(*program, chosen);
    receive::AddCommand(*program, chosen);
    measure::AddDelayCommand(*program, chosen);
    measure::AddBenchCommand(*program, chosen);
    AddDashboardCommand(*program, chosen);
    recordings::AddRecordCommand(*program, chosen);
    recordings::AddPlayCommand(*program, chosen);
    recordings::AddInspectCommand(*program, chosen);
    recordings::AddExportCommand(*program, chosen);
    AddLookCommands(*program, chosen);
    stream::AddCommand(*program, chosen);
    trace::AddCommand(*program, chosen);
    diagnosis::AddDoctorCommand(*program, chosen);
    explain::AddErrorsCommand(*program, chosen);
    completion::AddCommands(*program, chosen);
    AddHelp(*program, chosen);
    AddNotes(*program);
    return program;
}

int UsageStatus(const Command& program) {
    constexpr int unknown = 3; // of a monitoring plug-in
    return program.got_subcommand("check") ? unknown : static_cast<int>(ExitStatus::Usage);
}
