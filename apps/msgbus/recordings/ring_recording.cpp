#include "recordings/ring_recording.h"

#include "arguments.h"
#include "look/account_source.h"
#include "recordings/about.h"
#include "recordings/file_names.h"
#include "recordings/topic_channels.h"
#include "terminal/quantity.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace recordings {

namespace {

using std::chrono::steady_clock;

/// A publisher describes its topic a moment after it has registered, so a value is looked at behind the second of
/// these.
constexpr std::chrono::milliseconds LookInterval{50};

/// Values that wait for the descriptions of their topics are written in between, so that they take little memory.
constexpr std::uint64_t ValuesPerSettling = 10'000;

// Set by a signal handler, so without a lock; nothing else is read because of it.
std::atomic<bool> isRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void Request(int) {
    isRequested = true;
}

} // namespace

RequestSignal::RequestSignal() {
    isRequested = false;
    struct sigaction action {};
    action.sa_handler = &Request;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
}

RequestSignal::~RequestSignal() {
    ::signal(SIGUSR1, SIG_DFL);
}

bool RequestSignal::Take() noexcept {
    return isRequested.exchange(false);
}

RingRecording::RingRecording(std::string path, recording::ExistingFile existing, RingRules ringRules)
    : name(std::move(path)), existingFile(existing), rules(std::move(ringRules)), ring(rules.age, rules.bytes),
      valueRearming(rules.conditions.onValues.size(), Rearming(rules.age)), lossRearming(rules.age) {
    for (std::size_t i = 0; i < rules.conditions.onValues.size(); ++i) {
        watched.emplace(rules.conditions.onValues[i].topic, i);
    }
}

void RingRecording::Write(const std::string& topic, recording::Time time, std::int64_t value) {
    ++taken;
    ring.Add(topic, time, value, steady_clock::now());
    if (!watched.empty()) {
        const auto [first, last] = watched.equal_range(topic);
        for (auto condition = first; condition != last; ++condition) {
            fresh.push_back({condition->second, value});
        }
    }
}

void RingRecording::Write(const recording::Note& note) {
    const auto now = steady_clock::now();
    ring.Add(note, now);
    if (note.name != "msgbus.loss" || !rules.conditions.onLoss) {
        return;
    }
    if (lossRearming.Passes(true, now)) {
        WriteFile({{"reason", "loss"}, {"lost", note.texts.at("values")}});
    }
    lossRearming.Passes(false, now); // it is over
}

void RingRecording::Flush() {
    ring.DropOld(steady_clock::now());
    if (RequestSignal::Take()) {
        WriteFile({{"reason", "signal"}});
    }
    if (!ripe.empty()) {
        Judge(ripe);
        ripe.clear();
    }
    ripe.swap(fresh);
}

std::chrono::milliseconds RingRecording::FlushInterval() const noexcept {
    return LookInterval;
}

void RingRecording::Judge(const std::vector<Pending>& values) {
    ReadDescriptions();
    for (const auto& [index, value] : values) {
        const ValueCondition& condition = rules.conditions.onValues[index];
        const auto now = steady_clock::now();
        const std::string& description = descriptions[condition.topic];
        if (valueRearming[index].Passes(condition.IsTrue(value, description), now)) {
            recording::Texts reason{
                {"reason", "value"}, {"condition", condition.text}, {"value", std::to_string(value)}};
            if (!description.empty()) {
                reason["description"] = description;
            }
            WriteFile(std::move(reason));
        }
    }
}

void RingRecording::ReadDescriptions() {
    try {
        const auto snapshot = look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency);
        for (const auto& condition : rules.conditions.onValues) {
            const auto view = instruments::TopicOf(snapshot, condition.topic);
            const bool isPublished = view && view->publisher && snapshot.publishers[*view->publisher].leftAt == 0;
            if (view && (isPublished || !view->description.empty())) { // else what it was described as last
                descriptions[condition.topic] = view->description;
            }
        }
    } catch (const std::exception&) { // Justified: a server without an account describes nothing.
    }
}

void RingRecording::NoteServerGone() {
    WriteFile({{"reason", "server-gone"}});
}

void RingRecording::NoteCut() {
    if (rules.conditions.onCut) {
        WriteFile({{"reason", "cut"}});
    }
}

void RingRecording::End(std::uint64_t) {
    // What was received last may be out of range, or a signal may have come.
    Flush();
    Flush();
}

std::size_t RingRecording::NextFile() const {
    return existingFile == recording::ExistingFile::IsReplaced ? nextNumber : NextNumber(name);
}

void RingRecording::WriteFile(recording::Texts reason) {
    const auto now = steady_clock::now();
    ring.DropOld(now);
    const std::string path = NumberedPath(name, NextFile());
    ++nextNumber;
    recording::RecordingWriter writer(path, existingFile, "msgbus " BORVEN_VERSION);
    TopicChannels channels(writer);
    const std::string why = reason.contains("condition") ? reason["condition"] : reason["reason"];
    reason["seconds"] = std::to_string(std::chrono::duration<double>(rules.age).count());
    if (ring.LacksRoom(now)) {
        reason["limited_by"] = "--ring-bytes";
    }
    writer.Write(recording::Note{"msgbus.begin", About()});
    writer.Write(NoteNow("msgbus.ring", std::move(reason)));
    std::uint64_t written = 0;
    std::uint64_t lost = 0;
    ring.ForEach(
        [&](const std::string& topic, recording::Time time, std::int64_t value) {
            channels.Write(topic, time, value);
            if (++written % ValuesPerSettling == 0) {
                channels.Settle();
            }
        },
        [&](const recording::Note& note) {
            channels.Settle();
            writer.Write(note);
            if (note.name == "msgbus.loss") {
                lost += std::stoull(note.texts.at("values"));
            }
        });
    channels.Settle();
    recording::Texts end{{"values", std::to_string(written - channels.LeftOut())}, {"lost", std::to_string(lost)}};
    if (channels.LeftOut() != 0) {
        end["left_out"] = std::to_string(channels.LeftOut());
        leftOut += channels.LeftOut();
    }
    writer.Write(recording::Note{"msgbus.end", std::move(end)});
    writer.Close();
    ++files;
    Say("wrote '" + path + "': " + std::to_string(written - channels.LeftOut()) + " values, because of " + why);
}

std::string RingRecording::Doing() const {
    return "keeping the last " + terminal::Duration(std::chrono::nanoseconds(rules.age).count()) + " for '" +
           NumberedPath(name, NextFile()) + "' and following, written on SIGUSR1 to process " +
           std::to_string(::getpid()) + ',';
}

std::string RingRecording::Done() const {
    return "received " + std::to_string(taken) + " values, wrote " + std::to_string(files) +
           (files == 1 ? " file" : " files");
}

} // namespace recordings
