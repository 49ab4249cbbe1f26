// Defends the waits that hold no thread: each value reaches one client once and in order, whatever happens to the
// clients meanwhile, with the results and the lines of the bus's own waits.
#include "parked_waits.h"

#include "subscriber_waits.h"
#include "support/bus_harness.h"
#include "support/bus_test.h"
#include "support/deferring_clients.h"
#include "unlock_stop.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using cor::ResultCode;
using message_bus::Message;
using msgbus_server::ParkedWaits;
using msgbus_server::QueueBudget;
using msgbus_server::QueueLimit;
using msgbus_server::SlowSubscriber;
using test_support::DeferringClients;
using test_support::Delivered;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

constexpr std::uint64_t A = 1; // clients
constexpr std::uint64_t B = 2;
constexpr std::uint64_t C = 3;

constexpr auto FirstLine = "1 Wait: Wait is called by subscriber (1)";
constexpr auto CancelLine = "1 Wait: [MessageBus]: Canceled";
constexpr auto RemovedLine = "1 UnregisterSubscriber: [MessageBus]: The subscriber ID (1) has been removed";

// Error replies with codes of the bus.
const DeferringClients::Answer Canceled{1, "", 0};
const DeferringClients::Answer Failed{10, "", 0};
const DeferringClients::Answer TooMany{9, "", 0};

DeferringClients::Answer Value(const std::string& topic, long value) {
    return {0, topic, value};
}

std::vector<long> Numbers(long first, long count) {
    std::vector<long> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

class ParkedWaitsTest : public test_support::BusTest {
protected:
    ParkedWaitsTest() { EXPECT_EQ(bus->RegisterSubscriber("reader", {"heat", "light"}, reader), ResultCode::Success); }

    /// Offers are made while debug is disabled.
    void DisableDebug() { log.SetThreshold(2); }

    /// Puts a value into the reader's queue, as the events thread does.
    void Give(const std::string& topic, long value) { Queue().Enqueue(std::make_shared<Message>(topic, value)); }
    void GiveHeat(long first, long count) {
        for (const long value : Numbers(first, count)) {
            Give("heat", value);
        }
    }
    message_bus::BlockingQueue<std::shared_ptr<Message>>& Queue() { return kept->queue; }
    void Unregister() { EXPECT_EQ(bus->UnregisterSubscriber(reader), ResultCode::Success); }
    void Wait(std::uint64_t client) { clients.Wait(client, *waits, reader); }

    static void Throw() { throw std::runtime_error("out of paper"); }

    const fault_points::Disarmer disarmer{};
    test_support::ScriptedPlatform platform;
    DeferringClients clients{platform};
    std::shared_ptr<message_bus::MessageBus> bus = std::make_shared<message_bus::MessageBus>();
    long reader = -1;

private:
    void SetUp() override {
        kept = bus->GetSubscriberPtrById(reader);
        journal.Clear();
    }

protected:
    std::shared_ptr<message_bus::Subscriber> kept;
    std::optional<ParkedWaits> waits{*bus};
};

// ------------------------------------------------------------------------------------------------ one client

TEST_F(ParkedWaitsTest, Wait_WithAnEmptyQueue_ReturnsAndIsAnsweredWithTheNextValue) {
    Wait(A);
    EXPECT_TRUE(clients.IsBlocked(A));
    EXPECT_THAT(clients.Answers(A), IsEmpty());
    Give("heat", 7);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 7)));
    EXPECT_THAT(journal.All(), ElementsAre(FirstLine)) << "nothing is handed over";
}

TEST_F(ParkedWaitsTest, Wait_WithAQueuedValue_IsAnsweredAtOnce) {
    Give("heat", 7);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 7)));
    EXPECT_THAT(journal.All(), ElementsAre(FirstLine));
}

TEST_F(ParkedWaitsTest, Wait_WithQueuedValues_OffersThoseThatFollowTheFirst) {
    DisableDebug();
    GiveHeat(1, 4);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1)));
    EXPECT_THAT(clients.Offers(A), ElementsAre(2, 3, 4));
    EXPECT_EQ(Queue().Size(), 0U);
}

