// The command line of the bus: options, help, exit status.

#include "arguments.h"
#include "dashboard/dashboard.h"
#include "help_and_errors.h"
#include "instruments/read_account.h"
#include "look/commands.h"
#include "msgbus/error.h"
#include "standard_descriptors.h"

#include <CLI/CLI.hpp>

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

constexpr std::chrono::seconds DefaultReconnectTime{5};

constexpr const char* MainFooter = "See 'msgbus COMMAND --help' for the options of a command.";
constexpr const char* CommandFooter =
    "Environment:\n"
    "  BORVEN_BUS=static|dynamic   mode to use without --static and --dynamic; if unset, msgbus tries dynamic, then "
    "static\n"
    "  BORVEN_LOG_LIMIT=off        log every record, however often it recurs\n"
    "  BORVEN_PLACEMENT=off        do not choose a CPU for any thread\n"
    "  BORVEN_RUNTIME_DIR          directory of the server's sockets\n"
    "\n"
    "Exit status:\n"
    "  0 success, 1 failure, 2 usage error, 3 rejected by the bus, 4 no server or server gone, 124 time limit reached";

/// The options of both commands.
class CommonOptions final {
public:
    explicit CommonOptions(CLI::App& command) {
        auto* const staticFlag = command.add_flag("--static", isStatic, "connect in static mode (not with --dynamic)");
        command.add_flag("--dynamic", isDynamic, "connect in dynamic mode (not with --static)")->excludes(staticFlag);
        command
            .add_option("--reconnect", reconnectTime,
                        "how long to look for a restarted server when the server is gone (default: 5s, 0: not at all)")
            ->type_name("DURATION");
        command.footer(CommandFooter);
    }

    msgbus::Options Resolve() const {
        msgbus::Options options;
        options.route = isStatic    ? msgbus::Route::Static
                        : isDynamic ? msgbus::Route::Dynamic
                                    : msgbus::Route::Automatic;
        options.reconnectFor = DefaultReconnectTime;
        if (reconnectTime) {
            options.reconnectFor =
                *reconnectTime == "0" ? std::chrono::milliseconds::zero() : ParseDuration(*reconnectTime);
        }
        options.onNotice = [](msgbus::Notice, const std::string& sentence) { Say(sentence); };
        return options;
    }

private:
    bool isStatic = false;
    bool isDynamic = false;
    std::optional<std::string> reconnectTime;
};

/// Returns: what may be wrong when no server is found.
std::string Hint() {
    const char* const chosen = std::getenv("BORVEN_RUNTIME_DIR");
    std::error_code error;
    return chosen != nullptr && *chosen != '\0' && !std::filesystem::exists(chosen, error)
               ? std::string("; BORVEN_RUNTIME_DIR is '") + chosen + "', which does not exist"
               : "";
}

ExitStatus RunCommand(const Action& command) {
    try {
        return command();
    } catch (const msgbus::RefusedError& error) {
        Say(error.what());
        return ExitStatus::Refused;
    } catch (const msgbus::NoServerError& error) {
        Say(error.what() + Hint());
        return ExitStatus::NoServer;
    } catch (const msgbus::ServerGoneError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const instruments::NoAccountError& error) {
        Say(error.what() + Hint());
        return ExitStatus::NoServer;
    } catch (const msgbus::TimedOutError& error) {
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
    ::signal(SIGPIPE, SIG_IGN);

    CLI::App app("Publish to the message bus, receive from it, or look into it.", "msgbus");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(MainFooter);
    app.set_version_flag("--version", "msgbus " BORVEN_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
        return "msgbus: " + DescribeUsageError(*failed, error) + "\nSee 'msgbus --help'.\n";
    });

    auto* const pub = app.add_subcommand("pub", "Publish 64-bit integers to a topic.")->group("Commands");
    PublishArguments publish;
    const CommonOptions publishOptions(*pub);
    pub->add_option("TOPIC", publish.topic, "topic of 1 to 1023 bytes; it has one publisher at a time")
        ->type_name("TOPIC")
        ->required();
    auto* const values =
        pub->add_option("VALUE", publish.values, "values to publish, in this order")->type_name("VALUE");
    pub->add_flag("-l,--lines", publish.fromInput, "read the values from standard input, one per line (not with VALUE)")
        ->excludes(values);
    pub->add_option("--description", publish.description,
                    "what the values mean, for those who look at the bus, such as 'fixed;step=1/10;unit=V'")
        ->type_name("TEXT");
    pub->add_flag("-v,--verbose", publish.verbose, "print the publisher's id on standard error");

    auto* const sub =
        app.add_subcommand("sub", "Print the values of topics as they arrive, one line 'TOPIC VALUE' each.")
            ->group("Commands");
    ReceiveArguments receive;
    const CommonOptions receiveOptions(*sub);
    std::optional<std::string> timeLimit;
    sub->add_option("TOPIC", receive.topics, "topics of 1 to 1023 bytes")->type_name("TOPIC")->required();
    sub->add_option("--name", receive.name, "name of this subscriber, 1 to 1023 bytes (required)")
        ->type_name("NAME")
        ->required();
    std::optional<std::string> count;
    sub->add_option("-n,--count", count, "exit after this many messages")->type_name("COUNT");
    sub->add_option("-W,--time-limit", timeLimit,
                    "exit with status 124 after this time, for example 10 (seconds), 1.5s, 200ms, 5m, 1h")
        ->type_name("DURATION");
    sub->add_flag("--json", receive.json, "print each message as a JSON object on one line");

    auto* const dashboard =
        app.add_subcommand("dashboard", "Serve a live page about the bus to this user's browser, until SIGINT.")
            ->group("Commands");
    DashboardArguments show;
    std::optional<std::string> port;
    dashboard->add_option("--port", port, "port of 127.0.0.1 (default: a free one)")->type_name("PORT");
    dashboard->add_flag("--open", show.opensBrowser, "open the page in the browser, with xdg-open");

    Action look;
    AddLookCommands(app, look);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : UsageStatus(app);
    }
    return static_cast<int>(RunCommand([&] {
        if (dashboard->parsed()) {
            show.port = port ? ParsePort(*port) : show.port;
            return ShowDashboard(show);
        }
        if (look) {
            return look();
        }
        if (pub->parsed()) {
            if (publish.values.empty() && !publish.fromInput) {
                throw std::invalid_argument(
                    "nothing to publish: give values, or use --lines to read them from standard input");
            }
            publish.options = publishOptions.Resolve();
            publish.options.description = publish.description;
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
