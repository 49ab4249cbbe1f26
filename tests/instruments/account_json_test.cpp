// Defends the account as JSON, which programs of others read: every number stands under its name and in its unit, what
// is not known is null, and no bytes of a name or topic make it anything but JSON.
#include "instruments/account_json.h"

#include "instruments/sample_snapshot.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using namespace instruments;
using nlohmann::json;
using namespace std::literals;

constexpr std::int64_t Offset = samples::ClockOffset;
constexpr std::int64_t Second = samples::Second;

/// As a program gets it: written and read again.
json Parsed(const nlohmann::ordered_json& value) {
    return json::parse(value.dump());
}

json SampleState() {
    return Parsed(StateToJson(samples::OneOfEach()));
}

TEST(AccountJsonTest, State_HasAVersionTheTimeAndEachPart) {
    const json state = SampleState();

    EXPECT_EQ(state["version"], JsonVersion);
    EXPECT_EQ(state["read_unix_ns"], 110 * Second + Offset);
    for (const auto* const list : {"topics", "publishers", "subscribers", "clients", "threads", "errors", "events"}) {
        EXPECT_TRUE(state[list].is_array()) << list;
    }
}

TEST(AccountJsonTest, Server_SaysWhatItIs) {
    EXPECT_EQ(SampleState()["server"], json::parse(R"({
        "version": "1.2.3", "pid": 4711, "alive": true, "paused": false, "state": "serving", "mode": "dynamic",
        "started_unix_ns": 1700000010000000000, "uptime_ns": 100000000000, "options": "--no-placement", "workers": 4,
        "threads": 11, "descriptors": 23, "memory_bytes": 5000000})"));
}

TEST(AccountJsonTest, ServerThatIsGone_HasNoUptime) {
    auto snapshot = samples::OneOfEach();
    snapshot.server.isAlive = false;
    snapshot.server.isStatic = true;
    snapshot.server.state = ServerState::Stopped;

    const json server = Parsed(StateToJson(snapshot))["server"];

    EXPECT_EQ(server["alive"], false);
    EXPECT_EQ(server["uptime_ns"], nullptr);
    EXPECT_EQ(server["state"], "stopped");
    EXPECT_EQ(server["mode"], "static");
}

TEST(AccountJsonTest, Bus_HasEachSumAndWhetherTheyAddUp) {
    json bus = SampleState()["bus"];
    bus.erase("latency");

    EXPECT_EQ(bus, json::parse(R"({
        "accepted": 1000, "fanned_out": 900, "inbound": 7, "without_subscriber": 93, "refused_full": 5,
        "most_inbound": 41, "unknown_pushes": 2, "unknown_waits": 3, "refused_registrations": 4,
        "refused_connections": 6, "rescued": 8, "discrepancies": 0, "unlisted": 0, "adds_up": true,
        "flows": {"due": 900, "taken": 800, "offered": 20, "queued": 30, "handed_over": 1, "dropped":
            {"oldest": 10, "newest": 11, "cut": 12, "unregistered": 13, "undelivered": 3, "total": 49}}})"));
}

TEST(AccountJsonTest, BusThatDoesNotAddUp_SaysSo) {
    auto snapshot = samples::OneOfEach();
    ++snapshot.bus.accepted;

    EXPECT_EQ(Parsed(StateToJson(snapshot))["bus"]["adds_up"], false);
}

TEST(AccountJsonTest, Latency_HasItsQuantilesAndTheOctavesThatHaveSamples) {
    EXPECT_EQ(SampleState()["bus"]["latency"], json::parse(R"({
        "samples": 3, "p50_ns": 1000, "p90_ns": 1000447, "p99_ns": 1000447, "p999_ns": 1000447, "max_ns": 1000447,
        "octaves": [{"upto_ns": 1023, "count": 2}, {"upto_ns": 1048575, "count": 1}]})"));
}

