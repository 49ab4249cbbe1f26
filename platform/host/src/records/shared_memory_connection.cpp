#include "records/shared_memory_connection.h"

#include "kn/status.h"
#include "names/handshake.h"
#include "names/peer.h"
#include "records/event_fd.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <vector>

namespace borven_host {

namespace {

/// How long a call spins for its reply when the server is awake. A sleep costs the caller about as much.
constexpr std::chrono::microseconds spinLimit{20};

constexpr std::size_t passedDescriptors = 3;

constexpr std::uint64_t doorbellData = 0;
constexpr std::uint64_t serverData = 1; ///< its socket or its process

/// Blocks until `socket` can be read or `process` is gone. Returns: false when the deadline came first.
bool Await(int socket, int process, Deadline deadline) noexcept {
    std::array<pollfd, 2> waited{pollfd{socket, POLLIN, 0}, pollfd{process, POLLIN, 0}};
    while (true) {
        const int count = ::poll(waited.data(), waited.size(), PollTimeout(deadline));
        if (count > 0) {
            return true;
        }
        if (count == 0 && SteadyClock::now() >= deadline) {
            return false;
        }
    }
}

/// Receives one message with the descriptors that came along. Returns: its length; 0 when there will be none.
std::size_t Take(int socket, void* buffer, std::size_t size, std::vector<UniqueFd>& descriptors) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * passedDescriptors)> control{};
    iovec content{buffer, size};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t length = -1;
    while ((length = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC)) < 0) {
        // A server that closed without reading what we sent: the kernel says so once, before the answer that it left.
        if (errno != EINTR && errno != ECONNRESET) {
            return 0;
        }
    }
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
            for (std::size_t i = 0; i < (part->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                int descriptor = -1;
                std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof descriptor, sizeof descriptor);
                descriptors.emplace_back(descriptor);
            }
        }
    }
    return static_cast<std::size_t>(length);
}

UniqueFd MakePoller(const UniqueFd& doorbell, const UniqueFd& socket, const UniqueFd& process) {
    UniqueFd poller(::epoll_create1(EPOLL_CLOEXEC));
    if (!poller || !Watch(poller, doorbell.Get(), EPOLLIN | EPOLLET, doorbellData) ||
        !Watch(poller, socket.Get(), EPOLLIN | EPOLLRDHUP, serverData) ||
        (process && !Watch(poller, process.Get(), EPOLLIN, serverData))) {
        throw std::system_error(errno, std::generic_category());
    }
    return poller;
}

} // namespace

std::int32_t Connection::Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection) {
    Peer server;
    if (const auto status = IdentifyPeer(socket.Get(), server); status != KnStatusOk) {
        return status == KnStatusPeerGone ? KnStatusClosed : status;
    }
    if (!Await(socket.Get(), server.process.Get(), deadline)) {
        return KnStatusTimedOut;
    }
    Answer answer{};
    std::vector<UniqueFd> descriptors;
    const std::size_t length = Take(socket.Get(), &answer, sizeof answer, descriptors);
    if (length == 0) {
        return KnStatusClosed;
    }
    if (length != sizeof answer || !IsValid(answer)) {
        return KnStatusDenied;
    }
    if (answer.status != KnStatusOk) {
        return answer.status;
    }
    if (descriptors.size() != passedDescriptors) {
        return KnStatusNoResources; // this process has no room for them
    }
    SharedMemoryEnds ends;
    if (const auto status = SharedMemoryRegion::Open(descriptors[0], ends.region); status != KnStatusOk) {
        return status;
    }
    ends.bell = std::move(descriptors[1]);
    ends.doorbell = std::move(descriptors[2]);
    try {
        connection = std::make_shared<Connection>(std::move(socket), std::move(server.process), std::move(ends));
    } catch (const std::system_error&) {
        return KnStatusNoResources;
    }
    return KnStatusOk;
}

Connection::Connection(UniqueFd connected, UniqueFd process, SharedMemoryEnds ends)
    : socket(std::move(connected)), serverProcess(std::move(process)), shared(std::move(ends)),
      poller(MakePoller(shared.doorbell, socket, serverProcess)) {}

std::int32_t Connection::Call(const nk_message* request, nk_message* response) noexcept {
    const std::lock_guard lock(callMutex);
    if (isClosed.load(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    SharedSlot& slot = shared.region.Slot();
    const std::uint32_t pieces = slot.request.Put(request, NkRecordSize);
    // Published, then looked whether somebody looks: a receiver that stops looking does it the other way round.
    slot.request.word.store(SlotWord(++sequence, pieces).Raw(), std::memory_order_seq_cst);
    bool hasRung = slot.reply.hint.load(std::memory_order_seq_cst) == 0;
    SlotWord reply;
    bool isAnswered = false;
    if (hasRung) {
        Ring(shared.bell);
        isAnswered = HasReply(reply); // on a shared CPU the server may have come first
    } else if (auto& learner = learners[(request->iid * 5U + request->mid) % learnerCount]; learner.IsWorthwhile()) {
        isAnswered = SpinUntil(spinLimit, learner, [&] { return HasReply(reply); });
        isAnswered ? learner.Succeeded() : learner.Failed();
    }
    if (!isAnswered) {
        // The hint may be old. So nobody sleeps who has not rung.
        if (!hasRung) {
            Ring(shared.bell);
        }
        if (!Sleep(reply)) {
            Close();
            return KnStatusClosed;
        }
    }
    if (reply.Status() != KnStatusOk) {
        return reply.Status();
    }
    slot.reply.Get(response, reply.Pieces());
    return KnStatusOk;
}

bool Connection::HasReply(SlotWord& reply) const noexcept {
    reply = SlotWord(shared.region.Slot().reply.word.load(std::memory_order_seq_cst));
    return reply.Sequence() == sequence;
}

/// Returns: false when the server is gone, or this end was closed, before the reply.
bool Connection::Sleep(SlotWord& reply) noexcept {
    // Said, then looked; the server replies, then looks. A hint of an earlier call says nothing, so none is taken back.
    shared.region.Slot().request.hint.store(sequence, std::memory_order_seq_cst);
    while (!HasReply(reply)) {
        std::array<epoll_event, 2> events{};
        const int count = ::epoll_wait(poller.Get(), events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            if (events[static_cast<std::size_t>(i)].data.u64 == serverData) {
                return HasReply(reply);
            }
        }
    }
    return true;
}

void Connection::Close() noexcept {
    isClosed.store(true, std::memory_order_release);
    ::shutdown(socket.Get(), SHUT_RDWR);
}

} // namespace borven_host
