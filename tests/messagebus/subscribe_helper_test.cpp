// Defends the three-step registration: ids, the codes that differ between the steps, what reaches the bus, and that
// every last step removes the registration.
#include "subscribe_helper.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <set>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::SubscribeHelper;
using test_support::Gate;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

/// Takes committed registrations in place of a bus.
class FakeControl final : public message_bus::IProviderControl {
public:
    ResultCode RegisterPublisher(const std::string&, long&) override { return ResultCode::Failed; }
    ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                  long& subscriberId) override {
        ++calls;
        lastName = name;
        lastTopics = topics;
        if (action) {
            action();
        }
        subscriberId = 31;
        return result;
    }
    ResultCode UnregisterPublisher(long) override { return ResultCode::Failed; }
    ResultCode UnregisterSubscriber(long) override { return ResultCode::Failed; }

    ResultCode result = ResultCode::Success;
    std::function<void()> action;
    int calls = 0;
    std::string lastName;
    std::set<std::string> lastTopics;
};

class SubscribeHelperTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static void Throw() { throw std::runtime_error("out of paper"); }

    long Begin(const std::string& name = "reader") {
        long id = -5;
        EXPECT_EQ(helper.StartSubscribing(name, id), ResultCode::Success);
        return id;
    }
    ResultCode Finish(long id, bool complete) { return helper.FinishSubscribing(id, complete, subscriberId); }

    std::shared_ptr<FakeControl> control = std::make_shared<FakeControl>();
    SubscribeHelper helper{control};
    long subscriberId = -77;
};

TEST_F(SubscribeHelperTest, StartSubscribing_GivesIdsFromZeroThatAreNeverReused) {
    EXPECT_EQ(Begin(), 0);
    EXPECT_EQ(Finish(0, false), ResultCode::NotRegistered);
    EXPECT_EQ(Begin(), 1);
    EXPECT_EQ(Begin(), 2);
    EXPECT_THAT(journal.Logs(4), IsEmpty());
}

TEST_F(SubscribeHelperTest, StartSubscribing_AcceptsAnEmptyNameAndOneThatIsPending) {
    const long empty = Begin("");
    const long first = Begin("reader");
    const long second = Begin("reader");
    EXPECT_EQ(Finish(empty, true), ResultCode::Success);
    EXPECT_EQ(control->lastName, "");
    EXPECT_EQ(Finish(first, true), ResultCode::Success);
    EXPECT_EQ(Finish(second, true), ResultCode::Success);
    EXPECT_EQ(control->calls, 3);
}

TEST_F(SubscribeHelperTest, StartSubscribing_CountsPerInstance) {
    Begin();
    SubscribeHelper other(control);
    long id = -5;
    EXPECT_EQ(other.StartSubscribing("reader", id), ResultCode::Success);
    EXPECT_EQ(id, 0);
}

TEST_F(SubscribeHelperTest, StartSubscribing_LogsNothing) {
    Begin();
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(SubscribeHelperTest, StartSubscribing_WithoutMemory_LetsTheExceptionOutAndReleasesItsLock) {
    fault_points::FailAllocation(std::this_thread::get_id());
    long id = -5;
    EXPECT_THROW(static_cast<void>(helper.StartSubscribing("reader", id)), std::bad_alloc);
    EXPECT_EQ(id, -5);
    EXPECT_EQ(Begin(), 0);
}

TEST_F(SubscribeHelperTest, Subscribe_AddsATopicAndReturnsZeroSilently) {
    const long id = Begin();
    EXPECT_EQ(helper.Subscribe(id, "heat"), ResultCode::Success);
    EXPECT_EQ(helper.Subscribe(id, ""), ResultCode::Success);
    EXPECT_THAT(journal.Logs(), IsEmpty());
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_THAT(control->lastTopics, ElementsAre("", "heat"));
}

TEST_F(SubscribeHelperTest, Subscribe_OfATopicTwice_ReturnsEightLogsItAndStaysPending) {
    const long id = Begin();
    EXPECT_EQ(helper.Subscribe(id, "heat"), ResultCode::Success);
    EXPECT_EQ(helper.Subscribe(id, "heat"), ResultCode::Conflict);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Subscribe: Unable to finish registration - the topic already exists in "
                                            "the registartion list of the client."));
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_THAT(control->lastTopics, ElementsAre("heat"));
}

TEST_F(SubscribeHelperTest, Subscribe_OnAnUnknownId_ReturnsTenAndLogsIt) {
    EXPECT_EQ(helper.Subscribe(0, "heat"), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Subscribe: [Subscriber]: Unable to finish registration - undefined "
                                            "subscriber ID"));
}

TEST_F(SubscribeHelperTest, Subscribe_OnAFinishedId_ReturnsTen) {
    const long id = Begin();
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_EQ(helper.Subscribe(id, "heat"), ResultCode::Failed);
}

TEST_F(SubscribeHelperTest, Subscribe_KeepsRegistrationsApart) {
    const long first = Begin("first");
    const long second = Begin("second");
    EXPECT_EQ(helper.Subscribe(first, "heat"), ResultCode::Success);
    EXPECT_EQ(helper.Subscribe(second, "heat"), ResultCode::Success);
    EXPECT_EQ(helper.Subscribe(second, "light"), ResultCode::Success);
    EXPECT_EQ(Finish(first, true), ResultCode::Success);
    EXPECT_EQ(control->lastName, "first");
    EXPECT_THAT(control->lastTopics, ElementsAre("heat"));
    EXPECT_EQ(Finish(second, true), ResultCode::Success);
    EXPECT_EQ(control->lastName, "second");
    EXPECT_THAT(control->lastTopics, ElementsAre("heat", "light"));
}

