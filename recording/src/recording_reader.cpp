#include "recording/recording_reader.h"

#include "encoding.h"
#include "input_file.h"
#include "mcap_format.h"
#include "recording/value_message.h"

#include <zstd.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

// A file is read from its begin to its end, whatever its index says: so a file that was cut is read as far as it goes,
// and nothing depends on what a damaged index points to.

namespace recording {

using mcap::Opcode;

namespace {

/// No program writes larger ones, and a damaged length must not take all memory.
constexpr std::uint64_t LargestChunk = 256U << 20;
constexpr std::uint64_t LargestRecord = LargestChunk;
/// Of all channels together: a small file may hold many large ones, compressed.
constexpr std::uint64_t LargestChannels = 64U << 20;

[[noreturn]] void ThrowDamaged(const std::string& what) {
    throw RecordingError("the file is damaged: " + what);
}

Time TimeOf(std::uint64_t count) {
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return Time(std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(count, most))));
}

std::string BytesOf(std::string_view hexadecimal) {
    constexpr std::size_t digits = 2;
    constexpr int base = 16;
    std::string bytes;
    for (; hexadecimal.size() >= digits; hexadecimal.remove_prefix(digits)) {
        unsigned byte = 0;
        const auto [end, error] = std::from_chars(hexadecimal.data(), hexadecimal.data() + digits, byte, base);
        if (error != std::errc() || end != hexadecimal.data() + digits) {
            return {};
        }
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

struct RecordHeader {
    Opcode opcode{};
    std::uint64_t length = 0;
};

RecordHeader HeaderOf(std::string_view bytes) {
    Decoder decoder(bytes);
    const auto opcode = static_cast<Opcode>(decoder.U8());
    return {opcode, decoder.U64()};
}

} // namespace

class RecordingReader::State final {
public:
    explicit State(const std::string& path) : file(path), decompressor(ZSTD_createDCtx(), &ZSTD_freeDCtx) {
        if (file.Left() < mcap::Magic.size() || file.Take(mcap::Magic.size()) != mcap::Magic) {
            throw RecordingError("'" + path + "' is not an MCAP file");
        }
    }

    std::optional<Item> Next(Time from) {
        while (true) {
            if (auto item = NextOfChunk()) {
                return item;
            }
            if (isAtEnd) {
                return std::nullopt;
            }
            if (auto item = NextOfFile(from)) {
                return item;
            }
        }
    }

    const std::map<std::uint16_t, Channel>& Channels() const noexcept { return channels; }
    std::uint64_t OtherMessages() const noexcept { return otherMessages; }
    const FileEnd& End() const noexcept { return end; }
    const std::string& Library() const noexcept { return library; }
    std::uint64_t FileBytes() const noexcept { return file.Size(); }

private:
    /// Takes the next record of the data section, or finds out how the file ends.
    std::optional<Item> NextOfFile(Time from) {
        const std::uint64_t start = file.Position();
        if (file.Left() < mcap::RecordHead) {
            return EndAt(start, file.Left() == 0 ? "it was not closed" : "its last record is cut");
        }
        crcBeforeRecord = file.Crc();
        const RecordHeader header = HeaderOf(file.Take(mcap::RecordHead));
        if (header.length > file.Left()) {
            return EndAt(start, "its last record is cut");
        }
        switch (header.opcode) {
        case Opcode::DataEnd:
            return EndOfData(header.length);
        case Opcode::Chunk:
            OpenChunk(header.length, from);
            return std::nullopt;
        case Opcode::Header:
        case Opcode::Schema:
        case Opcode::Channel:
        case Opcode::Message:
        case Opcode::Metadata:
            RequireBearable(header.length);
            return Read(header.opcode, file.Take(header.length));
        default: // indexes, attachments, and what later versions of the format may have
            file.Pass(header.length);
            return std::nullopt;
        }
    }

    std::optional<Item> NextOfChunk() {
        while (!chunkRest.empty()) {
            // Nothing of a chunk is read behind a record that cannot be.
            const auto rest = std::exchange(chunkRest, {});
            if (rest.size() < mcap::RecordHead) {
                ThrowDamaged("a chunk ends within a record");
            }
            const RecordHeader header = HeaderOf(rest.substr(0, mcap::RecordHead));
            if (header.length > rest.size() - mcap::RecordHead) {
                ThrowDamaged("a chunk ends within a record");
            }
            const auto content = rest.substr(mcap::RecordHead, static_cast<std::size_t>(header.length));
            auto item = isChunkEarly && header.opcode == Opcode::Message ? std::nullopt : Read(header.opcode, content);
            chunkRest = rest.substr(mcap::RecordHead + content.size());
            if (item) {
                return item;
            }
        }
        return std::nullopt;
    }

    std::optional<Item> Read(Opcode opcode, std::string_view content) {
        Decoder decoder(content);
        switch (opcode) {
        case Opcode::Header:
            static_cast<void>(decoder.Text());
            library = decoder.Text();
            break;
        case Opcode::Schema:
            ReadSchema(decoder);
            break;
        case Opcode::Channel:
            ReadChannel(decoder);
            break;
        case Opcode::Message:
            return ReadMessage(decoder);
        case Opcode::Metadata: {
            Note note;
            note.name = decoder.Text();
            note.texts = decoder.Map();
            return note;
        }
        default:
            break;
        }
        return std::nullopt;
    }

    void ReadSchema(Decoder& decoder) {
        const std::uint16_t id = decoder.U16();
        const auto name = decoder.Text();
        const auto encoding = decoder.Text();
        if (encoding == SchemaEncoding && (name == Int64Name || name == Float64Name)) {
            schemas[id] = name == Float64Name;
        }
    }

    void ReadChannel(Decoder& decoder) {
        const std::uint16_t id = decoder.U16();
        const auto schema = schemas.find(decoder.U16());
        Channel channel;
        channel.topic = decoder.Text();
        const auto encoding = decoder.Text();
        const Texts metadata = decoder.Map();
        if (schema == schemas.end() || encoding != MessageEncoding) {
            return; // of another type
        }
        channel.isFloat = schema->second;
        if (const auto found = metadata.find(mcap::TopicBytesKey); found != metadata.end()) {
            if (std::string bytes = BytesOf(found->second); !bytes.empty()) {
                channel.topic = std::move(bytes);
            }
        }
        if (const auto found = metadata.find(mcap::DescriptionKey); found != metadata.end()) {
            channel.description = found->second;
        }
        const std::uint64_t size = channel.topic.size() + channel.description.size();
        if (size > LargestChannels - channelBytes) {
            ThrowDamaged("it describes more channels than this program takes");
        }
        // A second channel of the same number must be the same one.
        if (channels.try_emplace(id, std::move(channel)).second) {
            channelBytes += size;
        }
    }

    std::optional<Item> ReadMessage(Decoder& decoder) {
        Message message;
        message.channel = decoder.U16();
        message.sequence = decoder.U32();
        message.time = TimeOf(decoder.U64());
        static_cast<void>(decoder.U64()); // publish time
        const auto value = channels.contains(message.channel) ? ValueOf(decoder.Rest()) : std::nullopt;
        if (!value) {
            ++otherMessages;
            return std::nullopt;
        }
        message.value = *value;
        return message;
    }

    void OpenChunk(std::uint64_t length, Time from) {
        const std::uint64_t start = file.Position();
        RequireBearable(length);
        Decoder decoder(file.Take(length));
        static_cast<void>(decoder.U64()); // the earliest time
        // Its channels are read all the same: they may be in this chunk only.
        isChunkEarly = TimeOf(decoder.U64()) < from;
        const std::uint64_t size = decoder.U64();
        const std::uint32_t crc = decoder.U32();
        const std::string compression(decoder.Text());
        const auto records = decoder.Take(decoder.U64());
        if (size > LargestChunk) {
            ThrowDamaged("a chunk claims to have " + std::to_string(size) + " bytes");
        }
        chunk = Decompressed(records, compression, static_cast<std::size_t>(size));
        if (chunk.size() != size) {
            ThrowDamaged("a chunk has another size than it claims");
        }
        if (crc != 0 && crc != Crc32(chunk)) {
            ThrowDamaged("the chunk at byte " + std::to_string(start) + " has another checksum");
        }
        chunkRest = chunk;
    }

    void RequireBearable(std::uint64_t length) {
        if (length > LargestRecord) {
            file.Pass(length);
            ThrowDamaged("a record claims to have " + std::to_string(length) + " bytes");
        }
    }

    std::string Decompressed(std::string_view records, const std::string& compression, std::size_t size) const {
        if (compression.empty()) {
            return std::string(records);
        }
        if (compression != mcap::Zstd) {
            throw RecordingError("the file is compressed with '" + compression +
                                 "', which this program cannot read; zstd it can");
        }
        // A block of zstd is 128 KiB at most, so what claims more than that for each byte is not even tried.
        constexpr std::size_t mostFromAByte = 128U << 10;
        if (size / mostFromAByte > records.size()) {
            ThrowDamaged("a chunk cannot be decompressed");
        }
        std::string bytes(size, '\0');
        const std::size_t result =
            ZSTD_decompressDCtx(decompressor.get(), bytes.data(), bytes.size(), records.data(), records.size());
        if (ZSTD_isError(result) != 0 || result != size) {
            ThrowDamaged("a chunk cannot be decompressed");
        }
        return bytes;
    }

    /// Behind DataEnd: the summary, which is not needed, the footer and the magic.
    std::optional<Item> EndOfData(std::uint64_t length) {
        isAtEnd = true;
        const std::uint32_t actual = crcBeforeRecord;
        RequireBearable(length);
        Decoder decoder(file.Take(length));
        const std::uint32_t crc = length < sizeof crc ? 0 : decoder.U32();
        constexpr std::uint64_t footerSize = mcap::RecordHead + 8 + 8 + 4;
        const std::uint64_t rest = file.Left();
        if (rest >= footerSize + mcap::Magic.size()) {
            file.Pass(rest - mcap::Magic.size());
            end.isComplete = file.Take(mcap::Magic.size()) == mcap::Magic;
        }
        if (!end.isComplete) {
            end.reason = "its index is cut; no value is missing";
            end.cutBytes = rest;
        }
        if (crc != 0 && crc != actual) {
            ThrowDamaged("its data has another checksum, so bytes of it were changed");
        }
        return std::nullopt;
    }

    std::optional<Item> EndAt(std::uint64_t position, const std::string& reason) {
        isAtEnd = true;
        end.cutBytes = file.Size() - position;
        end.reason = reason;
        return std::nullopt;
    }

    InputFile file;
    const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> decompressor;
    std::string library;
    std::map<std::uint16_t, bool> schemas; ///< those of values; whether they are floats
    std::map<std::uint16_t, Channel> channels;
    std::uint64_t otherMessages = 0;
    std::string chunk;
    std::string_view chunkRest; ///< of `chunk`
    bool isChunkEarly = false;  ///< its messages are passed over
    std::uint64_t channelBytes = 0;
    std::uint32_t crcBeforeRecord = 0; ///< of the file up to the record that is being read
    bool isAtEnd = false;
    FileEnd end;
};

RecordingReader::RecordingReader(const std::string& path) : state(std::make_unique<State>(path)) {}

RecordingReader::~RecordingReader() = default;

std::optional<RecordingReader::Item> RecordingReader::Next(Time from) {
    return state->Next(from);
}

const std::map<std::uint16_t, Channel>& RecordingReader::Channels() const noexcept {
    return state->Channels();
}

std::uint64_t RecordingReader::OtherMessages() const noexcept {
    return state->OtherMessages();
}

const FileEnd& RecordingReader::End() const noexcept {
    return state->End();
}

const std::string& RecordingReader::Library() const noexcept {
    return state->Library();
}

std::uint64_t RecordingReader::FileBytes() const noexcept {
    return state->FileBytes();
}

} // namespace recording
