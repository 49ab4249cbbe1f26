#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "names/named_socket.h"
#include "names/peer.h"
#include "records/channel.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace borven_host {

/// Who comes to the server ends of this process, who stays and who has died.
///
/// A visitor is in one of these stages. The housekeeper's thread moves it on, except where another is named.
///
///     Greeting -> Joined                          greeted a static connection
///     Greeting -> Asking -> Announced -> Joined   greeted a service; KnCmListen announces it, KnCmAccept joins it
///
/// Its death, seen on its socket or its process, ends every stage: nobody hears of an Asking visitor that died; an
/// Announced one becomes Left, so that KnCmAccept can tell; a Joined one is removed from its channel. A visitor that
/// does not greet in time is sent away. One that nobody accepts ends its own wait by going away.
///
/// A thread serves this while the process has server ends, and no longer. Receivers neither accept nor reap.
class Housekeeper final {
public:
    static constexpr std::size_t maxGreeting = 64;          ///< past it, the one that hesitates longest goes
    static constexpr std::size_t maxAskingPerService = 256; ///< not yet accepted
    static constexpr std::size_t maxAskingPerProcess = 64;  ///< so that one process cannot use up a service's share
    static constexpr std::chrono::seconds greetingTime{10}; ///< from connecting to the greeting
    static constexpr std::chrono::seconds leftTime{30};     ///< for which KnCmAccept knows who died
    static constexpr unsigned descriptorReserve = 32;       ///< kept for the server's own use

    /// Never destroyed: threads may come here until the process is gone.
    static Housekeeper& Instance();

    /// Lets everybody who connects to the static connection `name` join `channel`.
    /// Returns: 0 or what NamedSocket::Create returns.
    std::int32_t Offer(std::string_view name, std::shared_ptr<Channel> channel);

    /// Returns: 0 or what NamedSocket::Create returns.
    std::int32_t Publish(std::string_view service, std::string_view type);

    /// See KnCmListen; the buffers are KnCmNameSize bytes.
    std::int32_t Listen(std::optional<std::string_view> task, Deadline deadline, char* clientName, char* serviceName);

    /// See KnCmAccept. With no channel, `refusal` goes to the client and to the caller.
    std::int32_t Accept(std::string_view clientName, std::string_view service, std::uint16_t iid,
                        const std::shared_ptr<Channel>& channel, std::int32_t refusal);

    /// Gives up the channel's name, if it has one, and closes it.
    void Close(const std::shared_ptr<Channel>& channel);

    /// The same for all `channels`, and for every published service; every KnCmListen returns.
    void CloseAll(const std::vector<std::shared_ptr<Channel>>& channels);

private:
    enum class Stage { Greeting, Asking, Announced, Left, Joined };

    struct Listener {
        std::unique_ptr<NamedSocket> socket;
        std::shared_ptr<Channel> channel; ///< null for a service
        std::string service;
        std::string type;
    };

    struct Visitor {
        Stage stage = Stage::Greeting;
        std::uint64_t listenerId = 0;
        Peer peer;
        UniqueFd socket;  ///< empty when Left, and when Joined: then it is the channel's
        int watched = -1; ///< the number of the socket
        Deadline deadline = Deadline::max();
        std::string task;
        std::string name;
        std::shared_ptr<Channel> channel;
        std::uint64_t clientId = 0;
    };

    using Visitors = std::unordered_map<std::uint64_t, Visitor>;

    Housekeeper();

    void Add(Listener listener);
    void Start();
    void StopWhenIdle();
    void LeaveToParent();
    void Run();
    void Handle(std::uint64_t eventData, std::uint32_t events);
    void Admit(std::uint64_t listenerId, int listening);
    void TurnAway(int listening);
    void ArmListeners(std::uint32_t events);
    void PauseAdmission();
    void Welcome(std::uint64_t listenerId, UniqueFd socket);
    void ReadGreeting(Visitors::iterator visitor);
    void Ask(Visitors::iterator visitor, const Listener& listener);
    std::int32_t Join(Visitors::iterator visitor, const std::shared_ptr<Channel>& channel, const RequestFilter& filter);
    void SeeLeaving(Visitors::iterator visitor);
    void Refuse(Visitors::iterator visitor, std::int32_t status);
    void Forget(Visitors::iterator visitor);
    void CloseNow(Channel& channel);
    void Unwatch(const Visitor& visitor) noexcept;
    bool Watch(int fd, std::uint32_t events, std::uint64_t eventData, int operation) noexcept;
    int NextTimeout() const;
    void Expire();

    std::mutex lifeMutex; ///< held while the thread is started or stopped; taken before `mutex`
    std::thread thread;   ///< guarded by lifeMutex

    std::mutex mutex; ///< guards everything below
    std::condition_variable asked;
    UniqueFd poller;
    UniqueFd wake;
    UniqueFd reserve; ///< given up for a moment to answer a client when there is no other descriptor
    bool isStopping = false;
    std::uint64_t lastId = 0;
    std::unordered_map<std::uint64_t, Listener> listeners;
    Visitors visitors;
    std::deque<std::uint64_t> greeting; ///< ids, oldest first; may name visitors that have moved on
    std::deque<std::uint64_t> asking;   ///< ids in the stages Asking, Announced and Left, oldest first
    bool isClosed = false;              ///< by CloseAll, until something is published again
    std::uint64_t closings = 0;
    std::optional<Deadline> admissionPausedUntil;
    std::chrono::milliseconds nextPause{0};
};

} // namespace borven_host
