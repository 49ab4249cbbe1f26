// Defends the metrics: every number stands under its name and unit, no bytes of a name break the text, and however many
// topics and subscribers there are, the series are few and nothing is left out of their sums. That a parser of others
// reads the text is tested by open_metrics_test.py.
#include "instruments/open_metrics.h"

#include "instruments/sample_snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <sstream>
#include <string>

namespace {

using namespace instruments;
using testing::HasSubstr;
using testing::Not;

/// Returns: the value of the one sample that begins with `sample` and a space; "" when there is not exactly one.
std::string ValueOf(const std::string& text, const std::string& sample) {
    std::istringstream lines(text);
    std::string value;
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(sample + ' ')) {
            value = line.substr(sample.size() + 1);
            ++count;
        }
    }
    return count == 1 ? value : "";
}

std::size_t CountOf(const std::string& text, std::string_view part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(OpenMetricsTest, Bus_HasItsCountersAndGauges) {
    const std::string text = ToOpenMetrics(samples::OneOfEach());

    EXPECT_EQ(ValueOf(text, "msgbus_values_accepted_total"), "1000");
    EXPECT_EQ(ValueOf(text, "msgbus_values_fanned_out_total"), "900");
    EXPECT_EQ(ValueOf(text, "msgbus_values_without_subscriber_total"), "93");
    EXPECT_EQ(ValueOf(text, "msgbus_values_rescued_total"), "8");
    EXPECT_EQ(ValueOf(text, "msgbus_pushes_refused_total"), "5");
    EXPECT_EQ(ValueOf(text, "msgbus_pushes_unknown_total"), "2");
    EXPECT_EQ(ValueOf(text, "msgbus_waits_unknown_total"), "3");
    EXPECT_EQ(ValueOf(text, "msgbus_registrations_refused_total"), "4");
    EXPECT_EQ(ValueOf(text, "msgbus_connections_refused_total"), "6");
    EXPECT_EQ(ValueOf(text, "msgbus_account_discrepancies_total"), "0");
    EXPECT_EQ(ValueOf(text, "msgbus_account_adds_up"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_inbound_values"), "7");
    EXPECT_EQ(ValueOf(text, "msgbus_inbound_values_highest"), "41");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_due_total"), "900");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_taken_total"), "800");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_dropped_total{reason=\"cut\"}"), "12");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_queued"), "30");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_offered"), "20");
    EXPECT_EQ(ValueOf(text, "msgbus_deliveries_handed_over"), "1");
}

TEST(OpenMetricsTest, Server_HasItsGaugesInBaseUnits) {
    const std::string text = ToOpenMetrics(samples::OneOfEach());

    EXPECT_EQ(ValueOf(text, "msgbus_build_info{version=\"1.2.3\",mode=\"dynamic\"}"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_server_state{msgbus_server_state=\"serving\"}"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_server_state{msgbus_server_state=\"stopped\"}"), "0");
    EXPECT_EQ(ValueOf(text, "msgbus_server_start_time_seconds"), "1700000010");
    EXPECT_EQ(ValueOf(text, "msgbus_server_uptime_seconds"), "100");
    EXPECT_EQ(ValueOf(text, "msgbus_server_threads"), "11");
    EXPECT_EQ(ValueOf(text, "msgbus_clients_with_mistakes"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_server_open_descriptors"), "23");
    EXPECT_EQ(ValueOf(text, "msgbus_server_resident_memory_bytes"), "5000000");
    EXPECT_EQ(ValueOf(text, "msgbus_topics"), "2");
    EXPECT_EQ(ValueOf(text, "msgbus_publishers"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_subscribers"), "1");
    EXPECT_THAT(text, HasSubstr("# TYPE msgbus_server_resident_memory_bytes gauge\n"
                                "# UNIT msgbus_server_resident_memory_bytes bytes\n# HELP "));
}

TEST(OpenMetricsTest, Latency_IsAHistogramOfSeconds) {
    const std::string text = ToOpenMetrics(samples::OneOfEach());

    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"1e-06\"}"), "2");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"0.0005\"}"), "2");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"0.002\"}"), "3");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"+Inf\"}"), "3");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_count"), "3");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_sum"), "0.001002447");
}

TEST(OpenMetricsTest, LatencyBeyondAllBounds_IsInTheLastBucketOnly) {
    Snapshot snapshot;
    snapshot.bus.latency.Append(LatencyBuckets::Count - 1, 1);

    const std::string text = ToOpenMetrics(snapshot);

    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"10.0\"}"), "0");
    EXPECT_EQ(ValueOf(text, "msgbus_delivery_latency_seconds_bucket{le=\"+Inf\"}"), "1");
}

TEST(OpenMetricsTest, Topic_HasItsNumbers) {
    const std::string text = ToOpenMetrics(samples::OneOfEach());

    EXPECT_EQ(ValueOf(text, "msgbus_topic_values_accepted_total{topic=\"temperature\"}"), "661");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_values_without_subscriber_total{topic=\"temperature\"}"), "50");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_pushes_refused_total{topic=\"temperature\"}"), "5");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_subscribers{topic=\"pressure\"}"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_has_publisher{topic=\"temperature\"}"), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_has_publisher{topic=\"pressure\"}"), "0");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_last_value{topic=\"temperature\"}"), "-0.021");
    EXPECT_EQ(ValueOf(text, "msgbus_topic_last_value_time_seconds{topic=\"temperature\"}"), "1700000108");
    EXPECT_THAT(text, Not(HasSubstr("msgbus_topic_last_value{topic=\"pressure\"}")));
}

