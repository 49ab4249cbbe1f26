#pragma once

#include "recordings/destination.h"
#include "topics/subscription.h"

namespace recordings {

/// Notes what a subscription has missed, each time that it has missed more.
class LossNotes final {
public:
    /// Throws: recording::RecordingError.
    void Update(const topics::Subscription& subscription, IDestination& destination);

    const msgbus::Loss& Noted() const noexcept { return noted; }

private:
    msgbus::Loss noted;
};

} // namespace recordings