TEST_F(ParkedWaitsTest, Wait_AtDebugLevel_OffersNothingSoThatEachWaitWritesItsLine) {
    GiveHeat(1, 3);
    for (int times = 0; times < 3; ++times) {
        Wait(A);
        EXPECT_THAT(clients.Offers(A), IsEmpty());
    }
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1), Value("heat", 2), Value("heat", 3)));
    EXPECT_THAT(journal.All(), ElementsAre(FirstLine, FirstLine, FirstLine));
}

TEST_F(ParkedWaitsTest, Unread_CountsTheQueueAndTakesBackWhatIsOffered) {
    DisableDebug();
    GiveHeat(1, 4);
    EXPECT_EQ(waits->Unread(reader), std::nullopt) << "it has not waited";
    Wait(A);
    clients.TakeOffers(A, 1);
    Give("heat", 5);
    EXPECT_EQ(waits->Unread(reader), 3U);
    Wait(A);
    EXPECT_EQ(std::get<2>(clients.Answers(A).back()), 3);
    Unregister();
    EXPECT_EQ(waits->Unread(reader), std::nullopt);
}

TEST_F(ParkedWaitsTest, Wait_WithMoreValuesThanAReplyOffers_DeliversThemAllInOrder) {
    DisableDebug();
    constexpr long count = 3 * static_cast<long>(NkMaxOffers);
    GiveHeat(0, count);
    std::vector<DeferringClients::Answer> expected;
    for (long value = 0; value < count; ++value) {
        expected.push_back(Value("heat", value));
    }
    while (clients.Answers(A).size() != expected.size()) {
        Wait(A);
        ASSERT_FALSE(clients.IsBlocked(A));
        EXPECT_EQ(clients.Offers(A).size(), std::min(NkMaxOffers, expected.size() - clients.Answers(A).size()));
        clients.TakeOffers(A, clients.Offers(A).size());
    }
    EXPECT_EQ(clients.Answers(A), expected);
}

TEST_F(ParkedWaitsTest, Wait_WithValuesOfTwoTopics_OffersUpToTheOtherTopicAndKeepsTheOrder) {
    DisableDebug();
    GiveHeat(1, 2);
    Give("light", 3);
    GiveHeat(4, 1);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), ElementsAre(2));
    clients.TakeOffers(A, 1);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    Wait(A);
    EXPECT_THAT(clients.Answers(A),
                ElementsAre(Value("heat", 1), Value("heat", 2), Value("light", 3), Value("heat", 4)));
}

TEST_F(ParkedWaitsTest, Wait_WithTopicsThatDifferBehindWhatTheRecordHolds_DoesNotOfferOneAsTheOther) {
    DisableDebug();
    const std::string head(1022, 'x');
    Give(head + "a", 1);
    Give(head + "b", 2);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value(head, 1)));
    EXPECT_THAT(clients.Offers(A), IsEmpty());
}

TEST_F(ParkedWaitsTest, Wait_WhileOffersAreLeft_TakesThemBackAndDeliversTheRestFirst) {
    DisableDebug();
    GiveHeat(1, 4);
    Wait(A);
    clients.TakeOffers(A, 1);
    Give("heat", 5);
    EXPECT_THAT(clients.Offers(A), ElementsAre(3, 4)) << "a new value does not change an offer";
    Wait(A); // as after another request of the same connection
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1), Value("heat", 2), Value("heat", 3)));
    EXPECT_THAT(clients.Offers(A), ElementsAre(4, 5));
}

TEST_F(ParkedWaitsTest, Wait_OfAClientThatTakesFewOffers_IsOfferedFewAtFirst) {
    DisableDebug();
    GiveHeat(1, 300);
    Wait(A);
    EXPECT_EQ(clients.Offers(A).size(), NkMaxOffers);
    clients.TakeOffers(A, 1);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), ElementsAre(4, 5));
    clients.TakeOffers(A, 2);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), ElementsAre(7, 8, 9, 10));
}

TEST_F(ParkedWaitsTest, Wait_PastTheMostThatAreParked_EndsTheOldest) {
    constexpr std::uint64_t first = 1000;
    constexpr std::uint64_t most = msgbus_server::SubscriberWaits::MostParked;
    for (std::uint64_t client = first; client < first + most; ++client) {
        Wait(client);
    }
    EXPECT_TRUE(clients.IsBlocked(first));
    Wait(first + most);
    EXPECT_THAT(clients.Answers(first), ElementsAre(Failed));
    EXPECT_TRUE(clients.IsBlocked(first + 1));
    Give("heat", 7);
    EXPECT_THAT(clients.Answers(first + 1), ElementsAre(Value("heat", 7)));
}

