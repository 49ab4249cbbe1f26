// A hostile server: what it answers to a greeting, which descriptors it passes, and what it does to the shared page,
// the doorbell and the socket between any two calls of a client. The client's calls, through the generated stubs, must
// return: with 0 and outputs, or with a failure that leaves the outputs alone. Once the connection was closed, every
// call says so.
//
// The server plays its part before each call, so that a run can be repeated: a reply waits in the page already, or the
// socket has ended when the call begins. Input: a byte that chooses the answer, with its bytes; then the steps of Play.

#include "br_MessageBus_client.h"
#include "exports/handle_table.h"
#include "fuzzing.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "records/event_fd.h"
#include "records/shared_memory_connection.h"
#include "records/shared_memory_ends.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using borven_host::Answer;
using borven_host::Connection;
using borven_host::End;
using borven_host::HandleTable;
using borven_host::LayoutVersion;
using borven_host::MakeAnswer;
using borven_host::MakeBell;
using borven_host::OfferWord;
using borven_host::Ring;
using borven_host::SharedMemoryEnds;
using borven_host::SharedMemoryRegion;
using borven_host::SharedSlot;
using borven_host::SlotWord;
using borven_host::UniqueFd;
using fuzzing::Input;
using fuzzing::Require;

constexpr std::size_t MostSteps = 300;
constexpr std::size_t PageSize = 4096;
constexpr int SizeSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr std::uint32_t EveryPiece = 0x1FFFF;

/// Descriptors that a server has no reason to pass.
UniqueFd MakeStranger(Input& input) {
    std::array<int, 2> pair{-1, -1};
    switch (input.Below(6)) {
    case 0:
        return UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC));
    case 1: // to write into it raises SIGPIPE
        Require(::pipe2(pair.data(), O_CLOEXEC) == 0, "pipe");
        ::close(pair[0]);
        return UniqueFd(pair[1]);
    case 2:
        return UniqueFd(::open("/", O_RDONLY | O_CLOEXEC));
    case 3:
        return UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    case 4: {
        UniqueFd file(::memfd_create("stranger", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        static_cast<void>(!::ftruncate(file.Get(), input.Number<std::uint16_t>()));
        ::fcntl(file.Get(), F_ADD_SEALS, SizeSeals);
        return file;
    }
    default:
        return MakeBell();
    }
}

