#include "recordings/record.h"

#include "arguments.h"
#include "cor/result_code.h"
#include "end_watch.h"
#include "msgbus/error.h"
#include "recordings/about.h"
#include "recordings/file_names.h"
#include "recordings/loss_notes.h"
#include "terminal/quantity.h"
#include "throw_again.h"

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

namespace recordings {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds ProgressInterval{1};

/// The bus's answer to a subscriber that left too many values unread.
constexpr auto CutByServer = static_cast<std::int32_t>(cor::ResultCode::TooManyValues);

/// A line on the terminal that is written anew each second.
class Progress final {
public:
    explicit Progress(bool isQuiet) : isShown(!isQuiet && ::isatty(STDERR_FILENO) == 1) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { Erase(); }

    void Update(const IDestination& destination) {
        const auto now = steady_clock::now();
        if (!isShown || now - shownAt < ProgressInterval) {
            return;
        }
        const std::chrono::duration<double> elapsed = now - shownAt;
        const double rate = shownAt == steady_clock::time_point()
                                ? 0
                                : static_cast<double>(destination.ValueCount() - shownValues) / elapsed.count();
        std::cerr << "\r\x1b[K" << destination.ValueCount() << " values, " << terminal::Bytes(destination.Bytes())
                  << ", " << terminal::Rate(rate) << " values/s" << std::flush;
        shownAt = now;
        shownValues = destination.ValueCount();
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

/// What the client library says of the server. Written and read on the thread that receives.
struct ServerNews {
    bool isLost = false;  ///< and this is still to be noted
    bool isNoted = false; ///< and it has not come back since

    void Take(msgbus::Notice notice) {
        if (notice == msgbus::Notice::ServerLost) {
            isLost = true;
        } else if (notice == msgbus::Notice::RegisteredAgain) {
            isNoted = false;
        }
    }

    void Note(IDestination& destination) {
        isLost = false;
        if (!std::exchange(isNoted, true)) {
            destination.NoteServerGone();
        }
    }
};

/// Records until there is no more. Returns: whether as many values came as were wanted.
bool RecordAll(topics::Subscription& subscription, const RecordArguments& arguments, IDestination& destination,
               LossNotes& losses, Progress& progress, ServerNews& news) {
    while (true) {
        const auto flushAt = steady_clock::now() + destination.FlushInterval();
        while (steady_clock::now() < flushAt) {
            const auto received = subscription.NextUntil(flushAt);
            if (news.isLost) {
                losses.Update(subscription, destination);
                news.Note(destination);
            }
            if (received.outcome == msgbus::Outcome::Canceled) {
                return !arguments.count;
            }
            if (received.outcome == msgbus::Outcome::Value) {
                destination.Write(received->topic, Now(), received->value);
                if (destination.ValueCount() == arguments.count) {
                    return true;
                }
            }
        }
        losses.Update(subscription, destination);
        destination.Flush();
        progress.Update(destination);
    }
}

/// The same; notes why the bus has ended it, if it has. Throws: as RecordAll.
bool RecordUntilEnd(topics::Subscription& subscription, const RecordArguments& arguments, IDestination& destination,
                    LossNotes& losses, Progress& progress, ServerNews& news) {
    try {
        return RecordAll(subscription, arguments, destination, losses, progress, news);
    } catch (const msgbus::RefusedError& error) {
        losses.Update(subscription, destination);
        if (error.Code() == CutByServer) {
            destination.NoteCut();
        }
        throw;
    } catch (const msgbus::Error&) {
        losses.Update(subscription, destination);
        news.Note(destination);
        throw;
    }
}

std::unique_ptr<IDestination> MakeDestination(const RecordArguments& arguments) {
    if (arguments.ring) {
        return std::make_unique<RingRecording>(arguments.file, arguments.existing, *arguments.ring);
    }
    return std::make_unique<FileSeries>(arguments.file, arguments.existing, arguments.rules, About());
}

/// Now, and not when a server has come or there is something to write. Throws: recording::RecordingError.
void CheckPlace(const RecordArguments& arguments) {
    if (arguments.file == "-") {
        throw std::invalid_argument("a recording is a file, not standard output; './-' is one of that name");
    }
    CheckDirectoryOf(arguments.file);
    const bool isOneFile = !arguments.ring && !arguments.rules.Splits();
    if (isOneFile && arguments.existing == recording::ExistingFile::IsKept &&
        std::filesystem::exists(std::filesystem::symlink_status(arguments.file))) {
        throw recording::RecordingError("there is a file '" + arguments.file + "' already");
    }
}

ExitStatus StatusOf(bool isWhole, const LossNotes& losses, const topics::Subscription& subscription,
                    const EndWatch& watch) {
    if (losses.Noted().values != 0) {
        Say("lost " + std::to_string(losses.Noted().values) +
            " values, which the server dropped because they were not read in time");
        return ExitStatus::Failed;
    }
    if (subscription.HasGap()) {
        return ExitStatus::Failed;
    }
    return isWhole || watch.WhyEnded() != EndWatch::Cause::TimeLimit ? ExitStatus::Done : ExitStatus::TimedOut;
}

} // namespace

ExitStatus Record(const RecordArguments& arguments) {
    CheckPlace(arguments);
    for (const auto& topic : arguments.topics.named) {
        WarnAboutCutTopic(topic);
    }
    std::optional<RequestSignal> request; // before anything that takes time: the default action ends the program
    if (arguments.ring) {
        request.emplace();
    }
    ServerNews news;
    BusAccess access = arguments.access;
    access.options.onNotice = [&news, next = access.options.onNotice](msgbus::Notice notice, const std::string& text) {
        news.Take(notice);
        next(notice, text);
    };
    std::unique_ptr<topics::Subscription> subscription;
    EndWatch watch(arguments.timeLimit, EndWatch::Output::Ignored);
    if (!Connect(access, watch, [&] { subscription = topics::Subscribe(access, arguments.name, arguments.topics); })) {
        return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
    }
    const auto destination = MakeDestination(arguments);
    Say(access, destination->Doing() + " as '" + arguments.name + "' (id " + std::to_string(subscription->Id()) + ")");
    watch.OnEnd([&subscription] { subscription->Cancel(); });
    LossNotes losses;
    Progress progress(access.isQuiet);
    bool isWhole = false;
    try {
        isWhole = RecordUntilEnd(*subscription, arguments, *destination, losses, progress, news);
        losses.Update(*subscription, *destination);
        destination->End(losses.Noted().values);
    } catch (const std::exception&) {
        progress.Erase();
        ThrowAgain([&](const std::string& sentence) {
            return sentence + "; values recorded before: " + std::to_string(destination->ValueCount());
        });
    }
    progress.Erase();
    Say(access, destination->Done());
    subscription->Cancel();
    return destination->LeftOut() != 0 ? ExitStatus::Failed : StatusOf(isWhole, losses, *subscription, watch);
}

} // namespace recordings
