#pragma once

#include <cstdint>

namespace borven_host {

// The two messages on the socket of a connection, one each way, when it is made. Records travel in shared memory.

inline constexpr std::uint32_t GreetingMagic = 0x48565242; ///< "BRVH"
inline constexpr std::uint32_t AnswerMagic = 0x41565242;   ///< "BRVA"
inline constexpr std::uint16_t AnswerVersion = 1;

/// The layout of the shared page. A server serves clients of the version before its own, too.
inline constexpr std::uint16_t LayoutVersion = 2;
inline constexpr std::uint16_t OldestLayoutVersion = 1;

/// The client's first message.
struct Greeting {
    std::uint32_t magic;
    std::uint16_t layoutVersion; ///< what the client speaks
    std::uint16_t recordSize;
};
static_assert(sizeof(Greeting) == 8);

/// The server's answer to the greeting. With KnStatusOk it brings the descriptors that the channel sends along.
struct Answer {
    std::uint32_t magic;
    std::uint16_t version;
    std::uint16_t recordSize;
    std::int32_t status;
    std::uint32_t reserved;
};
static_assert(sizeof(Answer) == 16);

Greeting MakeGreeting() noexcept;
Answer MakeAnswer(std::int32_t status) noexcept;

/// Returns: 0; KnStatusOtherVersion for a layout that this server does not serve; KnStatusDenied for anything else.
std::int32_t Check(const Greeting& greeting) noexcept;
bool IsValid(const Answer& answer) noexcept;

/// Sends `status` to the peer of `socket`.
/// Returns: false when the peer has disconnected, or reads too slowly. Blocks: never.
bool SendAnswer(int socket, std::int32_t status) noexcept;

} // namespace borven_host
