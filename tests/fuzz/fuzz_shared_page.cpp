// Hostile clients that do anything to what they share with the server (the page, the bells, the socket), beside an
// honest one that keeps to the protocol. The honest one's calls must be answered. Of the hostile ones' requests, the
// server serves what passes the filter, byte for byte as it stood in the page when it was claimed; a hostile client
// that has rung is answered or ended. One thread plays all parts, so that a run can be repeated.
//
// Input: a byte that chooses the kind of channel, then the steps that Step reads.

#include "fuzzing.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "records/event_fd.h"
#include "records/shared_memory_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace {

using borven_host::Channel;
using borven_host::LayoutVersion;
using borven_host::MakeBell;
using borven_host::RequestFilter;
using borven_host::Ring;
using borven_host::SharedMemoryEnds;
using borven_host::SharedMemoryRegion;
using borven_host::SharedSlot;
using borven_host::SlotHalf;
using borven_host::SlotWord;
using borven_host::UniqueFd;
using fuzzing::Input;
using fuzzing::Require;

using Record = std::array<std::byte, NkRecordSize>;

constexpr RequestFilter Filter{2, 3};
constexpr std::size_t MostHostile = 3;
constexpr std::size_t MostSteps = 400;
constexpr std::size_t PageSize = 4096;

nk_message& HeaderOf(Record& record) {
    return *reinterpret_cast<nk_message*>(record.data());
}

/// The record in `half`, assembled piece by piece.
Record Assembled(const SlotHalf& half, std::uint32_t pieces) {
    Record record{};
    for (std::size_t piece = 0; piece < SlotHalf::PieceCount; ++piece) {
        if ((pieces >> piece & 1) != 0) {
            std::copy(half.record.begin() + static_cast<std::ptrdiff_t>(SlotHalf::PieceStart(piece)),
                      half.record.begin() + static_cast<std::ptrdiff_t>(SlotHalf::PieceEnd(piece)),
                      record.begin() + static_cast<std::ptrdiff_t>(SlotHalf::PieceStart(piece)));
        }
    }
    return record;
}

/// A client's ends, and what they show.
class Client final {
public:
    explicit Client(Channel& joined) {
        std::array<int, 2> pair{};
        Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) == 0,
                "socketpair");
        UniqueFd serverSocket(pair[0]);
        socket = UniqueFd(pair[1]);
        SharedMemoryEnds ends;
        UniqueFd file;
        Require(SharedMemoryRegion::Create(LayoutVersion, ends.region, file) == KnStatusOk, "a region is made");
        ends.bell = MakeBell();
        ends.doorbell = MakeBell();
        region = ends.region;
        bell = UniqueFd(::fcntl(ends.bell.Get(), F_DUPFD_CLOEXEC, 0));
        doorbell = UniqueFd(::fcntl(ends.doorbell.Get(), F_DUPFD_CLOEXEC, 0));
        Require(joined.AddClient(std::move(serverSocket), std::move(ends), Filter, &id) == KnStatusOk, "it joins");
    }

    SharedSlot& Slot() const { return region.Slot(); }
    SlotWord RequestWord() const { return SlotWord(Slot().request.word.load()); }
    SlotWord ReplyWord() const { return SlotWord(Slot().reply.word.load()); }
    Record Request() const { return Assembled(Slot().request, RequestWord().Pieces()); }
    Record Response() const { return Assembled(Slot().reply, ReplyWord().Pieces()); }

    /// Returns: whether either side has ended it, so that the housekeeper would notice.
    bool HasEnded() const {
        pollfd watched{socket.Get(), POLLRDHUP, 0};
        return hasLeft || ::poll(&watched, 1, 0) == 1;
    }

    /// Puts a value that no server writes in place of the reply's word, so that the next write is seen.
    void ForgetReply() const { Slot().reply.word.store(NoReply); }
    bool HasReply() const { return Slot().reply.word.load() != NoReply; }

    /// Returns: whether the server owes it nothing.
    bool IsSettled() const { return RequestWord().Sequence() == answered || HasEnded(); }

    /// Rings, whatever state the bell is in.
    void RingSurely() const {
        std::uint64_t count = 0;
        ::fcntl(bell.Get(), F_SETFL, O_NONBLOCK);
        static_cast<void>(!::read(bell.Get(), &count, sizeof count));
        count = 1;
        Require(::write(bell.Get(), &count, sizeof count) == sizeof count, "an emptied bell rings");
    }

    std::uint64_t id = 0;
    UniqueFd socket;
    UniqueFd bell;
    UniqueFd doorbell;
    std::uint32_t answered = 0; ///< the sequence number of the last request that was answered
    bool hasLeft = false;
    bool wasRemoved = false;

private:
    static constexpr std::uint64_t NoReply = 1U << 20; ///< a bit that has no meaning

    SharedMemoryRegion region;
};

