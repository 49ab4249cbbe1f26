#pragma once

#include "deadline.h"
#include "nk/message.h"
#include "screening.h"
#include "unique_fd.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace borven_host {

// A channel over SOCK_SEQPACKET sockets: one per client, all in one epoll instance.
//
// A client's socket is armed for one event. The receiver that gets it owns the client until it has replied (or has
// answered on the platform's behalf), and arms it again; so each request goes to exactly one thread, a client has one
// request under way, and what it sends too early waits in its own socket.
//
// Receivers never end a client. A client that is to go has its socket shut down; the housekeeper notices, as it notices
// death, and calls RemoveClient. The descriptor closes when nobody uses the client any more.

/// Server end of a channel.
class Channel final {
public:
    enum class DeadClient { ReplyReportsIt, ReplyAnswersOk };

    static constexpr std::size_t maxClients =
        1024; ///< each costs two descriptors and a worker of the bus while it waits

    explicit Channel(DeadClient deadClient);
    ~Channel();

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Joins a client whose credentials were checked, over its connected socket, and tells it so. The socket is taken
    /// on success only, and stays open at least until RemoveClient or Close: the housekeeper watches it by its number.
    ///
    /// Returns: 0 and `*clientId`; KnStatusClosed; KnStatusBusy; KnStatusNoResources; KnStatusPeerGone. Blocks: never.
    /// Threads: any.
    std::int32_t AddClient(UniqueFd&& socket, const Screening& screening, std::uint64_t* clientId);

    /// The client is dead, or was shut down. Idempotent. Threads: any.
    void RemoveClient(std::uint64_t clientId) noexcept;

    /// See nk/transport.h.
    std::int32_t Receive(nk_message* request) noexcept;
    std::int32_t Reply(const nk_message* response) noexcept;

    /// Wakes all receivers and ends all clients. Idempotent. Threads: any.
    void Close() noexcept;

    std::size_t ClientCount() const noexcept;

private:
    struct Client;
    struct State;
    friend struct Owed;

    const std::shared_ptr<State> state;
};

/// Client end of a channel.
class Connection final {
public:
    /// Waits for the server's answer on `socket`, which is connected to a server whose credentials were checked.
    ///
    /// Returns: 0 and `connection`; the status that the server refused with; KnStatusClosed; KnStatusTimedOut;
    /// KnStatusNoResources.
    static std::int32_t Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection);

    /// See nk/transport.h.
    std::int32_t Call(const nk_message* request, nk_message* response) noexcept;

    /// Ends a call that is under way. Idempotent. Threads: any.
    void Close() noexcept;

private:
    Connection(UniqueFd connected, UniqueFd server) : socket(std::move(connected)), serverProcess(std::move(server)) {}

    const UniqueFd socket;
    const UniqueFd serverProcess;
    std::atomic<bool> isClosed{false};
    std::mutex callMutex; ///< held for the length of a call: calls take turns
};

} // namespace borven_host
