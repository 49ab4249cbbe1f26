#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace stream {

/// The kinds of WebSocket frames that are made here (RFC 6455, 5.2).
enum class FrameKind : unsigned char { Text = 1, Binary = 2, Close = 8 };

/// Appends the head of an unfragmented frame, which a server does not mask.
void AppendFrameHead(std::string& bytes, FrameKind kind, std::size_t size);

/// Returns: a frame that ends the connection. `reason`: UTF-8; what is behind its first 123 bytes is left out.
std::string CloseFrame(std::uint16_t code, std::string_view reason);

/// What waits for one client, bounded: of its values the oldest is dropped and counted when there are too many.
class Backlog final {
public:
    /// A third of a second at 100,000 values/s, and 768 KiB.
    static constexpr std::size_t MostValues = 32768;
    /// A client that leaves so much of texts unread does not read at all. The channels of hundreds of topics, which
    /// change at once, are less.
    static constexpr std::size_t MostTextBytes = std::size_t{4} << 20;

    struct Value {
        std::uint32_t subscription;
        std::uint64_t timeNs;
        std::int64_t value;
    };

    /// Returns: false when too much waits already; it was not taken. One text alone may be longer.
    [[nodiscard]] bool AddText(std::string text);
    void AddValue(const Value& value);
    /// Drops the values of a subscription that has ended.
    void Forget(std::uint32_t subscription);
    /// Lets the next frames begin with a text about what was dropped.
    void ReportDropped() { isReportDue = true; }

    /// Lets `frame` be the last one, behind the texts that wait; there will be no values, and nothing more is taken.
    void End(std::string frame);

    /// Moves frames to the end of `bytes`, until these are about `most`: texts first.
    void TakeFrames(std::string& bytes, std::size_t most);

    bool IsEmpty() const noexcept { return values.empty() && texts.empty() && !isReportDue && lastFrame.empty(); }
    std::size_t TextBytes() const noexcept { return textBytes; }
    std::size_t ValueCount() const noexcept { return values.size(); }
    /// Returns: how many values were dropped so far.
    std::uint64_t Dropped() const noexcept { return dropped; }

private:
    std::deque<std::string> texts;
    std::size_t textBytes = 0; ///< of all texts
    std::deque<Value> values;
    std::uint64_t dropped = 0;
    bool isReportDue = false;
    bool hasEnded = false;
    std::string lastFrame;
};

} // namespace stream
