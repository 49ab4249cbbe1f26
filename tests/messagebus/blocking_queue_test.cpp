// Defends the queue behind the inbound queue and every subscriber's: first in, first out, no limit, permanent cancel.
// The bus's promises about order and about the end of a blocked wait depend on it.
#include "blocking_queue.h"

#include "support/bus_test.h"
#include "support/fault_points.h"

#include <functional>
#include <future>
#include <memory>
#include <vector>

namespace {

using message_bus::BlockingQueue;
using test_support::fault_points::AwaitBlockedOnMutex;
using test_support::fault_points::AwaitSleepingOnCondition;
using test_support::fault_points::AwaitSleepingWithDeadline;

class BlockingQueueTest : public test_support::BusTest {
protected:
    /// A Pop on a thread of its own.
    struct Popper {
        explicit Popper(BlockingQueue<int>& queue, unsigned timeoutMs = 0)
            : thread([this, &queue, timeoutMs] {
                  int element = 0;
                  const bool popped = queue.Pop(element, timeoutMs);
                  result.set_value({popped, element});
              }),
              id(thread.get_id()) {}
        ~Popper() { thread.join(); }

        std::promise<std::pair<bool, int>> result;
        std::thread thread;
        std::thread::id id;
    };

    /// Notes what a listener finds in the queue.
    class NotingListener final : public message_bus::IQueueListener {
    public:
        explicit NotingListener(BlockingQueue<int>& changingQueue) : queue(changingQueue) {}

        void OnEnqueue() noexcept override { Note(); }
        void OnCancel() noexcept override {
            Note();
            ++cancels;
        }

        std::vector<std::size_t> sizes;
        std::vector<std::thread::id> threads;
        bool wasCanceled = false;
        int cancels = 0;

    private:
        void Note() {
            sizes.push_back(queue.Size()); // would block for ever under the queue's mutex
            threads.push_back(std::this_thread::get_id());
            wasCanceled = queue.IsCanceled();
        }

        BlockingQueue<int>& queue;
    };

    /// An item that does something while it is taken, under the queue's mutex.
    class ActingItem final {
    public:
        ActingItem() = default;
        explicit ActingItem(std::function<void()> given) : action(std::move(given)) {}
        ActingItem(ActingItem&&) = default;
        ActingItem& operator=(ActingItem&& taken) noexcept {
            taken.action();
            return *this;
        }

    private:
        std::function<void()> action;
    };

    /// Sets a listener while `change`, on another thread, waits for the queue's mutex.
    static void SetListenerDuring(const std::function<void(BlockingQueue<ActingItem>&)>& change,
                                  message_bus::IQueueListener& listener) {
        BlockingQueue<ActingItem> changing;
        std::thread other;
        changing.Enqueue(ActingItem([&] {
            other = std::thread([&] { change(changing); });
            EXPECT_TRUE(AwaitBlockedOnMutex(other.get_id()));
            changing.SetListener(&listener);
        }));
        ActingItem item;
        EXPECT_TRUE(changing.TryPop(item));
        other.join();
    }

