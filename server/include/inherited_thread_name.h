#pragma once

#include <array>

namespace msgbus_server {

/// Names a thread that other code starts: a new thread inherits the name of the thread that starts it, so the calling
/// thread has `name` from construction to Restore or destruction.
/// Threads: all on the same one.
class InheritedThreadName final {
public:
    /// `name`: at most 15 characters.
    explicit InheritedThreadName(const char* name) noexcept;
    InheritedThreadName(const InheritedThreadName&) = delete;
    InheritedThreadName& operator=(const InheritedThreadName&) = delete;
    ~InheritedThreadName() { Restore(); }

    void Restore() noexcept;

private:
    std::array<char, 16> own{}; ///< empty once restored
};

} // namespace msgbus_server
