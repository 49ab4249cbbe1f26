#include "server_limits.h"

#include <array>
#include <limits>

namespace msgbus_server {

namespace {

constexpr std::size_t Most = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t LeastConnections = 4;   // the server, as its own client, has one to each interface
constexpr std::size_t MostConnections = 2048; // see KnPolicySetConnectionLimits

constexpr std::array Names{
    LimitName{"connections-per-process", &Limits::connectionsPerProcess, LeastConnections, MostConnections,
              "connections of one process to one service; a further one is refused as busy"},
    LimitName{"connections", &Limits::connections, LeastConnections, MostConnections,
              "connections to one service; the last sixteenth is for processes with fewer than 16"},
    LimitName{"publishers-per-process", &Limits::publishersPerProcess, 1, Most,
              "publishers of one process; a further one gets code 3"},
    LimitName{"publishers", &Limits::publishers, 1, Most, "publishers; a further one gets code 3"},
    LimitName{"subscribers-per-process", &Limits::subscribersPerProcess, 1, Most,
              "subscribers of one process; a further one gets code 3"},
    LimitName{"subscribers", &Limits::subscribers, 1, Most, "subscribers; a further one gets code 3"},
    LimitName{"handshakes-per-process", &Limits::handshakesPerProcess, 1, Most,
              "unfinished registrations of subscribers of one process; a further one gets code 4"},
    LimitName{"handshakes", &Limits::handshakes, 1, Most,
              "unfinished registrations of subscribers; a further one gets code 4"},
    LimitName{"handshake-seconds", &Limits::handshakeSeconds, 1, Most,
              "time to finish the registration of a subscriber, which is cancelled then"},
    LimitName{"name-bytes-per-process", &Limits::nameBytesPerProcess, 1, Most,
              "bytes of the topics and names of one process; more get code 7"},
    LimitName{"name-bytes", &Limits::nameBytes, 1, Most, "bytes of topics and names; more get code 7"},
    LimitName{"queued-values", &Limits::queuedValuesPerSubscriber, 1, Most,
              "unread values of one subscriber; then it is cut, or what --slow-subscriber says"},
    LimitName{"queued-bytes", &Limits::queuedBytesPerSubscriber, 1, Most,
              "memory for the unread values of one subscriber; the same then"},
    LimitName{"queued-bytes-per-process", &Limits::queuedBytesPerProcess, 1, Most,
              "memory for the unread values of one process; its largest queue is cut then"},
    LimitName{"queued-bytes-total", &Limits::queuedBytes, 1, Most,
              "memory for all unread values; the largest queue is cut then"},
};

} // namespace

std::span<const LimitName> LimitNames() {
    return Names;
}

} // namespace msgbus_server
