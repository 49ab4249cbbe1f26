// Visitors that connect to a server's names and do not keep to the protocol: any messages, with descriptors or without,
// half-closed sockets, leaving at any moment. A visitor that has sent a whole first message, and stays, gets the answer
// to that message; no descriptor stays open; a client of the library that is connected is served meanwhile, and one
// that connects afterwards joins.
//
// Input: the steps that Step reads.

#include "base/unique_fd.h"
#include "bos/logger.h"
#include "fuzzing.h"
#include "kn/connection_manager.h"
#include "kn/handle.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "nk/transport.h"
#include "ns/name_server.h"
#include "service_locator.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

using borven_host::UniqueFd;
using fuzzing::Input;
using fuzzing::Require;

constexpr std::uint32_t PatienceMs = 20000; ///< only a broken server makes this run out
constexpr std::size_t VisitorCount = 6;
constexpr std::size_t MostSteps = 48; ///< fewer than the visitors that the server admits at a time
constexpr const char* LineName = "line";
constexpr const char* ServiceName = "service";

class NoLog final : public bos::logger::ILogBackEnd {
public:
    bool IsEnabled(bos::logger::LogLevel) const override { return false; }
    void Write(bos::logger::LogLevel, const char*, int, const char*, const std::string&) override {}
};

struct Record {
    nk_message header{};
    std::uint64_t value = 0;
    std::array<char, NkRecordSize - sizeof(nk_message) - sizeof(std::uint64_t)> rest{};
};
static_assert(sizeof(Record) == NkRecordSize);

/// A connection of a client that uses the library.
class Client final {
public:
    Client() {
        Require(ServiceLocatorConnect(LineName, PatienceMs, &handle) == KnStatusOk, "a client of the library joins");
        NkBosTransport_Init(&transport, handle, nullptr, 0);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { KnHandleClose(handle); }

    void Call() {
        Record request;
        request.header.size = NkRecordSize;
        request.value = ++calls;
        Record response;
        Require(NkBosTransport_Call(&transport, &request.header, nullptr, &response.header, nullptr) == KnStatusOk &&
                    response.value == calls + 1,
                "a client of the library is served");
    }

private:
    KnHandle handle = KnInvalidHandle;
    NkBosTransport transport{};
    std::uint64_t calls = 0;
};

/// The server, and a client that is connected all the time.
class World final {
public:
    World() {
        std::string pattern = std::filesystem::temp_directory_path() / "borven-fuzz-XXXXXX";
        Require(::mkdtemp(pattern.data()) != nullptr, "a directory is made");
        folder = pattern;
        ::setenv("BORVEN_RUNTIME_DIR", pattern.c_str(), 1);
        bos::logger::BOSLogger::RootLogger().SetBackEnd(noLog);
        std::uint32_t iid = 0;
        const KnHandle line = ServiceLocatorRegister(LineName, nullptr, 0, &iid);
        Require(line != KnInvalidHandle, "the server offers its line");
        NsHandle nameServer = 0;
        Require(NsCreate(nullptr, PatienceMs, &nameServer) == KnStatusOk &&
                    NsPublishService(nameServer, "fuzz.Type", "fuzz", ServiceName) == KnStatusOk,
                "the server publishes its service");
        serving = std::thread([line] { Serve(line); });
        steady = std::make_unique<Client>();
        steady->Call();
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World() {
        steady.reset();
        KnHandleCloseServerEnds();
        serving.join();
        std::filesystem::remove_all(folder);
    }

    std::string PathOf(const char* entry) const { return folder / entry; }
    void CallSteady() { steady->Call(); }

    void CountDescriptors() { descriptors = OpenDescriptors(); }

    /// A thread of the server's own notices visitors that have left.
    void AwaitClosedDescriptors() const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(PatienceMs);
        while (OpenDescriptors() > descriptors) {
            Require(std::chrono::steady_clock::now() < deadline, "the descriptors of visitors that left are closed");
            std::this_thread::yield();
        }
    }

private:
    static void Serve(KnHandle line) {
        NkBosTransport transport{};
        NkBosTransport_Init(&transport, line, nullptr, 0);
        Record record;
        record.header.size = NkRecordSize;
        while (NkBosTransport_Receive(&transport, &record.header, nullptr) == KnStatusOk) {
            ++record.value;
            NkBosTransport_Reply(&transport, &record.header, nullptr);
            record.header.size = NkRecordSize;
        }
    }

