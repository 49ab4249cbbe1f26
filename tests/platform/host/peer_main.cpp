// A process for the tests to talk to, and to kill. Its arguments are steps, done in order; each prints its result as a
// line. "wait" goes on when a line arrives on standard input.
#include "bos/logger.h"
#include "kn/connection_manager.h"
#include "kn/handle.h"
#include "kn/status.h"
#include "nk/deferred_reply.h"
#include "nk/transport.h"
#include "ns/name_server.h"
#include "service_locator.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr std::uint32_t TimeoutMs = 60000;

struct Record {
    nk_message header{};
    std::array<char, NkRecordSize - sizeof(nk_message)> body{};
};

class Peer {
public:
    explicit Peer(std::vector<std::string> arguments) : steps(std::move(arguments)) {}

    int Run() {
        const std::map<std::string_view, std::function<void()>> known{
            {"register", [this] { Say(server = ServiceLocatorRegister(Next().c_str(), nullptr, 0, nullptr)); }},
            {"publish", [this] { Say(NsPublishService(NameServer(), "test.Type", "peer", Next().c_str())); }},
            {"connect", [this] { Say(ServiceLocatorConnect(Next().c_str(), TimeoutMs, &client)); }},
            {"ask", [this] { Say(KnCmConnect(Next().c_str(), TimeoutMs, &client)); }},
            {"call", [this] { Say(Call(std::atoll(Next().c_str()))); }},
            {"call-many", [this] { CallMany(std::atoi(Next().c_str())); }},
            {"listen", [this] { Say(KnCmListen(nullptr, TimeoutMs, asker.data(), service.data())); }},
            {"accept", [this] { Say(KnCmAccept(asker.data(), service.data(), 0, server, &server)); }},
            {"receive", [this] { Say(Receive()); }},
            {"reply", [this] { Say(Reply()); }},
            {"reply-with-offers", [this] { Say(ReplyWithOffers(std::stoul(Next()))); }},
            {"serve", [this] { Serve(); }},
            {"thread-name", [this] { SayText(NameOf(servingThread)); }},
            {"close-all", [this] { Say((KnHandleCloseServerEnds(), 0)); }},
            {"wait", [this] { Say(std::getchar() == EOF ? -1 : 0); }},
            {"fork", [this] { Say(Fork([] { return 0; })); }},
            {"fork-and-stay", [this] { ForkAndStay(); }},
            {"fork-and-call", [this] { Say(Fork([this] { return Call(1); })); }},
            {"fork-and-connect", [this] { ForkAndConnect(); }},
            {"use-up-descriptors", [this] { UseUpDescriptors(); }},
            {"give-them-back", [this] { GiveThemBack(); }},
            {"close-stderr", [this] { Say(::close(STDERR_FILENO)); }},
            {"close-stdin-and-stderr", [this] { Say(::close(STDIN_FILENO) + ::close(STDERR_FILENO)); }},
            {"log", [this] { Log(Next()); }},
        };
        while (at < steps.size()) {
            step = Next();
            const auto found = known.find(step);
            if (found == known.end()) {
                std::fprintf(stderr, "no such step: %s\n", step.c_str());
                return 2;
            }
            found->second();
        }
        return 0;
    }

private:
    const std::string& Next() { return steps.at(at++); }

    template <typename Number>
    void Say(Number number) {
        SayText(std::to_string(static_cast<std::int64_t>(number)));
    }

