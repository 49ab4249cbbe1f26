#include "dashboard/dashboard.h"
#include "receive/receive.h"
#include "stream/stream.h"
#include "stream/wire/admission.h"

#include <memory>
#include <optional>
#include <stdexcept>

namespace stream {

namespace {

/// The words of the command line.
struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    std::vector<std::string> arguments, topics, origins;
    std::optional<std::string> name, port;
    bool letsAnyUserIn = false;
};

Arguments ArgumentsOf(const Words& words) {
    Arguments arguments;
    arguments.access = words.bus.Resolve();
    arguments.topics = words.topics;
    arguments.topics.insert(arguments.topics.end(), words.arguments.begin(), words.arguments.end());
    if (arguments.topics.empty()) {
        throw std::invalid_argument("TOPIC is required");
    }
    arguments.name = words.name ? *words.name : receive::DefaultName();
    arguments.port = words.port ? ParsePort(*words.port) : arguments.port;
    arguments.origins = words.origins;
    arguments.letsAnyUserIn = words.letsAnyUserIn;
    return arguments;
}

void AddNotes(command_line::Command& command) {
    command.notes.description = {
        "Foxglove (open a connection, 'Foxglove WebSocket') and PlotJuggler (the 'Foxglove Bridge' plug-in) plot the "
        "values at the printed address. They get what 'msgbus record' writes: a channel for each topic, values as "
        "std_msgs/msg/Int64, or Float64 where the topic is described as a double, with the time of the receipt.",
        "It listens at 127.0.0.1 only, and lets in programs of this user and root, and pages that this machine serves. "
        "A page in a browser that comes from elsewhere needs --allow-origin. A client that does not read fast enough "
        "loses the oldest values, which is reported to it and on standard error; the others lose nothing."};
    command.notes.signals = {{"SIGINT, SIGTERM", "end it, with exit status 0"}};
    command.notes.examples = {
        {"msgbus stream speed voltage", "For a program on this machine"},
        {"msgbus stream speed --allow-origin https://app.foxglove.dev", "For Foxglove in the browser"},
        {"msgbus stream speed --port 0 --wait", "At a free port, of a server that may not be up yet"}};
}

} // namespace

void AddCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand(
        "stream", "Serve the values of topics to Foxglove and PlotJuggler, live over WebSocket.", "Commands");
    const auto words = std::make_shared<Words>(command);
    command.add_option("TOPIC", words->arguments, "topics of 1 to 1023 bytes")->type_name("TOPIC");
    command.add_option("-t,--topic", words->topics, "a topic, beside the arguments (repeatable)")
        ->type_name("TOPIC")
        ->allow_extra_args(false);
    command.add_option("--port", words->port, "port of 127.0.0.1 (default: 8765, 0: a free one)")->type_name("PORT");
    command
        .add_option("--allow-origin", words->origins,
                    "let pages of this origin in, for example https://app.foxglove.dev (repeatable)")
        ->type_name("ORIGIN")
        ->allow_extra_args(false);
    command.add_flag("--any-user", words->letsAnyUserIn, "let programs of all users of this machine in");
    command.add_option("--name", words->name, "name of this subscriber (default: made of user and process)")
        ->type_name("NAME");
    AddNotes(command);
    command.callback([&chosen, words] { chosen = [words] { return Stream(ArgumentsOf(*words)); }; });
}

} // namespace stream
