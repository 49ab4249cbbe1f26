#include "base/thread_name.h"

#include "base/unique_fd.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

namespace borven_host {

namespace {

/// As the kernel keeps it: up to 15 bytes, the rest zeros.
using ThreadName = std::array<char, 16>;

/// A character that could break a line of ps becomes '_'.
ThreadName Cut(std::string_view name) {
    ThreadName cut{};
    for (std::size_t i = 0; i < std::min(name.size(), cut.size() - 1); ++i) {
        cut[i] = name[i] > ' ' && name[i] < '\x7F' ? name[i] : '_';
    }
    return cut;
}

/// The names that were given, newest first. A list that only grows, by a few entries per program, so that neither a
/// lock nor its owner can be lost in a fork.
struct Given {
    ThreadName name;
    const Given* next;
};

std::atomic<const Given*> lastGiven{nullptr};

bool WasGiven(const ThreadName& name) {
    for (const Given* given = lastGiven.load(std::memory_order_acquire); given != nullptr; given = given->next) {
        if (given->name == name) {
            return true;
        }
    }
    return false;
}

/// Returns: false for want of memory.
bool RememberGiven(const ThreadName& name) {
    if (WasGiven(name)) {
        return true;
    }
    auto* const given = new (std::nothrow) Given{name, lastGiven.load(std::memory_order_relaxed)};
    if (given == nullptr) {
        return false;
    }
    // Release: a thread that finds the entry finds its name. An entry twice, by two threads at once, does no harm.
    while (!lastGiven.compare_exchange_weak(given->next, given, std::memory_order_release, std::memory_order_relaxed)) {
    }
    return true;
}

/// Returns: false when /proc does not say.
bool ReadMainThreadName(ThreadName& name) {
    const UniqueFd file(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
    std::array<char, 32> buffer{};
    const ssize_t length = file ? ::read(file.Get(), buffer.data(), buffer.size()) : 0;
    if (length <= 1) {
        return false;
    }
    name = {};
    std::copy_n(buffer.data(), std::min<std::size_t>(static_cast<std::size_t>(length) - 1, name.size() - 1),
                name.data()); // less the line feed
    return true;
}

bool IsSwitchedOff() {
    static const bool isOff = [] {
        const char* const setting = ::secure_getenv("BORVEN_THREAD_NAMES");
        return setting != nullptr && std::string_view(setting) == "off";
    }();
    return isOff;
}

bool HasInheritedName() {
    ThreadName own{};
    ThreadName main{};
    return ::pthread_getname_np(::pthread_self(), own.data(), own.size()) == 0 && ReadMainThreadName(main) &&
           (own == main || WasGiven(own));
}

} // namespace

std::string ServingThreadName(std::string_view service) {
    return std::string("serve-").append(service.substr(service.rfind('.') + 1));
}

void DecideThreadName(std::string_view name) noexcept {
    if (IsSwitchedOff() || ::gettid() == ::getpid() || !HasInheritedName()) {
        return;
    }
    const ThreadName given = Cut(name);
    if (RememberGiven(given)) { // before it is set: a thread started from now on inherits it
        ::pthread_setname_np(::pthread_self(), given.data());
    }
}

void NamePlatformThread(std::thread& thread, const char* name) noexcept {
    ::pthread_setname_np(thread.native_handle(), name);
}

} // namespace borven_host
