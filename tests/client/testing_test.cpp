// Defends the bus for tests of programs: it keeps to the rules of the real one, fails when it is told to, and its
// descriptors are readable when there is something to receive.
#include "msgbus/testing.h"

#include "backend.h"
#include "kn/status.h"
#include "msgbus/error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>

#include <future>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using msgbus::Forever;
using msgbus::Message;
using msgbus::testing::Bus;
using msgbus::testing::Request;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr std::int32_t NotRegistered = 1;
constexpr std::int32_t Full = 2;
constexpr std::int32_t Conflict = 8;
constexpr std::int32_t Cut = 9;
constexpr std::uint32_t LongMs = 60000; // of a wait that something ends

struct PublisherSide {
    explicit PublisherSide(const Bus& bus) : links(bus.MakeOptions().backend->ConnectPublisher(1s)) {}
    PublisherSide(const Bus& bus, const std::string& topic) : PublisherSide(bus) { EXPECT_EQ(Register(topic), 0); }

    std::int32_t Register(const std::string& topic) { return links.control->RegisterPublisher(topic, 1s, id); }
    std::int32_t Push(std::int64_t value) { return links.pusher->Push(id, value, LongMs); }
    std::int32_t Unregister() { return links.control->UnregisterPublisher(id, 1s); }

    msgbus::PublisherLinks links;
    std::int64_t id = -1;
};

struct SubscriberSide {
    explicit SubscriberSide(const Bus& bus) : links(bus.MakeOptions().backend->ConnectSubscriber(1s)) {}
    SubscriberSide(const Bus& bus, const std::vector<std::string>& topics) : SubscriberSide(bus) {
        EXPECT_EQ(Register(topics), 0);
    }

    std::int32_t Register(const std::vector<std::string>& topics) {
        return links.control->RegisterSubscriber("reader", topics, 1s, id, refused);
    }
    std::int32_t Receive(std::uint32_t timeoutMs) { return links.receiver->Receive(id, timeoutMs, message); }
    std::int32_t Unregister() { return links.control->UnregisterSubscriber(id, 1s); }
    void Close() { links.receiver->Close(); }

    /// Returns: the values that are there.
    std::vector<std::int64_t> Values() {
        std::vector<std::int64_t> values;
        while (Receive(0) == 0) {
            values.push_back(message.value);
        }
        return values;
    }

    int Descriptor() {
        int descriptor = -1;
        EXPECT_EQ(links.receiver->Descriptor(descriptor), 0);
        return descriptor;
    }

    msgbus::SubscriberLinks links;
    std::int64_t id = -1;
    std::string refused;
    Message message;
};

bool IsReadable(int descriptor, int timeoutMs = 0) {
    pollfd polled{descriptor, POLLIN, 0};
    return ::poll(&polled, 1, timeoutMs) == 1 && polled.revents == POLLIN;
}

// ------------------------------------------------------------------------------------------------- the rules

TEST(TestingBusTest, Values_ReachEverySubscriberOfTheirTopicOnceAndInOrder) {
    const Bus bus;
    PublisherSide heat(bus, "heat");
    PublisherSide cold(bus, "cold");
    SubscriberSide both(bus, {"heat", "cold"});
    SubscriberSide one(bus, {"cold"});
    SubscriberSide none(bus, {});
    EXPECT_EQ(heat.Push(1), 0);
    EXPECT_EQ(cold.Push(2), 0);
    EXPECT_EQ(heat.Push(3), 0);
    EXPECT_EQ(both.Receive(0), 0);
    EXPECT_EQ(both.message.topic, "heat");
    EXPECT_THAT(both.Values(), ElementsAre(2, 3));
    EXPECT_THAT(one.Values(), ElementsAre(2));
    EXPECT_THAT(none.Values(), IsEmpty());
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1, 3));
    EXPECT_THAT(bus.Pushed("unknown"), IsEmpty());
}

TEST(TestingBusTest, ASubscriber_ReceivesNothingFromBeforeItsRegistration) {
    Bus bus;
    bus.Push("heat", 1);
    SubscriberSide subscriber(bus, {"heat"});
    bus.Push("heat", 2);
    EXPECT_THAT(subscriber.Values(), ElementsAre(2));
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1, 2));
}

TEST(TestingBusTest, ATopic_HasOnePublisher) {
    Bus bus;
    PublisherSide first(bus, "heat");
    PublisherSide second(bus);
    EXPECT_EQ(second.Register("heat"), Conflict);
    EXPECT_EQ(bus.RegisteredCount(), 1U);
    bus.Push("heat", 1); // as another program, which need not be registered
    EXPECT_EQ(first.Unregister(), 0);
    EXPECT_EQ(first.Unregister(), Conflict);
    EXPECT_EQ(second.Register("heat"), 0);
    EXPECT_NE(second.id, first.id);
    EXPECT_EQ(first.Push(7), 0); // dropped, as the bus does
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1));
}

