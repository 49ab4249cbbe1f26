// Defends the C interface: every exception of the classes becomes its code and its sentence, none gets through, and a
// failure behind the first of several values takes none of them away. The classes are scripted here; c_api_test.c has
// the real ones.
#include "msgbus/error.h"
#include "msgbus/msgbus_c.h"
#include "msgbus/publisher.h"
#include "msgbus/stop_signals.h"
#include "msgbus/subscriber.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using msgbus::Message;
using msgbus::Outcome;
using msgbus::Received;
using testing::ElementsAre;
using testing::HasSubstr;

/// What the next calls of the scripted classes do, in turn. When it is over, no value comes.
struct Script {
    std::function<void()> call;
    std::deque<std::function<Received()>> receives;
    std::vector<std::string> asked;
    msgbus::Options options;
};
Script script;

void Ask(const std::string& what) {
    script.asked.push_back(what);
    if (script.call) {
        script.call();
    }
}

Received Receive(const std::string& how) {
    script.asked.push_back(how);
    if (script.receives.empty()) {
        return {Outcome::TimedOut, {}};
    }
    const auto next = std::move(script.receives.front());
    script.receives.pop_front();
    return next();
}

} // namespace

// NOLINTBEGIN(performance-unnecessary-value-param): the signatures are the library's.

namespace msgbus {

class Publisher::State final {
public:
    std::string topic;
};

Publisher::Publisher(std::string topic, Options options) : state(std::make_unique<State>()) {
    script.options = std::move(options);
    Ask("publish " + topic);
    state->topic = std::move(topic);
}
Publisher::~Publisher() = default;
void Publisher::Push(std::int64_t value) {
    Ask("push " + std::to_string(value));
}
void Publisher::Push(std::int64_t value, Deadline) {
    Ask("push in time " + std::to_string(value));
}
bool Publisher::TryPush(std::int64_t value) {
    Ask("try " + std::to_string(value));
    return value != 2;
}
std::size_t Publisher::PushAll(const std::int64_t*, std::size_t count) {
    Ask("push all");
    return count - 1;
}
std::size_t Publisher::PushAll(const std::int64_t*, std::size_t count, Deadline) {
    Ask("push all in time");
    return count;
}
bool Publisher::Drain(Deadline deadline) {
    Ask("drain");
    return deadline > std::chrono::steady_clock::now();
}
std::size_t Publisher::Subscribers() {
    Ask("subscribers");
    return 3;
}
void Publisher::Close() {
    Ask("close");
}
const std::string& Publisher::Topic() const noexcept {
    return state->topic;
}
std::int64_t Publisher::Id() const noexcept {
    return 11;
}

class Subscriber::State final {
public:
    std::string name;
};

Subscriber::Subscriber(std::string name, std::vector<std::string> topics, Options options)
    : state(std::make_unique<State>()) {
    script.options = std::move(options);
    Ask("subscribe " + std::to_string(topics.size()));
    state->name = std::move(name);
}
Subscriber::~Subscriber() = default;
std::optional<Message> Subscriber::Next() {
    Received received = Receive("next");
    return received ? std::optional(received.message) : std::nullopt;
}
Received Subscriber::NextFor(std::chrono::nanoseconds duration) {
    return Receive("next for " + std::to_string(std::chrono::duration_cast<std::chrono::hours>(duration).count()));
}
Received Subscriber::TryNext() {
    return Receive("try");
}
int Subscriber::Descriptor() {
    Ask("descriptor");
    return 5;
}
void Subscriber::Cancel() noexcept {
    script.asked.emplace_back("cancel");
}
Loss Subscriber::Lost() const {
    Ask("lost");
    return {3, 9, 4};
}
const std::string& Subscriber::Name() const noexcept {
    return state->name;
}
std::int64_t Subscriber::Id() const {
    Ask("id");
    return 12;
}

class StopSignals::State final {};
StopSignals::StopSignals(std::function<void()> onStop) {
    Ask("install");
    onStop();
}
StopSignals::~StopSignals() = default;
bool StopSignals::HasCome() const noexcept {
    return true;
}

} // namespace msgbus

// NOLINTEND(performance-unnecessary-value-param)

