#pragma once

#include "publish/input_lines.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace publish {

/// Where the values to publish come from.
class ValueSource {
public:
    virtual ~ValueSource() = default;

    /// Returns: whether Next is known to return nothing.
    virtual bool IsAtEnd() const = 0;
    /// Returns: the next value; nothing when there is none left or the program is to end.
    /// Throws: std::invalid_argument; std::system_error. Blocks: for input.
    virtual std::optional<std::int64_t> Next() = 0;
    /// Returns: where the last value stood, as the begin of a sentence: "line 3: ", "value 3 of 10: "; empty where
    /// there is only one.
    virtual std::string Place() const = 0;
    /// Returns: whether a signal that ends the program leaves values unpublished.
    virtual bool IsLeftUnfinished() const = 0;
};

inline constexpr std::uint64_t Forever = 0; ///< as a number of repetitions

/// Values of the command line, `times` times over.
class ListedValues final : public ValueSource {
public:
    ListedValues(std::vector<std::int64_t> values, std::uint64_t times) : list(std::move(values)), repetitions(times) {}

    bool IsAtEnd() const override { return repetitions != Forever && next == Count(); }
    std::optional<std::int64_t> Next() override;
    std::string Place() const override;
    bool IsLeftUnfinished() const override { return repetitions != Forever; }

private:
    std::uint64_t Count() const noexcept { return list.size() * repetitions; }

    std::vector<std::int64_t> list;
    std::uint64_t repetitions;
    std::uint64_t next = 0;
};

enum class EmptyLines { AreErrors, AreSkipped };

/// Values of standard input, one a line, with blanks around them.
class InputValues final : public ValueSource {
public:
    InputValues(const EndWatch& watch, EmptyLines emptyLines) : lines(watch), empty(emptyLines) {}

    bool IsAtEnd() const override { return false; }
    std::optional<std::int64_t> Next() override;
    std::string Place() const override { return "line " + std::to_string(number) + ": "; }
    bool IsLeftUnfinished() const override { return false; }

private:
    InputLines lines;
    EmptyLines empty;
    std::uint64_t number = 0;
};

/// Readings of the real-time clock, in nanoseconds since 1970.
class ClockReadings final : public ValueSource {
public:
    explicit ClockReadings(std::uint64_t times) : repetitions(times) {}

    bool IsAtEnd() const override { return repetitions != Forever && next == repetitions; }
    std::optional<std::int64_t> Next() override;
    std::string Place() const override { return "value " + std::to_string(next) + ": "; }
    bool IsLeftUnfinished() const override { return repetitions != Forever; }

private:
    std::uint64_t repetitions;
    std::uint64_t next = 0;
};

} // namespace publish