TEST_F(SubscribeHelperTest, Subscribe_WhoseLineThrows_LetsTheExceptionOutAndReleasesItsLock) {
    log.Before("4 Subscribe", Throw);
    EXPECT_THROW(static_cast<void>(helper.Subscribe(0, "heat")), std::runtime_error);
    EXPECT_EQ(Begin(), 0);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_ThatCommits_HandsTheIdOfTheBusOutAndLogsNothing) {
    const long id = Begin();
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_EQ(subscriberId, 31);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WithoutTopics_PassesAnEmptySetOn) {
    control->lastTopics = {"old"};
    EXPECT_EQ(Finish(Begin(), true), ResultCode::Success);
    EXPECT_EQ(control->calls, 1);
    EXPECT_THAT(control->lastTopics, IsEmpty());
}

TEST_F(SubscribeHelperTest, FinishSubscribing_ThatCancels_ReturnsOneLogsItAndLeavesTheBusAlone) {
    const long id = Begin();
    EXPECT_EQ(Finish(id, false), ResultCode::NotRegistered);
    EXPECT_EQ(subscriberId, -77);
    EXPECT_EQ(control->calls, 0);
    EXPECT_THAT(journal.Logs(),
                ElementsAre("3 FinishSubscribing: [Subscriber]: The subscriber registration is cancelled"));
    EXPECT_EQ(Finish(id, true), ResultCode::Conflict);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_OfAnUnknownId_ReturnsEightLogsItAndWritesNoId) {
    EXPECT_EQ(Finish(0, true), ResultCode::Conflict);
    EXPECT_EQ(Finish(0, false), ResultCode::Conflict);
    EXPECT_EQ(subscriberId, -77);
    EXPECT_EQ(journal.Count("4 FinishSubscribing: Unable to finish registration - the registration id is not "
                            "recognized."),
              2U);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_OfAFinishedId_ReturnsEight) {
    const long id = Begin();
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_EQ(Finish(id, true), ResultCode::Conflict);
    EXPECT_EQ(control->calls, 1);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WhoseCommitFails_ReturnsThatFailureAndTheIdIsGone) {
    const long id = Begin();
    control->result = static_cast<ResultCode>(4);
    EXPECT_EQ(Finish(id, true), static_cast<ResultCode>(4));
    EXPECT_EQ(Finish(id, true), ResultCode::Conflict);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WhoseCommitThrows_ReturnsTenLogsItAndTheIdIsGone) {
    const long id = Begin();
    control->action = Throw;
    EXPECT_EQ(Finish(id, true), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 FinishSubscribing: [Subscriber]: out of paper"));
    EXPECT_EQ(Finish(id, true), ResultCode::Conflict);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WhoseCancelLineThrows_ReturnsTen) {
    const long id = Begin();
    log.Before("3 FinishSubscribing", Throw);
    EXPECT_EQ(Finish(id, false), ResultCode::Failed);
    EXPECT_EQ(journal.Count("4 FinishSubscribing: [Subscriber]: out of paper"), 1U);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WithoutItsLock_ReturnsTenLogsItAndKeepsTheRegistration) {
    const long id = Begin();
    fault_points::FailMutexLockOnThisThread();
    EXPECT_EQ(Finish(id, true), ResultCode::Failed);
    EXPECT_THAT(journal.Logs(), ElementsAre(testing::StartsWith("4 FinishSubscribing: [Subscriber]: ")));
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_WithoutMemoryForTheCopy_ReturnsTenWithItsLockReleasedBeforeTheLine) {
    const long id = Begin();
    EXPECT_EQ(helper.Subscribe(id, "heat"), ResultCode::Success);
    bool lockWasFree = false;
    log.Before("4 FinishSubscribing", [&] { lockWasFree = Begin("other") == 1; });
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_EQ(Finish(id, true), ResultCode::Failed);
    EXPECT_TRUE(lockWasFree);
    EXPECT_EQ(control->calls, 0);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_LetsExceptionsPassThatAreNotStandardOnes) {
    const long id = Begin();
    control->action = [] { throw 42; };
    EXPECT_THROW(static_cast<void>(Finish(id, true)), int);
    EXPECT_EQ(Finish(id, true), ResultCode::Conflict);
}

TEST_F(SubscribeHelperTest, FinishSubscribing_CallsTheBusWithoutItsLockAndWithTheIdGone) {
    const long id = Begin();
    ResultCode within{};
    control->action = [&] {
        within = helper.Subscribe(id, "late");
        EXPECT_EQ(Begin("other"), id + 1);
    };
    EXPECT_EQ(Finish(id, true), ResultCode::Success);
    EXPECT_EQ(within, ResultCode::Failed);
}

TEST_F(SubscribeHelperTest, Subscribe_WaitsForTheLockThatAnotherStepHolds) {
    Gate gate;
    log.Before("4 Subscribe", [&] { gate.Pass(); });
    std::thread holding([&] { EXPECT_EQ(helper.Subscribe(8, "heat"), ResultCode::Failed); });
    gate.AwaitReached();
    std::thread beginning([&] { Begin(); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(beginning.get_id()));
    gate.Open();
    holding.join();
    beginning.join();
}

TEST_F(SubscribeHelperTest, Destructor_DropsWhatIsPendingWithoutTheBus) {
    {
        SubscribeHelper other(control);
        long id = 0;
        EXPECT_EQ(other.StartSubscribing("reader", id), ResultCode::Success);
    }
    EXPECT_EQ(control->calls, 0);
    EXPECT_EQ(control.use_count(), 2); // this test and its helper
}

} // namespace
