#include "top.h"

#include "instruments/account_json.h"
#include "look/account_source.h"
#include "terminal/write_out.h"

#include <nlohmann/json.hpp>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace top {

namespace {

using instruments::AccountReader;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The signals that concern a program with a screen, as a descriptor. They stay blocked.
class Signals final {
public:
    Signals() {
        sigset_t set;
        ::sigemptyset(&set);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) {
            ::sigaddset(&set, number);
        }
        ::sigprocmask(SIG_BLOCK, &set, nullptr);
        descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        if (descriptor < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
        }
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    ~Signals() { ::close(descriptor); }

    int Descriptor() const noexcept { return descriptor; }

    /// Returns: a signal that has come; 0: none.
    int Next() const {
        signalfd_siginfo info{};
        return ::read(descriptor, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
    }

private:
    int descriptor = -1;
};

/// The page that refreshes itself.
class LivePage final {
public:
    explicit LivePage(const TopArguments& topArguments)
        : arguments(topArguments), source(arguments.account),
          snapshot(source.Read(AccountReader::Depth::WithoutLatency)), view(arguments.view) {}

    void Run() {
        auto due = steady_clock::now() + arguments.interval;
        while (Show() && Wait(due) && !isQuitting) {
            if (steady_clock::now() >= due) {
                source.FollowRestart();
                snapshot = source.Read(AccountReader::Depth::WithoutLatency);
                due = steady_clock::now() + arguments.interval;
            }
        }
    }

private:
    bool Show() { return screen.Draw(Page(snapshot, view, terminal::OutputSize()), signals.Descriptor()); }

    /// Waits for the time of the next page, and for what changes this one. Returns: false when the terminal is gone.
    bool Wait(steady_clock::time_point due) {
        while (!isQuitting) {
            const auto left = std::chrono::ceil<milliseconds>(due - steady_clock::now());
            if (left <= milliseconds::zero()) {
                return true;
            }
            // poll ignores a negative descriptor, and reports an stdout without a reader without being asked.
            std::array<pollfd, 3> watched{
                {{signals.Descriptor(), POLLIN, 0}, {screen.KeyDescriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
            constexpr milliseconds longest{60'000};
            ::poll(watched.data(), watched.size(), static_cast<int>(std::min(left, longest).count()));
            if (watched[2].revents != 0) {
                return false;
            }
            if (TakeSignals() || TakeKeys()) {
                return true;
            }
        }
        return true;
    }

    /// Returns: whether the page has to be drawn anew, as the next.
    bool TakeSignals() {
        bool isChanged = false;
        for (int number = signals.Next(); number != 0; number = signals.Next()) {
            isChanged = true;
            if (number == SIGTSTP) {
                screen.Leave();
                ::raise(SIGSTOP);
                screen.Enter();
            } else if (number != SIGWINCH) {
                isQuitting = true;
            }
        }
        return isChanged;
    }

    bool TakeKeys() {
        bool isChanged = false;
        for (auto key = screen.Key(); key; key = screen.Key()) {
            isChanged = true;
            constexpr char endOfInput = '\x04';
            if (*key == 'q' || *key == 'Q' || *key == endOfInput) {
                isQuitting = true;
            } else if (*key == 't') {
                view.show = Show::Topics;
            } else if (*key == 's') {
                view.show = Show::Subscribers;
            } else if (*key == 'b') {
                view.show = Show::Both;
            } else if (*key == 'o') {
                view.isReversed = !view.isReversed;
            } else if (const auto sort = SortKeyOf(*key)) {
                view.sort = *sort;
            }
        }
        return isChanged;
    }

    const TopArguments& arguments;
    look::AccountSource source;
    instruments::Snapshot snapshot;
    View view;
    bool isQuitting = false;
    Signals signals;
    terminal::Screen screen; // last: there is nothing to restore when another member cannot be made
};

} // namespace

ExitStatus Top(const TopArguments& arguments) {
    if (!arguments.once) {
        LivePage(arguments).Run();
        return ExitStatus::Done;
    }
    const auto snapshot = look::AccountSource(arguments.account).Read();
    look::ServerWarning().Update(snapshot.server);
    std::string text;
    if (arguments.json) {
        text = terminal::JsonLine(instruments::StateToJson(snapshot));
    } else {
        for (const auto& line : Page(snapshot, arguments.view, terminal::OutputSize())) {
            text += line.text + '\n';
        }
    }
    terminal::WriteOut(text);
    return ExitStatus::Done;
}

} // namespace top
