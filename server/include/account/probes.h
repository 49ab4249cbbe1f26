#pragma once

#include <cstdint>

#if __has_include(<sys/sdt.h>)
#include <sys/sdt.h>
#define MSGBUS_PROBE(count, name, ...) STAP_PROBE##count(msgbus, name, __VA_ARGS__)
#else
#define MSGBUS_PROBE(count, name, ...) Ignore(__VA_ARGS__)
#endif

/// Static probes (USDT) of the provider "msgbus", at which tools such as bpftrace and perf can trace a running server.
/// One that is not traced is a single instruction that does nothing. Without <sys/sdt.h> there are none, and the
/// functions do nothing. Texts end with a zero byte. Blocks: never. Threads: any.
namespace msgbus_server::probes {

template <typename... Arguments>
constexpr void Ignore(const Arguments&... /*arguments*/) noexcept {}

/// Brings a text into memory: a tracing tool reads nothing from a page that is not there yet.
inline void Touch(const char* text) noexcept {
    static_cast<void>(*static_cast<const volatile char*>(text));
}

/// msgbus:push. A push of a publisher has its answer, `result`: 0, or the result code.
inline void Push(std::int64_t publisherId, std::int64_t value, std::uint32_t result) noexcept {
    MSGBUS_PROBE(3, push, publisherId, value, result);
}

/// msgbus:fanout. A value is in the queues of all `copies` subscribers of its topic.
inline void FanOut(std::uint64_t copies) noexcept {
    MSGBUS_PROBE(1, fanout, copies);
}

/// msgbus:taken. The client of a subscriber has got `count` values.
inline void Taken(std::int64_t subscriberId, std::uint64_t count) noexcept {
    MSGBUS_PROBE(2, taken, subscriberId, count);
}

/// msgbus:dropped. `count` values for a subscriber are lost. `reason`: "oldest", "newest", "cut", "unregistered" or
/// "undelivered".
inline void Dropped(std::int64_t subscriberId, std::uint64_t count, const char* reason) noexcept {
    Touch(reason);
    MSGBUS_PROBE(3, dropped, subscriberId, count, reason);
}

/// msgbus:registered. `kind`: "publisher" or "subscriber"; `id`: its new one; `pid`: of its process, 0 when not known.
inline void Registered(const char* kind, std::int64_t id, std::int32_t pid) noexcept {
    Touch(kind);
    MSGBUS_PROBE(3, registered, kind, id, pid);
}

} // namespace msgbus_server::probes

#undef MSGBUS_PROBE
