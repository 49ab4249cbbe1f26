#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// The texts and frames of the protocol by which Foxglove and PlotJuggler receive live data, as far as a server needs
// them that only sends values: https://github.com/foxglove/ws-protocol. The two subprotocols
// have the same ones.

namespace stream {

/// The subprotocols that are spoken here, one of which a client has to offer.
inline constexpr std::string_view Subprotocols[] = {"foxglove.websocket.v1", "foxglove.sdk.v1"};

/// A topic as clients see it. Its id means the same as long as the program runs.
struct Channel {
    std::uint32_t id = 0;
    std::string name; ///< UTF-8
    bool isFloat = false;
};

enum class Level { Info = 0, Warning = 1, Error = 2 };

/// Returns: the first text of a connection. `sessionId`: another one after a restart of the program.
std::string ServerInfo(const std::string& name, const std::string& sessionId);
std::string Advertise(const std::vector<Channel>& channels);
std::string Unadvertise(const std::vector<std::uint32_t>& channels);
std::string Status(Level level, const std::string& sentence);

/// Bytes of a value's message: its kind, the subscription, the time, the value.
inline constexpr std::size_t ValueSize = 1 + 4 + 8 + 12;

/// Appends the message. `timeNs`: since 1970.
void AppendValue(std::string& bytes, std::uint32_t subscription, std::uint64_t timeNs, std::int64_t value);

struct Subscribe {
    struct Wish {
        std::uint32_t id; ///< chosen by the client
        std::uint32_t channel;
    };
    std::vector<Wish> wishes;
};

struct Unsubscribe {
    std::vector<std::uint32_t> ids;
};

/// A request that a server without further capabilities does not serve.
struct OtherRequest {
    std::string operation;
};

using Request = std::variant<Subscribe, Unsubscribe, OtherRequest>;

/// A text is no request. what() is a sentence.
class BadRequestError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Throws: BadRequestError.
Request ParseRequest(std::string_view text);

} // namespace stream