TEST(TestingBusTest, ATopicNamedTwice_IsRefusedAndNothingStaysBehind) {
    const Bus bus;
    SubscriberSide subscriber(bus);
    EXPECT_EQ(subscriber.Register({"heat", "cold", "heat"}), Conflict);
    EXPECT_EQ(subscriber.refused, "heat");
    EXPECT_EQ(bus.RegisteredCount(), 0U);
}

TEST(TestingBusTest, ALongTopic_ArrivesCutButIsMatchedWhole) {
    Bus bus;
    const std::string topic(1023, 'x');
    SubscriberSide subscriber(bus, {topic});
    bus.Push(topic.substr(0, 1022), 1);
    bus.Push(topic, 2);
    EXPECT_EQ(subscriber.Receive(0), 0);
    EXPECT_EQ(subscriber.message.value, 2);
    EXPECT_EQ(subscriber.message.topic, topic.substr(0, 1022));
}

TEST(TestingBusTest, AReceive_WaitsForAValue) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    auto received = std::async(std::launch::async, [&] { return subscriber.Receive(Forever); });
    bus.Push("heat", 5);
    EXPECT_EQ(received.get(), 0);
    EXPECT_EQ(subscriber.message.value, 5);
    EXPECT_EQ(subscriber.Receive(1), KnStatusTimedOut);
}

TEST(TestingBusTest, AReceive_EndsWithTheRegistrationTheReceiverOrTheServer) {
    Bus bus;
    const auto endsWith = [&](const auto& end) {
        SubscriberSide subscriber(bus, {"heat"});
        auto received = std::async(std::launch::async, [&] { return subscriber.Receive(Forever); });
        end(subscriber);
        return received.get();
    };
    EXPECT_EQ(endsWith([](auto& subscriber) { EXPECT_EQ(subscriber.Unregister(), 0); }), NotRegistered);
    EXPECT_EQ(endsWith([](auto& subscriber) { subscriber.Close(); }), KnStatusClosed);
    EXPECT_EQ(endsWith([&](auto&) { bus.Restart(); }), KnStatusClosed);
    EXPECT_EQ(endsWith([&](auto&) { bus.FailNext(Request::Receive, Cut); }), Cut);
    EXPECT_EQ(endsWith([&](auto&) { bus.Stop(); }), KnStatusClosed);
}

