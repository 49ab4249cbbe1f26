#include "recording/recording_writer.h"

#include "encoding.h"
#include "mcap_format.h"
#include "recording/value_message.h"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace recording {

using mcap::Opcode;

namespace {

/// Fast enough for a million values per second on one CPU, and a third of the size.
constexpr int CompressionLevel = 1;

std::uint64_t Count(Time time) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(time.time_since_epoch().count(), 0));
}

std::string Hexadecimal(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {digits[byte >> 4], digits[byte & 0xF]};
    }
    return text;
}

/// A file that grows by whole records. A pipe that has no reader is not waited for.
class OutputFile final {
public:
    OutputFile(std::string filePath, ExistingFile existing)
        : path(std::move(filePath)), descriptor(::open(path.c_str(),
                                                       O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK |
                                                           (existing == ExistingFile::IsKept ? O_EXCL : O_TRUNC),
                                                       0666)) {
        if (descriptor < 0) {
            throw RecordingError(errno == EEXIST ? "there is a file '" + path + "' already"
                                                 : "cannot create '" + path + "': " + std::strerror(errno));
        }
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { ::close(descriptor); }

    /// Throws: RecordingError; the file then ends with the record before.
    void Append(std::string_view bytes) {
        std::string_view left = bytes;
        while (!left.empty()) {
            const ssize_t count = ::write(descriptor, left.data(), left.size());
            if (count >= 0) {
                left.remove_prefix(static_cast<std::size_t>(count));
            } else if (errno != EINTR) {
                const int error = errno;
                static_cast<void>(!::ftruncate(descriptor, static_cast<off_t>(size)));
                throw RecordingError("cannot write '" + path + "': " + std::strerror(error));
            }
        }
        size += bytes.size();
        crc = Crc32(bytes, crc);
    }

    std::uint64_t Size() const noexcept { return size; }
    /// Returns: the CRC of all bytes.
    std::uint32_t Crc() const noexcept { return crc; }

private:
    const std::string path;
    const int descriptor;
    std::uint64_t size = 0;
    std::uint32_t crc = 0;
};

} // namespace

/// Where things are is kept for the index; it takes some 100 bytes for each chunk.
class RecordingWriter::State final {
public:
    State(const std::string& path, ExistingFile existing, const std::string& library)
        : file(path, existing), compressor(ZSTD_createCCtx(), &ZSTD_freeCCtx) {
        ZSTD_CCtx_setParameter(compressor.get(), ZSTD_c_compressionLevel, CompressionLevel);
        std::string header;
        Encoder encoder(header);
        encoder.Text(mcap::Profile);
        encoder.Text(library);
        file.Append(std::string(mcap::Magic) + Record(Opcode::Header, header));
    }

    std::uint16_t Add(const Channel& channel) {
        if (channels.size() == MostChannels) {
            throw RecordingError("a recording has at most 65,535 topics");
        }
        Flush(); // so that the channel stands before the chunk that has its values
        const std::uint16_t schema = SchemaOf(channel.isFloat);
        const auto id = static_cast<std::uint16_t>(channels.size() + 1);
        const std::string name = ChannelName(channel.topic);
        Texts metadata{{mcap::QosKey, ""}};
        if (!channel.description.empty()) {
            metadata[mcap::DescriptionKey] = channel.description;
        }
        if (name != channel.topic) {
            metadata[mcap::TopicBytesKey] = Hexadecimal(channel.topic);
        }
        std::string content;
        Encoder encoder(content);
        encoder.U16(id);
        encoder.U16(schema);
        encoder.Text(name);
        encoder.Text(MessageEncoding);
        encoder.Map(metadata);
        channels.push_back({Record(Opcode::Channel, content), 0, {}});
        file.Append(channels.back().record);
        return id;
    }

