#pragma once

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <utility>

namespace message_bus {

/// Unlimited FIFO, on which consumers block until an item arrives or the queue is canceled.
/// Threads: every operation from any thread.
template <typename T>
class BlockingQueue final {
public:
    /// Appends `element` at the back; a canceled queue drops it silently. Wakes every Pop in both cases.
    /// Returns: the number of items after the call.
    std::size_t Enqueue(T element) {
        std::list<T> node;
        node.push_back(std::move(element));
        std::size_t size = 0;
        {
            const std::lock_guard lock(mutex);
            if (!canceled) {
                items.splice(items.end(), node);
            }
            size = items.size();
        }
        notEmpty.notify_all();
        return size;
    }

    /// Moves the front item into `element`. A canceled queue still returns its items.
    /// Returns: false, with `element` as it was, when the queue is empty: canceled, or timed out.
    /// Blocks: until an item arrives, the queue is canceled, or `timeoutMs` milliseconds have passed; 0: no limit.
    bool Pop(T& element, unsigned timeoutMs) {
        std::unique_lock lock(mutex);
        const auto ready = [this] { return !items.empty() || canceled; };
        if (timeoutMs == 0) {
            notEmpty.wait(lock, ready);
        } else {
            notEmpty.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs), ready);
        }
        if (items.empty()) {
            assert(canceled || timeoutMs != 0);
            return false;
        }
        element = std::move(items.front());
        items.pop_front();
        return true;
    }

    std::size_t Size() const {
        const std::lock_guard lock(mutex);
        return items.size();
    }

    /// Ends every blocked Pop, and every later one that finds the queue empty. Cannot be undone.
    void Cancel() {
        {
            const std::lock_guard lock(mutex);
            canceled = true;
        }
        notEmpty.notify_all();
        notFull.notify_all();
    }

    bool IsCanceled() const {
        const std::lock_guard lock(mutex);
        return canceled;
    }

private:
    mutable std::mutex mutex; // guards all below
    std::condition_variable notEmpty;
    std::condition_variable notFull; // no thread waits on it: the queue has no capacity
    bool canceled = false;
    std::list<T> items;
};

} // namespace message_bus
