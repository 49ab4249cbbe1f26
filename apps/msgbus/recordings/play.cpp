#include "recordings/play.h"

#include "arguments.h"
#include "end_watch.h"
#include "msgbus/publisher.h"
#include "recording/recording_reader.h"
#include "recordings/summary.h"
#include "terminal/quantity.h"

#include <poll.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <memory>
#include <stdexcept>

namespace recordings {

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// Returns: the time between two, the greatest there is where it is more: a file may have any times.
nanoseconds Between(recording::Time begin, recording::Time end) {
    std::int64_t difference = 0;
    const bool isTooMuch =
        __builtin_sub_overflow(end.time_since_epoch().count(), begin.time_since_epoch().count(), &difference);
    return !isTooMuch ? nanoseconds(difference) : end < begin ? nanoseconds::min() : nanoseconds::max();
}

/// Waits for times. One that has passed does not move those behind it.
class Schedule final {
public:
    Schedule(std::optional<double> playSpeed, recording::Time first, const EndWatch& endWatch)
        : speed(playSpeed), begin(first), start(steady_clock::now()), watch(endWatch) {}

    /// Blocks: until the value of this time is due. Returns: false, at once, when the program is to end.
    bool Await(recording::Time time) {
        if (!speed) {
            constexpr unsigned timesBetweenLooks = 64;
            return ++looks % timesBetweenLooks != 0 || watch.WhyEnded() == EndWatch::Cause::None;
        }
        constexpr double longest = 1e18; // 31 years, so that any time in a file can be waited for
        const double after = static_cast<double>(Between(begin, time).count()) / *speed;
        const auto due = start + nanoseconds(static_cast<std::int64_t>(std::clamp(after, -longest, longest)));
        for (auto left = due - steady_clock::now(); left > left.zero(); left = due - steady_clock::now()) {
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            const timespec wait{seconds.count(), nanoseconds(left - seconds).count()};
            pollfd ended{watch.Descriptor(), POLLIN, 0};
            if (::ppoll(&ended, 1, &wait, nullptr) > 0) {
                return false;
            }
        }
        latest = std::max<nanoseconds>(latest, steady_clock::now() - due);
        return watch.WhyEnded() == EndWatch::Cause::None;
    }

    /// Returns: by how much the latest value came after its time.
    nanoseconds Latest() const noexcept { return latest; }

private:
    std::optional<double> speed;
    recording::Time begin;
    steady_clock::time_point start;
    const EndWatch& watch;
    nanoseconds latest{0};
    unsigned looks = 0;
};

/// The publishers of the topics of a file.
class Publishers final {
public:
    /// Registers all of them, so that none fails in the middle. Returns: false when the program is to end first.
    bool Open(const Summary& summary, const PlayArguments& arguments, const EndWatch& watch) {
        for (const auto& topic : summary.topics) {
            const auto renamed = arguments.topics.find(topic.channel.topic);
            const std::string name = renamed == arguments.topics.end() ? topic.channel.topic : renamed->second;
            msgbus::Options options = arguments.access.options;
            options.description = topic.channel.description;
            auto& publisher = publishers[topic.channel.topic];
            if (!publisher && !Connect(arguments.access, watch, [&] { publisher.emplace(name, options); })) {
                return false;
            }
        }
        return true;
    }

    void Push(const std::string& topic, std::int64_t value) { publishers.at(topic)->Push(value); }

