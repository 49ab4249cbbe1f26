// Defends publishers and subscribers of a type: values arrive as they were pushed, what cannot be sent or is no value
// of the type is refused, and a topic of another type is noticed before anything is sent.
#include "msgbus/typed.h"

#include "msgbus/testing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

enum class Mode : std::uint8_t { Off, Heating };

/// A type of a program's own, without a default constructor.
struct Point {
    Point(std::int32_t across, std::int32_t up) : x(across), y(up) {}
    bool operator==(const Point&) const = default;

    std::int32_t x;
    std::int32_t y;
};

} // namespace

template <>
struct msgbus::EnumNames<Mode> {
    static constexpr msgbus::EnumName<Mode> List[] = {{Mode::Off, "off"}, {Mode::Heating, "heating"}};
};

template <>
struct msgbus::Codec<Point> {
    static std::int64_t Encode(const Point& point) {
        return static_cast<std::int64_t>(point.x) * 0x100000000 + static_cast<std::uint32_t>(point.y);
    }
    static Point Decode(std::int64_t bits) {
        return {static_cast<std::int32_t>(bits >> 32), static_cast<std::int32_t>(bits)};
    }
    static Description Describe() {
        Description description;
        description.type = "example.point";
        return description;
    }
};

namespace {

using msgbus::Outcome;
using msgbus::PublisherOf;
using msgbus::SubscriberOf;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(PublisherOfTest, ItsTopic_IsDescribedWhileItIsRegistered) {
    msgbus::testing::Bus bus;
    {
        const PublisherOf<Mode> publisher("mode", bus.MakeOptions());
        EXPECT_EQ(bus.DescriptionOf("mode"), PublisherOf<Mode>::Type().ToText());
        EXPECT_EQ(bus.DescriptionOf("other"), "");
    }
    EXPECT_EQ(bus.DescriptionOf("mode"), "");
}

TEST(PublisherOfTest, ADescriptionOfTheOptions_IsKept) {
    msgbus::testing::Bus bus;
    msgbus::Options options = bus.MakeOptions();
    options.description = "int64;unit=rpm";

    const PublisherOf<std::int64_t> publisher("speed", options);

    EXPECT_EQ(bus.DescriptionOf("speed"), "int64;unit=rpm");
}

TEST(PublisherOfTest, ItsTopic_IsDescribedToARestartedServerAgain) {
    msgbus::testing::Bus bus;
    msgbus::Options options = bus.MakeOptions();
    options.reconnectFor = std::chrono::minutes(1);
    PublisherOf<bool> publisher("door", options);

    bus.Restart();
    EXPECT_EQ(bus.DescriptionOf("door"), "");
    publisher.Push(true);

    EXPECT_EQ(bus.DescriptionOf("door"), "bool");
}

TEST(PublisherDescriptionTest, ADescriptionThatIsNone_IsRefusedAndNothingIsRegistered) {
    const msgbus::testing::Bus bus;
    msgbus::Options options = bus.MakeOptions();
    options.description = "no type";

    EXPECT_THROW(msgbus::Publisher("t", options), std::invalid_argument);
    EXPECT_EQ(bus.RegisteredCount(), 0U);
}
using namespace std::chrono_literals;

class TypedTest : public testing::Test {
protected:
    msgbus::testing::Bus bus;
    const msgbus::Options options = bus.MakeOptions();

