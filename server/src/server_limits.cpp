#include "server_limits.h"

#include <array>
#include <limits>

namespace msgbus_server {

namespace {

constexpr std::size_t Most = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t MostConnections = 2048; // see KnPolicySetConnectionLimits

constexpr std::array Names{
    LimitName{"connections-per-process", &Limits::connectionsPerProcess, MostConnections,
              "connections of one process to one service; a further one is refused as busy"},
    LimitName{"connections", &Limits::connections, MostConnections,
              "connections to one service; the last sixteenth is for processes with fewer than 16"},
    LimitName{"publishers-per-process", &Limits::publishersPerProcess, Most,
              "publishers of one process; a further one gets code 3"},
    LimitName{"publishers", &Limits::publishers, Most, "publishers; a further one gets code 3"},
    LimitName{"subscribers-per-process", &Limits::subscribersPerProcess, Most,
              "subscribers of one process; a further one gets code 3"},
    LimitName{"subscribers", &Limits::subscribers, Most, "subscribers; a further one gets code 3"},
    LimitName{"handshakes-per-process", &Limits::handshakesPerProcess, Most,
              "unfinished registrations of subscribers of one process; a further one gets code 4"},
    LimitName{"handshakes", &Limits::handshakes, Most,
              "unfinished registrations of subscribers; a further one gets code 4"},
    LimitName{"handshake-seconds", &Limits::handshakeSeconds, Most,
              "time to finish the registration of a subscriber, which is cancelled then"},
    LimitName{"name-bytes-per-process", &Limits::nameBytesPerProcess, Most,
              "bytes of the topics and names of one process; more get code 7"},
    LimitName{"name-bytes", &Limits::nameBytes, Most, "bytes of topics and names; more get code 7"},
    LimitName{"queued-values", &Limits::queuedValuesPerSubscriber, Most,
              "unread values of one subscriber; then it is cut, or what --slow-subscriber says"},
    LimitName{"queued-bytes", &Limits::queuedBytesPerSubscriber, Most,
              "memory for the unread values of one subscriber; the same then"},
    LimitName{"queued-bytes-per-process", &Limits::queuedBytesPerProcess, Most,
              "memory for the unread values of one process; its largest queue is cut then"},
    LimitName{"queued-bytes-total", &Limits::queuedBytes, Most,
              "memory for all unread values; the largest queue is cut then"},
};

} // namespace

std::span<const LimitName> LimitNames() {
    return Names;
}

} // namespace msgbus_server
