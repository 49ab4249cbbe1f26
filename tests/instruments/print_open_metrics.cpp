// Prints the metrics of an account with names of all kinds, for open_metrics_test.py.
#include "instruments/open_metrics.h"
#include "instruments/sample_snapshot.h"

#include <iostream>

int main() {
    auto snapshot = instruments::samples::OneOfEach();
    for (const char* const name : {"a\"b\\c\nd\xff", "", "\xc3\xa9t\xc3\xa9", "{},=# \t"}) {
        auto publisher = snapshot.publishers.front();
        publisher.topic = name;
        snapshot.publishers.push_back(publisher);
        auto subscriber = snapshot.subscribers.front();
        subscriber.name = name;
        subscriber.id = snapshot.subscribers.back().id + 1;
        snapshot.subscribers.push_back(subscriber);
    }
    for (std::size_t i = 0; i < instruments::MostMetricTopics; ++i) {
        snapshot.publishers.emplace_back().topic = "topic" + std::to_string(i);
    }
    std::cout << instruments::ToOpenMetrics(snapshot);
}