TEST_F(ParkedWaitsTest, Wait_WhoseOffersFindNoRoom_KeepsThemForTheNextWaitsInOrder) {
    DisableDebug();
    clients.SetRoom(1);
    GiveHeat(1, 5);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), ElementsAre(2));
    clients.TakeOffers(A, 1);
    clients.SetRoom(0);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    Wait(A);
    Wait(A);
    EXPECT_THAT(clients.Answers(A),
                ElementsAre(Value("heat", 1), Value("heat", 2), Value("heat", 3), Value("heat", 4), Value("heat", 5)));
}

TEST_F(ParkedWaitsTest, Wait_ReleasesAMessageOnceItIsAnswered) {
    auto message = std::make_shared<Message>("heat", 1);
    const std::weak_ptr<Message> record = message;
    Queue().Enqueue(std::move(message));
    Wait(A);
    EXPECT_TRUE(record.expired());
}

// --------------------------------------------------------------------------------------------- several clients

TEST_F(ParkedWaitsTest, Wait_OfTwoConnections_AnswersTheFirstWithTheFirstValue) {
    DisableDebug();
    Wait(A);
    Wait(B);
    Wait(C);
    Give("heat", 1);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1)));
    EXPECT_TRUE(clients.IsBlocked(B));
    GiveHeat(2, 2);
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 2)));
    EXPECT_THAT(clients.Answers(C), ElementsAre(Value("heat", 3)));
}

TEST_F(ParkedWaitsTest, Wait_BehindParkedOnes_ServesThemFirstAndOffersNothingWhileOneIsLeft) {
    DisableDebug();
    Wait(A);
    Wait(B);
    kept->queue.SetListener(nullptr); // the values are not reported yet
    GiveHeat(1, 5);
    Wait(C);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1)));
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 2)));
    EXPECT_THAT(clients.Answers(C), ElementsAre(Value("heat", 3)));
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    EXPECT_THAT(clients.Offers(B), IsEmpty());
    EXPECT_THAT(clients.Offers(C), ElementsAre(4, 5));
}

TEST_F(ParkedWaitsTest, Wait_WhileAnotherConnectionHasOffers_GetsTheRestOfThemFirst) {
    DisableDebug();
    GiveHeat(1, 5);
    Wait(A);
    clients.TakeOffers(A, 1);
    Wait(B);
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 3)));
    EXPECT_THAT(clients.Offers(B), ElementsAre(4, 5));
    Wait(A);
    EXPECT_THAT(clients.Offers(B), IsEmpty());
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1), Value("heat", 2), Value("heat", 4)));
}

TEST_F(ParkedWaitsTest, Wait_OfAnotherSubscriber_TouchesNothingOfTheFirst) {
    DisableDebug();
    long other = -1;
    EXPECT_EQ(bus->RegisterSubscriber("other", {"heat"}, other), ResultCode::Success);
    GiveHeat(1, 3);
    Wait(A);
    clients.Wait(B, *waits, other);
    EXPECT_THAT(clients.Offers(A), ElementsAre(2, 3));
    EXPECT_TRUE(clients.IsBlocked(B));
}

// -------------------------------------------------------------------------------------------- deaths of clients

TEST_F(ParkedWaitsTest, AParkedWaitOfADeadClient_LosesNothing) {
    Wait(A);
    clients.SetGone(A);
    GiveHeat(1, 2);
    EXPECT_EQ(Queue().Size(), 1U) << "it has been tried once";
    Wait(B);
    Wait(B);
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 1), Value("heat", 2)));
}

TEST_F(ParkedWaitsTest, AParkedWaitOfADeadClient_GivesItsValueToTheNextParkedWait) {
    Wait(A);
    Wait(B);
    clients.SetGone(A);
    Give("heat", 1);
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 1)));
}

