#pragma once

#include <atomic>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <utility>

namespace message_bus {

/// Learns of the changes of one queue or more.
class [[gnu::visibility("default")]] IQueueListener {
public:
    virtual ~IQueueListener() = default;

    // Each is called after the change, on the thread that made it and with the locks that it holds, but for the queue's
    // own: the listener may use the queue.

    virtual void OnEnqueue() noexcept = 0;
    virtual void OnCancel() noexcept = 0;
};

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
        if (auto* const current = Listener()) {
            current->OnEnqueue();
        }
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
        assert(!items.empty() || canceled || timeoutMs != 0);
        return TakeFront(element);
    }

    /// Pop without blocking.
    bool TryPop(T& element) {
        const std::lock_guard lock(mutex);
        return TakeFront(element);
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
        if (auto* const current = Listener()) {
            current->OnCancel();
        }
    }

    bool IsCanceled() const {
        const std::lock_guard lock(mutex);
        return canceled;
    }

    /// Replaces the listener; null: none. Each later change is reported to it. A change that another thread makes
    /// meanwhile is reported, or whatever the listener's thread then reads of the queue shows it.
    /// Lifetime: the listener must outlive the queue, or be replaced and outlive the changes that are under way then.
    void SetListener(IQueueListener* newListener) { listener.store(newListener, std::memory_order_release); }

private:
    // Requires: the mutex is held.
    bool TakeFront(T& element) {
        if (items.empty()) {
            return false;
        }
        element = std::move(items.front());
        items.pop_front();
        return true;
    }

    // Called behind the change: a listener that is missed was set by a thread that finds the change in the queue.
    IQueueListener* Listener() const noexcept { return listener.load(std::memory_order_acquire); }

    mutable std::mutex mutex; // guards all below but the listener
    std::condition_variable notEmpty;
    std::condition_variable notFull; // no thread waits on it: the queue has no capacity
    bool canceled = false;
    std::list<T> items;
    std::atomic<IQueueListener*> listener{nullptr}; // not owned; not guarded
};

} // namespace message_bus