class Scene final {
public:
    explicit Scene(Channel::DeadClient deadClient) : reaction(deadClient), channel(deadClient) { Join(); }

    void Play(Input& input) {
        for (std::size_t step = 0; step < MostSteps && !input.IsEmpty(); ++step) {
            Step(input);
        }
        Input nothing(nullptr, 0);
        for (const auto& client : hostile) {
            if (!client->wasRemoved) {
                client->RingSurely();
            }
        }
        // Each of the calls lets the server look at least once, and it asks the kernel every 64 looks.
        constexpr int enough = 500;
        for (int i = 0; i < enough && !AllSettled(); ++i) {
            Call(nothing);
        }
        Require(AllSettled(), "a client that has rung is answered or ended");
        Call(nothing);
        channel.Close();
        Record request{};
        HeaderOf(request).size = NkRecordSize;
        Require(channel.Receive(&HeaderOf(request)) == KnStatusClosed, "a closed channel delivers nothing");
    }

private:
    void Join() { hostile.push_back(std::make_unique<Client>(channel)); }

    bool AllSettled() const {
        return std::all_of(hostile.begin(), hostile.end(),
                           [](const auto& client) { return client->wasRemoved || client->IsSettled(); });
    }

    void Step(Input& input) {
        const auto choice = input.Below(16);
        if (choice == 0) {
            Call(input);
        } else if (choice == 1 && hostile.size() < MostHostile) {
            Join();
        } else {
            Misbehave(*hostile[input.Below(hostile.size())], choice, input);
        }
    }

