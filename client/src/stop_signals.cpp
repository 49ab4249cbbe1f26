#include "msgbus/stop_signals.h"

#include "pipe.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace msgbus {

namespace {

constexpr std::array<int, 2> Watched{SIGINT, SIGTERM};

/// What travels through the pipe.
constexpr char Signal = 's';
constexpr char Ending = 'e';

// What the handler needs. It may run on any thread at any time, also while a StopSignals ends.
std::atomic<bool> exists{false};
std::atomic<bool> hasCome{false};
std::atomic<int> writeEnd{-1}; ///< -1: the handler belongs to no StopSignals any more
std::atomic<pid_t> owner{-1};
std::atomic<int> handlersRunning{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void WriteByte(int descriptor, char byte) noexcept {
    while (::write(descriptor, &byte, 1) == -1 && errno == EINTR) {
    }
}

/// Takes the signal again, with the action that is set for it now. Blocked while its handler runs, it comes then.
void Repeat(int number) noexcept {
    ::raise(number);
}

void TakeDefaultAction(int number) noexcept {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ::sigaction(number, &action, nullptr);
    Repeat(number);
}

extern "C" void OnStopSignal(int number) {
    const int error = errno;
    ++handlersRunning;
    if (const int pipe = writeEnd; pipe == -1) {
        Repeat(number);
    } else if (owner != ::getpid() || hasCome.exchange(true)) {
        TakeDefaultAction(number); // a child made by fork has no thread that could call a function
    } else {
        WriteByte(pipe, Signal);
    }
    --handlersRunning;
    errno = error;
}

/// The one StopSignals that may exist.
class Claim final {
public:
    Claim() {
        if (exists.exchange(true)) {
            throw std::logic_error("another msgbus::StopSignals exists");
        }
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ~Claim() { exists = false; }
};

/// Our handler in place of the program's. A signal that is ignored stays ignored.
class Handlers final {
public:
    Handlers() noexcept {
        struct sigaction ours {};
        ours.sa_handler = OnStopSignal;
        ours.sa_flags = SA_RESTART; // calls of the program go on
        ::sigemptyset(&ours.sa_mask);
        for (const int number : Watched) {
            ::sigaddset(&ours.sa_mask, number);
        }
        for (std::size_t i = 0; i < Watched.size(); ++i) {
            struct sigaction found {};
            ::sigaction(Watched[i], nullptr, &found);
            const bool isIgnored = (found.sa_flags & SA_SIGINFO) == 0 && found.sa_handler == SIG_IGN;
            if (!isIgnored && ::sigaction(Watched[i], &ours, nullptr) == 0) {
                former[i] = found;
            }
        }
    }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

    /// Afterwards no handler uses the pipe.
    ~Handlers() {
        for (std::size_t i = 0; i < Watched.size(); ++i) {
            if (former[i]) {
                ::sigaction(Watched[i], &*former[i], nullptr);
            }
        }
        writeEnd = -1;
        // On other threads, and never for long; a child made by fork has none.
        while (handlersRunning != 0 && owner == ::getpid()) {
            std::this_thread::yield();
        }
    }

private:
    std::array<std::optional<struct sigaction>, Watched.size()> former;
};

/// Blocks every signal for the calling thread, and so for the threads that it starts.
class SignalsBlocked final {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &former);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &former, nullptr); }

private:
    sigset_t former{};
};

} // namespace

class __attribute__((visibility("hidden"))) StopSignals::State final {
public:
    explicit State(std::function<void()> function) : onStop(std::move(function)) {
        hasCome = false;
        owner = ::getpid();
        writeEnd = pipe.WriteEnd();
        const SignalsBlocked blocked; // the program's handlers run on its own threads
        if (const int error = ::pthread_create(&thread, nullptr, &Run, this); error != 0) {
            throw std::system_error(error, std::generic_category(), "cannot start a thread");
        }
        handlers.emplace();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    ~State() {
        handlers.reset();
        if (creator == ::getpid()) { // a child made by fork has no such thread
            WriteByte(pipe.WriteEnd(), Ending);
            ::pthread_join(thread, nullptr);
        }
    }

private:
    static void* Run(void* object) noexcept {
        const State& state = *static_cast<const State*>(object);
        for (char byte = 0; byte != Ending;) {
            if (::read(state.pipe.ReadEnd(), &byte, 1) == 1 && byte == Signal) {
                state.onStop();
            }
        }
        return nullptr;
    }

    const Claim claim;
    const std::function<void()> onStop;
    const pid_t creator = ::getpid();
    const Pipe pipe;
    pthread_t thread{}; ///< not a std::thread, which nothing can be done with in a child made by fork
    std::optional<Handlers> handlers;
};

StopSignals::StopSignals(std::function<void()> onStop) : state(std::make_unique<State>(std::move(onStop))) {}
StopSignals::~StopSignals() = default;

bool StopSignals::HasCome() const noexcept {
    return hasCome;
}

} // namespace msgbus