    BlockingQueue<int> queue;
};

TEST_F(BlockingQueueTest, Enqueue_ReturnsTheNumberOfItemsAfterTheCall) {
    EXPECT_EQ(queue.Enqueue(7), 1U);
    EXPECT_EQ(queue.Enqueue(8), 2U);
    EXPECT_EQ(queue.Size(), 2U);
}

TEST_F(BlockingQueueTest, Pop_TakesTheOldestFirst) {
    for (int value : {1, 2, 3}) {
        queue.Enqueue(value);
    }
    int element = 0;
    for (int value : {1, 2, 3}) {
        EXPECT_TRUE(queue.Pop(element, 0));
        EXPECT_EQ(element, value);
    }
    EXPECT_EQ(queue.Size(), 0U);
}

TEST_F(BlockingQueueTest, Pop_ReplacesAndReleasesWhatTheElementHeld) {
    BlockingQueue<std::shared_ptr<int>> pointers;
    pointers.Enqueue(std::make_shared<int>(2));
    auto element = std::make_shared<int>(1);
    const std::weak_ptr<int> former = element;
    EXPECT_TRUE(pointers.Pop(element, 0));
    EXPECT_EQ(*element, 2);
    EXPECT_TRUE(former.expired());
}

TEST_F(BlockingQueueTest, Pop_MovesTheElementOutSoThatTheQueueKeepsNoReference) {
    BlockingQueue<std::shared_ptr<int>> pointers;
    pointers.Enqueue(std::make_shared<int>(2));
    std::shared_ptr<int> element;
    EXPECT_TRUE(pointers.Pop(element, 0));
    EXPECT_EQ(element.use_count(), 1);
}

TEST_F(BlockingQueueTest, Pop_WithoutLimit_BlocksUntilAnItemArrives) {
    Popper popper(queue);
    ASSERT_TRUE(AwaitSleepingOnCondition(popper.id));
    queue.Enqueue(5);
    EXPECT_EQ(popper.result.get_future().get(), std::pair(true, 5));
}

TEST_F(BlockingQueueTest, Pop_WithATimeOutThatPasses_ReturnsFalseAndLeavesTheElement) {
    int element = 41;
    EXPECT_FALSE(queue.Pop(element, 1));
    EXPECT_EQ(element, 41);
}

TEST_F(BlockingQueueTest, Pop_WithATimeOutAndAnItem_TakesItAtOnce) {
    queue.Enqueue(5);
    int element = 0;
    EXPECT_TRUE(queue.Pop(element, 1));
    EXPECT_EQ(element, 5);
}

TEST_F(BlockingQueueTest, Pop_WithATimeOut_EndsWithCancelBeforeTheTimeOut) {
    Popper popper(queue, 0xFFFFFFFF);
    ASSERT_TRUE(AwaitSleepingWithDeadline(popper.id));
    queue.Cancel();
    EXPECT_EQ(popper.result.get_future().get(), std::pair(false, 0));
    int element = 41;
    EXPECT_FALSE(queue.Pop(element, 0xFFFFFFFF)); // and it does not begin to wait
    EXPECT_EQ(element, 41);
}

TEST_F(BlockingQueueTest, Pop_WithTheLongestTimeOut_WaitsForAnItem) {
    Popper popper(queue, 0xFFFFFFFF);
    ASSERT_TRUE(AwaitSleepingWithDeadline(popper.id));
    queue.Enqueue(6);
    EXPECT_EQ(popper.result.get_future().get(), std::pair(true, 6));
}

TEST_F(BlockingQueueTest, Cancel_MakesEveryBlockedPopReturnFalseWithItsElementUntouched) {
    Popper first(queue);
    Popper second(queue);
    ASSERT_TRUE(AwaitSleepingOnCondition(first.id));
    ASSERT_TRUE(AwaitSleepingOnCondition(second.id));
    queue.Cancel();
    EXPECT_EQ(first.result.get_future().get(), std::pair(false, 0));
    EXPECT_EQ(second.result.get_future().get(), std::pair(false, 0));
}

TEST_F(BlockingQueueTest, Cancel_LeavesWhatIsQueuedToBeHandedOut) {
    queue.Enqueue(1);
    queue.Enqueue(2);
    queue.Cancel();
    int element = 0;
    EXPECT_TRUE(queue.Pop(element, 0));
    EXPECT_EQ(element, 1);
    EXPECT_TRUE(queue.Pop(element, 0));
    EXPECT_EQ(element, 2);
    EXPECT_FALSE(queue.Pop(element, 0));
}

TEST_F(BlockingQueueTest, Enqueue_OnACanceledQueue_DropsTheElementSilently) {
    queue.Enqueue(1);
    queue.Cancel();
    EXPECT_EQ(queue.Enqueue(2), 1U);
    EXPECT_EQ(queue.Size(), 1U);
    EXPECT_TRUE(journal.Logs().empty());
}

TEST_F(BlockingQueueTest, IsCanceled_IsFalseUntilCancelAndTrueForEverAfter) {
    EXPECT_FALSE(queue.IsCanceled());
    queue.Cancel();
    EXPECT_TRUE(queue.IsCanceled());
    queue.Enqueue(1);
    queue.Cancel();
    EXPECT_TRUE(queue.IsCanceled());
}

TEST_F(BlockingQueueTest, TryPop_TakesTheOldestFirstAndNeverBlocks) {
    queue.Enqueue(1);
    queue.Enqueue(2);
    int element = 0;
    EXPECT_TRUE(queue.TryPop(element));
    EXPECT_EQ(element, 1);
    EXPECT_TRUE(queue.TryPop(element));
    EXPECT_EQ(element, 2);
    EXPECT_FALSE(queue.TryPop(element));
    EXPECT_EQ(element, 2) << "left alone";
}

TEST_F(BlockingQueueTest, TryPop_OfACanceledQueue_StillReturnsItsItems) {
    queue.Enqueue(1);
    queue.Cancel();
    int element = 0;
    EXPECT_TRUE(queue.TryPop(element));
    EXPECT_EQ(element, 1);
    EXPECT_FALSE(queue.TryPop(element));
}

TEST_F(BlockingQueueTest, Listener_IsCalledBehindEachEnqueueOnTheSameThread) {
    NotingListener listener(queue);
    queue.Enqueue(1);
    queue.SetListener(&listener);
    queue.Enqueue(2);
    std::thread other([&] { queue.Enqueue(3); });
    const auto otherThread = other.get_id();
    other.join();
    EXPECT_EQ(listener.sizes, (std::vector<std::size_t>{2, 3}));
    EXPECT_EQ(listener.threads, (std::vector{std::this_thread::get_id(), otherThread}));
}

TEST_F(BlockingQueueTest, Listener_IsCalledBehindCancelAndBehindAnEnqueueThatIsDropped) {
    NotingListener listener(queue);
    queue.SetListener(&listener);
    queue.Cancel();
    EXPECT_TRUE(listener.wasCanceled);
    EXPECT_EQ(listener.cancels, 1);
    queue.Enqueue(1);
    EXPECT_EQ(listener.sizes, (std::vector<std::size_t>{0, 0}));
    EXPECT_EQ(listener.cancels, 1);
}

TEST_F(BlockingQueueTest, Listener_IsCalledBehindTheNotificationOfABlockedPop) {
    // A listener that waits for the pop's end would wait for ever if it came first.
    class WaitingListener final : public message_bus::IQueueListener {
    public:
        explicit WaitingListener(Popper& waitingPopper) : popper(waitingPopper) {}
        void OnEnqueue() noexcept override { popped = popper.result.get_future().get(); }
        void OnCancel() noexcept override {}

        std::pair<bool, int> popped;

    private:
        Popper& popper;
    };
    Popper popper(queue);
    ASSERT_TRUE(AwaitSleepingOnCondition(popper.id));
    WaitingListener listener(popper);
    queue.SetListener(&listener);
    queue.Enqueue(5);
    EXPECT_EQ(listener.popped, std::pair(true, 5));
    queue.SetListener(nullptr);
}

TEST_F(BlockingQueueTest, SetListener_WithNull_EndsTheCalls) {
    NotingListener listener(queue);
    queue.SetListener(&listener);
    queue.SetListener(nullptr);
    queue.Enqueue(1);
    queue.Cancel();
    EXPECT_TRUE(listener.sizes.empty());
}

TEST_F(BlockingQueueTest, SetListener_BeforeAnEnqueueThatIsUnderWay_IsInTimeForIt) {
    NotingListener listener(queue);
    SetListenerDuring([](auto& changing) { changing.Enqueue(ActingItem()); }, listener);
    EXPECT_EQ(listener.threads.size(), 1U);
    EXPECT_EQ(listener.cancels, 0);
}

TEST_F(BlockingQueueTest, SetListener_BeforeACancelThatIsUnderWay_IsInTimeForIt) {
    NotingListener listener(queue);
    SetListenerDuring([](auto& changing) { changing.Cancel(); }, listener);
    EXPECT_EQ(listener.cancels, 1);
}

TEST_F(BlockingQueueTest, Enqueue_HasNoLimit) {
    constexpr int many = 100'000;
    for (int value = 0; value < many; ++value) {
        queue.Enqueue(value);
    }
    EXPECT_EQ(queue.Size(), static_cast<std::size_t>(many));
}

} // namespace
