#pragma once

#include <functional>
#include <memory>

namespace msgbus {

/// Calls a function when the program is asked to end, so that it can unregister:
///
///     msgbus::Subscriber subscriber("display", {"temperature"});
///     const msgbus::StopSignals stop([&] { subscriber.Cancel(); });
///     for (const auto& [topic, value] : subscriber) { ... } // ends on SIGINT and SIGTERM
///
/// A second signal ends the program at once. A signal that the program ignored before stays ignored, as one of the two
/// is in a background job of a shell.
///
/// Reaches beyond the object: while it exists, the program's handlers of SIGINT and SIGTERM are its own, and a thread
/// of the library waits for them. The destructor restores the handlers.
class __attribute__((visibility("default"))) StopSignals final {
public:
    /// `onStop`: called once, on the library's thread, at the first signal; must not throw.
    /// Throws: std::logic_error when another StopSignals exists; std::system_error for want of descriptors or threads.
    explicit StopSignals(std::function<void()> onStop);
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    /// Blocks: while `onStop` runs.
    ~StopSignals();

    /// Returns: whether a signal has come. Threads: any.
    bool HasCome() const noexcept;

private:
    class State;
    std::unique_ptr<State> state;
};

} // namespace msgbus