namespace {

class CErrorsTest : public testing::Test {
protected:
    void SetUp() override {
        script = {};
        EXPECT_EQ(msgbus_publisher_create(&publisher, "heat", nullptr), MSGBUS_OK);
        const char* const topics[] = {"heat", "rain"};
        EXPECT_EQ(msgbus_subscriber_create(&subscriber, "reader", topics, 2, nullptr), MSGBUS_OK);
        script = {};
    }
    void TearDown() override {
        msgbus_publisher_destroy(publisher);
        msgbus_subscriber_destroy(subscriber);
    }

    static std::function<Received()> Value(std::int64_t value) {
        return [=] { return Received{Outcome::Value, {"heat", value}}; };
    }
    template <typename Error>
    static std::function<Received()> Throwing(Error error) {
        return [=]() -> Received { throw error; };
    }

    /// The values that one take brings.
    std::vector<std::int64_t> Take(std::size_t max, int expected = MSGBUS_OK) {
        std::vector<msgbus_message> messages(max);
        std::size_t count = 77;
        EXPECT_EQ(msgbus_subscriber_take(subscriber, messages.data(), max, &count, -1), expected);
        std::vector<std::int64_t> values;
        for (std::size_t at = 0; at < count; ++at) {
            EXPECT_EQ(std::string(messages[at].topic, messages[at].topic_length), "heat");
            values.push_back(messages[at].value);
        }
        return values;
    }

