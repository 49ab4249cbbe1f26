#include "completion/command.h"

#include "completion/complete.h"
#include "completion/scripts.h"
#include "look/account_source.h"
#include "terminal/write_out.h"

#include <map>
#include <memory>
#include <stdexcept>

namespace completion {

namespace {

using command_line::Command;
using instruments::Snapshot;

/// Returns: what is on the bus; nothing when it cannot be read, since nothing may be printed between two keys.
LiveNames NamesOnTheBus() {
    auto snapshot = std::make_shared<Snapshot>();
    try {
        *snapshot = look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency);
    } catch (const std::exception&) { // Justified: there are no names then.
    }
    return {[snapshot] {
                std::vector<std::string> topics;
                for (const auto& view : TopicsOf(*snapshot)) {
                    topics.emplace_back(view.topic);
                }
                return topics;
            },
            [snapshot] {
                std::vector<std::string> names;
                for (const auto& subscriber : snapshot->subscribers) {
                    names.push_back(subscriber.name);
                }
                return names;
            }};
}

ExitStatus PrintCandidates(const Command& program, const std::vector<std::string>& words) {
    const auto candidates = Complete(program, words, NamesOnTheBus());
    std::string lines;
    for (const auto& [word, meaning] : candidates.words) {
        lines += word + (meaning.empty() ? "" : '\t' + meaning) + '\n';
    }
    terminal::WriteOut(lines + (candidates.areFilesToo ? FilesMark + std::string("\n") : ""));
    return ExitStatus::Done;
}

ExitStatus PrintScript(const std::string& shell) {
    static const std::map<std::string, const char*> scripts{
        {"bash", BashScript}, {"zsh", ZshScript}, {"fish", FishScript}};
    const auto found = scripts.find(shell);
    if (found == scripts.end()) {
        throw std::invalid_argument("'" + shell + "' is not a shell that is known; there is bash, zsh and fish");
    }
    terminal::WriteOut(found->second);
    return ExitStatus::Done;
}

} // namespace

void AddCommands(Command& program, Action& chosen) {
    auto& command =
        program.AddCommand("completion", "Print what a shell needs to complete command lines of msgbus.", "Help");
    const auto shell = std::make_shared<std::string>();
    command.add_option("SHELL", *shell, "bash, zsh or fish")->type_name("bash|zsh|fish")->required();
    command.notes.description = {
        "Topics and the names of subscribers are those that are on the bus at this moment. The Debian package installs "
        "the completion of all three shells."};
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Usage});
    command.notes.examples = {{"source <(msgbus completion bash)", "For this shell; in ~/.bashrc for each"},
                              {"source <(msgbus completion zsh)", "The same in zsh, behind compinit"},
                              {"msgbus completion fish | source", "The same in fish"}};
    command.callback([&chosen, shell] { chosen = [shell] { return PrintScript(*shell); }; });

    auto& candidates = program.AddCommand("__complete", "Print what a word may become.", "");
    const auto words = std::make_shared<std::vector<std::string>>();
    candidates.add_option("WORD", *words, "words of a command line, up to the cursor");
    candidates.callback(
        [&chosen, &program, words] { chosen = [&program, words] { return PrintCandidates(program, *words); }; });
}

} // namespace completion
