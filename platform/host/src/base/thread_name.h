#pragma once

#include <string>
#include <string_view>
#include <thread>

// Names of threads, as ps -L, top -H and debuggers show them. The threads that serve belong to the program above the
// platform, which creates them; the platform names each one when it first learns what the thread does.

namespace borven_host {

/// Returns: the name of a thread that serves clients of `service`: "serve-" and the last part of the dotted name.
std::string ServingThreadName(std::string_view service);

/// The first call of NameCallingThread.
void DecideThreadName(std::string_view name) noexcept;

/// Whether the calling thread has made that call.
inline constinit thread_local bool isThreadNameDecided = false;

/// Names the calling thread at its first call, and leaves it alone at every later one. A name has at most 15 bytes; a
/// longer one is cut. Not renamed are
///
/// - the main thread: its name is that of the process;
/// - a thread that the program has named: its name is neither the main thread's nor one that was given here, which are
///   the names that a thread inherits from its creator;
/// - any thread, when the environment has BORVEN_THREAD_NAMES=off.
inline void NameCallingThread(std::string_view name) noexcept {
    if (!isThreadNameDecided) {
        isThreadNameDecided = true;
        DecideThreadName(name);
    }
}

/// Names a thread of the platform's own, whatever the environment says.
void NamePlatformThread(std::thread& thread, const char* name) noexcept;

} // namespace borven_host