TEST_F(ParkedWaitsTest, AWaitWhoseClientDiesBeforeItsAnswer_LosesNeitherValueNorOffers) {
    DisableDebug();
    GiveHeat(1, 3);
    clients.SetGone(A);
    Wait(A);
    Wait(B);
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 1)));
    EXPECT_THAT(clients.Offers(B), ElementsAre(2, 3));
}

TEST_F(ParkedWaitsTest, OffersOfADeadClient_AreLostWithItAndNothingElse) {
    DisableDebug();
    GiveHeat(1, 3);
    Wait(A);
    GiveHeat(4, 2);
    clients.SetGone(A);
    Wait(B);
    EXPECT_THAT(clients.Answers(B), ElementsAre(Value("heat", 4)));
    EXPECT_THAT(clients.Offers(B), ElementsAre(5));
}

TEST_F(ParkedWaitsTest, AClosedChannel_EndsParkedWaitsAndOffersWithoutAFault) {
    DisableDebug();
    GiveHeat(1, 2);
    Wait(A);
    clients.CloseChannel();
    Wait(B);
    Wait(C);
    Give("heat", 3);
    Unregister();
    EXPECT_THAT(clients.Answers(B), IsEmpty());
    EXPECT_THAT(journal.Logs(3), IsEmpty());
}

// ------------------------------------------------------------------------------------- the end of a subscriber

TEST_F(ParkedWaitsTest, Unregistration_AnswersEveryParkedWaitWithOneAndLogsEach) {
    Wait(A);
    Wait(B);
    journal.Clear();
    Unregister();
    EXPECT_THAT(clients.Answers(A), ElementsAre(Canceled));
    EXPECT_THAT(clients.Answers(B), ElementsAre(Canceled));
    EXPECT_THAT(journal.All(), ElementsAre(CancelLine, CancelLine, RemovedLine));
}

TEST_F(ParkedWaitsTest, Unregistration_TakesOffersBackAndDropsWhatIsLeft) {
    DisableDebug();
    GiveHeat(1, 3);
    Give("light", 4);
    Wait(A);
    const std::weak_ptr<message_bus::Subscriber> record = std::exchange(kept, nullptr);
    Unregister();
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    EXPECT_TRUE(record.expired()) << "with all that was kept for it";
    EXPECT_EQ(WaitOn(*waits, reader), NotDelivered(1));
}

TEST_F(ParkedWaitsTest, Unregistration_BetweenTheLookUpAndTheParking_AnswersOneAndLeavesNothingBehind) {
    const std::weak_ptr<message_bus::Subscriber> record = std::exchange(kept, nullptr);
    log.Before(FirstLine, [this] { Unregister(); });
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Canceled));
    EXPECT_THAT(journal.All(), ElementsAre(RemovedLine, FirstLine, CancelLine));
    EXPECT_TRUE(record.expired());
}

TEST_F(ParkedWaitsTest, Unregistration_BeforeTheWaitFollowsTheQueue_AnswersOneAndLeavesNothingBehind) {
    const std::weak_ptr<message_bus::Subscriber> record = std::exchange(kept, nullptr);
    const auto* const registry =
        test_support::LastUnlockedBy([this] { static_cast<void>(bus->GetSubscriberPtrById(-1)); });
    test_support::OnNextUnlock(std::this_thread::get_id(), registry, [this] { Unregister(); });
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Canceled));
    EXPECT_THAT(journal.All(), ElementsAre(RemovedLine, FirstLine, CancelLine));
    EXPECT_TRUE(record.expired());
}

TEST_F(ParkedWaitsTest, Wait_OfACanceledQueueWithKeptValues_ReturnsOneAndDropsThem) {
    DisableDebug();
    clients.SetRoom(0);
    GiveHeat(1, 3);
    Wait(A);
    kept->queue.SetListener(nullptr); // the cancel is not reported yet
    Unregister();
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1), Canceled));
}

TEST_F(ParkedWaitsTest, Wait_OfAnUnknownSubscriber_IsRefusedByTheBus) {
    EXPECT_EQ(WaitOn(*waits, -1), NotDelivered(2));
    EXPECT_EQ(WaitOn(*waits, 4711), NotDelivered(1));
    EXPECT_THAT(journal.All(), ElementsAre("1 Wait: Wait is called by subscriber (-1)",
                                           "4 Wait: [MessageBus]: The clientID is not registered",
                                           "1 Wait: Wait is called by subscriber (4711)",
                                           "4 Wait: [MessageBus]: The clientID is not registered"));
}

