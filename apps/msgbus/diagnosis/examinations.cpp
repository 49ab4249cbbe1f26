#include "diagnosis/examinations.h"

#include "bos/logger.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "diagnosis/judgement.h"
#include "instruments/read_account.h"
#include "kn/runtime_directory.h"
#include "kn/status.h"
#include "look/account_source.h"
#include "look/look_loop.h"
#include "msgbus/error.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"
#include "search_place.h"
#include "terminal/quantity.h"

#include <fmt/format.h>

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <string_view>

namespace diagnosis {

namespace {

/// Below it a program cannot have a dozen subscribers.
constexpr std::uint64_t FewDescriptors = 64;

/// Keeps the last sentence that the platform logs, which says why something was refused.
class LastSentence final : public bos::logger::ILogBackEnd {
public:
    LastSentence() : before(bos::logger::BOSLogger::RootLogger().SetBackEnd(*this)) {}
    LastSentence(const LastSentence&) = delete;
    LastSentence& operator=(const LastSentence&) = delete;
    ~LastSentence() override { bos::logger::BOSLogger::RootLogger().SetBackEnd(before); }

    bool IsEnabled(bos::logger::LogLevel level) const override { return level >= bos::logger::LogLevel::Warning; }
    void Write(bos::logger::LogLevel, const char*, int, const char*, const std::string& message) override {
        const common::MutexLock lock(mutex);
        sentence = message;
    }
    std::string Text() const {
        const common::MutexLock lock(mutex);
        return sentence;
    }

private:
    bos::logger::ILogBackEnd& before;
    mutable common::Mutex mutex;
    std::string sentence GUARDED_BY(mutex);
};

std::string Place() {
    std::array<char, PATH_MAX> text{};
    KnDescribeRuntimeDirectory(text.data(), text.size());
    return text.data();
}

/// Returns: the soft limit on open files of a process, as the kernel shows it; nothing if it cannot be read.
std::optional<std::uint64_t> DescriptorLimitOf(std::int32_t pid) {
    std::ifstream limits("/proc/" + std::to_string(pid) + "/limits");
    constexpr std::string_view name = "Max open files";
    for (std::string line; std::getline(limits, line);) {
        std::istringstream words(line.starts_with(name) ? line.substr(name.size()) : std::string());
        if (std::uint64_t limit = 0; words >> limit) {
            return limit;
        }
    }
    return std::nullopt;
}

} // namespace

Finding ExamineDirectory() {
    Finding finding{"directory", Place(), ""};
    const LastSentence reason;
    std::array<char, PATH_MAX> path{};
    switch (KnRuntimeDirectory(KnMissingDirectory::Fails, path.data(), path.size())) {
    case KnStatusOk:
        break;
    case KnStatusNotFound:
        finding.advice =
            "start a server with the same environment: msgbusd creates the directory, but nothing above it";
        break;
    default:
        finding.found += ": " + reason.Text();
        finding.advice = "let it belong to you alone, with mode 0700, or choose another with BORVEN_RUNTIME_DIR";
    }
    return finding;
}

Finding ExamineAccount(std::optional<instruments::Snapshot>& snapshot) {
    Finding finding{"server", "", ""};
    const LastSentence reason;
    try {
        snapshot = look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency);
        finding.found = fmt::format("process {}, {}, {} mode, {}", snapshot->server.pid, snapshot->server.version,
                                    snapshot->server.isStatic ? "static" : "dynamic", NameOf(snapshot->server.state));
        if (look::HasEnded(snapshot->server)) {
            finding.found = fmt::format("process {} is gone", snapshot->server.pid);
            finding.advice = "start one: msgbusd, or systemctl --user start msgbusd; 'msgbus autopsy' shows what that "
                             "one did last";
        }
    } catch (const instruments::AccountClosedError&) {
        finding.found = "of another user; only that one and root may look into it";
    } catch (const std::exception& error) {
        finding.found = error.what();
        finding.advice =
            "start one: msgbusd, or systemctl --user start msgbusd; one with --no-account or --bare cannot be "
            "seen from here";
    }
    return finding;
}