TEST(AccountJsonTest, LatenciesOfOneOctave_AreOneCount) {
    Snapshot snapshot;
    snapshot.bus.latency.Append(LatencyBuckets::Of(2048), 1);
    snapshot.bus.latency.Append(LatencyBuckets::Of(4095), 2);
    snapshot.bus.latency.Append(LatencyBuckets::Of(4096), 4);

    EXPECT_EQ(Parsed(StateToJson(snapshot))["bus"]["latency"]["octaves"],
              json::parse(R"([{"upto_ns": 4095, "count": 3}, {"upto_ns": 8191, "count": 4}])"));
}

TEST(AccountJsonTest, LatencyWithoutSamples_IsZero) {
    EXPECT_EQ(Parsed(StateToJson({}))["bus"]["latency"], json::parse(R"({
        "samples": 0, "p50_ns": 0, "p90_ns": 0, "p99_ns": 0, "p999_ns": 0, "max_ns": 0, "octaves": []})"));
}

TEST(AccountJsonTest, Publisher_HasItsProcessItsNumbersAndItsLastValue) {
    EXPECT_EQ(SampleState()["publishers"], json::parse(R"([{
        "id": 17, "topic": "temperature", "pid": 4712, "program": "sensor", "since_unix_ns": 1700000020000000000,
        "registered": true, "left_unix_ns": null, "accepted": 600, "accepted_before": 61, "without_subscriber": 50,
        "refused_full": 5, "last_value": -21, "last_value_text": "-21", "last_unix_ns": 1700000108000000000,
        "last_age_ns": 2000000000, "smallest_gap_ns": 1500, "largest_gap_ns": 2000000000,
        "rates": {"last_1s": 10.5, "last_10s": 9.0, "last_60s": 8.0}}])"));
}

TEST(AccountJsonTest, PublisherWithoutValues_HasNullForWhatItLacks) {
    Snapshot snapshot;
    snapshot.publishers.emplace_back();

    const json publisher = Parsed(StateToJson(snapshot))["publishers"][0];

    for (const auto* const key : {"last_value", "last_value_text", "last_unix_ns", "last_age_ns", "smallest_gap_ns",
                                  "largest_gap_ns", "since_unix_ns"}) {
        EXPECT_EQ(publisher.at(key), nullptr) << key;
    }
}

TEST(AccountJsonTest, PublisherThatLeft_IsNotRegistered) {
    auto snapshot = samples::OneOfEach();
    snapshot.publishers[0].leftAt = 109 * Second;

    const json publisher = Parsed(StateToJson(snapshot))["publishers"][0];

    EXPECT_EQ(publisher["registered"], false);
    EXPECT_EQ(publisher["left_unix_ns"], 109 * Second + Offset);
}

TEST(AccountJsonTest, LastValue_IsExactToTheLastBit) {
    for (const std::int64_t value :
         {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(), std::int64_t{0}}) {
        auto snapshot = samples::OneOfEach();
        snapshot.publishers[0].lastValue = value;

        const json topic = Parsed(*TopicToJson(snapshot, "temperature"));

        EXPECT_EQ(topic["last_value"].get<std::int64_t>(), value);
        EXPECT_EQ(topic["last_value_text"], std::to_string(value));
    }
}

TEST(AccountJsonTest, Subscriber_HasItsTopicsItsFlowsAndItsLatency) {
    EXPECT_EQ(Parsed(SubscribersToJson(samples::OneOfEach())), json::parse(R"({"version": 1, "subscribers": [{
        "id": 18, "name": "display", "topics": ["pressure", "temperature"], "pid": 4713, "program": "screen",
        "since_unix_ns": 1700000030000000000, "waiting": true, "cut": false,
        "flows": {"due": 450, "taken": 400, "offered": 10, "queued": 15, "handed_over": 1, "dropped":
            {"oldest": 5, "newest": 6, "cut": 7, "unregistered": 4, "undelivered": 2, "total": 24}},
        "oldest_age_ns": 3000000000, "rates": {"last_1s": 10.25, "last_10s": 7.0, "last_60s": 6.0},
        "latency": {"samples": 4, "p50_ns": 3001, "p90_ns": 3001, "p99_ns": 3001, "p999_ns": 3001, "max_ns": 3001,
            "octaves": [{"upto_ns": 4095, "count": 4}]}}]})"));
}