TEST_F(ParkedWaitsTest, Wait_OfASubscriberThatHasLeft_IsRefusedByTheBus) {
    Wait(A);
    Unregister();
    journal.Clear();
    EXPECT_EQ(WaitOn(*waits, reader), NotDelivered(1));
    EXPECT_THAT(journal.All(), ElementsAre(FirstLine, "4 Wait: [MessageBus]: The clientID is not registered"));
}

TEST_F(ParkedWaitsTest, Destructor_LeavesTheQueuesWithoutAListener) {
    Wait(A);
    waits.reset();
    Give("heat", 1);
    Unregister();
    EXPECT_THAT(clients.Answers(A), IsEmpty());
}

// --------------------------------------------------------------------------------- where replies cannot be deferred

class BlockingWaitsTest : public ParkedWaitsTest {
protected:
    BlockingWaitsTest() : running(bus) { platform.deferReply.Always(KnStatusUnimplemented); }

    RunningBus running;
};

TEST_F(BlockingWaitsTest, Wait_BlocksInTheBusAfterItsHandOver) {
    PendingWait waiting(*waits, reader);
    ASSERT_TRUE(waiting.AwaitBlocked());
    EXPECT_EQ(journal.Count(FirstLine), 1U);
    EXPECT_EQ(journal.Count("SwitchActiveIpcServer"), 1U);
    Give("heat", 3);
    EXPECT_EQ(waiting.Get(), Delivered("heat", 3));
}

TEST_F(BlockingWaitsTest, Wait_WithValuesThatAnEarlierWaitHasLeft_TakesThemFirst) {
    DisableDebug();
    platform.deferReply.Once([](NkDeferredReply* deferred) {
        *deferred = {1, 1, A};
        return KnStatusOk;
    });
    clients.SetGone(A);
    GiveHeat(1, 2);
    static_cast<void>(WaitOn(*waits, reader));
    GiveHeat(3, 1);
    log.SetThreshold(1);
    journal.Clear();
    for (long value = 1; value <= 3; ++value) {
        EXPECT_EQ(WaitOn(*waits, reader), Delivered("heat", value));
    }
    EXPECT_THAT(journal.Logs(), ElementsAre(FirstLine, FirstLine, FirstLine));
}

// ------------------------------------------------------------------------------------------------------- failures

TEST_F(ParkedWaitsTest, Wait_WithoutMemoryAtAnyOfItsSteps_AnswersTenOnceAndLosesNothing) {
    Give("heat", 1);
    log.SetThreshold(4); // the first line would need memory too
    int failures = 0;
    long skip = 0;
    for (;; ++skip) {
        waits.emplace(*bus);
        journal.Clear();
        const std::size_t answers = clients.Answers(A).size();
        fault_points::FailAllocation(std::this_thread::get_id(), skip);
        std::string topic;
        long value = 0;
        const ResultCode result = clients.Ask(A, *waits, reader, topic, value);
        fault_points::DisarmAllocation();
        const auto got = clients.Answers(A);
        if (result == ResultCode::Failed) {
            EXPECT_FALSE(clients.IsBlocked(A)) << skip;
            EXPECT_EQ(got.size(), answers) << skip;
        } else {
            ASSERT_EQ(result, ResultCode::Success) << skip;
            ASSERT_EQ(got.size(), answers + 1) << skip;
            if (got.back() == Value("heat", 1)) {
                break;
            }
            EXPECT_EQ(got.back(), Failed) << skip;
        }
        EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: std::bad_alloc"), 1U) << skip;
        EXPECT_EQ(Queue().Size(), 1U) << skip;
        ++failures;
        ASSERT_LT(skip, 100);
    }
    EXPECT_GT(failures, 3);
}

