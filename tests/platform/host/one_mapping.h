#pragma once

#include "kn/status.h"
#include "names/handshake.h"
#include "records/event_fd.h"
#include "records/shared_memory_channel.h"
#include "records/shared_memory_connection.h"
#include "support.h"

#include <fcntl.h>
#include <sys/socket.h>

// Both ends of a channel in one process and over one mapping, so that a thread sanitizer sees both sides.

namespace platform_test {

/// A client of a channel in the same process.
struct Client {
    std::shared_ptr<borven_host::Connection> connection;
    std::uint64_t id = 0;
};

inline borven_host::UniqueFd Duplicate(const borven_host::UniqueFd& fd) {
    return borven_host::UniqueFd(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, 3));
}

/// Joins a client whose page is mapped once, for both sides.
inline Client JoinOverOneMapping(borven_host::Channel& channel, const borven_host::RequestFilter& filter = {}) {
    std::array<int, 2> pair{};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()));
    borven_host::UniqueFd serverSocket(pair[0]);
    borven_host::SharedMemoryEnds ends;
    borven_host::UniqueFd file;
    EXPECT_EQ(KnStatusOk, borven_host::SharedMemoryRegion::Create(borven_host::LayoutVersion, ends.region, file));
    ends.bell = borven_host::MakeBell();
    ends.doorbell = borven_host::MakeBell();
    borven_host::SharedMemoryEnds other{ends.region, Duplicate(ends.bell), Duplicate(ends.doorbell)};
    Client joined;
    joined.connection = std::make_shared<borven_host::Connection>(
        borven_host::UniqueFd(pair[1]), std::make_shared<const borven_host::UniqueFd>(), std::move(other));
    EXPECT_EQ(KnStatusOk, channel.AddClient(std::move(serverSocket), std::move(ends), filter, &joined.id));
    return joined;
}

inline std::int32_t ReceiveFrom(borven_host::Channel& channel, Record& request) {
    NkSetSize(request.header, NkRecordSize);
    return channel.Receive(&request.header);
}

inline std::int32_t EchoTo(borven_host::Channel& channel, const Record& request) {
    Record response = request;
    response.SetValue(request.Value() + 1);
    return channel.Reply(&response.header);
}

inline std::int32_t CallOn(borven_host::Connection& connection, std::int64_t value, std::int64_t* returned = nullptr) {
    const Record request = RequestOf(value);
    Record response;
    const auto status = connection.Call(&request.header, &response.header);
    if (returned != nullptr) {
        *returned = response.Value();
    }
    return status;
}

} // namespace platform_test
