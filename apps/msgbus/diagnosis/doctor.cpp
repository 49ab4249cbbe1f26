#include "diagnosis/doctor.h"

#include "common/escape.h"
#include "diagnosis/examinations.h"
#include "look/account_source.h"
#include "look/look_loop.h"
#include "terminal/colour.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace diagnosis {

namespace {

/// Waits for a server, if that is wanted. That there is none is found later.
void AwaitServer(const BusAccess& access) {
    try {
        look::AwaitServer(std::nullopt, access.waitForServer);
    } catch (const std::runtime_error&) { // Justified: the examinations say what is wrong.
    }
}

std::vector<Finding> Examine(const BusAccess& access) {
    if (access.waitForServer.count() != 0) {
        AwaitServer(access);
    }
    std::vector<Finding> findings{ExamineDirectory(), ExamineOwnLimit()};
    std::optional<instruments::Snapshot> snapshot;
    findings.push_back(ExamineAccount(snapshot));
    if (snapshot && !look::HasEnded(snapshot->server)) {
        findings.push_back(ExamineServer(*snapshot));
        findings.push_back(ExamineVersions(*snapshot));
        findings.push_back(ExamineMode(access, *snapshot));
        findings.push_back(ExamineServerLimit(*snapshot));
    }
    findings.push_back(ExamineDelivery(access));
    return findings;
}

std::string Line(const Finding& finding, bool hasColours) {
    const bool isWell = finding.advice.empty();
    const std::string verdict = terminal::Coloured(
        isWell ? "ok  " : "FAIL", isWell ? terminal::Colour::Green : terminal::Colour::Red, hasColours);
    return verdict + fmt::format(" {:<12} ", finding.what) + common::Escaped(finding.found) +
           (isWell ? "" : " -> " + common::Escaped(finding.advice)) + '\n';
}

std::string Json(const std::vector<Finding>& findings) {
    auto list = nlohmann::ordered_json::array();
    for (const auto& finding : findings) {
        list.push_back({{"what", finding.what},
                        {"ok", finding.advice.empty()},
                        {"found", common::Escaped(finding.found)},
                        {"advice", common::Escaped(finding.advice)}});
    }
    return terminal::JsonLine({{"findings", list}});
}

} // namespace

ExitStatus Doctor(const DoctorArguments& arguments) {
    const auto findings = Examine(arguments.access);
    if (arguments.json) {
        terminal::WriteOut(Json(findings));
    } else {
        const bool hasColours = terminal::HasColours(STDOUT_FILENO);
        for (const auto& finding : findings) {
            terminal::WriteOut(Line(finding, hasColours));
        }
    }
    const bool isWell =
        std::all_of(findings.begin(), findings.end(), [](const Finding& finding) { return finding.advice.empty(); });
    return isWell ? ExitStatus::Done : ExitStatus::Failed;
}

void AddDoctorCommand(command_line::Command& program, Action& chosen) {
    struct Words {
        explicit Words(command_line::Command& command) : bus(command) {}
        BusOptions bus;
        bool isJson = false;
    };
    auto& command =
        program.AddCommand("doctor", "Look at all that a client of the bus needs, and say what to do.", "Help");
    const auto words = std::make_shared<Words>(command);
    command.add_flag("--json", words->isJson, "print one JSON object on one line");
    command.notes.description = {"One line each: the runtime directory, descriptors, the server, whether it works, "
                                 "versions, mode, and a value there "
                                 "and back on a topic of its own. A line with FAIL ends with what to do."};
    command.notes.exitStatuses = {{"0", "all is well"}, {"1", "something is wrong"}, {"2", "usage error"}};
    command.notes.examples = {{"msgbus doctor", "Why nothing arrives"}};
    command.callback([&chosen, words] { chosen = [words] { return Doctor({words->bus.Resolve(), words->isJson}); }; });
}

} // namespace diagnosis