    void SayText(const std::string& text) {
        // One write each: a forked child must not inherit half of it.
        const std::string line = step + ' ' + text + '\n';
        if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) {
            std::_Exit(3);
        }
    }

    static NsHandle NameServer() {
        NsHandle nameServer = 0;
        NsCreate(nullptr, TimeoutMs, &nameServer);
        return nameServer;
    }

    NkBosTransport TransportOf(KnHandle handle) const {
        NkBosTransport transport{};
        NkBosTransport_Init(&transport, handle, nullptr, 0);
        return transport;
    }

    std::int32_t Call(std::int64_t value) {
        Record request;
        Record response;
        NkSetSize(request.header, NkRecordSize);
        std::memcpy(request.body.data(), &value, sizeof value);
        NkBosTransport transport = TransportOf(client);
        return NkBosTransport_Call(&transport, &request.header, nullptr, &response.header, nullptr);
    }

    void CallMany(int count) {
        int failed = 0;
        for (int i = 0; i < count; ++i) {
            failed += Call(i) != KnStatusOk;
        }
        Say(failed);
    }

    std::int32_t Receive() {
        NkSetSize(received.header, NkRecordSize);
        NkBosTransport transport = TransportOf(server);
        return NkBosTransport_Receive(&transport, &received.header, nullptr);
    }

    std::int32_t Reply() {
        NkBosTransport transport = TransportOf(server);
        return NkBosTransport_Reply(&transport, &received.header, nullptr);
    }

    /// Answers with 100, and offers what follows. Returns: how many were put.
    std::size_t ReplyWithOffers(std::size_t count) {
        std::vector<std::int64_t> values(count);
        std::iota(values.begin(), values.end(), 101);
        const std::int64_t first = 100;
        std::memcpy(received.body.data(), &first, sizeof first);
        NkDeferredReply deferred;
        std::size_t put = 0;
        NkDeferReply(&deferred);
        NkReplyDeferred(deferred, &received.header, {sizeof(nk_message), values.data(), values.size()}, &put);
        return put;
    }

    void Serve() {
        std::thread([this] {
            servingThread = ::gettid();
            while (Receive() == KnStatusOk) {
                Reply();
            }
        }).detach();
        Say(0);
    }

    static std::string NameOf(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
        std::string name;
        std::getline(file, name);
        return name;
    }

    /// Returns: what `step` returned in the child.
    static std::int32_t Fork(const std::function<std::int32_t()>& childStep) {
        const pid_t child = ::fork();
        if (child == 0) {
            std::exit(-childStep()); // with everything that exit does
        }
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) ? -WEXITSTATUS(status) : -128;
    }

    /// The child holds every descriptor that this process holds, until standard input ends. It prints its number when
    /// it no longer uses what belongs to its parent.
    void ForkAndStay() {
        if (::fork() == 0) {
            Say(::getpid());
            char byte = 0;
            while (::read(STDIN_FILENO, &byte, 1) > 0) {
            }
            std::_Exit(0);
        }
    }

    void ForkAndConnect() {
        const std::string name = Next();
        Say(Fork([&] {
            const auto status = ServiceLocatorConnect(name.c_str(), TimeoutMs, &client);
            return status == KnStatusOk ? Call(1) : status;
        }));
    }

    void UseUpDescriptors() {
        // A sanitizer that looks at the type of an object for the first time needs descriptors for that.
        static_cast<void>(bos::logger::BOSLogger::RootLogger().IsEnabled(bos::logger::LogLevel::Warning));
        rlimit limit{64, 64};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd = 0; fd >= 0;) {
            fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            usedUp.push_back(fd);
        }
        Say(errno == EMFILE ? 0 : errno);
    }

    void GiveThemBack() {
        for (const int fd : usedUp) {
            ::close(fd);
        }
        Say(0);
    }

    void Log(std::string text) {
        bos::logger::BOSLogger::RootLogger().LogImpl(bos::logger::LogLevel::Error, "peer", 1, "Log", text);
        Say(0);
    }

    const std::vector<std::string> steps;
    std::size_t at = 0;
    std::string step;
    KnHandle server = KnInvalidHandle;
    KnHandle client = KnInvalidHandle;
    Record received;
    std::atomic<pid_t> servingThread{::getpid()};
    std::array<char, KnCmNameSize> asker{};
    std::array<char, KnCmNameSize> service{};
    std::vector<int> usedUp;
};

} // namespace

int main(int argc, char** argv) {
    return Peer({argv + 1, argv + argc}).Run();
}