    static std::size_t OpenDescriptors() {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

    std::filesystem::path folder;
    NoLog noLog;
    std::thread serving;
    std::unique_ptr<Client> steady;
    std::size_t descriptors = 0;
};

World& TheWorld() {
    static World world;
    return world;
}

class Visitor final {
public:
    enum class Target { Line, Service };

    void Connect(Target chosen) {
        *this = Visitor();
        target = chosen;
        socket = UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = TheWorld().PathOf(target == Target::Line ? "static/line" : "services/service");
        Require(path.size() < sizeof address.sun_path, "the path is short enough");
        path.copy(address.sun_path, path.size());
        Require(::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
                "a process of this user may connect");
    }

    void Leave() { *this = Visitor(); }

    void Send(std::string text, std::size_t descriptors) {
        if (!socket) {
            return;
        }
        constexpr std::size_t mostDescriptors = 8;
        std::array<int, mostDescriptors> passed{};
        passed.fill(STDERR_FILENO);
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof passed)> control{};
        iovec content{text.data(), text.size()};
        msghdr message{};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        if (descriptors != 0) {
            const std::size_t length = std::min(descriptors, mostDescriptors) * sizeof(int);
            message.msg_control = control.data();
            message.msg_controllen = CMSG_SPACE(length);
            cmsghdr* const part = CMSG_FIRSTHDR(&message);
            part->cmsg_level = SOL_SOCKET;
            part->cmsg_type = SCM_RIGHTS;
            part->cmsg_len = CMSG_LEN(length);
            std::memcpy(CMSG_DATA(part), passed.data(), length);
        }
        const bool isSent = ::sendmsg(socket.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
        if (!firstMessage) {
            Require(isSent || hasShut, "there is room for the first message");
            firstMessage = std::move(text);
        }
    }

    void Shut(int half) {
        hasShut = hasShut || socket;
        ::shutdown(socket.Get(), half);
    }

    /// Returns: whether the server has to answer it, whichever reaches the server first, the message or the end of the
    /// socket.
    bool IsOwedAnswer() const { return socket && firstMessage && !hasShut; }

    bool IsAnswered() const {
        pollfd watched{socket.Get(), POLLIN | POLLRDHUP, 0};
        return ::poll(&watched, 1, 0) == 1;
    }

    bool Asks() const { return target == Target::Service && Greets(); }

    void CheckAnswer() const {
        borven_host::Answer answer{};
        iovec content{&answer, sizeof answer};
        constexpr std::size_t ends = 3;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(2 * ends * sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        ssize_t length = ::recvmsg(socket.Get(), &message, MSG_CMSG_CLOEXEC);
        if (length < 0 && errno == ECONNRESET) { // reported once, when the server left some messages unread
            length = ::recvmsg(socket.Get(), &message, MSG_CMSG_CLOEXEC);
        }
        Require(length == sizeof answer && IsValid(answer), "the server answers in its protocol");
        std::vector<UniqueFd> received;
        if (const cmsghdr* const part = CMSG_FIRSTHDR(&message); part != nullptr) {
            for (std::size_t i = 0; i < (part->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                int descriptor = -1;
                std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof descriptor, sizeof descriptor);
                received.emplace_back(descriptor);
            }
        }
        if (Deserved() == KnStatusOk) {
            Require(answer.status == KnStatusOk && received.size() == ends, "a visitor that greets joins");
            return;
        }
        Require(answer.status == Deserved() && received.empty(), "a visitor that does not greet is refused");
        pollfd watched{socket.Get(), POLLRDHUP, 0};
        Require(::poll(&watched, 1, PatienceMs) == 1, "the socket of a refused visitor ends");
    }

private:
    bool Greets() const { return Deserved() == KnStatusOk; }

    /// Returns: the status that the first message deserves.
    std::int32_t Deserved() const {
        borven_host::Greeting greeting{};
        if (!firstMessage || firstMessage->size() != sizeof greeting) {
            return KnStatusDenied;
        }
        std::memcpy(&greeting, firstMessage->data(), sizeof greeting);
        if (greeting.magic != borven_host::GreetingMagic || greeting.recordSize != NkRecordSize) {
            return KnStatusDenied;
        }
        return greeting.layoutVersion == 1 || greeting.layoutVersion == 2 ? KnStatusOk : KnStatusOtherVersion;
    }

    Target target = Target::Line;
    UniqueFd socket;
    std::optional<std::string> firstMessage;
    bool hasShut = false;
};

/// The server's side of the service.
class Acceptor final {
public:
    Acceptor() = default;
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;
    ~Acceptor() {
        while (Listen(0)) {
        }
        while (!announced.empty()) {
            Accept();
        }
        if (channel != KnInvalidHandle) {
            KnHandleClose(channel);
        }
    }

