#include "recordings/record.h"

#include "arguments.h"
#include "end_watch.h"
#include "look/account_source.h"
#include "receive/receive.h"
#include "terminal/quantity.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace recordings {

namespace {

using std::chrono::steady_clock;

/// Half of the second after which everything is in the file.
constexpr std::chrono::milliseconds FlushInterval{400};
constexpr std::chrono::seconds ProgressInterval{1};

recording::Time Now() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now());
}

/// Returns: what a file says about itself.
recording::Texts About() {
    recording::Texts about{{"program", "msgbus " BORVEN_VERSION}};
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0) {
        about["host"] = host.data();
    }
    try {
        const auto server =
            look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency).server;
        about["server_version"] = server.version;
        about["server_pid"] = std::to_string(server.pid);
        about["server_start_unix_ns"] = std::to_string(server.startedAt + server.clockOffset);
    } catch (const std::exception&) { // Justified: a server without an account says nothing about itself.
    }
    return about;
}

/// A line on the terminal that is written anew each second.
class Progress final {
public:
    explicit Progress(bool isQuiet) : isShown(!isQuiet && ::isatty(STDERR_FILENO) == 1) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { Erase(); }

    void Update(const FileSeries& files) {
        const auto now = steady_clock::now();
        if (!isShown || now - shownAt < ProgressInterval) {
            return;
        }
        const std::chrono::duration<double> elapsed = now - shownAt;
        const double rate = shownAt == steady_clock::time_point()
                                ? 0
                                : static_cast<double>(files.ValueCount() - shownValues) / elapsed.count();
        std::cerr << "\r\x1b[K" << files.ValueCount() << " values, " << terminal::Bytes(files.Bytes()) << ", "
                  << terminal::Rate(rate) << " values/s" << std::flush;
        shownAt = now;
        shownValues = files.ValueCount();
    }

    void Erase() {
        if (shownAt != steady_clock::time_point()) {
            std::cerr << "\r\x1b[K" << std::flush;
            shownAt = {};
        }
    }

private:
    bool isShown;
    steady_clock::time_point shownAt{};
    std::uint64_t shownValues = 0;
};

/// Notes what a subscription has missed, each time that it has missed more.
class LossNotes final {
public:
    void Update(const topics::Subscription& subscription, FileSeries& files) {
        const auto loss = subscription.Lost();
        if (loss.values > noted.values) {
            Note(files, "msgbus.loss", {{"values", std::to_string(loss.values - noted.values)}});
        }
        if (loss.reconnections > noted.reconnections) {
            recording::Texts texts = About();
            texts["times"] = std::to_string(loss.reconnections - noted.reconnections);
            Note(files, "msgbus.restart", std::move(texts));
        }
        noted = loss;
    }

    const msgbus::Loss& Noted() const noexcept { return noted; }

private:
    static void Note(FileSeries& files, const char* name, recording::Texts texts) {
        texts["time_unix_ns"] = std::to_string(Now().time_since_epoch().count());
        files.Write({name, std::move(texts)});
    }

    msgbus::Loss noted;
};

/// Records until there is no more. Returns: whether as many values came as were wanted.
bool RecordAll(topics::Subscription& subscription, const RecordArguments& arguments, FileSeries& files,
               LossNotes& losses, Progress& progress) {
    while (true) {
        const auto flushAt = steady_clock::now() + FlushInterval;
        while (steady_clock::now() < flushAt) {
            const auto received = subscription.NextUntil(flushAt);
            if (received.outcome == msgbus::Outcome::Canceled) {
                return !arguments.count;
            }
            if (received.outcome == msgbus::Outcome::Value) {
                files.Write(received->topic, Now(), received->value);
                if (files.ValueCount() == arguments.count) {
                    return true;
                }
            }
        }
        losses.Update(subscription, files);
        files.Flush();
        progress.Update(files);
    }
}

} // namespace

