#pragma once

#include "backend.h"

namespace msgbus {

/// The bus of a running server, found by `route`.
class ServerBackend final : public Backend {
public:
    /// Throws: std::invalid_argument when BORVEN_BUS names no mode.
    explicit ServerBackend(Route wanted);

    PublisherLinks ConnectPublisher(std::chrono::milliseconds timeout) override;
    SubscriberLinks ConnectSubscriber(std::chrono::milliseconds timeout) override;
    void Declare(const std::string& topic, const std::string& description) noexcept override;

private:
    const Route route;
};

} // namespace msgbus