    void Write(const Message& message) {
        if (message.channel == 0 || message.channel > channels.size()) {
            throw RecordingError("a value of an unknown channel");
        }
        ChannelState& channel = channels[message.channel - 1U];
        const std::uint64_t time = Count(message.time);
        if (chunk.empty()) {
            chunkBegin = chunkEnd = time;
        }
        chunkBegin = std::min(chunkBegin, time);
        chunkEnd = std::max(chunkEnd, time);
        channel.index.emplace_back(time, chunk.size());
        Encoder encoder(chunk);
        encoder.U8(static_cast<std::uint8_t>(Opcode::Message));
        constexpr std::uint64_t headSize = 2 + 4 + 8 + 8;
        encoder.U64(headSize + ValueMessageSize);
        encoder.U16(message.channel);
        encoder.U32(message.sequence);
        encoder.U64(time);
        encoder.U64(time); // publish time: the bus has no other
        AppendValueMessage(chunk, message.value);
        ++channel.count;
        if (messages == 0) {
            begin = end = time;
        }
        begin = std::min(begin, time);
        end = std::max(end, time);
        ++messages;
        if (chunk.size() >= ChunkBytes) {
            Flush();
        }
    }

    void Write(const Note& note) {
        Flush();
        std::string content;
        Encoder encoder(content);
        encoder.Text(note.name);
        encoder.Map(note.texts);
        const std::string record = Record(Opcode::Metadata, content);
        std::string entry;
        Encoder entryEncoder(entry);
        entryEncoder.U64(file.Size());
        entryEncoder.U64(record.size());
        entryEncoder.Text(note.name);
        file.Append(record);
        noteIndex.push_back(Record(Opcode::MetadataIndex, entry));
    }

    void Flush() {
        if (chunk.empty()) {
            return;
        }
        const std::uint64_t chunkStart = file.Size();
        std::string compressed(ZSTD_compressBound(chunk.size()), '\0');
        const std::size_t size =
            ZSTD_compress2(compressor.get(), compressed.data(), compressed.size(), chunk.data(), chunk.size());
        if (ZSTD_isError(size) != 0) {
            throw RecordingError(std::string("values cannot be compressed: ") + ZSTD_getErrorName(size));
        }
        compressed.resize(size);
        std::string content;
        Encoder encoder(content);
        encoder.U64(chunkBegin);
        encoder.U64(chunkEnd);
        encoder.U64(chunk.size());
        encoder.U32(Crc32(chunk));
        encoder.Text(mcap::Zstd);
        encoder.U64(compressed.size());
        content += compressed;
        std::string records = Record(Opcode::Chunk, content);
        const std::uint64_t chunkLength = records.size();
        std::string offsets; // of the message indexes, for the chunk index
        Encoder offsetEncoder(offsets);
        for (std::size_t at = 0; at < channels.size(); ++at) {
            if (!channels[at].index.empty()) {
                offsetEncoder.U16(static_cast<std::uint16_t>(at + 1));
                offsetEncoder.U64(chunkStart + records.size());
                records += MessageIndexOf(static_cast<std::uint16_t>(at + 1), channels[at].index);
            }
        }
        file.Append(records);

        std::string entry;
        Encoder entryEncoder(entry);
        entryEncoder.U64(chunkBegin);
        entryEncoder.U64(chunkEnd);
        entryEncoder.U64(chunkStart);
        entryEncoder.U64(chunkLength);
        entryEncoder.Text(offsets);
        entryEncoder.U64(records.size() - chunkLength);
        entryEncoder.Text(mcap::Zstd);
        entryEncoder.U64(compressed.size());
        entryEncoder.U64(chunk.size());
        chunkIndex.push_back(Record(Opcode::ChunkIndex, entry));
        chunk.clear();
        for (auto& channel : channels) {
            channel.index.clear();
        }
    }

    void Close() {
        Flush();
        std::string dataEnd;
        Encoder(dataEnd).U32(file.Crc());
        file.Append(Record(Opcode::DataEnd, dataEnd));

        const std::uint64_t summaryStart = file.Size();
        std::string summary;
        std::string offsets;
        const auto add = [&](Opcode opcode, const std::vector<std::string>& records) {
            const std::uint64_t start = summaryStart + summary.size();
            for (const auto& record : records) {
                summary += record;
            }
            if (!records.empty()) {
                std::string content;
                Encoder encoder(content);
                encoder.U8(static_cast<std::uint8_t>(opcode));
                encoder.U64(start);
                encoder.U64(summaryStart + summary.size() - start);
                offsets += Record(Opcode::SummaryOffset, content);
            }
        };
        std::vector<std::string> channelRecords;
        for (const auto& channel : channels) {
            channelRecords.push_back(channel.record);
        }
        add(Opcode::Schema, schemas);
        add(Opcode::Channel, channelRecords);
        add(Opcode::Statistics, {Statistics()});
        add(Opcode::ChunkIndex, chunkIndex);
        add(Opcode::MetadataIndex, noteIndex);
        const std::uint64_t offsetStart = summaryStart + summary.size();
        summary += offsets;

        std::string footer;
        Encoder encoder(footer);
        encoder.U64(summaryStart);
        encoder.U64(offsetStart);
        // The CRC covers the summary and the footer up to itself.
        std::string covered = Record(Opcode::Footer, footer + std::string(sizeof(std::uint32_t), '\0'));
        covered.resize(covered.size() - sizeof(std::uint32_t));
        encoder.U32(Crc32(covered, Crc32(summary)));
        file.Append(summary + Record(Opcode::Footer, footer) + std::string(mcap::Magic));
    }

