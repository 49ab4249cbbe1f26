// Coroutines that await values, in one thread: `co_await loop.Next(subscriber)`. Adds up the values of two topics until
// each has brought as many as the command line says.
#include <msgbus/msgbus.h>

#include <poll.h>

#include <algorithm>
#include <coroutine>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <vector>

/// Runs coroutines until none waits any more.
class Loop {
public:
    /// What `co_await` takes: suspends while the subscriber has no value.
    class Awaitable {
    public:
        Awaitable(Loop& owner, msgbus::Subscriber& source) : loop(owner), subscriber(source) {}

        bool await_ready() {
            received = subscriber.TryNext();
            return received.outcome != msgbus::Outcome::TimedOut;
        }
        void await_suspend(std::coroutine_handle<> suspended) {
            handle = suspended;
            loop.waiting.push_back(this);
        }
        /// Returns: a value or Outcome::Canceled. Throws: as Subscriber::TryNext.
        msgbus::Received await_resume() {
            if (failure) {
                std::rethrow_exception(failure);
            }
            return received;
        }

    private:
        friend class Loop;

        /// Returns: whether the coroutine can go on.
        bool IsReady() noexcept {
            try {
                return await_ready();
            } catch (...) {
                failure = std::current_exception();
                return true;
            }
        }

        Loop& loop;
        msgbus::Subscriber& subscriber;
        msgbus::Received received;
        std::exception_ptr failure;
        std::coroutine_handle<> handle;
    };

    Awaitable Next(msgbus::Subscriber& subscriber) { return Awaitable(*this, subscriber); }

    void Run() {
        while (!waiting.empty()) {
            std::vector<pollfd> polled;
            for (const auto* awaitable : waiting) {
                polled.push_back({awaitable->subscriber.Descriptor(), POLLIN, 0});
            }
            ::poll(polled.data(), polled.size(), -1);
            std::vector<Awaitable*> ready;
            for (std::size_t i = 0; i < polled.size(); ++i) {
                if (polled[i].revents != 0 && waiting[i]->IsReady()) {
                    ready.push_back(waiting[i]);
                }
            }
            for (auto* awaitable : ready) {
                waiting.erase(std::find(waiting.begin(), waiting.end(), awaitable));
                awaitable->handle.resume(); // it may wait again
            }
        }
    }

private:
    std::vector<Awaitable*> waiting;
};

/// A coroutine that starts at once and frees itself at its end.
struct Task {
    struct promise_type {
        Task get_return_object() noexcept { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() noexcept {
            try {
                throw;
            } catch (const std::exception& error) {
                std::cerr << error.what() << '\n';
            }
            std::_Exit(1);
        }
    };
};

Task AddUp(Loop& loop, msgbus::Subscriber& subscriber, int count) {
    std::int64_t sum = 0;
    for (int i = 0; i < count; ++i) {
        const auto received = co_await loop.Next(subscriber);
        if (!received) {
            co_return;
        }
        sum += received->value;
    }
    std::cout << subscriber.Name() << ' ' << sum << std::endl;
}

int main(int argc, char** argv) try {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10;
    msgbus::Subscriber temperature("temperature", {"temperature"});
    msgbus::Subscriber pressure("pressure", {"pressure"});
    const msgbus::StopSignals stop([&] {
        temperature.Cancel();
        pressure.Cancel();
    });
    Loop loop;
    AddUp(loop, temperature, count);
    AddUp(loop, pressure, count);
    loop.Run();
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