    static msgbus::Deadline Later() { return std::chrono::steady_clock::now() + 60s; }
};

TEST_F(TypedTest, Values_ArriveAsTheyWerePushed) {
    SubscriberOf<double> subscriber("display", {"heat"}, options);
    PublisherOf<double> publisher("heat", options);
    publisher.Push(21.5);
    publisher.Push(-0.25, Later());
    EXPECT_TRUE(publisher.TryPush(1e300));
    EXPECT_TRUE(publisher.Drain(Later()));
    EXPECT_EQ(subscriber.Next()->value, 21.5);
    EXPECT_EQ(subscriber.NextFor(60s)->value, -0.25);
    const auto last = subscriber.NextUntil(Later());
    ASSERT_TRUE(last);
    EXPECT_EQ((*last).topic, "heat");
    EXPECT_EQ((*last).value, 1e300);
    EXPECT_EQ(subscriber.TryNext().outcome, Outcome::TimedOut);
}

TEST_F(TypedTest, ATypeOfAProgramsOwn_NeedsACodecOnly) {
    SubscriberOf<Point> subscriber("display", {"place"}, options, PublisherOf<Point>::Type());
    PublisherOf<Point> publisher("place", options);
    publisher.Push({-3, -4});
    EXPECT_EQ(subscriber.Next()->value, Point(-3, -4));
    EXPECT_EQ(subscriber.TryNext().message, std::nullopt);
}

TEST_F(TypedTest, ARange_EndsAfterCancel) {
    SubscriberOf<std::uint16_t> subscriber("display", {"heat"}, options);
    const std::array<std::uint16_t, 3> values{1, 2, 65535};
    PublisherOf<std::uint16_t> publisher("heat", options);
    EXPECT_EQ(publisher.PushAll(values), 3U);
    std::vector<std::uint16_t> received;
    for (const auto& [topic, value] : subscriber) {
        EXPECT_EQ(topic, "heat");
        received.push_back(value);
        if (value == 65535) {
            subscriber.Cancel();
        }
    }
    EXPECT_THAT(received, ElementsAre(1, 2, 65535));
    EXPECT_EQ(subscriber.TryNext().outcome, Outcome::Canceled);
    EXPECT_EQ(subscriber.Next(), std::nullopt);
}

TEST_F(TypedTest, AValueThatCannotBeSent_StopsAllThatWerePushedWithIt) {
    PublisherOf<Mode> publisher("mode", options);
    const std::array<Mode, 2> values{Mode::Heating, static_cast<Mode>(7)};
    EXPECT_THROW(publisher.Push(values[1]), std::out_of_range);
    EXPECT_THROW(publisher.PushAll(values), std::out_of_range);
    EXPECT_THROW(publisher.PushAll(values.data(), values.size(), Later()), std::out_of_range);
    EXPECT_THAT(bus.Pushed("mode"), IsEmpty());
    EXPECT_EQ(publisher.PushAll(values.data(), 1), 1U);
    EXPECT_THAT(bus.Pushed("mode"), ElementsAre(1));
}

TEST_F(TypedTest, APublishedValueThatIsNoneOfTheType_IsReportedOnce) {
    SubscriberOf<bool> subscriber("display", {"door"}, options);
    bus.Push("door", 2);
    bus.Push("door", 1);
    bus.Push("door", 3);
    bus.Push("door", 0);
    EXPECT_THROW(subscriber.Next(), std::out_of_range);
    EXPECT_TRUE(subscriber.Next()->value);
    EXPECT_THROW(subscriber.TryNext(), std::out_of_range);
    EXPECT_FALSE(subscriber.TryNext()->value);
}

TEST_F(TypedTest, ATopicOfAnotherType_IsNoticedBeforeAnythingIsSent) {
    bus.Stop(); // so that a connection would throw something else
    EXPECT_THROW(SubscriberOf<double>("display", {"heat"}, options, PublisherOf<float>::Type()),
                 msgbus::TypeMismatchError);
    EXPECT_THROW(SubscriberOf<double>("display", {"heat"}, options, PublisherOf<double>::Type()),
                 msgbus::NoServerError);
}

TEST_F(TypedTest, TheDescriptor_IsThatOfTheSubscriber) {
    SubscriberOf<double> subscriber("display", {"heat"}, options);
    pollfd polled{subscriber.Descriptor(), POLLIN, 0};
    EXPECT_FALSE(subscriber.TryNext());
    EXPECT_EQ(::poll(&polled, 1, 0), 0);
    PublisherOf<double>("heat", options).Push(2.5);
    EXPECT_EQ(::poll(&polled, 1, 0), 1);
    EXPECT_EQ(subscriber.TryNext()->value, 2.5);
}

TEST_F(TypedTest, BothSides_SayWhatTheyAre) {
    SubscriberOf<double> subscriber("display", {"heat"}, options);
    PublisherOf<double> publisher("heat", options);
    EXPECT_EQ(subscriber.Name(), "display");
    EXPECT_EQ(publisher.Topic(), "heat");
    EXPECT_GT(subscriber.Id(), 0);
    EXPECT_GT(publisher.Id(), 0);
    EXPECT_EQ(subscriber.Lost().values, 0U);
    EXPECT_EQ(SubscriberOf<double>::Type(), PublisherOf<double>::Type());
    auto moved = std::move(publisher);
    moved.Close();
    EXPECT_EQ(moved.Id(), -1);
}

} // namespace