TEST(TestingBusTest, ManyThreads_EachGetTheirValues) {
    const Bus bus;
    constexpr int pairs = 4;
    constexpr std::int64_t values = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < pairs; ++i) {
        const std::string topic = "topic" + std::to_string(i);
        const auto subscriber = std::make_shared<SubscriberSide>(bus, std::vector<std::string>{topic});
        threads.emplace_back([subscriber] {
            for (std::int64_t value = 0; value < values; ++value) {
                EXPECT_EQ(subscriber->Receive(Forever), 0);
                EXPECT_EQ(subscriber->message.value, value);
            }
        });
        threads.emplace_back([&bus, topic] {
            PublisherSide publisher(bus, topic);
            for (std::int64_t value = 0; value < values; ++value) {
                EXPECT_EQ(publisher.Push(value), 0);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// ------------------------------------------------------------------------------------------------- failures

TEST(TestingBusTest, FailNext_FailsSoManyRequestsInTheirOrder) {
    Bus bus;
    PublisherSide publisher(bus, "heat");
    bus.FailNext(Request::Push, Full, 2);
    bus.FailNext(Request::Push, KnStatusTimedOut);
    EXPECT_EQ(publisher.Push(1), Full);
    EXPECT_EQ(publisher.Push(1), Full);
    EXPECT_EQ(publisher.Push(1), KnStatusTimedOut);
    EXPECT_EQ(publisher.links.pusher->Drain(0), 0);
    EXPECT_EQ(publisher.Push(1), 0);
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1));
}

TEST(TestingBusTest, FailNext_MayOrderAFailureForAsGoodAsEver) {
    Bus bus;
    PublisherSide publisher(bus, "heat");
    EXPECT_NO_THROW(bus.FailNext(Request::Push, Full, std::numeric_limits<int>::max()));
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(publisher.Push(i), Full);
    }
}

TEST(TestingBusTest, FailNext_OfARegistration_LeavesNothingRegistered) {
    Bus bus;
    bus.FailNext(Request::RegisterPublisher, 3);
    bus.FailNext(Request::RegisterSubscriber, 4);
    PublisherSide publisher(bus);
    SubscriberSide subscriber(bus);
    EXPECT_EQ(publisher.Register("heat"), 3);
    EXPECT_EQ(subscriber.Register({"heat"}), 4);
    EXPECT_EQ(subscriber.refused, "");
    EXPECT_EQ(bus.RegisteredCount(), 0U);
    EXPECT_EQ(publisher.Register("heat"), 0);
    EXPECT_EQ(subscriber.Register({"heat"}), 0);
}

TEST(TestingBusTest, FailNext_OfAConnection_ThrowsWhatAServerWouldCause) {
    Bus bus;
    for (const std::int32_t status : {KnStatusNotFound, KnStatusTimedOut}) {
        bus.FailNext(Request::Connect, status);
        EXPECT_THROW(PublisherSide{bus}, msgbus::NoServerError);
    }
    bus.FailNext(Request::Connect, KnStatusClosed);
    EXPECT_THROW(SubscriberSide{bus}, msgbus::ServerGoneError);
    bus.FailNext(Request::Connect, KnStatusDenied);
    EXPECT_THROW(SubscriberSide{bus}, msgbus::PlatformError);
    PublisherSide(bus, "heat");
}

TEST(TestingBusTest, FailNext_RefusesWhatNoRequestIsAnsweredWith) {
    Bus bus;
    EXPECT_THROW(bus.FailNext(Request::Push, 0), std::invalid_argument);
    EXPECT_THROW(bus.FailNext(Request::Push, 11), std::invalid_argument);
    EXPECT_THROW(bus.FailNext(Request::Push, Full, 0), std::invalid_argument);
    EXPECT_THROW(bus.FailNext(Request::Connect, 3), std::invalid_argument);
    EXPECT_EQ(PublisherSide(bus, "heat").Push(1), 0);
}

TEST(TestingBusTest, AServerThatIsGone_HasForgottenThisClientOnly) {
    Bus bus;
    PublisherSide publisher(bus, "heat");
    SubscriberSide subscriber(bus, {"heat"});
    bus.FailNext(Request::Push, KnStatusClosed);
    EXPECT_EQ(publisher.Push(1), KnStatusClosed);
    EXPECT_EQ(publisher.Push(1), KnStatusClosed);
    EXPECT_EQ(publisher.Unregister(), KnStatusClosed);
    EXPECT_EQ(PublisherSide(bus, "heat").Push(2), 0);
    EXPECT_THAT(subscriber.Values(), ElementsAre(2));
}

TEST(TestingBusTest, AnUnregistrationWithoutAnswer_IsMadeBeforeTheNextRequest) {
    Bus bus;
    PublisherSide first(bus, "heat");
    bus.FailNext(Request::Unregister, KnStatusTimedOut);
    EXPECT_EQ(first.Unregister(), KnStatusTimedOut);
    EXPECT_EQ(bus.RegisteredCount(), 1U);
    EXPECT_EQ(PublisherSide(bus).Register("heat"), 0);
    EXPECT_EQ(bus.RegisteredCount(), 1U);
}

TEST(TestingBusTest, ASubscriberThatIsCut_HasLostItsValues) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    bus.Push("heat", 1);
    bus.Push("heat", 2);
    EXPECT_EQ(subscriber.links.receiver->Lost().values, 0U);
    bus.FailNext(Request::Receive, Cut);
    EXPECT_EQ(subscriber.Receive(0), Cut);
    EXPECT_EQ(subscriber.links.receiver->Lost().values, 2U);
    EXPECT_EQ(subscriber.links.receiver->Lost().reason, Cut);
    EXPECT_EQ(subscriber.Receive(0), NotRegistered);
    EXPECT_EQ(subscriber.Unregister(), Conflict);
}

TEST(TestingBusTest, ASubscriberThatAnotherUnregistered_IsNotRegistered) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    bus.FailNext(Request::Receive, NotRegistered);
    EXPECT_EQ(subscriber.Receive(0), NotRegistered);
    EXPECT_EQ(subscriber.Unregister(), Conflict);
}

// ------------------------------------------------------------------------------------------------- restarts

