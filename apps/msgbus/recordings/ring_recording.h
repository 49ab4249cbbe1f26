#pragma once

#include "recording/recording_writer.h"
#include "recordings/condition.h"
#include "recordings/destination.h"
#include "recordings/ring.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace recordings {

/// What is kept in memory, and when it is written.
struct RingRules {
    static constexpr std::uint64_t DefaultBytes = 64U << 20;

    std::chrono::milliseconds age{0};
    std::uint64_t bytes = DefaultBytes;
    Conditions conditions;
};

/// SIGUSR1 asks for a file. While there is an object, the signal does nothing else. One object at a time.
class RequestSignal final {
public:
    RequestSignal();
    RequestSignal(const RequestSignal&) = delete;
    RequestSignal& operator=(const RequestSignal&) = delete;
    ~RequestSignal();

    /// Returns: whether the signal has come since the last call.
    static bool Take() noexcept;
};

/// Keeps the last values in memory and writes them to `NAME_0.mcap`, `NAME_1.mcap` and so on for `NAME.mcap`, whole
/// files: on request, when a condition occurs, and when the server is gone.
class RingRecording final : public IDestination {
public:
    RingRecording(std::string path, recording::ExistingFile existing, RingRules ringRules);

    void Write(const std::string& topic, recording::Time time, std::int64_t value) override;
    void Write(const recording::Note& note) override;
    void Flush() override;
    std::chrono::milliseconds FlushInterval() const noexcept override;
    void NoteServerGone() override;
    void NoteCut() override;
    void End(std::uint64_t lost) override;
    std::string Doing() const override;
    std::string Done() const override;
    std::uint64_t ValueCount() const noexcept override { return taken; }
    std::uint64_t LeftOut() const noexcept override { return leftOut; }
    std::uint64_t Bytes() const noexcept override { return ring.Bytes(); }

private:
    /// A value that is to be looked at when its topic is described.
    struct Pending {
        std::size_t condition;
        std::int64_t value;
    };

    void Judge(const std::vector<Pending>& values);
    void ReadDescriptions();
    void WriteFile(recording::Texts reason);
    std::size_t NextFile() const;

    const std::string name;
    const recording::ExistingFile existingFile;
    const RingRules rules;
    Ring ring;
    std::vector<Rearming> valueRearming; ///< of each of the conditions on values
    Rearming lossRearming;
    std::multimap<std::string, std::size_t, std::less<>> watched; ///< topics with their conditions
    std::vector<Pending> fresh, ripe;
    std::map<std::string, std::string, std::less<>> descriptions; ///< of the topics with conditions
    std::uint64_t taken = 0;
    std::size_t nextNumber = 0; ///< of a file, when those that are there are replaced
    std::uint64_t leftOut = 0;
    std::size_t files = 0;
};

} // namespace recordings