    void Close() {
        for (auto& [topic, publisher] : publishers) {
            publisher->Close();
        }
    }

private:
    std::map<std::string, std::optional<msgbus::Publisher>> publishers;
};

recording::Time TimeOf(const Place& place, recording::Time first) {
    const auto* const offset = std::get_if<nanoseconds>(&place);
    if (offset == nullptr) {
        return std::get<recording::Time>(place);
    }
    return Between(first, recording::Time::max()) < *offset ? recording::Time::max() : first + *offset;
}

/// Throws: std::invalid_argument for what cannot be meant for this recording.
void CheckFits(const PlayArguments& arguments, const Summary& summary) {
    for (const auto& [topic, name] : arguments.topics) {
        const bool isThere =
            std::any_of(summary.topics.begin(), summary.topics.end(),
                        [&wanted = topic](const TopicSummary& each) { return each.channel.topic == wanted; });
        if (!isThere) {
            throw std::invalid_argument("the recording has no topic '" + topic + "'");
        }
    }
    const auto from = arguments.from ? TimeOf(*arguments.from, summary.first) : recording::Time::min();
    const auto to = arguments.to ? TimeOf(*arguments.to, summary.first) : recording::Time::max();
    if (from >= to || from > summary.last || to <= summary.first) {
        throw std::invalid_argument("the recording has nothing between --from and --to");
    }
}

struct Played {
    std::uint64_t values = 0;
    nanoseconds latest{0};
    bool isWhole = true; ///< not ended by a signal
};

Played PlayOnce(const PlayArguments& arguments, const Summary& summary, Publishers& publishers, const EndWatch& watch) {
    const auto from = arguments.from ? TimeOf(*arguments.from, summary.first) : recording::Time::min();
    const auto to = arguments.to ? TimeOf(*arguments.to, summary.first) : recording::Time::max();
    recording::RecordingReader reader(arguments.file);
    std::optional<Schedule> schedule;
    Played played;
    while (const auto item = reader.Next(from)) {
        const auto* const message = std::get_if<recording::Message>(&*item);
        if (message == nullptr || message->time < from || message->time >= to) {
            continue;
        }
        if (!schedule) {
            schedule.emplace(arguments.speed, message->time, watch);
        }
        if (!schedule->Await(message->time)) {
            played.isWhole = false;
            break;
        }
        publishers.Push(reader.Channels().at(message->channel).topic, message->value);
        ++played.values;
    }
    played.latest = schedule ? schedule->Latest() : nanoseconds(0);
    return played;
}

} // namespace

Place ParsePlace(const std::string& word) {
    const auto letter = word.find('T');
    if (letter == std::string::npos) {
        return std::chrono::duration_cast<nanoseconds>(ParseDuration(word));
    }
    std::tm parts{};
    const char* rest = ::strptime(word.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    double fraction = 0;
    if (rest != nullptr && *rest == '.') {
        rest = std::from_chars(rest, word.c_str() + word.size(), fraction, std::chars_format::fixed).ptr;
    }
    if (rest == nullptr || std::string(rest) != "Z") {
        throw std::invalid_argument("'" + word +
                                    "' is not a place in a recording; it must be a duration, or a time in UTC such as "
                                    "2026-11-23T06:05:01.5Z");
    }
    constexpr double nsPerSecond = 1e9;
    return recording::Time(std::chrono::seconds(::timegm(&parts)) +
                           nanoseconds(static_cast<std::int64_t>(fraction * nsPerSecond)));
}

ExitStatus Play(const PlayArguments& arguments) {
    const EndWatch watch(std::nullopt, EndWatch::Output::Ignored);
    const Summary summary = Summarize(arguments.file);
    if (!summary.damages.empty()) {
        throw recording::RecordingError(summary.damages.front());
    }
    if (!summary.end.isComplete) {
        Say("the recording is incomplete: " + summary.end.reason);
    }
    if (summary.values == 0) {
        throw recording::RecordingError("the recording has no values");
    }
    CheckFits(arguments, summary);
    Publishers publishers;
    if (!publishers.Open(summary, arguments, watch)) {
        return ExitStatus::Done;
    }
    Played all;
    do {
        const Played played = PlayOnce(arguments, summary, publishers, watch);
        all.values += played.values;
        all.latest = std::max(all.latest, played.latest);
        all.isWhole = played.isWhole;
        if (played.values == 0) {
            break; // there is nothing between --from and --to
        }
    } while (arguments.loops && all.isWhole && watch.WhyEnded() == EndWatch::Cause::None);
    publishers.Close();
    Say(arguments.access, "published " + std::to_string(all.values) + " values" +
                              (arguments.speed && all.values != 0
                                   ? ", the latest of them " + terminal::Duration(all.latest.count()) + " late"
                                   : ""));
    return all.isWhole || arguments.loops ? ExitStatus::Done : ExitStatus::Failed;
}

namespace {

std::optional<double> ParseSpeed(const std::string& word) {
    if (word == "max") {
        return std::nullopt;
    }
    double speed = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), speed);
    constexpr double lowest = 1e-3;
    constexpr double highest = 1e6;
    if (error != std::errc() || end != word.data() + word.size() || !(speed >= lowest && speed <= highest)) {
        throw std::invalid_argument("'" + word + "' is not a speed; it must be a number from 0.001 to 1e6, or max");
    }
    return speed;
}