    /// One step of a client that ignores the protocol.
    void Misbehave(Client& client, std::size_t choice, Input& input) {
        SharedSlot& slot = client.Slot();
        auto* const page = reinterpret_cast<std::uint8_t*>(&slot);
        switch (choice) {
        case 2: // by the protocol, with any record
            slot.request.word.store(SlotWord(client.answered + 1, input.Number<std::uint32_t>()).Raw());
            Ring(client.bell);
            break;
        case 3: {
            Record record{};
            const auto wrongInterface = input.Number<std::uint8_t>();
            const auto method = input.Number<std::uint8_t>();
            const auto wrongSize = std::uint32_t{input.Number<std::uint8_t>()} << input.Below(32);
            HeaderOf(record) = {static_cast<std::uint16_t>(*Filter.onlyInterface ^ wrongInterface),
                                method,
                                std::uint32_t{NkRecordSize} ^ wrongSize,
                                {}};
            const auto body = input.Bytes(64);
            std::memcpy(record.data() + sizeof(nk_message), body.data(), body.size());
            const auto pieces = slot.request.Put(record.data(), record.size());
            slot.request.word.store(SlotWord(client.answered + 1, pieces).Raw());
            Ring(client.bell);
            break;
        }
        case 4:
            slot.request.word.store(input.Number<std::uint64_t>());
            break;
        case 5:
            slot.request.hint.store(input.Number<std::uint32_t>());
            break;
        case 6: {
            const auto start = input.Number<std::uint16_t>() % PageSize;
            const auto bytes = input.Bytes(std::min<std::size_t>(input.Number<std::uint8_t>(), PageSize - start));
            std::copy(bytes.begin(), bytes.end(), page + start);
            break;
        }
        case 7:
            std::fill_n(page, PageSize, input.Number<std::uint8_t>());
            break;
        case 8: {
            const auto count = input.Number<std::uint64_t>();
            ::fcntl(client.bell.Get(), F_SETFL, O_NONBLOCK);
            static_cast<void>(!::write(client.bell.Get(), &count, sizeof count));
            break;
        }
        case 9: {
            std::uint64_t count = 0;
            ::fcntl(client.doorbell.Get(), F_SETFL, O_NONBLOCK);
            static_cast<void>(!::read(client.doorbell.Get(), &count, sizeof count));
            count = input.Number<std::uint64_t>();
            static_cast<void>(!::write(client.doorbell.Get(), &count, sizeof count));
            break;
        }
        case 10: {
            const int flags = input.Below(2) == 0 ? 0 : O_NONBLOCK;
            ::fcntl(client.bell.Get(), F_SETFL, flags);
            ::fcntl(client.doorbell.Get(), F_SETFL, flags);
            break;
        }
        case 11: {
            const auto bytes = input.Bytes(input.Number<std::uint8_t>());
            static_cast<void>(::send(client.socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
            break;
        }
        case 12: {
            const int half = static_cast<int>(input.Below(3));
            ::shutdown(client.socket.Get(), half);
            client.hasLeft = client.hasLeft || half != SHUT_RD;
            break;
        }
        case 13: // the housekeeper's step: at any time after the end
            if (client.HasEnded() && !client.wasRemoved) {
                channel.RemoveClient(client.id);
                client.wasRemoved = true;
            }
            break;
        case 14:
            for (auto rings = input.Below(80); rings > 0; --rings) {
                Ring(client.bell);
            }
            break;
        default:
            Ring(client.bell);
            break;
        }
    }

    /// A call of the client that keeps to the protocol.
    void Call(Input& input) {
        Record request{};
        HeaderOf(request) = {*Filter.onlyInterface, 1, NkRecordSize, {}};
        const std::uint64_t value = ++calls;
        std::memcpy(request.data() + sizeof(nk_message), &value, sizeof value);
        auto& slot = honest.Slot();
        const std::uint32_t sequence = honest.answered + 1;
        slot.request.word.store(SlotWord(sequence, slot.request.Put(request.data(), request.size())).Raw());
        Ring(honest.bell);
        while (honest.ReplyWord().Sequence() != sequence) {
            ServeOne(input);
        }
        Require(honest.ReplyWord().Status() == KnStatusOk, "a good call is served");
    }

    void ServeOne(Input& input) {
        honest.ForgetReply();
        for (const auto& client : hostile) {
            client->ForgetReply();
        }
        Record request{};
        HeaderOf(request).size = NkRecordSize;
        Require(channel.Receive(&HeaderOf(request)) == KnStatusOk, "there is a request");
        Require(NkGetSize(HeaderOf(request)) == NkRecordSize && !NkIsError(HeaderOf(request)) &&
                    HeaderOf(request).iid == *Filter.onlyInterface && HeaderOf(request).mid < *Filter.methodCount,
                "what is received has passed the filter");
        Require(!honest.HasReply(), "a good call is not refused");

        struct Sight {
            Client* client;
            SlotWord word;
            bool isTheirs;
        };
        std::vector<Sight> sights{{&honest, honest.RequestWord(), honest.Request() == request}};
        for (const auto& client : hostile) {
            if (client->HasReply()) {
                Require(client->ReplyWord().Status() != KnStatusOk, "without a receiver there are only refusals");
                Require(client->ReplyWord().Sequence() == client->answered + 1, "only the next request is claimed");
                client->answered = client->ReplyWord().Sequence();
            }
            sights.push_back({client.get(), client->RequestWord(), client->Request() == request});
        }
        // A chance to misbehave between the claim of a request and its reply.
        if (input.Below(4) == 1) {
            Misbehave(*hostile[input.Below(hostile.size())], input.Below(16), input);
        }
        for (const auto& client : hostile) {
            client->ForgetReply();
        }

        Record response{};
        for (std::size_t i = 0; i < response.size(); ++i) {
            response[i] = static_cast<std::byte>(i * 7 + calls);
        }
        const auto size = input.IsEmpty() ? NkRecordSize : input.Number<std::uint16_t>();
        HeaderOf(response).size = static_cast<std::uint32_t>(size);
        const auto replied = channel.Reply(&HeaderOf(response));
        Require(replied == KnStatusOk ||
                    (replied == KnStatusPeerGone && reaction == Channel::DeadClient::ReplyReportsIt),
                "a reply has one of its outcomes");
        const auto used = std::clamp<std::size_t>(size, sizeof(nk_message), NkRecordSize);
        std::fill(response.begin() + static_cast<std::ptrdiff_t>(used), response.end(), std::byte{0});

        std::size_t answered = 0;
        for (auto& [client, word, isTheirs] : sights) {
            if (!client->HasReply()) {
                continue;
            }
            ++answered;
            Require(isTheirs, "a request is received as it stood in the page");
            Require(client->ReplyWord().Sequence() == word.Sequence(),
                    "the reply carries the sequence number of its request");
            Require(client->ReplyWord().Status() == KnStatusOk && client->Response() == response,
                    "the reply arrives, with zeros behind its size");
            Require(word.Sequence() == client->answered + 1, "only the next request is claimed");
            client->answered = word.Sequence();
        }
        Require(answered <= 1, "one reply goes to one client");
        Require(!(replied == KnStatusPeerGone && answered == 1), "a client that is gone is not answered");
    }

    const Channel::DeadClient reaction;
    Channel channel;
    Client honest{channel};
    std::vector<std::unique_ptr<Client>> hostile;
    std::uint64_t calls = 0;
};

/// The kernel hands out the lowest free number.
int LowestFreeDescriptor() {
    return UniqueFd(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)).Get();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::RestartCallsAfterAlarm();
    const int lowest = LowestFreeDescriptor();
    {
        Input input(data, size);
        Scene scene(input.Below(2) == 0 ? Channel::DeadClient::ReplyReportsIt : Channel::DeadClient::ReplyAnswersOk);
        scene.Play(input);
    }
    Require(LowestFreeDescriptor() == lowest, "no descriptor stays open");
    return 0;
}
