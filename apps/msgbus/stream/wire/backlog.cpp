#include "stream/wire/backlog.h"

#include "stream/wire/protocol.h"

#include <algorithm>
#include <utility>

namespace stream {

void AppendFrameHead(std::string& bytes, FrameKind kind, std::size_t size) {
    constexpr unsigned isLast = 0x80;
    constexpr std::size_t mostInOneByte = 125;
    constexpr std::size_t mostInTwoBytes = 0xFFFF;
    bytes += static_cast<char>(isLast | static_cast<unsigned>(kind));
    int lengthBytes = 0;
    if (size <= mostInOneByte) {
        bytes += static_cast<char>(size);
    } else if (size <= mostInTwoBytes) {
        bytes += static_cast<char>(mostInOneByte + 1);
        lengthBytes = 2;
    } else {
        bytes += static_cast<char>(mostInOneByte + 2);
        lengthBytes = 8;
    }
    for (int shift = 8 * (lengthBytes - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(static_cast<std::uint64_t>(size) >> shift & 0xFF);
    }
}

std::string CloseFrame(std::uint16_t code, std::string_view reason) {
    constexpr std::size_t longestReason = 123;
    if (reason.size() > longestReason) {
        std::size_t size = longestReason;
        while (size > 0 && (static_cast<unsigned char>(reason[size]) & 0xC0) == 0x80) { // inside a character
            --size;
        }
        reason = reason.substr(0, size);
    }
    std::string bytes;
    AppendFrameHead(bytes, FrameKind::Close, sizeof code + reason.size());
    bytes += {static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
    bytes += reason;
    return bytes;
}

bool Backlog::AddText(std::string text) {
    if (hasEnded) {
        return true;
    }
    if (textBytes >= MostTextBytes) {
        return false;
    }
    textBytes += text.size();
    texts.push_back(std::move(text));
    return true;
}

void Backlog::AddValue(const Value& value) {
    if (hasEnded) {
        return;
    }
    if (values.size() >= MostValues) {
        values.pop_front();
        ++dropped;
    }
    values.push_back(value);
}

void Backlog::Forget(std::uint32_t subscription) {
    std::erase_if(values, [subscription](const Value& value) { return value.subscription == subscription; });
}

void Backlog::End(std::string frame) {
    values.clear();
    lastFrame = std::move(frame);
    hasEnded = true;
}

void Backlog::TakeFrames(std::string& bytes, std::size_t most) {
    const auto addText = [&bytes](const std::string& text) {
        AppendFrameHead(bytes, FrameKind::Text, text.size());
        bytes += text;
    };
    for (; !texts.empty() && bytes.size() < most; texts.pop_front()) {
        addText(texts.front());
        textBytes -= texts.front().size();
    }
    if (std::exchange(isReportDue, false)) {
        addText(Status(Level::Warning, "this client does not read fast enough: " + std::to_string(dropped) +
                                           " values were dropped for it so far"));
    }
    for (; !values.empty() && bytes.size() < most; values.pop_front()) {
        AppendFrameHead(bytes, FrameKind::Binary, ValueSize);
        const Value& value = values.front();
        AppendValue(bytes, value.subscription, value.timeNs, value.value);
    }
    if (texts.empty()) {
        bytes += std::exchange(lastFrame, {});
    }
}

} // namespace stream
