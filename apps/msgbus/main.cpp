// The command line of the bus.

#include "arguments.h"
#include "msgbus/error.h"
#include "standard_descriptors.h"

#include <CLI/CLI.hpp>

#include <signal.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

constexpr std::chrono::seconds defaultReconnectTime{5};

constexpr const char* footer =
    "Without --static and --dynamic, BORVEN_BUS=static|dynamic chooses; else msgbus looks for the dynamic services, "
    "then "
    "for the\nstatic channel. BORVEN_RUNTIME_DIR tells where.\n"
    "Exit status: 0 done, 1 failed, 2 usage, 3 refused by the bus, 4 no server or server gone, 124 time-out.";

/// The options that both commands take.
class CommonOptions final {
public:
    explicit CommonOptions(CLI::App& command) {
        auto* const staticFlag = command.add_flag("--static", isStatic, "find the bus on its static channel");
        command.add_flag("--dynamic", isDynamic, "find the bus by its published services")->excludes(staticFlag);
        command
            .add_option("--reconnect", reconnectTime,
                        "how long to look for a restarted server when it is gone (default 5s, 0 not at all)")
            ->type_name("DURATION");
        command.footer(footer);
    }

    msgbus::Options Resolve() const {
        msgbus::Options options;
        options.route = isStatic    ? msgbus::Route::Static
                        : isDynamic ? msgbus::Route::Dynamic
                                    : msgbus::Route::Automatic;
        options.reconnectFor = defaultReconnectTime;
        if (reconnectTime) {
            options.reconnectFor =
                *reconnectTime == "0" ? std::chrono::milliseconds::zero() : ParseDuration(*reconnectTime);
        }
        options.onNotice = [](const std::string& sentence) { Say(sentence); };
        return options;
    }

private:
    bool isStatic = false;
    bool isDynamic = false;
    std::optional<std::string> reconnectTime;
};

ExitStatus RunCommand(const std::function<ExitStatus()>& command) {
    try {
        return command();
    } catch (const msgbus::RefusedError& error) {
        Say(error.what());
        return ExitStatus::Refused;
    } catch (const msgbus::NoServerError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const msgbus::ServerGoneError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const std::invalid_argument& error) {
        Say(error.what());
        return ExitStatus::Usage;
    } catch (const std::exception& error) {
        Say(error.what());
        return ExitStatus::Failed;
    }
}

} // namespace

int main(int argc, char** argv) {
    OccupyStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);

    CLI::App app("Publishes to the message bus and receives from it.", "msgbus");
    app.set_version_flag("--version", "msgbus " BORVEN_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
        const auto words = failed->remaining();
        const bool isUnknown =
            error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) && !words.empty();
        return "msgbus: " + (isUnknown ? "unknown command '" + words.front() + "'" : std::string(error.what())) +
               "\nmsgbus --help tells the commands and their options.\n";
    });

    auto* const pub = app.add_subcommand("pub", "Publish 64-bit integers to a topic.");
    PublishArguments publish;
    const CommonOptions publishOptions(*pub);
    pub->add_option("topic", publish.topic, "the topic: 1 to 1023 bytes, one publisher at a time")
        ->type_name("TOPIC")
        ->required();
    auto* const values =
        pub->add_option("values", publish.values, "what to publish, in this order")->type_name("VALUE");
    pub->add_flag("-l,--lines", publish.fromInput, "read one value per line from standard input")->excludes(values);
    pub->add_flag("-v,--verbose", publish.verbose, "tell the publisher's id");

    auto* const sub =
        app.add_subcommand("sub", "Print the values of topics as they arrive: one line TOPIC VALUE each.");
    ReceiveArguments receive;
    const CommonOptions receiveOptions(*sub);
    std::optional<std::string> timeLimit;
    sub->add_option("topics", receive.topics, "the topics: 1 to 1023 bytes each")->type_name("TOPIC")->required();
    sub->add_option("--name", receive.name, "name of this subscriber")->type_name("NAME")->required();
    std::optional<std::string> count;
    sub->add_option("-n,--count", count, "leave after this many messages")->type_name("COUNT");
    sub->add_option("-W,--time-limit", timeLimit, "leave after this time, with status 124: 10, 1.5s, 200ms, 5m, 1h")
        ->type_name("DURATION");
    sub->add_flag("--json", receive.json, "print one JSON object per line");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::Usage);
    }
    return static_cast<int>(RunCommand([&] {
        if (pub->parsed()) {
            if (publish.values.empty() && !publish.fromInput) {
                throw std::invalid_argument("nothing to publish: give values, or -l to read them from standard input");
            }
            publish.options = publishOptions.Resolve();
            return Publish(publish);
        }
        if (count) {
            receive.count = ParseCount(*count);
        }
        if (timeLimit) {
            receive.timeLimit = ParseDuration(*timeLimit);
        }
        receive.options = receiveOptions.Resolve();
        return Receive(receive);
    }));
}