Finding ExamineServer(const instruments::Snapshot& snapshot) {
    const Judgement judgement = Judge(snapshot, {});
    Finding finding{"its work", "the server serves, and its account adds up", ""};
    if (judgement.verdict != Verdict::Ok) {
        finding.found.clear();
        for (const auto& reason : judgement.reasons) {
            finding.found += (finding.found.empty() ? "" : "; ") + reason;
        }
        finding.advice = "start it again; 'msgbus autopsy' shows what it did last";
    }
    return finding;
}

Finding ExamineVersions(const instruments::Snapshot& snapshot) {
    Finding finding{"versions", "client " BORVEN_VERSION ", server " + snapshot.server.version, ""};
    if (snapshot.server.version != BORVEN_VERSION) {
        finding.advice = "start the server again to run the version that is installed: kill -USR1 " +
                         std::to_string(snapshot.server.pid) + " lets subscribers read first";
    }
    return finding;
}

Finding ExamineMode(const BusAccess& access, const instruments::Snapshot& snapshot) {
    const char* const set = std::getenv("BORVEN_BUS");
    const std::string mode = snapshot.server.isStatic ? "static" : "dynamic";
    Finding finding{"mode", mode, ""};
    if (access.options.route != msgbus::Route::Automatic) {
        const std::string wanted = access.options.route == msgbus::Route::Static ? "static" : "dynamic";
        if (wanted != mode) {
            finding.found = "--" + wanted + " was given, and the server serves in " + mode + " mode";
            finding.advice = "leave --" + wanted + " out, or start the server with it";
        }
        return finding;
    }
    if (set != nullptr && *set != '\0' && set != mode) {
        finding.found = std::string("BORVEN_BUS is '") + set + "', and the server serves in " + mode + " mode";
        finding.advice = "unset BORVEN_BUS, or start the server with --" + std::string(set);
    }
    return finding;
}

Finding ExamineOwnLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    Finding finding{"descriptors", "this process may open " + std::to_string(limit.rlim_cur), ""};
    if (limit.rlim_cur < FewDescriptors) {
        finding.advice = "raise it: ulimit -n 1024";
    }
    return finding;
}

Finding ExamineServerLimit(const instruments::Snapshot& snapshot) {
    Finding finding{"its limit", "", ""};
    const auto limit = DescriptorLimitOf(snapshot.server.pid);
    const std::uint64_t open = snapshot.server.descriptors;
    finding.found = limit ? fmt::format("the server has opened {} of {} descriptors", open, *limit)
                          : fmt::format("the server has opened {} descriptors", open);
    if (limit && open + FewDescriptors > *limit) {
        finding.advice = "start it with a higher hard limit: ulimit -Hn, or LimitNOFILE= in its unit";
    }
    return finding;
}

Finding ExamineDelivery(const BusAccess& access) {
    Finding finding{"delivery", "", ""};
    const LastSentence reason;
    const std::string topic = "msgbus-doctor-" + std::to_string(::getpid());
    constexpr std::int64_t value = -42;
    try {
        msgbus::Subscriber subscriber(topic, {topic}, access.options);
        msgbus::Publisher publisher(topic, access.options);
        const auto begin = std::chrono::steady_clock::now();
        publisher.Push(value);
        const auto received = subscriber.NextFor(access.options.callTimeout);
        if (received.outcome != msgbus::Outcome::Value || received->value != value) {
            finding.found = "the value that was published did not come back";
            finding.advice = "'msgbus autopsy' shows what the server's threads do";
            return finding;
        }
        finding.found = "a value took " + terminal::Duration((std::chrono::steady_clock::now() - begin).count()) +
                        " there and back";
    } catch (const msgbus::NoServerError& error) {
        finding.found = error.what();
        finding.advice = "start one, or ask for the mode in which it serves";
    } catch (const std::exception& error) {
        const std::string why = reason.Text();
        finding.found = error.what() + (why.empty() ? "" : ": " + why);
        finding.advice = "'msgbus errors' explains codes; the server's log has its side";
    }
    return finding;
}

} // namespace diagnosis
