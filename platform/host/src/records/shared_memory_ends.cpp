#include "records/shared_memory_ends.h"

#include "kn/status.h"
#include "names/handshake.h"
#include "records/event_fd.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

namespace borven_host {

namespace {

constexpr std::size_t PassedDescriptors = 3;

/// Receives one message and its descriptors. Returns: its length; 0 when no message will come.
std::size_t ReceiveWithDescriptors(int socket, void* buffer, std::size_t size, std::vector<UniqueFd>& descriptors) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * PassedDescriptors)> control{};
    iovec content{buffer, size};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t length = -1;
    while ((length = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC)) < 0) {
        // ECONNRESET: the server closed its end with our greeting unread. The kernel reports that once, before an
        // answer that the server sent earlier.
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

} // namespace

std::int32_t SendEnds(int socket, const UniqueFd& file, const SharedMemoryEnds& ends) noexcept {
    Answer answer = MakeAnswer(KnStatusOk);
    const std::array<int, PassedDescriptors> descriptors{file.Get(), ends.bell.Get(), ends.doorbell.Get()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
    iovec content{&answer, sizeof answer};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof descriptors);
    std::memcpy(CMSG_DATA(part), descriptors.data(), sizeof descriptors);
    if (::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof answer) {
        return KnStatusOk;
    }
    return errno == EPIPE || errno == ECONNRESET || errno == EAGAIN ? KnStatusPeerGone : KnStatusNoResources;
}

std::int32_t ReceiveEnds(int socket, SharedMemoryEnds& ends) {
    Answer answer{};
    std::vector<UniqueFd> descriptors;
    const std::size_t length = ReceiveWithDescriptors(socket, &answer, sizeof answer, descriptors);
    if (length == 0) {
        return KnStatusClosed;
    }
    if (length != sizeof answer || !IsValid(answer)) {
        return KnStatusDenied;
    }
    if (answer.status != KnStatusOk) {
        return answer.status;
    }
    if (descriptors.size() != PassedDescriptors) {
        return KnStatusNoResources; // this process has no room for them
    }
    if (!IsBell(descriptors[1]) || !IsBell(descriptors[2])) {
        return KnStatusDenied;
    }
    if (const auto status = SharedMemoryRegion::Open(descriptors[0], ends.region); status != KnStatusOk) {
        return status;
    }
    ends.bell = std::move(descriptors[1]);
    ends.doorbell = std::move(descriptors[2]);
    return KnStatusOk;
}

} // namespace borven_host