TEST(TestingBusTest, Restart_ForgetsEverythingButWhatWasPushed) {
    Bus bus;
    PublisherSide publisher(bus, "heat");
    SubscriberSide subscriber(bus, {"heat"});
    EXPECT_EQ(publisher.Push(1), 0);
    bus.Restart();
    EXPECT_EQ(bus.RegisteredCount(), 0U);
    EXPECT_EQ(publisher.Push(2), KnStatusClosed);
    EXPECT_EQ(subscriber.Receive(0), KnStatusClosed);
    EXPECT_EQ(subscriber.Unregister(), KnStatusClosed);
    PublisherSide newPublisher(bus, "heat");
    SubscriberSide newSubscriber(bus, {"heat"});
    EXPECT_EQ(std::set({publisher.id, subscriber.id, newPublisher.id, newSubscriber.id}).size(), 4U);
    EXPECT_EQ(newPublisher.Push(3), 0);
    EXPECT_THAT(newSubscriber.Values(), ElementsAre(3));
    EXPECT_EQ(publisher.Push(4), KnStatusClosed);
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(1, 3));
}

TEST(TestingBusTest, AStoppedBus_IsNotFoundUntilItStarts) {
    Bus bus;
    PublisherSide publisher(bus, "heat");
    bus.Stop();
    EXPECT_EQ(publisher.Push(1), KnStatusClosed);
    EXPECT_THROW(PublisherSide{bus}, msgbus::NoServerError);
    bus.Push("heat", 2);
    EXPECT_THAT(bus.Pushed("heat"), IsEmpty());
    bus.Start();
    EXPECT_EQ(publisher.Push(3), KnStatusClosed);
    EXPECT_EQ(PublisherSide(bus, "heat").Push(4), 0);
    EXPECT_THAT(bus.Pushed("heat"), ElementsAre(4));
}

TEST(TestingBusTest, ClientsMayOutliveIt) {
    auto bus = std::make_unique<Bus>();
    const auto options = bus->MakeOptions();
    SubscriberSide subscriber(*bus, {"heat"});
    auto received = std::async(std::launch::async, [&] { return subscriber.Receive(Forever); });
    bus.reset();
    EXPECT_EQ(received.get(), KnStatusClosed);
    EXPECT_THROW(options.backend->ConnectPublisher(1s), msgbus::NoServerError);
}

TEST(TestingBusTest, MakeOptions_KeepsTheOthers) {
    const Bus bus;
    msgbus::Options options;
    options.reconnectFor = 7s;
    EXPECT_EQ(bus.MakeOptions(options).reconnectFor, 7s);
}

// ------------------------------------------------------------------------------------------------- descriptors

TEST(TestingBusTest, ADescriptor_IsReadableFromAValueUntilNothingIsFound) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    const int descriptor = subscriber.Descriptor();
    EXPECT_EQ(subscriber.Descriptor(), descriptor);
    EXPECT_EQ(subscriber.Receive(0), KnStatusTimedOut);
    EXPECT_FALSE(IsReadable(descriptor));
    bus.Push("cold", 1);
    EXPECT_FALSE(IsReadable(descriptor));
    bus.Push("heat", 1);
    bus.Push("heat", 2);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(subscriber.Receive(0), 0);
    EXPECT_EQ(subscriber.Receive(0), 0);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(subscriber.Receive(0), KnStatusTimedOut);
    EXPECT_FALSE(IsReadable(descriptor));
}