std::pair<std::string, std::string> ParseRename(const std::string& word) {
    const auto equals = word.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == word.size()) {
        throw std::invalid_argument("'" + word + "' is not OLD=NEW");
    }
    return {word.substr(0, equals), word.substr(equals + 1)};
}

struct Words {
    explicit Words(command_line::Command& command) : bus(command) {}

    BusOptions bus;
    std::string file;
    std::optional<std::string> speed, from, to, waitForTopic;
    std::vector<std::string> topics;
    bool loops = false;
};

PlayArguments ArgumentsOf(const Words& words) {
    PlayArguments arguments;
    arguments.access = words.bus.Resolve();
    arguments.file = words.file;
    arguments.loops = words.loops;
    if (words.speed) {
        arguments.speed = ParseSpeed(*words.speed);
    }
    for (const auto& word : words.topics) {
        const auto [renamed, isNew] = arguments.topics.insert(ParseRename(word));
        if (!isNew) {
            throw std::invalid_argument("topic '" + renamed->first + "' is renamed twice");
        }
    }
    if (words.from) {
        arguments.from = ParsePlace(*words.from);
    }
    if (words.to) {
        arguments.to = ParsePlace(*words.to);
    }
    if (words.waitForTopic) {
        arguments.access.waitForTopic = ParseDuration(*words.waitForTopic);
    }
    return arguments;
}

} // namespace

void AddPlayCommand(command_line::Command& program, Action& chosen) {
    auto& command = program.AddCommand("play", "Publish the values of a recording, at their times.", "Recordings");
    const auto words = std::make_shared<Words>(command);
    command.add_option("FILE", words->file, "recording")->type_name("FILE")->required();
    command.add_option("--speed", words->speed, "so many times as fast (default: 1), or max: as fast as it goes")
        ->type_name("SPEED");
    command
        .add_option("--topic", words->topics, "publish what was recorded of one topic under another name (repeatable)")
        ->type_name("OLD=NEW")
        ->allow_extra_args(false);
    command.add_flag("--loop", words->loops, "begin again at the end, until SIGINT");
    command.add_option("--from", words->from, "leave out so much of the recording, or begin at this time in UTC")
        ->type_name("PLACE");
    command.add_option("--to", words->to, "end there")->type_name("PLACE");
    command.add_option("--wait-topic", words->waitForTopic, "how long to wait while a topic has another publisher")
        ->type_name("DURATION");
    command.notes.description = {"Values are published in the order of the file, across topics; each when as much time "
                                 "has passed since the first as "
                                 "between them when they were recorded. At the end, the greatest delay is printed. "
                                 "Topics that were described are "
                                 "described again."};
    command.notes.examples = {
        {"msgbus play drive.mcap --speed 10", "Ten times as fast"},
        {"msgbus play drive.mcap --topic speed=replay/speed --from 1m --to 2m", "The second minute"}};
    command.callback([&chosen, words] { chosen = [words] { return Play(ArgumentsOf(*words)); }; });
}

} // namespace recordings