ExitStatus Record(const RecordArguments& arguments) {
    for (const auto& topic : arguments.topics.named) {
        WarnAboutCutTopic(topic);
    }
    std::unique_ptr<topics::Subscription> subscription;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Ignored);
    if (!Connect(arguments.access, watch,
                 [&] { subscription = topics::Subscribe(arguments.access, arguments.name, arguments.topics); })) {
        return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
    }
    FileSeries files(arguments.file, arguments.existing, arguments.rules, About());
    Say(arguments.access, "recording to '" + files.File() + "' as '" + arguments.name + "' (id " +
                              std::to_string(subscription->Id()) + ")");
    watch.OnEnd([&subscription] { subscription->Cancel(); });
    LossNotes losses;
    Progress progress(arguments.access.isQuiet);
    bool isWhole = false;
    try {
        isWhole = RecordAll(*subscription, arguments, files, losses, progress);
        losses.Update(*subscription, files);
        files.Flush();
        files.Write(
            {"msgbus.end",
             {{"values", std::to_string(files.ValueCount())}, {"lost", std::to_string(losses.Noted().values)}}});
        files.Close();
    } catch (const std::exception& error) {
        progress.Erase();
        throw std::runtime_error(std::string(error.what()) +
                                 "; values recorded before: " + std::to_string(files.ValueCount()));
    }
    progress.Erase();
    Say(arguments.access,
        "recorded " + std::to_string(files.ValueCount()) + " values, " + terminal::Bytes(files.Bytes()));
    subscription->Cancel();
    if (losses.Noted().values != 0) {
        Say("lost " + std::to_string(losses.Noted().values) +
            " values, which the server dropped because they were not read in time");
        return ExitStatus::Failed;
    }
    if (subscription->HasGap()) {
        return ExitStatus::Failed;
    }
    return isWhole || watch.WhyEnded() != EndWatch::Cause::TimeLimit ? ExitStatus::Done : ExitStatus::TimedOut;
}

void AddRecordCommand(command_line::Command& program, Action& chosen) {
    struct Words {
        explicit Words(command_line::Command& command) : bus(command) {}
        BusOptions bus;
        std::string file;
        topics::SelectionWords topics;
        std::optional<std::string> name, count, timeLimit, split, mostBytes;
        bool isForced = false;
    };
    auto& command =
        program.AddCommand("record", "Write the values of topics, with their times, to a file.", "Recordings");
    const auto words = std::make_shared<Words>(command);
    command.add_option("FILE", words->file, "file to create, in the MCAP format; usually NAME.mcap")
        ->type_name("FILE")
        ->required();
    words->topics.AddTo(command);
    command.add_option("--name", words->name, "name of this subscriber (default: made of user and process)")
        ->type_name("NAME");
    command.add_option("-n,--count", words->count, "exit after this many values")->type_name("COUNT");
    command
        .add_option("-W,--time-limit", words->timeLimit,
                    "exit after this time; with status 124 if --count was not reached")
        ->type_name("DURATION");
    command.add_flag("--force", words->isForced, "replace a file that is there");
    command
        .add_option(
            "--split", words->split,
            "go on in another file when this one has this size (such as 100M) or age (such as 1h): NAME_0.mcap, "
            "NAME_1.mcap and so on")
        ->type_name("SIZE|DURATION");
    command
        .add_option("--max-disk", words->mostBytes,
                    "with --split: remove the oldest files of this recording when all take more than this size")
        ->type_name("SIZE");
    command.notes.description = {
        "Recordings are MCAP files, which Foxglove, PlotJuggler and rosbag2 read: a channel for each topic, values as "
        "std_msgs/msg/Int64, or Float64 where the topic is described as a double. The time is that of the receipt. "
        "What was "
        "received a second ago is in the file and can be read, whatever becomes of this program.",
        "Lost values and restarts of the server are noted in the file. A size is a number of bytes, with k, M or G of "
        "1024.",
        topics::MatchDescription};
    command.notes.examples = {
        {"msgbus record drive.mcap speed voltage", "Until Ctrl-C"},
        {"msgbus record all.mcap --match '*'", "Every topic, also those that come later"},
        {"msgbus record log.mcap speed --split 1h --max-disk 10G", "For ever, the last ten gigabytes"}};
    command.callback([&chosen, words] {
        chosen = [words] {
            RecordArguments arguments;
            arguments.access = words->bus.Resolve();
            arguments.file = words->file;
            arguments.topics = words->topics.Resolve();
            arguments.name = words->name ? *words->name : receive::DefaultName();
            if (words->count) {
                arguments.count = ParseCount(*words->count);
            }
            if (words->timeLimit) {
                arguments.timeLimit = ParseDuration(*words->timeLimit);
            }
            if (words->isForced) {
                arguments.existing = recording::ExistingFile::IsReplaced;
            }
            if (words->split) {
                if (IsSize(*words->split)) {
                    arguments.rules.bytes = ParseSize(*words->split);
                } else {
                    arguments.rules.time = ParseDuration(*words->split);
                }
            }
            if (words->mostBytes) {
                if (!words->split) {
                    throw std::invalid_argument("--max-disk needs --split");
                }
                arguments.rules.mostBytes = ParseSize(*words->mostBytes);
            }
            return Record(arguments);
        };
    });
}

} // namespace recordings