    std::uint64_t FileBytes() const noexcept { return file.Size(); }
    std::uint64_t MessageCount() const noexcept { return messages; }

private:
    using Index = std::vector<std::pair<std::uint64_t, std::uint64_t>>; ///< times and places in the chunk

    struct ChannelState {
        std::string record;
        std::uint64_t count;
        Index index; ///< of the values that are collected
    };

    std::uint16_t SchemaOf(bool isFloat) {
        std::uint16_t& id = isFloat ? floatSchema : intSchema;
        if (id == 0) {
            id = static_cast<std::uint16_t>(schemas.size() + 1);
            std::string content;
            Encoder encoder(content);
            encoder.U16(id);
            encoder.Text(isFloat ? Float64Name : Int64Name);
            encoder.Text(SchemaEncoding);
            encoder.Text(isFloat ? Float64Definition : Int64Definition);
            schemas.push_back(Record(Opcode::Schema, content));
            file.Append(schemas.back());
        }
        return id;
    }

    static std::string MessageIndexOf(std::uint16_t channel, const Index& index) {
        std::string entries;
        entries.reserve(index.size() * 2 * sizeof(std::uint64_t));
        Encoder entryEncoder(entries);
        for (const auto& [time, place] : index) {
            entryEncoder.U64(time);
            entryEncoder.U64(place);
        }
        std::string content;
        Encoder encoder(content);
        encoder.U16(channel);
        encoder.Text(entries);
        return Record(Opcode::MessageIndex, content);
    }

    std::string Statistics() const {
        std::string content;
        Encoder encoder(content);
        encoder.U64(messages);
        encoder.U16(static_cast<std::uint16_t>(schemas.size()));
        encoder.U32(static_cast<std::uint32_t>(channels.size()));
        encoder.U32(0); // attachments
        encoder.U32(static_cast<std::uint32_t>(noteIndex.size()));
        encoder.U32(static_cast<std::uint32_t>(chunkIndex.size()));
        encoder.U64(begin);
        encoder.U64(end);
        std::string counts;
        Encoder countEncoder(counts);
        for (std::size_t at = 0; at < channels.size(); ++at) {
            countEncoder.U16(static_cast<std::uint16_t>(at + 1));
            countEncoder.U64(channels[at].count);
        }
        encoder.Text(counts);
        return Record(Opcode::Statistics, content);
    }

    OutputFile file;
    const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> compressor;
    std::vector<std::string> schemas; ///< their records
    std::uint16_t intSchema = 0;
    std::uint16_t floatSchema = 0;
    std::vector<ChannelState> channels;
    std::vector<std::string> chunkIndex; ///< its records
    std::vector<std::string> noteIndex;  ///< its records
    std::string chunk;                   ///< records of the values that are collected
    std::uint64_t chunkBegin = 0;
    std::uint64_t chunkEnd = 0;
    std::uint64_t messages = 0;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

RecordingWriter::RecordingWriter(const std::string& path, ExistingFile existing, const std::string& library)
    : state(std::make_unique<State>(path, existing, library)) {}

RecordingWriter::~RecordingWriter() = default;

std::uint16_t RecordingWriter::Add(const Channel& channel) {
    return state->Add(channel);
}

void RecordingWriter::Write(const Message& message) {
    state->Write(message);
}

void RecordingWriter::Write(const Note& note) {
    state->Write(note);
}

void RecordingWriter::Flush() {
    state->Flush();
}

void RecordingWriter::Close() {
    state->Close();
}

std::uint64_t RecordingWriter::FileBytes() const noexcept {
    return state->FileBytes();
}

std::uint64_t RecordingWriter::MessageCount() const noexcept {
    return state->MessageCount();
}

} // namespace recording
