#pragma once

#include "bos/logger.h"
#include "common/mutex.h"
#include "instruments/snapshot.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace msgbus_server {

/// Where the entries of an ErrorTally go.
class IErrorSink {
public:
    virtual ~IErrorSink() = default;

    /// Entry `index`, below ErrorTally::Entries, is now `entry`. Called one at a time, by the thread that logs, under
    /// the tally's lock: it must not log, nor wait.
    virtual void Put(std::size_t index, const instruments::ErrorAccount& entry) noexcept = 0;
};

/// Counts the warnings and errors that are logged by their places in the sources, also those of a level that is not
/// written. Stands before the logger's back end as long as it exists, and passes everything on. Threads: any.
class ErrorTally final : public bos::logger::ILogBackEnd {
public:
    static constexpr std::size_t Places = 64;
    static constexpr std::size_t Entries = Places + 1; ///< the last one is all further places, "other places"
    static constexpr std::size_t MaxTextSize = 240;    ///< bytes; a longer text is cut where a character ends

    /// Lifetime: `receiver` outlives this object.
    explicit ErrorTally(IErrorSink& receiver);
    ErrorTally(const ErrorTally&) = delete;
    ErrorTally& operator=(const ErrorTally&) = delete;
    /// Requires: no log call under way on another thread.
    ~ErrorTally() override;

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    struct Entry {
        int line = 0;
        instruments::ErrorAccount account;
    };

    void Count(bool isError, std::string_view file, int line, std::string_view message) noexcept;
    std::size_t IndexOf(std::string_view file, int line) REQUIRES(mutex);

    IErrorSink& sink;
    common::Mutex mutex;
    std::array<Entry, Entries> entries GUARDED_BY(mutex);
    std::size_t used GUARDED_BY(mutex) = 0; ///< of the places

    bos::logger::ILogBackEnd& next; ///< set last: from then on this object is called
};

} // namespace msgbus_server