    msgbus_publisher* publisher = nullptr;
    msgbus_subscriber* subscriber = nullptr;
};

TEST_F(CErrorsTest, EveryException_BecomesItsCodeAndSentence) {
    struct Case {
        std::function<void()> thrown;
        int code;
        const char* sentence;
    };
    const Case cases[] = {
        {[] { throw msgbus::RefusedError(1, "one"); }, MSGBUS_NOT_REGISTERED, "one"},
        {[] { throw msgbus::RefusedError(10, "ten"); }, MSGBUS_FAILED, "ten"},
        {[] { throw msgbus::RefusedError(57, "unknown"); }, 57, "unknown"},
        {[] { throw msgbus::RefusedError(0, "none"); }, MSGBUS_PLATFORM, "none"},
        {[] { throw msgbus::NoServerError(-11, "no server"); }, MSGBUS_NO_SERVER, "no server"},
        {[] { throw msgbus::ServerGoneError(-3, "gone"); }, MSGBUS_SERVER_GONE, "gone"},
        {[] { throw msgbus::TimedOutError(-6, "late"); }, MSGBUS_NO_ANSWER, "late"},
        {[] { throw msgbus::PlatformError(-9, "descriptors"); }, MSGBUS_PLATFORM, "descriptors"},
        {[] { throw std::invalid_argument("argument"); }, MSGBUS_INVALID, "argument"},
        {[] { throw std::logic_error("logic"); }, MSGBUS_INVALID, "logic"},
        {[] { throw std::bad_alloc(); }, MSGBUS_NO_MEMORY, "out of memory"},
        {[] { throw std::system_error(EMFILE, std::generic_category()); }, MSGBUS_PLATFORM, "open files"},
        {[] { throw 7; }, MSGBUS_PLATFORM, "unknown type"},
    };
    const char* const topics[] = {"heat"};
    const std::int64_t values[] = {1, 2};
    for (const auto& [thrown, code, sentence] : cases) {
        script.call = thrown;
        const auto expect = [code = code, sentence = sentence](int result) {
            EXPECT_EQ(result, code);
            EXPECT_THAT(msgbus_last_error(), HasSubstr(sentence));
        };
        expect(msgbus_publisher_push(publisher, 1, -1));
        expect(msgbus_publisher_push(publisher, 1, 10));
        expect(msgbus_publisher_try_push(publisher, 1));
        expect(msgbus_publisher_drain(publisher, 10));
        std::size_t subscribers = 77;
        expect(msgbus_publisher_subscribers(publisher, &subscribers));
        EXPECT_EQ(subscribers, 0u);
        std::size_t pushed = 77;
        expect(msgbus_publisher_push_all(publisher, values, 2, &pushed, -1));
        EXPECT_EQ(pushed, 0u);
        int descriptor = 0;
        expect(msgbus_subscriber_descriptor(subscriber, &descriptor));
        EXPECT_EQ(descriptor, -1);
        msgbus_loss loss{};
        expect(msgbus_subscriber_lost(subscriber, &loss));
        EXPECT_EQ(msgbus_subscriber_id(subscriber), -1);

        msgbus_publisher* noPublisher = publisher;
        expect(msgbus_publisher_create(&noPublisher, "heat", nullptr));
        EXPECT_EQ(noPublisher, nullptr);
        msgbus_subscriber* noSubscriber = subscriber;
        expect(msgbus_subscriber_create(&noSubscriber, "reader", topics, 1, nullptr));
        EXPECT_EQ(noSubscriber, nullptr);
        msgbus_stop_signals* noSignals = nullptr;
        expect(msgbus_stop_signals_install(
            &noSignals, [](void*) {}, nullptr));
        EXPECT_EQ(noSignals, nullptr);
    }
    script.call = [] { throw msgbus::RefusedError(8, "not this one"); };
    EXPECT_EQ(msgbus_publisher_close(publisher), MSGBUS_CONFLICT);
}

TEST_F(CErrorsTest, AReceiveThatThrows_BecomesItsCode) {
    msgbus_message message{};
    script.receives = {Throwing(msgbus::ServerGoneError(-3, "gone")), Throwing(msgbus::RefusedError(9, "cut")),
                       Throwing(std::bad_alloc())};
    EXPECT_EQ(msgbus_subscriber_next(subscriber, &message, -1), MSGBUS_SERVER_GONE);
    EXPECT_EQ(msgbus_subscriber_try_next(subscriber, &message), MSGBUS_TOO_MANY_VALUES);
    EXPECT_STREQ(msgbus_last_error(), "cut");
    EXPECT_THAT(Take(4, MSGBUS_NO_MEMORY), ElementsAre());
}

TEST_F(CErrorsTest, Take_WithAFailureBehindTheFirstValue_ReturnsItWithTheNextCall) {
    script.receives = {Value(1), Value(2), Throwing(msgbus::ServerGoneError(-3, "gone")), Value(3)};
    EXPECT_THAT(Take(4), ElementsAre(1, 2));
    EXPECT_THAT(Take(4, MSGBUS_SERVER_GONE), ElementsAre());
    EXPECT_STREQ(msgbus_last_error(), "gone");
    EXPECT_THAT(Take(4), ElementsAre(3)) << "the failure is returned once";
    EXPECT_THAT(script.asked, ElementsAre("next", "try", "try", "next", "try"));
}

TEST_F(CErrorsTest, Take_WithACancelBehindTheFirstValue_ReturnsTheValue) {
    const auto canceled = [] { return Received{Outcome::Canceled, {}}; };
    script.receives = {Value(1), canceled, canceled};
    EXPECT_THAT(Take(4), ElementsAre(1));
    EXPECT_THAT(Take(4, MSGBUS_CLOSED), ElementsAre());
}

TEST_F(CErrorsTest, Take_StopsAtItsMost) {
    script.receives = {Value(1), Value(2), Value(3)};
    EXPECT_THAT(Take(2), ElementsAre(1, 2));
    EXPECT_THAT(Take(2), ElementsAre(3));
    for (std::int64_t value = 0; value < 2000; ++value) {
        script.receives.push_back(Value(value));
    }
    EXPECT_EQ(Take(3000).size(), 1024u);
}

TEST_F(CErrorsTest, ATimeOfAWait_ChoosesTheCall) {
    msgbus_message message{};
    script.receives = {Value(1)};
    EXPECT_EQ(msgbus_subscriber_next(subscriber, &message, -5), MSGBUS_OK);
    EXPECT_EQ(msgbus_subscriber_next(subscriber, &message, 0), MSGBUS_TIMED_OUT);
    EXPECT_EQ(msgbus_subscriber_next(subscriber, &message, 3600000), MSGBUS_TIMED_OUT);
    EXPECT_EQ(msgbus_subscriber_next(subscriber, &message, INT64_MAX), MSGBUS_TIMED_OUT);
    EXPECT_THAT(script.asked, ElementsAre("next", "try", "next for 1", "next for 876000"));
}

TEST_F(CErrorsTest, ATimeOfAPush_ChoosesTheCall) {
    const std::int64_t values[] = {1, 2, 3};
    std::size_t pushed = 0;
    EXPECT_EQ(msgbus_publisher_push(publisher, 1, -1), MSGBUS_OK);
    EXPECT_EQ(msgbus_publisher_push(publisher, 2, INT64_MAX), MSGBUS_OK);
    EXPECT_EQ(msgbus_publisher_push_all(publisher, values, 3, &pushed, -1), MSGBUS_OK);
    EXPECT_EQ(pushed, 2u);
    EXPECT_EQ(msgbus_publisher_push_all(publisher, values, 3, &pushed, 5), MSGBUS_OK);
    EXPECT_EQ(pushed, 3u);
    EXPECT_EQ(msgbus_publisher_drain(publisher, -1), MSGBUS_OK);
    EXPECT_EQ(msgbus_publisher_drain(publisher, 0), MSGBUS_TIMED_OUT);
    EXPECT_EQ(msgbus_publisher_try_push(publisher, 2), MSGBUS_FULL);
    EXPECT_THAT(script.asked,
                ElementsAre("push 1", "push in time 2", "push all", "push all in time", "drain", "drain", "try 2"));
}

TEST_F(CErrorsTest, AClosedPublisher_IsNotAskedAgain) {
    EXPECT_EQ(msgbus_publisher_close(publisher), MSGBUS_OK);
    std::size_t pushed = 7;
    const std::int64_t value = 1;
    EXPECT_EQ(msgbus_publisher_push(publisher, 1, -1), MSGBUS_CLOSED);
    EXPECT_EQ(msgbus_publisher_push_all(publisher, &value, 1, &pushed, -1), MSGBUS_CLOSED);
    EXPECT_EQ(pushed, 0u);
    EXPECT_EQ(msgbus_publisher_try_push(publisher, 1), MSGBUS_CLOSED);
    EXPECT_EQ(msgbus_publisher_drain(publisher, 1), MSGBUS_CLOSED);
    EXPECT_EQ(msgbus_publisher_subscribers(publisher, &pushed), MSGBUS_CLOSED);
    EXPECT_THAT(script.asked, ElementsAre("close"));
}

TEST_F(CErrorsTest, Subscribers_AreCounted) {
    std::size_t count = 0;
    EXPECT_EQ(msgbus_publisher_subscribers(publisher, &count), MSGBUS_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(msgbus_publisher_subscribers(publisher, nullptr), MSGBUS_INVALID);
}

TEST_F(CErrorsTest, Reports_ReachTheFunctionsOfTheOptions) {
    msgbus_options options;
    ASSERT_EQ(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    EXPECT_EQ(options.stale_after_ms, 0);
    EXPECT_EQ(options.start_with_last, 0);
    EXPECT_EQ(options.description, nullptr);
    std::vector<std::string> reports;
    options.publisher_user = options.subscribers_user = &reports;
    options.on_publisher = [](const char* topic, int state, std::int64_t id, void* user) {
        static_cast<std::vector<std::string>*>(user)->push_back(topic + std::to_string(state) + std::to_string(id));
    };
    options.on_subscribers = [](std::size_t count, void* user) {
        static_cast<std::vector<std::string>*>(user)->push_back(std::to_string(count));
    };
    options.stale_after_ms = 7;
    options.start_with_last = 1;
    options.description = "bool";
    msgbus_publisher* other = nullptr;
    ASSERT_EQ(msgbus_publisher_create(&other, "heat", &options), MSGBUS_OK);
    EXPECT_EQ(script.options.staleAfter, std::chrono::milliseconds(7));
    EXPECT_TRUE(script.options.startWithLast);
    EXPECT_EQ(script.options.description, "bool");
    using State = msgbus::PublisherState;
    for (const auto state : {State::None, State::Came, State::Left, State::Died, State::Silent}) {
        script.options.onPublisher({"heat", state, 5});
    }
    script.options.onSubscribers(2);
    EXPECT_THAT(reports, ElementsAre("heat05", "heat15", "heat25", "heat35", "heat45", "2"));
    msgbus_publisher_destroy(other);
}

TEST_F(CErrorsTest, Take_OfASubscriberWithReports_TakesOneByOne) {
    msgbus_options options;
    ASSERT_EQ(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    options.on_publisher = [](const char*, int, std::int64_t, void*) {};
    msgbus_subscriber_destroy(std::exchange(subscriber, nullptr));
    const char* const topics[] = {"heat"};
    ASSERT_EQ(msgbus_subscriber_create(&subscriber, "reader", topics, 1, &options), MSGBUS_OK);
    script.receives = {Value(1), Value(2)};
    EXPECT_THAT(Take(2), ElementsAre(1));
    EXPECT_THAT(Take(2), ElementsAre(2));
}

TEST_F(CErrorsTest, OptionsOfAnEarlierVersion_AreTaken) {
    constexpr std::size_t earlier = offsetof(msgbus_options, on_publisher);
    msgbus_options options;
    std::memset(&options, 0x55, sizeof options); // what lies behind the record of such a program
    ASSERT_EQ(msgbus_options_init(&options, earlier), MSGBUS_OK);
    msgbus_publisher* other = nullptr;
    EXPECT_EQ(msgbus_publisher_create(&other, "heat", &options), MSGBUS_OK);
    EXPECT_FALSE(script.options.onPublisher || script.options.onSubscribers || script.options.startWithLast);
    msgbus_publisher_destroy(other);
    EXPECT_EQ(msgbus_options_init(&options, earlier - 1), MSGBUS_INVALID);
}

TEST_F(CErrorsTest, Options_ReachTheClasses) {
    msgbus_options options;
    ASSERT_EQ(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    options.route = MSGBUS_ROUTE_STATIC;
    options.connect_timeout_ms = 1;
    options.call_timeout_ms = 2;
    options.wait_for_server_ms = 3;
    options.wait_for_topic_ms = 4;
    options.reconnect_for_ms = INT64_MAX;
    options.full_queue_timeout_ms = 6;
    std::vector<std::string> notices;
    options.notice_user = &notices;
    options.on_notice = [](int notice, const char* sentence, void* user) {
        static_cast<std::vector<std::string>*>(user)->push_back(std::to_string(notice) + sentence);
    };
    msgbus_publisher* other = nullptr;
    ASSERT_EQ(msgbus_publisher_create(&other, "heat", &options), MSGBUS_OK);
    msgbus_publisher_destroy(other);
    EXPECT_EQ(script.options.route, msgbus::Route::Static);
    EXPECT_EQ(script.options.connectTimeout.count(), 1);
    EXPECT_EQ(script.options.callTimeout.count(), 2);
    EXPECT_EQ(script.options.waitForServer.count(), 3);
    EXPECT_EQ(script.options.waitForTopic.count(), 4);
    EXPECT_EQ(script.options.reconnectFor, std::chrono::hours(876000)) << "more would overflow a clock";
    EXPECT_EQ(script.options.fullQueueTimeout.count(), 6);
    script.options.onNotice(msgbus::Notice::ServerLost, "a");
    script.options.onNotice(msgbus::Notice::RegisteredAgain, "b");
    script.options.onNotice(msgbus::Notice::WaitingForServer, "c");
    script.options.onNotice(msgbus::Notice::WaitingForTopic, "d");
    EXPECT_THAT(notices, ElementsAre("0a", "1b", "2c", "3d"));
}

TEST_F(CErrorsTest, ALossIsPassedOn) {
    msgbus_loss loss{};
    ASSERT_EQ(msgbus_subscriber_lost(subscriber, &loss), MSGBUS_OK);
    EXPECT_EQ(loss.values, 3u);
    EXPECT_EQ(loss.reason, MSGBUS_TOO_MANY_VALUES);
    EXPECT_EQ(loss.reconnections, 4u);
}

TEST_F(CErrorsTest, ALongSentence_IsCut) {
    script.call = [] { throw msgbus::PlatformError(-1, std::string(5000, 'x')); };
    EXPECT_EQ(msgbus_publisher_push(publisher, 1, -1), MSGBUS_PLATFORM);
    EXPECT_EQ(msgbus_last_error(), std::string(2047, 'x'));
}

TEST_F(CErrorsTest, TheLastError_IsThatOfTheThread) {
    script.call = [] { throw msgbus::PlatformError(-1, "here"); };
    EXPECT_EQ(msgbus_publisher_push(publisher, 1, -1), MSGBUS_PLATFORM);
    std::thread([] { EXPECT_STREQ(msgbus_last_error(), ""); }).join();
    EXPECT_STREQ(msgbus_last_error(), "here");
}

TEST_F(CErrorsTest, StopSignals_CallTheFunctionWithItsPointer) {
    int calls = 0;
    msgbus_stop_signals* signals = nullptr;
    ASSERT_EQ(msgbus_stop_signals_install(
                  &signals, [](void* user) { ++*static_cast<int*>(user); }, &calls),
              MSGBUS_OK);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(msgbus_stop_signals_have_come(signals));
    msgbus_stop_signals_remove(signals);
}

} // namespace