TEST_F(ParkedWaitsTest, Wait_WithoutMemoryForOffers_LeavesThemInTheQueue) {
    DisableDebug();
    Give("heat", 0);
    Wait(A);
    GiveHeat(1, 2000); // a deque of so many takes memory
    bool hasFailed = false;
    for (long skip = 0; skip < 50 && !hasFailed; ++skip) {
        fault_points::FailAllocation(std::this_thread::get_id(), skip);
        Wait(A);
        fault_points::DisarmAllocation();
        const auto offers = clients.Offers(A);
        hasFailed = offers.size() < NkMaxOffers;
        clients.TakeOffers(A, offers.size());
    }
    EXPECT_TRUE(hasFailed);
    Wait(A);
    long next = 0;
    for (const auto& answer : clients.Answers(A)) {
        if (answer != Failed) {
            EXPECT_EQ(answer, Value("heat", next++));
        }
    }
    EXPECT_GT(next, 1);
}

TEST_F(ParkedWaitsTest, AParkedWaitWithoutMemoryForItsValue_IsAnsweredTenAndLeavesTheValueInTheQueue) {
    constexpr long ofTheEnqueue = 2; // the message, and its place in the queue
    int failures = 0;
    for (long value = 0; value < 100; ++value) { // not every value needs memory
        Wait(A);
        fault_points::FailAllocation(std::this_thread::get_id(), ofTheEnqueue);
        Give("heat", value);
        fault_points::DisarmAllocation();
        ASSERT_FALSE(clients.IsBlocked(A)) << value;
        if (clients.Answers(A).back() == Failed) {
            ++failures;
            Wait(A);
        }
        ASSERT_EQ(clients.Answers(A).back(), Value("heat", value));
    }
    EXPECT_GT(failures, 0);
    EXPECT_EQ(journal.Count("4 Wait: [MessageBus]: std::bad_alloc"), static_cast<std::size_t>(failures));
}

TEST_F(ParkedWaitsTest, Wait_WhoseFirstLineThrows_AnswersTenAndLogsTheText) {
    Give("heat", 1);
    log.Before(FirstLine, Throw);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Failed));
    EXPECT_THAT(journal.All(), ElementsAre("4 Wait: [MessageBus]: out of paper"));
    EXPECT_EQ(Queue().Size(), 1U);
}

TEST_F(ParkedWaitsTest, Wait_LetsExceptionsPassThatAreNotStandardOnesBehindItsAnswer) {
    log.Before(FirstLine, [] { throw 42; });
    EXPECT_THROW(Wait(A), int);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Failed));
}

TEST_F(ParkedWaitsTest, AParkedWaitWhoseCancelLineThrows_IsAnsweredTenAndNothingReachesTheUnregistration) {
    for (const bool isStandard : {true, false}) {
        SCOPED_TRACE(isStandard);
        long id = -1;
        EXPECT_EQ(bus->RegisterSubscriber("short-lived", {}, id), ResultCode::Success);
        clients.Wait(A, *waits, id);
        log.Before(CancelLine, [isStandard] {
            if (!isStandard) {
                throw 42;
            }
            Throw();
        });
        EXPECT_EQ(bus->UnregisterSubscriber(id), ResultCode::Success);
        EXPECT_EQ(clients.Answers(A).back(), Failed);
    }
    EXPECT_THAT(journal.Logs(4), testing::Contains("4 Wait: [MessageBus]: out of paper"));
}

TEST_F(ParkedWaitsTest, EachDelivery_IsReported_AndACancelIsNot) {
    int deliveries = 0;
    waits.emplace(*bus, [&] { ++deliveries; });
    Wait(A);
    Give("heat", 1);
    EXPECT_EQ(deliveries, 1);
    Give("light", 2);
    EXPECT_EQ(deliveries, 2) << "without a wait too";
    Unregister();
    Give("heat", 3);
    EXPECT_EQ(deliveries, 2);
}

// ------------------------------------------------------------------------------------------------ unread values

/// With a limit, and a note of what others are to do about it.
class UnreadValuesTest : public ParkedWaitsTest {
protected:
    void TearDown() override { waits.reset(); } // which uses the budget