TEST(TestingBusTest, ADescriptor_IsReadableFromTheStartWhenThereIsAValue) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    EXPECT_EQ(subscriber.Receive(0), KnStatusTimedOut);
    bus.Push("heat", 1);
    EXPECT_TRUE(IsReadable(subscriber.Descriptor()));
    EXPECT_EQ(::fcntl(subscriber.Descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST(TestingBusTest, ADescriptor_IsReadableWhenAReceiveWouldFail) {
    Bus bus;
    const auto isReadableAfter = [&](const auto& event) {
        SubscriberSide subscriber(bus, {"heat"});
        const int descriptor = subscriber.Descriptor();
        EXPECT_EQ(subscriber.Receive(0), KnStatusTimedOut);
        EXPECT_FALSE(IsReadable(descriptor));
        event(subscriber);
        const bool readable = IsReadable(descriptor);
        EXPECT_NE(subscriber.Receive(0), 0);
        return readable;
    };
    EXPECT_TRUE(isReadableAfter([](auto& subscriber) { subscriber.Close(); }));
    EXPECT_TRUE(isReadableAfter([](auto& subscriber) { EXPECT_EQ(subscriber.Unregister(), 0); }));
    EXPECT_TRUE(isReadableAfter([&](auto&) { bus.FailNext(Request::Receive, Cut); }));
    EXPECT_TRUE(isReadableAfter([&](auto&) { bus.FailNext(Request::Receive, KnStatusTimedOut); }));
    EXPECT_TRUE(isReadableAfter([&](auto&) { bus.Restart(); }));
    EXPECT_TRUE(isReadableAfter([&](auto&) { bus.Stop(); }));
}

TEST(TestingBusTest, ATimeOutThatTheTestOrdered_LeavesAValueAndTheDescriptor) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    const int descriptor = subscriber.Descriptor();
    bus.Push("heat", 1);
    bus.FailNext(Request::Receive, KnStatusTimedOut);
    EXPECT_EQ(subscriber.Receive(Forever), KnStatusTimedOut);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_THAT(subscriber.Values(), ElementsAre(1));
}

TEST(TestingBusTest, ADescriptor_OutlivesTheReceiverThatItIsTakenFrom) {
    Bus bus;
    auto former = std::make_unique<SubscriberSide>(bus, std::vector<std::string>{"heat"});
    const int descriptor = former->Descriptor();
    EXPECT_EQ(former->Receive(0), KnStatusTimedOut);
    bus.Restart();
    SubscriberSide next(bus, {"heat"});
    EXPECT_EQ(next.links.receiver->TakeDescriptorOf(*former->links.receiver), 0);
    former.reset();
    EXPECT_EQ(next.Descriptor(), descriptor);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(next.Receive(0), KnStatusTimedOut);
    EXPECT_FALSE(IsReadable(descriptor));
    bus.Push("heat", 1);
    EXPECT_TRUE(IsReadable(descriptor));
}

TEST(TestingBusTest, ADescriptor_IsTakenOnlyFromAReceiverThatLostItsServerAndOnlyOnce) {
    Bus bus;
    SubscriberSide former(bus, {"heat"});
    SubscriberSide next(bus, {"heat"});
    auto& receiver = *next.links.receiver;
    former.Descriptor();
    EXPECT_EQ(receiver.TakeDescriptorOf(*former.links.receiver), KnStatusInvalidArgument);
    EXPECT_EQ(receiver.TakeDescriptorOf(receiver), KnStatusInvalidArgument);
    bus.Restart();
    EXPECT_EQ(receiver.TakeDescriptorOf(*former.links.receiver), 0);
    EXPECT_EQ(receiver.TakeDescriptorOf(*former.links.receiver), KnStatusInvalidArgument);
    SubscriberSide without(bus, {"heat"});
    SubscriberSide another(bus, {"heat"});
    bus.Restart();
    EXPECT_EQ(another.links.receiver->TakeDescriptorOf(*without.links.receiver), KnStatusInvalidArgument);
}

TEST(TestingBusTest, AWakeUp_MakesTheDescriptorReadableLaterAndNotBefore) {
    Bus bus;
    SubscriberSide subscriber(bus, {"heat"});
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(1), KnStatusInvalidArgument); // no descriptor
    const int descriptor = subscriber.Descriptor();
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(1), KnStatusInvalidArgument); // the server lives
    bus.Stop();
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(3600000), 0);
    EXPECT_FALSE(IsReadable(descriptor));
    bus.Start();
    bus.Push("heat", 1);
    EXPECT_EQ(subscriber.Receive(0), KnStatusClosed);
    EXPECT_FALSE(IsReadable(descriptor));
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(5), 0);
    EXPECT_TRUE(IsReadable(descriptor, static_cast<int>(LongMs)));
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(3600000), 0);
    EXPECT_FALSE(IsReadable(descriptor));
    subscriber.Close();
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(subscriber.links.receiver->WakeDescriptor(3600000), 0);
    EXPECT_TRUE(IsReadable(descriptor));
}

TEST(TestingBusTest, AWakeUp_IsForgottenWithItsReceiverOrItsDescriptorTaken) {
    Bus bus;
    auto former = std::make_unique<SubscriberSide>(bus, std::vector<std::string>{"heat"});
    auto dropped = std::make_unique<SubscriberSide>(bus, std::vector<std::string>{"heat"});
    SubscriberSide later(bus, {"heat"});
    const int descriptor = former->Descriptor();
    dropped->Descriptor();
    later.Descriptor();
    bus.Restart();
    EXPECT_EQ(dropped->links.receiver->WakeDescriptor(1), 0);
    dropped.reset();
    EXPECT_EQ(former->links.receiver->WakeDescriptor(1), 0);
    SubscriberSide next(bus, {"heat"});
    EXPECT_EQ(next.links.receiver->TakeDescriptorOf(*former->links.receiver), 0);
    EXPECT_EQ(next.Receive(0), KnStatusTimedOut);
    // When this one comes, the first two are over.
    EXPECT_EQ(later.links.receiver->WakeDescriptor(20), 0);
    EXPECT_TRUE(IsReadable(later.Descriptor(), static_cast<int>(LongMs)));
    EXPECT_FALSE(IsReadable(descriptor));
}

} // namespace
