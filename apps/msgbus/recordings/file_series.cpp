#include "recordings/file_series.h"

#include "arguments.h"
#include "recordings/file_names.h"
#include "terminal/quantity.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace recordings {

FileSeries::FileSeries(std::string path, recording::ExistingFile existing, const SplitRules& splitRules,
                       recording::Texts about)
    : name(std::move(path)), existingFile(existing), rules(splitRules), header(std::move(about)),
      number(existing == recording::ExistingFile::IsReplaced ? 0 : NextNumber(name)) {
    Open();
}

void FileSeries::Open() {
    std::string path = name;
    if (rules.Splits()) {
        path = NumberedPath(name, number++);
    }
    if (channels) {
        leftOut += channels->LeftOut();
        channels.reset();
    }
    writer = std::make_unique<recording::RecordingWriter>(path, existingFile, "msgbus " BORVEN_VERSION);
    channels.emplace(*writer);
    files.push_back({path, 0});
    opened = std::chrono::steady_clock::now();
    writer->Write(recording::Note{"msgbus.begin", header});
}

void FileSeries::Write(const std::string& topic, recording::Time time, std::int64_t value) {
    channels->Write(topic, time, value);
    ++values;
    // A value takes some 30 bytes: so a file is not much larger than it is to be.
    constexpr std::uint64_t bytesPerCheck = 8 * 30;
    if (rules.bytes && values % std::clamp<std::uint64_t>(*rules.bytes / bytesPerCheck, 1, 10'000) == 0) {
        Flush();
    }
}

std::chrono::milliseconds FileSeries::FlushInterval() const noexcept {
    return std::chrono::milliseconds(400); // half of the second after which everything is in the file
}

void FileSeries::End(std::uint64_t lost) {
    Flush();
    recording::Texts end{{"values", std::to_string(values - LeftOut())}, {"lost", std::to_string(lost)}};
    if (LeftOut() != 0) {
        end["left_out"] = std::to_string(LeftOut());
    }
    Write({"msgbus.end", std::move(end)});
    writer->Close();
}

std::string FileSeries::Done() const {
    return "recorded " + std::to_string(values - LeftOut()) + " values, " + terminal::Bytes(Bytes());
}

void FileSeries::Flush() {
    const bool wasWhole = LeftOut() == 0;
    channels->Settle();
    writer->Flush();
    if (wasWhole && LeftOut() != 0) {
        Say("a file has at most 65,535 topics: values of further ones are left out" +
            std::string(rules.Splits() ? " of it" : "; --split goes on in another file"));
    }
    const bool isFull = rules.bytes && writer->FileBytes() >= *rules.bytes;
    const bool isOld = rules.time && std::chrono::steady_clock::now() - opened >= *rules.time;
    if (writer->MessageCount() != 0 && (isFull || isOld || (rules.Splits() && channels->IsFull()))) {
        writer->Close();
        files.back().bytes = writer->FileBytes();
        Open();
    }
    RemoveOldest();
}

void FileSeries::RemoveOldest() {
    while (rules.mostBytes && files.size() > 1 && Bytes() > *rules.mostBytes) {
        std::error_code ignored; // another program may have removed it
        std::filesystem::remove(files.front().path, ignored);
        files.pop_front();
    }
}

std::uint64_t FileSeries::Bytes() const noexcept {
    std::uint64_t bytes = writer->FileBytes();
    for (const auto& file : files) {
        bytes += file.bytes;
    }
    return bytes;
}

} // namespace recordings