    void Limit(std::size_t values, SlowSubscriber policy, bool isDeferring = true) {
        waits.reset();
        waits.emplace(*bus, std::function<void()>(),
                      msgbus_server::QueueControl{[=](const message_bus::Subscriber&) {
                                                      return QueueLimit{values, policy, 10};
                                                  },
                                                  &budget, [this](long id) { cut.push_back(id); },
                                                  [this](QueueBudget::Exceeded what, std::uint64_t caller) {
                                                      exceeded.emplace_back(what, caller);
                                                  }},
                      isDeferring);
        waits->Follow(reader, 77);
        DisableDebug();
    }
    QueueBudget budget{1000, 10'000};
    std::vector<long> cut;
    std::vector<std::pair<QueueBudget::Exceeded, std::uint64_t>> exceeded;
};

TEST_F(UnreadValuesTest, ACutSubscriber_GetsNoValue_AndItsWaitsGetNineWithWhatItLost) {
    Limit(3, SlowSubscriber::Cut);
    GiveHeat(1, 3);
    EXPECT_THAT(cut, IsEmpty());
    GiveHeat(4, 3);
    EXPECT_THAT(cut, ElementsAre(reader)) << "once";
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(TooMany));
    EXPECT_EQ(clients.Loss(A), (NkLoss{9, 6}));
    EXPECT_EQ(Queue().Size(), 4U) << "what comes behind the cut is dropped at once";
    Unregister();
    EXPECT_FALSE(waits->Find(reader));
    Wait(B);
    EXPECT_THAT(clients.Answers(B), ElementsAre(TooMany)) << "also when it is unregistered";
    EXPECT_EQ(clients.Loss(B), (NkLoss{9, 6}));
}

TEST_F(UnreadValuesTest, ACut_TakesOffersBack_SoThatWhatWasTakenIsNotLost) {
    Limit(5, SlowSubscriber::Cut);
    GiveHeat(1, 5);
    Wait(A);
    clients.TakeOffers(A, 2);
    GiveHeat(6, 4);
    EXPECT_THAT(cut, ElementsAre(reader));
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    Wait(A);
    EXPECT_EQ(clients.Loss(A), (NkLoss{9, 6})) << "of nine, three were delivered";
}

TEST_F(UnreadValuesTest, OffersThatTheClientHasTaken_AreNotUnread) {
    Limit(5, SlowSubscriber::Cut);
    GiveHeat(1, 5);
    Wait(A);
    clients.TakeOffers(A, 4);
    GiveHeat(6, 5);
    EXPECT_THAT(cut, IsEmpty());
    Give("heat", 11);
    EXPECT_THAT(cut, ElementsAre(reader));
}

TEST_F(UnreadValuesTest, DropOldest_TakesOffersBackFirst_AndKeepsTheNewest) {
    Limit(3, SlowSubscriber::DropOldest);
    GiveHeat(1, 3);
    Wait(A);
    EXPECT_THAT(clients.Offers(A), ElementsAre(2, 3));
    clients.TakeOffers(A, 1);
    GiveHeat(4, 4);
    EXPECT_THAT(clients.Offers(A), IsEmpty());
    EXPECT_EQ(waits->Unread(reader), 3U);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1), Value("heat", 2), Value("heat", 5)));
    EXPECT_THAT(clients.Offers(A), ElementsAre(6, 7));
    EXPECT_EQ(clients.Loss(A), (NkLoss{0, 2}));
}

TEST_F(UnreadValuesTest, DropNewest_KeepsTheOldest) {
    Limit(3, SlowSubscriber::DropNewest);
    GiveHeat(1, 7);
    EXPECT_EQ(waits->Unread(reader), 3U);
    Wait(A);
    EXPECT_THAT(clients.Answers(A), ElementsAre(Value("heat", 1)));
    EXPECT_THAT(clients.Offers(A), ElementsAre(2, 3));
    EXPECT_EQ(clients.Loss(A), (NkLoss{0, 4}));
    clients.TakeOffers(A, 2);
    Wait(A);
    Give("heat", 8);
    EXPECT_THAT(clients.Answers(A).back(), Value("heat", 8)) << "there is room again";
}

TEST_F(UnreadValuesTest, ALongQueue_IsCountedNowAndThen) {
    Limit(5000, SlowSubscriber::Cut);
    GiveHeat(1, 5000);
    EXPECT_THAT(cut, IsEmpty());
    GiveHeat(1, 256);
    EXPECT_THAT(cut, ElementsAre(reader));
}

