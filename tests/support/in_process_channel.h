#pragma once

#include "nk/message.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace test_support {

/// One request on its way through a channel. Guarded by the channel's mutex.
struct Exchange {
    std::array<std::uint8_t, NkRecordSize> request{};
    std::array<std::uint8_t, NkRecordSize> response{};
    bool isFinished = false;
    bool isCallerGone = false;
    std::int32_t status = 0;
};

/// What a connection may ask.
struct ConnectionLimits {
    std::optional<std::uint16_t> onlyInterface;
    std::optional<std::uint32_t> methodCount;
};

/// Server end of a channel.
class InProcessChannel final : public std::enable_shared_from_this<InProcessChannel> {
public:
    enum class DeadClient { ReplyReportsIt, ReplyAnswersOk };

    explicit InProcessChannel(DeadClient deadClientPolicy) : deadClient(deadClientPolicy) {}

    std::int32_t Receive(nk_message* request);
    std::int32_t Reply(const nk_message* response);
    void StopReceiving();
    void Close();

    /// Finishes an exchange that its thread gives up.
    void Abandon(Exchange& exchange);

private:
    friend class InProcessConnection;

    const DeadClient deadClient;
    std::mutex mutex; // guards all below, and the connections of this channel
    std::condition_variable changed;
    bool isReceiving = true;
    bool isClosed = false;
    std::deque<std::shared_ptr<Exchange>> waiting;
};

/// Client end.
class InProcessConnection final {
public:
    InProcessConnection(std::shared_ptr<InProcessChannel> serverEnd, ConnectionLimits connectionLimits)
        : channel(std::move(serverEnd)), limits(connectionLimits) {}

    std::int32_t Call(const nk_message* request, nk_message* response);
    void Close();

private:
    const std::shared_ptr<InProcessChannel> channel;
    const ConnectionLimits limits;
    bool isClosed = false;             // guarded by the channel's mutex
    std::shared_ptr<Exchange> current; // guarded by the channel's mutex
};

} // namespace test_support