    bool Listen(std::uint32_t timeoutMs) {
        std::array<char, KnCmNameSize> client{};
        std::array<char, KnCmNameSize> service{};
        const auto status = KnCmListen(nullptr, timeoutMs, client.data(), service.data());
        Require(status == KnStatusOk || status == KnStatusTimedOut, "the server goes on listening");
        if (status == KnStatusOk) {
            Require(std::string(service.data()) == ServiceName, "the request names the published service");
            announced.emplace_back(client.data());
        }
        return status == KnStatusOk;
    }

    void Accept() {
        if (announced.empty()) {
            return;
        }
        const std::string client = announced.front();
        announced.pop_front();
        KnHandle given = KnInvalidHandle;
        const auto status = KnCmAccept(client.c_str(), ServiceName, 0, channel, &given);
        Require(status == KnStatusOk || status == KnStatusPeerGone, "an announced visitor joins or has left");
        channel = status == KnStatusOk ? given : channel;
    }

    static void AcceptUnknown(const std::string& client, const std::string& service, std::uint32_t iid) {
        KnHandle given = KnInvalidHandle;
        const auto status = KnCmAccept(client.c_str(), service.c_str(), iid, KnInvalidHandle, &given);
        Require(status == KnStatusNotFound || status == KnStatusInvalidArgument, "no visitor has that name");
    }

private:
    std::deque<std::string> announced;
    KnHandle channel = KnInvalidHandle;
};

void Step(Input& input, std::array<Visitor, VisitorCount>& visitors, Acceptor& acceptor) {
    const auto choice = input.Below(9);
    Visitor& visitor = visitors[input.Below(VisitorCount)];
    switch (choice) {
    case 0:
        visitor.Connect(Visitor::Target::Line);
        break;
    case 1:
        visitor.Connect(Visitor::Target::Service);
        break;
    case 2:
        visitor.Send(input.Text(input.Number<std::uint8_t>()), 0);
        break;
    case 3: {
        const auto descriptors = input.Number<std::uint8_t>();
        visitor.Send(input.Text(input.Number<std::uint8_t>()), descriptors);
        break;
    }
    case 4:
        visitor.Shut(static_cast<int>(input.Below(3)));
        break;
    case 5:
        acceptor.Listen(0);
        acceptor.Accept();
        break;
    case 6:
        visitor.Leave();
        break;
    case 7: {
        // A hyphen more than the names that the server gives out.
        const std::string client = "-" + input.Text(input.Below(64));
        const std::string service = input.Text(input.Below(64));
        Acceptor::AcceptUnknown(client, service, input.Number<std::uint32_t>());
        break;
    }
    default:
        acceptor.Listen(0);
        TheWorld().CallSteady();
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TheWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::RestartCallsAfterAlarm();
    TheWorld().CountDescriptors(); // not once at the start: libFuzzer opens some of its own between two inputs
    Input input(data, size);
    {
        std::array<Visitor, VisitorCount> visitors;
        Acceptor acceptor;
        for (std::size_t step = 0; step < MostSteps && !input.IsEmpty(); ++step) {
            Step(input, visitors, acceptor);
        }
        for (const Visitor& visitor : visitors) {
            if (!visitor.IsOwedAnswer()) {
                continue;
            }
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(PatienceMs);
            while (!visitor.IsAnswered()) {
                Require(std::chrono::steady_clock::now() < deadline, "a visitor that sent a message is answered");
                if (visitor.Asks()) {
                    acceptor.Listen(1);
                    acceptor.Accept();
                }
                std::this_thread::yield();
            }
            visitor.CheckAnswer();
        }
    }
    Client().Call();
    TheWorld().CallSteady(); // besides, a thread keeps the connection of its last call, closed or not, until the next
    TheWorld().AwaitClosedDescriptors();
    return 0;
}
