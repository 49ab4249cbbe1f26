#include "text_heap.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

namespace msgbus_server {

using instruments::layout::Counter;
using instruments::layout::Text;

namespace {

constexpr std::size_t WordSize = sizeof(std::uint64_t);

std::uint32_t WordsOf(std::size_t bytes) {
    return static_cast<std::uint32_t>((bytes + WordSize - 1) / WordSize);
}

} // namespace

std::optional<Text> TextHeap::Add(std::string_view bytes) {
    const auto& region = file.Regions().text;
    if (bytes.size() > instruments::layout::MostTextSize) {
        return std::nullopt;
    }
    const std::uint32_t words = WordsOf(bytes.size());
    std::uint32_t offset = end;
    const auto gap =
        std::find_if(gaps.begin(), gaps.end(), [words](const auto& place) { return place.second >= words; });
    if (gap != gaps.end()) {
        offset = gap->first;
        if (gap->second != words) {
            gaps.emplace(offset + words, gap->second - words);
        }
        gaps.erase(gap);
    } else if (std::size_t{end} + words <= region.count && file.Commit(region, std::size_t{end} + words)) {
        end += words;
    } else {
        return std::nullopt;
    }
    for (std::uint32_t i = 0; i < words; ++i) {
        std::uint64_t word = 0;
        const auto part = bytes.substr(i * WordSize, WordSize);
        std::memcpy(&word, part.data(), part.size());
        file.At<Counter>(region, offset + i).store(word, std::memory_order_release);
    }
    if (words != 0) {
        taken.emplace(offset, words);
    }
    return Text{offset, static_cast<std::uint32_t>(bytes.size())};
}

void TextHeap::Remove(Text text) {
    // What is removed may have been read from the account, into which other programs may write.
    const auto own = taken.find(text.offset);
    if (text.size == 0 || own == taken.end()) {
        return;
    }
    auto place = gaps.insert(*own).first;
    taken.erase(own);
    if (const auto next = std::next(place); next != gaps.end() && place->first + place->second == next->first) {
        place->second += next->second;
        gaps.erase(next);
    }
    if (place != gaps.begin()) {
        const auto before = std::prev(place);
        if (before->first + before->second == place->first) {
            before->second += place->second;
            gaps.erase(place);
            place = before;
        }
    }
    if (place->first + place->second == end) {
        end = place->first;
        gaps.erase(place);
    }
}

} // namespace msgbus_server
