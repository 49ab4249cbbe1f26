#include "look_loop.h"

#include <poll.h>

#include <algorithm>

namespace look {

bool Pause(const EndWatch& watch, std::chrono::milliseconds time) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + time;
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
        constexpr std::chrono::milliseconds::rep longest = 60'000;
        pollfd ended{watch.Descriptor(), POLLIN, 0};
        const int ready = ::poll(&ended, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, longest)));
        if (ready > 0) {
            return false;
        }
        if (steady_clock::now() >= deadline) {
            return true;
        }
    }
}

ExitStatus StatusOf(const EndWatch& watch) {
    return watch.WhyEnded() == EndWatch::Cause::TimeLimit ? ExitStatus::TimedOut : ExitStatus::Done;
}

bool HasEnded(const instruments::ServerAccount& server) {
    return !server.isAlive || server.state == instruments::ServerState::Stopped;
}

} // namespace look