TEST(OpenMetricsTest, LastValue_IsWhatTheDescriptionSays) {
    const auto lastValue = [](std::string description, std::int64_t bits) {
        auto snapshot = samples::OneOfEach();
        snapshot.publishers[0].lastValue = bits;
        snapshot.descriptions[0].text = std::move(description);
        return ValueOf(ToOpenMetrics(snapshot), "msgbus_topic_last_value{topic=\"temperature\"}");
    };

    EXPECT_EQ(lastValue("", -7), "-7");
    EXPECT_EQ(lastValue("int8;colour=red", -7), "-7");
    EXPECT_EQ(lastValue("uint64", -1), "18446744073709551616");
    EXPECT_EQ(lastValue("float64", std::bit_cast<std::int64_t>(2.5)), "2.5");
    EXPECT_EQ(lastValue("float64", std::bit_cast<std::int64_t>(std::numeric_limits<double>::quiet_NaN())), "NaN");
    EXPECT_EQ(lastValue("float32", std::bit_cast<std::int32_t>(-2.5F)), "-2.5");
    EXPECT_EQ(lastValue("float32", std::bit_cast<std::int32_t>(std::numeric_limits<float>::infinity())), "+Inf");
    EXPECT_EQ(lastValue("fixed;step=3/4", 2), "1.5");
    EXPECT_EQ(lastValue("time", 1'500'000'000), "1.5");
}

TEST(OpenMetricsTest, Subscriber_HasItsNumbers) {
    const std::string text = ToOpenMetrics(samples::OneOfEach());
    const std::string labels = "{subscriber=\"display\",id=\"18\"}";

    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_values_due_total" + labels), "450");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_values_taken_total" + labels), "400");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_values_dropped_total" + labels), "24");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_values_queued" + labels), "15");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_values_offered" + labels), "10");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_waiting" + labels), "1");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_oldest_value_age_seconds" + labels), "3");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_latency_seconds{subscriber=\"display\",id=\"18\",quantile=\"0.99\"}"),
              "3.001e-06");
    EXPECT_EQ(ValueOf(text, "msgbus_subscriber_latency_seconds_count" + labels), "4");
}

TEST(OpenMetricsTest, ThreadsAndErrors_HaveTheirNumbers) {
    auto snapshot = samples::OneOfEach();
    snapshot.threads[0].awaySince = 105 * samples::Second;

    const std::string text = ToOpenMetrics(snapshot);

    EXPECT_EQ(ValueOf(text, "msgbus_thread_away_seconds{thread=\"events\"}"), "5");
    EXPECT_EQ(ValueOf(text, "msgbus_thread_longest_away_seconds{thread=\"events\"}"), "0.003");
    EXPECT_EQ(ValueOf(text, "msgbus_log_records_total{level=\"warning\",place=\"file.cpp:12\"}"), "9");
}

TEST(OpenMetricsTest, NamesOfAnyBytes_AreEscapedTwice) {
    auto snapshot = samples::OneOfEach();
    snapshot.publishers[0].topic = "a\"b\\c\nd\xff";

    EXPECT_EQ(ValueOf(ToOpenMetrics(snapshot), R"(msgbus_topic_values_accepted_total{topic="a\"b\\\\c\\nd\\xff"})"),
              "661");
}

TEST(OpenMetricsTest, TopicsBeyondTheLimit_AreSummedAndTheBusiestAreNot) {
    Snapshot snapshot;
    constexpr std::size_t count = MostMetricTopics + 3;
    for (std::size_t i = 0; i < count; ++i) {
        PublisherAccount publisher;
        publisher.topic = "topic" + std::to_string(i);
        publisher.accepted = i + 1;
        publisher.lastValue = 1;
        snapshot.publishers.push_back(publisher);
    }

    const std::string text = ToOpenMetrics(snapshot);

    EXPECT_EQ(CountOf(text, "\nmsgbus_topic_values_accepted_total{"), MostMetricTopics + 1);
    EXPECT_EQ(CountOf(text, "\nmsgbus_topic_last_value{"), MostMetricTopics);
    EXPECT_EQ(ValueOf(text, R"(msgbus_topic_values_accepted_total{topic="\\rest"})"), "6");
    EXPECT_EQ(ValueOf(text, R"(msgbus_topic_has_publisher{topic="\\rest"})"), "3");
    EXPECT_EQ(ValueOf(text, R"(msgbus_topic_values_accepted_total{topic="topic3"})"), "4");
    EXPECT_EQ(ValueOf(text, "msgbus_topics"), std::to_string(count));
}

TEST(OpenMetricsTest, SubscribersBeyondTheLimit_AreSummedAndTheBusiestAreNot) {
    Snapshot snapshot;
    for (std::size_t i = 0; i < MostMetricSubscribers + 2; ++i) {
        SubscriberAccount subscriber;
        subscriber.id = static_cast<std::int64_t>(i);
        subscriber.name = "same";
        subscriber.flows.due = subscriber.flows.taken = i + 1;
        snapshot.subscribers.push_back(subscriber);
    }

    const std::string text = ToOpenMetrics(snapshot);

    EXPECT_EQ(CountOf(text, "\nmsgbus_subscriber_values_taken_total{"), MostMetricSubscribers + 1);
    EXPECT_EQ(ValueOf(text, R"(msgbus_subscriber_values_taken_total{subscriber="\\rest",id=""})"), "3");
    EXPECT_EQ(ValueOf(text, R"(msgbus_subscriber_values_taken_total{subscriber="same",id="2"})"), "3");
}

TEST(OpenMetricsTest, Text_EndsWithItsMarker) {
    EXPECT_TRUE(ToOpenMetrics({}).ends_with("\n# EOF\n"));
}

} // namespace
