// The cost of a log call for its caller: with its level off, and with a back end that gets the formatted line and
// discards it.

#include "diagnostics.h"

#include <benchmark/benchmark.h>

namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

class DiscardingBackEnd final : public bos::logger::ILogBackEnd {
public:
    explicit DiscardingBackEnd(LogLevel lowest) : threshold(lowest) {}

    bool IsEnabled(LogLevel level) const override { return level >= threshold; }
    void Write(LogLevel, const char*, int, const char*, const std::string& message) override {
        benchmark::DoNotOptimize(message.data());
    }

private:
    const LogLevel threshold;
};

void LogLine(benchmark::State& state, LogLevel threshold) {
    DiscardingBackEnd backEnd(threshold);
    auto& previous = BOSLogger::RootLogger().SetBackEnd(backEnd);
    const std::string topic = "bench";
    for ([[maybe_unused]] auto once : state) {
        diagnostics::Log(LogLevel::Debug, "{}: New message ({}) has been pushed to queue", "[MessageBus]", topic);
    }
    BOSLogger::RootLogger().SetBackEnd(previous);
}
BENCHMARK_CAPTURE(LogLine, disabled, LogLevel::Info);
BENCHMARK_CAPTURE(LogLine, enabled, LogLevel::Debug);

} // namespace
