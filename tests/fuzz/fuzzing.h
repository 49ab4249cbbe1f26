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

/// What libFuzzer calls; each program of this folder defines the first, and the second where it has to prepare.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fuzzing {

/// Ends the process, which is how libFuzzer learns of a finding, unless `holds`.
inline void Require(bool holds, const char* what, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) {
        std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
        std::abort();
    }
}

/// Lets a call that blocks go on blocking when the alarm comes with which libFuzzer looks for hangs: otherwise the
/// alarm itself would end the hang, and nobody would know. To be called with each input; libFuzzer sets its alarm late.
inline void RestartCallsAfterAlarm() {
    struct sigaction alarm {};
    ::sigaction(SIGALRM, nullptr, &alarm);
    if ((alarm.sa_flags & SA_RESTART) == 0) {
        alarm.sa_flags |= SA_RESTART;
        ::sigaction(SIGALRM, &alarm, nullptr);
    }
}

/// The bytes that a fuzzer made up, taken from the front; past their end there are zeros.
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
