// Debug lines are off, as in a server with the default log level, and the back end discards all other lines.

#include "bos/logger.h"

#include <benchmark/benchmark.h>

namespace {

using bos::logger::LogLevel;

class QuietBackEnd final : public bos::logger::ILogBackEnd {
public:
    bool IsEnabled(LogLevel level) const override { return level > LogLevel::Debug; }
    void Write(LogLevel, const char*, int, const char*, const std::string&) override {}
};

} // namespace

int main(int argc, char** argv) {
    static QuietBackEnd backEnd;
    bos::logger::BOSLogger::RootLogger().SetBackEnd(backEnd);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
