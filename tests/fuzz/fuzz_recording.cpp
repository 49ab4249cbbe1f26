// Any bytes as a recording. Reading it ends, with values of channels that are known, and says the same each time; what
// is wrong is a RecordingError.
//
// Input: a byte that says what the rest is: 0 a file; 1 the records of one, behind a header; 2 those of a chunk, which
// is compressed and has its checksum here. Then that.

#include "encoding.h"
#include "fuzzing.h"
#include "recording/recording_reader.h"

#include <sys/mman.h>
#include <unistd.h>
#include <zstd.h>

#include <string>

namespace {

using namespace recording;
using fuzzing::Require;

/// A file in memory with a path.
class MemoryFile final {
public:
    explicit MemoryFile(const std::string& bytes) : descriptor(::memfd_create("recording", MFD_CLOEXEC)) {
        Require(descriptor >= 0 &&
                    ::write(descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "there is a file");
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { ::close(descriptor); }

    std::string Path() const { return "/proc/self/fd/" + std::to_string(descriptor); }

private:
    int descriptor;
};

std::string HeaderRecord() {
    std::string content;
    Encoder encoder(content);
    encoder.Text(mcap::Profile);
    encoder.Text("fuzz");
    return Record(mcap::Opcode::Header, content);
}

std::string CompressedChunk(const std::string& records) {
    std::string compressed(ZSTD_compressBound(records.size()), '\0');
    compressed.resize(ZSTD_compress(compressed.data(), compressed.size(), records.data(), records.size(), 1));
    std::string content;
    Encoder encoder(content);
    encoder.U64(1);
    encoder.U64(2);
    encoder.U64(records.size());
    encoder.U32(Crc32(records));
    encoder.Text(mcap::Zstd);
    encoder.U64(compressed.size());
    return Record(mcap::Opcode::Chunk, content + compressed);
}

std::string FileOf(fuzzing::Input& input, std::size_t size) {
    const auto kind = input.Number<std::uint8_t>();
    const std::string rest = input.Text(size);
    switch (kind) {
    case 1:
        return std::string(mcap::Magic) + HeaderRecord() + rest;
    case 2:
        return std::string(mcap::Magic) + HeaderRecord() + CompressedChunk(rest);
    default:
        return rest;
    }
}

/// Reads all of the file. Returns: a checksum of what is in it.
std::uint32_t ReadAll(const std::string& path, Time from, std::size_t mostItems) {
    RecordingReader reader(path);
    std::uint32_t sum = 0;
    std::string seen;
    for (std::size_t items = 0;; ++items) {
        Require(items <= mostItems, "it has an end");
        seen.clear();
        try {
            const auto item = reader.Next(from);
            if (!item) {
                break;
            }
            if (const auto* message = std::get_if<Message>(&*item)) {
                Require(reader.Channels().contains(message->channel), "the channel of a value is known");
                Encoder(seen).U64(static_cast<std::uint64_t>(message->value));
            } else {
                seen = std::get<Note>(*item).name;
            }
        } catch (const RecordingError& error) {
            seen = error.what();
        }
        sum = Crc32(seen, sum);
    }
    Require(!reader.Next(from), "the end stays the end");
    Require(reader.End().cutBytes <= reader.FileBytes(), "no more is cut than there is");
    Require(reader.End().isComplete == reader.End().reason.empty(), "what is not complete has a reason");
    return sum;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const MemoryFile file(FileOf(input, size));
    try {
        constexpr std::size_t mostItems = 1U << 20; // of a file of some kilobytes, also when it is compressed
        const auto sum = ReadAll(file.Path(), Time::min(), mostItems);
        Require(ReadAll(file.Path(), Time::min(), mostItems) == sum, "it says the same each time");
        ReadAll(file.Path(), Time(std::chrono::nanoseconds(2)), mostItems);
    } catch (const RecordingError&) {
        return 0; // it is no recording
    }
    return 0;
}