class HostileServer final {
public:
    HostileServer() {
        std::array<int, 2> pair{};
        Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) == 0, "socketpair");
        socket = UniqueFd(pair[0]);
        clientsSocket = UniqueFd(pair[1]);
        Require(SharedMemoryRegion::Create(LayoutVersion, region, file) == KnStatusOk, "a region is made");
    }

    /// Answers the greeting. Returns: the client's end of the socket.
    UniqueFd AnswerGreeting(Input& input) {
        Answer answer = MakeAnswer(KnStatusOk);
        std::vector<UniqueFd> passed;
        passed.push_back(std::move(file));
        passed.push_back(MakeBell());
        passed.push_back(MakeBell());
        doorbell = UniqueFd(::fcntl(passed[2].Get(), F_DUPFD_CLOEXEC, 0));
        std::size_t size = sizeof answer;
        switch (input.Below(8)) {
        case 0: {
            const auto bytes = input.Bytes(sizeof answer);
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(&answer));
            size = input.Below(sizeof answer + 1);
            break;
        }
        case 1:
            answer.status = input.Number<std::int32_t>();
            break;
        case 2:
            passed[input.Below(passed.size())] = MakeStranger(input);
            break;
        case 3:
            passed.resize(input.Below(passed.size()));
            break;
        case 4:
            passed.push_back(MakeStranger(input));
            break;
        case 5: { // another header of the page
            const auto bytes = input.Bytes(16);
            std::copy(bytes.begin(), bytes.end(), Page());
            break;
        }
        default:
            break;
        }
        Send(answer, size, passed);
        return std::move(clientsSocket);
    }

    void End() { ::shutdown(socket.Get(), SHUT_RDWR); }

    /// Makes sure that the next call returns: a reply to it is in the page, or the socket has ended.
    void ExpectCall() {
        Slot().request.word.store(0);
        if (SlotWord(Slot().reply.word.load()).Sequence() != calls + 1) {
            End();
        }
    }

    /// A call that took an offer wrote no request.
    void NoteCall() { calls += SlotWord(Slot().request.word.load()).Sequence() == calls + 1 ? 1 : 0; }

    void Misbehave(std::size_t choice, Input& input) {
        SharedSlot& slot = Slot();
        switch (choice) {
        case 0: { // a reply to the next call, sound but for its bytes
            const auto method = input.Below(6);
            nk_message header{static_cast<std::uint16_t>(input.Below(4)), static_cast<std::uint16_t>(method), 0, {}};
            constexpr std::array<std::uint32_t, 5> sizes{24, 32, NkRecordSize, NkErrorFlag | 32, 31};
            header.size = sizes[input.Below(sizes.size())];
            std::memcpy(slot.reply.record.data(), &header, sizeof header);
            PutBytes(slot.reply.record.data() + sizeof header, NkRecordSize - sizeof header, input);
            slot.reply.word.store(SlotWord(calls + 1, EveryPiece).Raw());
            break;
        }
        case 1:
            slot.reply.word.store(SlotWord(calls + 1, 0).Raw() | input.Number<std::uint32_t>());
            break;
        case 2:
            slot.offers.word.store(OfferWord(calls + static_cast<std::uint32_t>(input.Below(3)),
                                             input.Number<std::uint16_t>(), input.Number<std::uint16_t>())
                                       .Raw());
            slot.offers.offset.store(input.Below(2) == 0 ? sizeof(nk_message) : input.Number<std::uint32_t>());
            break;
        case 3: {
            const auto start = input.Number<std::uint16_t>() % PageSize;
            const auto bytes = input.Bytes(std::min<std::size_t>(input.Number<std::uint8_t>(), PageSize - start));
            std::copy(bytes.begin(), bytes.end(), Page() + start);
            break;
        }
        case 4:
            std::fill_n(Page(), PageSize, input.Number<std::uint8_t>());
            break;
        case 5:
            slot.reply.hint.store(input.Number<std::uint32_t>());
            slot.reply.wake.store(input.Number<std::uint32_t>());
            break;
        case 6:
            Ring(doorbell);
            break;
        case 7: {
            const auto bytes = input.Bytes(input.Number<std::uint8_t>());
            static_cast<void>(::send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
            break;
        }
        case 8:
            ::shutdown(socket.Get(), static_cast<int>(input.Below(3)));
            break;
        default: {
            std::uint64_t count = input.Number<std::uint64_t>();
            static_cast<void>(!::write(doorbell.Get(), &count, sizeof count));
            break;
        }
        }
    }
    static constexpr std::size_t Choices = 10;

private:
    SharedSlot& Slot() const { return region.Slot(); }
    std::uint8_t* Page() const { return reinterpret_cast<std::uint8_t*>(&region.Slot()); }

    /// Some bytes at the front, the others all the same, so that a text may lack its NUL.
    static void PutBytes(std::byte* target, std::size_t size, Input& input) {
        std::fill_n(target, size, static_cast<std::byte>(input.Number<std::uint8_t>()));
        const auto bytes = input.Bytes(std::min<std::size_t>(input.Number<std::uint8_t>(), size));
        std::memcpy(target, bytes.data(), bytes.size());
    }

    void Send(const Answer& answer, std::size_t size, const std::vector<UniqueFd>& passed) const {
        Answer sent = answer;
        iovec content{&sent, size};
        msghdr message{};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(4 * sizeof(int))> control{};
        if (!passed.empty()) {
            message.msg_control = control.data();
            message.msg_controllen = CMSG_SPACE(passed.size() * sizeof(int));
            cmsghdr* const part = CMSG_FIRSTHDR(&message);
            part->cmsg_level = SOL_SOCKET;
            part->cmsg_type = SCM_RIGHTS;
            part->cmsg_len = CMSG_LEN(passed.size() * sizeof(int));
            for (std::size_t i = 0; i < passed.size(); ++i) {
                const int fd = passed[i].Get();
                std::memcpy(CMSG_DATA(part) + i * sizeof fd, &fd, sizeof fd);
            }
        }
        Require(::sendmsg(socket.Get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "an answer is sent");
    }

    UniqueFd socket;
    UniqueFd clientsSocket;
    UniqueFd doorbell;
    UniqueFd file;
    SharedMemoryRegion region;
    std::uint32_t calls = 0; ///< the sequence number of the client's last call
};

/// The client, as a program has it: a transport, and the stubs.
class Client final {
public:
    explicit Client(std::shared_ptr<Connection> joined)
        : connection(std::move(joined)), handle(HandleTable::Instance().Add(std::make_shared<End>(connection))) {
        NkBosTransport_Init(&transport, handle, nullptr, 0);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { HandleTable::Instance().Remove(handle); }

    void Call(std::size_t choice) {
        const std::string untouched = "untouched";
        std::string topic = untouched;
        std::int64_t number = Untouched;
        switch (choice) {
        case 0:
            CheckStatus(br_MessageBusCtl_RegisterPublisher_call(&transport, "topic", number), number);
            break;
        case 1:
            CheckStatus(br_MessageBusCtl_FinishSubs_call(&transport, 1, 1, number), number);
            break;
        case 2:
            Check(br_MessageBusProvider_Push_call(&transport, 1, 2));
            break;
        case 3:
            Check(br_MessageBusCtl_UnregisterSubscriber_call(&transport, 1));
            break;
        default: {
            const auto status = br_MessageBusSubs_Wait_call(&transport, 1, topic, number);
            CheckStatus(status, number);
            Require(status == 0 ? topic.size() <= 1024 && topic.find('\0') == std::string::npos : topic == untouched,
                    "a topic ends within its array, and a failure leaves it alone");
            break;
        }
        }
    }

    void Close() {
        connection->Close();
        isClosed = true;
    }

private:
    static constexpr std::int64_t Untouched = 0x5EED;

    void Check(std::int32_t status) const {
        Require(status <= 0, "a call returns 0 or a failure");
        Require(!isClosed || status == KnStatusClosed, "a closed connection says so");
    }

    void CheckStatus(std::int32_t status, std::int64_t number) const {
        Check(status);
        Require(status == 0 || number == Untouched, "a failure leaves the outputs alone");
    }

    const std::shared_ptr<Connection> connection;
    const KnHandle handle;
    NkBosTransport transport{};
    bool isClosed = false;
};

void Play(Input& input) {
    HostileServer server;
    UniqueFd socket = server.AnswerGreeting(input);
    std::shared_ptr<Connection> connection;
    const auto joined = Connection::Join(std::move(socket), borven_host::SteadyClock::now(), connection);
    Require((joined == KnStatusOk) == (connection != nullptr), "a join succeeds, or there is no connection");
    if (!connection) {
        return;
    }
    Client client(std::move(connection));
    for (std::size_t step = 0; step < MostSteps && !input.IsEmpty(); ++step) {
        const auto choice = input.Below(HostileServer::Choices + 6);
        if (choice == HostileServer::Choices + 5) {
            client.Close();
        } else if (choice >= HostileServer::Choices) {
            server.ExpectCall();
            client.Call(choice - HostileServer::Choices);
            server.NoteCall();
        } else {
            server.Misbehave(choice, input);
        }
    }
}

/// A thread keeps the end that it used last.
void ForgetLastEnd() {
    static const KnHandle other = HandleTable::Instance().Add(std::make_shared<End>(std::shared_ptr<Connection>()));
    End* end = nullptr;
    static_cast<void>(HandleTable::Instance().Find(other, end));
}

/// The kernel hands out the lowest free number.
int LowestFreeDescriptor() {
    return UniqueFd(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)).Get();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::RestartCallsAfterAlarm();
    const int lowest = LowestFreeDescriptor();
    Input input(data, size);
    Play(input);
    ForgetLastEnd();
    Require(LowestFreeDescriptor() == lowest, "no descriptor stays open");
    return 0;
}