TEST(AccountJsonTest, Topics_HaveTheirPublisherTheirSubscribersAndSumsOverThem) {
    auto snapshot = samples::OneOfEach();
    snapshot.subscribers.push_back(snapshot.subscribers.front());
    snapshot.subscribers.back().id = 19;

    const json topics = Parsed(TopicsToJson(snapshot));

    EXPECT_EQ(topics["version"], JsonVersion);
    ASSERT_EQ(topics["topics"].size(), 2U);
    const json& pressure = topics["topics"][0];
    EXPECT_EQ(pressure["topic"], "pressure");
    EXPECT_EQ(pressure["publisher"], nullptr);
    EXPECT_EQ(pressure["last_value"], nullptr);
    EXPECT_EQ(pressure["rates"], json::parse(R"({"last_1s": 0.0, "last_10s": 0.0, "last_60s": 0.0})"));
    EXPECT_EQ(pressure["description"], nullptr);
    const json& temperature = topics["topics"][1];
    EXPECT_EQ(temperature["topic"], "temperature");
    EXPECT_EQ(temperature["publisher"]["id"], 17);
    EXPECT_EQ(temperature["last_value"], -21);
    EXPECT_EQ(temperature["last_unix_ns"], 108 * Second + Offset);
    EXPECT_EQ(temperature["last_age_ns"], 2 * Second);
    EXPECT_EQ(temperature["rates"]["last_1s"], 10.5);
    EXPECT_EQ(temperature["subscribers"], json::parse("[18, 19]"));
    EXPECT_EQ(temperature["queued"], 30);
    EXPECT_EQ(temperature["dropped"], 48);
}

TEST(AccountJsonTest, Description_IsTakenApart) {
    EXPECT_EQ(Parsed(*TopicToJson(samples::OneOfEach(), "temperature"))["description"], json::parse(R"({
        "text": "fixed;step=1/1000;unit=K;remark=outside", "type": "fixed", "numerator": 1, "denominator": 1000,
        "unit": "K", "names": [], "remark": "outside"})"));

    auto snapshot = samples::OneOfEach();
    snapshot.descriptions[0].text = "enum;names=-1:off,2:on";
    EXPECT_EQ(Parsed(*TopicToJson(snapshot, "temperature"))["description"]["names"],
              json::parse(R"([{"value": -1, "name": "off"}, {"value": 2, "name": "on"}])"));
}

TEST(AccountJsonTest, DescriptionThatIsNotUnderstood_IsItsTextAlone) {
    auto snapshot = samples::OneOfEach();
    snapshot.descriptions[0].text = "int8;colour=red\xff";

    EXPECT_EQ(Parsed(*TopicToJson(snapshot, "temperature"))["description"],
              json::parse(R"({"text": "int8;colour=red\\xff"})"));
}

TEST(AccountJsonTest, UnknownTopic_IsNothing) {
    EXPECT_EQ(TopicToJson(samples::OneOfEach(), "temperatur"), std::nullopt);
    EXPECT_EQ(TopicToJson({}, ""), std::nullopt);
}

TEST(AccountJsonTest, Topic_IsFoundByItsRawBytes) {
    auto snapshot = samples::OneOfEach();
    snapshot.publishers[0].topic = "a\n\0\xff\\"s;

    const auto topic = TopicToJson(snapshot, "a\n\0\xff\\"s);

    ASSERT_TRUE(topic);
    EXPECT_EQ(Parsed(*topic)["topic"], R"(a\n\x00\xff\\)");
}