TEST_F(UnreadValuesTest, TheMemoryOfUnreadValues_IsChargedAndGivenBack) {
    Limit(200, SlowSubscriber::Cut);
    GiveHeat(1, 100);
    EXPECT_THAT(exceeded, IsEmpty());
    Give("heat", 101);
    EXPECT_THAT(exceeded, ElementsAre(std::pair(QueueBudget::Exceeded::OfCaller, std::uint64_t{77})));
    Unregister();
    EXPECT_EQ(budget.Change(77, 0, 1000), QueueBudget::Exceeded::Nothing) << "nothing is left of the charge";
}

TEST_F(UnreadValuesTest, ABudgetThatIsExceeded_IsReportedOnceUntilThatIsAcknowledged) {
    Limit(200, SlowSubscriber::Cut);
    GiveHeat(1, 150);
    EXPECT_THAT(exceeded, SizeIs(1));
    budget.Acknowledge(QueueBudget::Exceeded::OfCaller, 77);
    GiveHeat(151, 2);
    EXPECT_THAT(exceeded, SizeIs(2));
    EXPECT_EQ(budget.Change(78, 0, 10'000), QueueBudget::Exceeded::Total) << "another budget";
    EXPECT_EQ(budget.Change(78, 10'000, 10'001), QueueBudget::Exceeded::OfCaller);
    EXPECT_EQ(budget.Change(78, 10'001, 10'002), QueueBudget::Exceeded::Nothing);
    budget.Acknowledge(QueueBudget::Exceeded::Total, 78);
    EXPECT_EQ(budget.Change(78, 10'002, 10'001), QueueBudget::Exceeded::Nothing) << "it takes less";
    EXPECT_EQ(budget.Change(78, 10'001, 10'002), QueueBudget::Exceeded::Total);
}

TEST_F(UnreadValuesTest, WhatWasRead_CostsNothing) {
    Limit(200, SlowSubscriber::Cut);
    GiveHeat(1, 50);
    for (int times = 0; times < 3; ++times) {
        Wait(A);
        clients.TakeOffers(A, clients.Offers(A).size());
    }
    EXPECT_EQ(budget.Change(77, 0, 1000), QueueBudget::Exceeded::Nothing);
}

TEST_F(UnreadValuesTest, CutLargest_CutsNoMoreThanIsNeeded) {
    Limit(200, SlowSubscriber::Cut);
    long other = -1;
    ASSERT_EQ(bus->RegisterSubscriber("other", {"heat"}, other), ResultCode::Success);
    waits->Follow(other, 78);
    GiveHeat(1, 20);
    for (const long value : Numbers(1, 10)) {
        bus->GetSubscriberPtrById(other)->queue.Enqueue(std::make_shared<Message>("heat", value));
    }
    waits->CutLargest(std::nullopt, 300);
    EXPECT_THAT(cut, IsEmpty());
    waits->CutLargest(78, 100);
    EXPECT_THAT(cut, IsEmpty());
    waits->CutLargest(std::nullopt, 299);
    EXPECT_THAT(cut, ElementsAre(reader));
    waits->CutLargest(78, 99);
    EXPECT_THAT(cut, ElementsAre(reader, other));
}

TEST_F(UnreadValuesTest, CutLargest_CountsWhatHasBeenReadSinceTheLastCheck) {
    Limit(200, SlowSubscriber::Cut);
    long other = -1;
    ASSERT_EQ(bus->RegisterSubscriber("other", {"heat"}, other), ResultCode::Success);
    waits->Follow(other, 78);
    for (const long value : Numbers(1, 20)) {
        bus->GetSubscriberPtrById(other)->queue.Enqueue(std::make_shared<Message>("heat", value));
    }
    GiveHeat(1, 50);
    std::shared_ptr<Message> read;
    for (int times = 0; times < 45; ++times) {
        ASSERT_TRUE(Queue().TryPop(read));
    }
    waits->CutLargest(std::nullopt, 100);
    EXPECT_THAT(cut, ElementsAre(other)) << "the reader has the fewest by now";
}

TEST_F(UnreadValuesTest, WhereNoReplyIsDeferred_ACutSubscriberGetsNineToo) {
    Limit(3, SlowSubscriber::Cut, false);
    GiveHeat(1, 4);
    EXPECT_THAT(cut, ElementsAre(reader));
    Unregister();
    std::string topic;
    long value = -1;
    EXPECT_EQ(waits->Wait(reader, topic, value), ResultCode::TooManyValues);
}

} // namespace
