#pragma once

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

/// Called by libFuzzer. Each program of this folder defines the first; the second only if it needs preparation.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fuzzing {

/// Aborts the process, which libFuzzer reports as a finding, unless `holds`.
inline void Require(bool holds, const char* what, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) {
        std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
        std::abort();
    }
}

/// Makes system calls restart after the alarm with which libFuzzer looks for hangs: otherwise the alarm would interrupt
/// the blocked call, and the hang would stay unnoticed. Call it for each input, because libFuzzer sets its alarm late.
inline void RestartCallsAfterAlarm() {
    struct sigaction alarm {};
    ::sigaction(SIGALRM, nullptr, &alarm);
    if ((alarm.sa_flags & SA_RESTART) == 0) {
        alarm.sa_flags |= SA_RESTART;
        ::sigaction(SIGALRM, &alarm, nullptr);
    }
}

/// The bytes of one input, read from the front. Numbers read zeros past the end; Bytes and Text are cut off there.
class Input final {
public:
    Input(const std::uint8_t* data, std::size_t size) : left(data, size) {}

    bool IsEmpty() const { return left.empty(); }

    std::span<const std::uint8_t> Bytes(std::size_t upTo) {
        const auto taken = left.first(std::min(upTo, left.size()));
        left = left.subspan(taken.size());
        return taken;
    }

    /// Little-endian.
    template <typename Integer>
    Integer Number() {
        Integer number{};
        const auto taken = Bytes(sizeof number);
        if (!taken.empty()) {
            std::memcpy(&number, taken.data(), taken.size());
        }
        return number;
    }

    std::size_t Below(std::size_t limit) { return Number<std::uint8_t>() % limit; }

    std::string Text(std::size_t upTo) {
        const auto taken = Bytes(upTo);
        return {taken.begin(), taken.end()};
    }

private:
    std::span<const std::uint8_t> left;
};

} // namespace fuzzing