TEST(AccountJsonTest, NamesOfAnyBytes_AreEscapedEverywhere) {
    const std::string bytes = "\x1b]0;\xff\"\\";
    const std::string escaped = R"(\x1b]0;\xff"\\)";
    auto snapshot = samples::OneOfEach();
    snapshot.server.version = snapshot.server.options = bytes;
    snapshot.publishers[0].topic = snapshot.publishers[0].process.program = bytes;
    snapshot.subscribers[0].name = snapshot.subscribers[0].process.program = bytes;
    snapshot.subscribers[0].topics = {bytes};
    snapshot.clients[0].process.program = bytes;
    snapshot.threads[0].name = bytes;
    snapshot.errors[0].place = snapshot.errors[0].text = bytes;
    snapshot.events[0].name = snapshot.events[0].process.program = bytes;

    const json state = Parsed(StateToJson(snapshot));

    EXPECT_EQ(state["server"]["version"], escaped);
    EXPECT_EQ(state["server"]["options"], escaped);
    EXPECT_EQ(state["topics"][0]["topic"], escaped);
    EXPECT_EQ(state["publishers"][0]["program"], escaped);
    EXPECT_EQ(state["subscribers"][0]["name"], escaped);
    EXPECT_EQ(state["subscribers"][0]["program"], escaped);
    EXPECT_EQ(state["subscribers"][0]["topics"], json::array({escaped}));
    EXPECT_EQ(state["clients"][0]["program"], escaped);
    EXPECT_EQ(state["threads"][0]["name"], escaped);
    EXPECT_EQ(state["errors"][0]["place"], escaped);
    EXPECT_EQ(state["errors"][0]["text"], escaped);
    EXPECT_EQ(state["events"][0]["name"], escaped);
    EXPECT_EQ(state["events"][0]["program"], escaped);
}

TEST(AccountJsonTest, ClientsThreadsAndErrors_HaveTheirNumbers) {
    const json state = SampleState();

    EXPECT_EQ(state["clients"], json::parse(R"([{"pid": 4712, "program": "sensor",
        "since_unix_ns": 1700000019000000000, "unknown_pushes": 1, "unknown_waits": 2, "refused_registrations": 3}])"));
    EXPECT_EQ(state["threads"], json::parse(R"([{"name": "events", "away_ns": 0, "longest_away_ns": 3000000,
        "longest_unix_ns": 1700000050000000000}])"));
    EXPECT_EQ(state["errors"], json::parse(R"([{"level": "warning", "place": "file.cpp:12", "count": 9,
        "first_unix_ns": 1700000040000000000, "last_unix_ns": 1700000060000000000, "text": "something failed"}])"));
}

TEST(AccountJsonTest, ThreadThatIsAway_SaysForHowLong) {
    auto snapshot = samples::OneOfEach();
    snapshot.threads[0].awaySince = 105 * Second;

    EXPECT_EQ(Parsed(StateToJson(snapshot))["threads"][0]["away_ns"], 5 * Second);
}

TEST(AccountJsonTest, Ages_AreNeverNegative) {
    auto snapshot = samples::OneOfEach();
    snapshot.publishers[0].lastAt = snapshot.readAt + 1;

    EXPECT_EQ(Parsed(StateToJson(snapshot))["publishers"][0]["last_age_ns"], 0);
}

TEST(AccountJsonTest, Events_SayWhatHappenedToWhat) {
    const json events = SampleState()["events"];

    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0], json::parse(R"({"number": 5, "unix_ns": 1700000020000000000, "event": "publisher-registered",
        "id": 17, "name": "temperature", "pid": 4712, "program": "sensor", "code": 0, "lost": 0})"));
    EXPECT_EQ(events[1]["event"], "subscriber-cut");
    EXPECT_EQ(events[1]["lost"], 12);
}

TEST(AccountJsonTest, EmptyAccount_IsCompleteJson) {
    const json state = Parsed(StateToJson({}));

    EXPECT_EQ(state["read_unix_ns"], nullptr);
    EXPECT_EQ(state["server"]["started_unix_ns"], nullptr);
    EXPECT_EQ(state["topics"], json::array());
    EXPECT_EQ(state["bus"]["adds_up"], true);
}

} // namespace
