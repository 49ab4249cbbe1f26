// DDS through Cyclone DDS over loopback UDP: reliable, history keep-all. It has no broker: the writers send to the
// readers. Acknowledgement: dds_wait_for_acks after each write, that is, every reader's process has confirmed the
// value. As the manual advises, a process has one participant; each subscriber is a reader with a wait set of its own.
// The address is a folder with the configuration file; its name keeps benchmarks on one machine apart.

#include "cyclonedds_types.h"
#include "driver.h"

#include <dds/dds.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <vector>

namespace bench {
namespace {

dds_entity_t Check(dds_entity_t code, const char* what) {
    if (code < 0) {
        throw DriverError(std::string("cyclonedds: ") + what + ": " + dds_strretcode(-code));
    }
    return code;
}

struct Delete {
    void operator()(dds_qos_t* qos) const { dds_delete_qos(qos); }
    void operator()(dds_listener_t* listener) const { dds_delete_listener(listener); }
};
using Qos = std::unique_ptr<dds_qos_t, Delete>;

/// Without limits on the time that a write may block, a full history delays the writer instead of failing the write.
Qos Lossless() {
    Qos qos(dds_create_qos());
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    return qos;
}

/// The last value of each key, which a reader gets as well if it comes later.
Qos LastOfEachKey() {
    Qos qos(dds_create_qos());
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    return qos;
}

/// Takes values from a reader and blocks while it has none.
template <typename Type>
class Inbox final {
public:
    Inbox(dds_entity_t participant, dds_entity_t topic, const dds_qos_t* qos)
        : reader(Check(dds_create_reader(participant, topic, qos, nullptr), "reader")),
          waitSet(Check(dds_create_waitset(participant), "wait set")) {
        const auto condition = Check(dds_create_readcondition(reader, DDS_ANY_STATE), "read condition");
        Check(dds_waitset_attach(waitSet, condition, 0), "attach");
    }

    Type Next() {
        while (used == taken) {
            std::array<void*, Batch> places{};
            for (std::size_t i = 0; i < Batch; ++i) {
                places[i] = &values[i];
            }
            const auto count = Check(dds_take(reader, places.data(), infos.data(), Batch, Batch), "take");
            taken = static_cast<std::size_t>(count);
            used = 0;
            if (taken == 0) {
                Check(dds_waitset_wait(waitSet, nullptr, 0, DDS_INFINITY), "wait");
            }
            while (used < taken && !infos[used].valid_data) {
                ++used;
            }
        }
        const Type value = values[used];
        do {
            ++used;
        } while (used < taken && !infos[used].valid_data);
        return value;
    }

private:
    static constexpr std::size_t Batch = 32;

    const dds_entity_t reader;
    const dds_entity_t waitSet;
    std::array<Type, Batch> values{};
    std::array<dds_sample_info_t, Batch> infos{};
    std::size_t taken = 0;
    std::size_t used = 0;
};

using Sample = bench_dds_Sample;
using Matched = bench_dds_Matched;

/// All topics of the benchmark share one DDS topic, so that a subscriber has one reader to wait on.
struct Topics {
    dds_entity_t participant;
    dds_entity_t values;
    dds_entity_t matched;
};

class CycloneddsPublisher final : public IPublisher {
public:
    CycloneddsPublisher(const Topics& topics, int topicNumber)
        : number(topicNumber),
          report(
              Check(dds_create_writer(topics.participant, topics.matched, LastOfEachKey().get(), nullptr), "writer")) {
        // Readers are matched one by one; the number of them shows a subscriber that its own reader is.
        const std::unique_ptr<dds_listener_t, Delete> listener(dds_create_listener(this));
        dds_lset_publication_matched(listener.get(),
                                     [](dds_entity_t, const dds_publication_matched_status_t status, void* self) {
                                         static_cast<const CycloneddsPublisher*>(self)->Report(status.current_count);
                                     });
        writer =
            Check(dds_create_writer(topics.participant, topics.values, Lossless().get(), listener.get()), "writer");
    }
    ~CycloneddsPublisher() override { dds_delete(writer); }
    CycloneddsPublisher(const CycloneddsPublisher&) = delete;
    CycloneddsPublisher& operator=(const CycloneddsPublisher&) = delete;

    bool Publish(std::int64_t value) override {
        const Sample sample{value};
        Check(dds_write(writer, &sample), "write");
        Check(dds_wait_for_acks(writer, DDS_INFINITY), "wait for acknowledgements");
        return true;
    }

private:
    void Report(std::uint32_t readers) const {
        const Matched sample{number, static_cast<std::int32_t>(readers)};
        dds_write(report, &sample);
    }

    const std::int32_t number;
    const dds_entity_t report;
    dds_entity_t writer = 0;
};

class CycloneddsSubscriber final : public ISubscriber {
public:
    explicit CycloneddsSubscriber(const Topics& topics) : inbox(topics.participant, topics.values, Lossless().get()) {}

    std::int64_t Next() override { return inbox.Next().value; }

private:
    Inbox<Sample> inbox;
};

/// Names of topics have no other characters than letters, digits and underscores.
std::string TopicPrefix(const std::string& directory) {
    auto name = std::filesystem::path(directory).filename().string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
    return name;
}

class CycloneddsDriver final : public IDriver {
public:
    explicit CycloneddsDriver(const std::string& directory) {
        setenv("CYCLONEDDS_URI", ("file://" + directory + "/cyclonedds.xml").c_str(), 1);
        const auto name = TopicPrefix(directory);
        topics.participant = Check(dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr), "participant");
        topics.values = Check(
            dds_create_topic(topics.participant, &bench_dds_Sample_desc, (name + "_values").c_str(), nullptr, nullptr),
            "topic");
        topics.matched = Check(dds_create_topic(topics.participant, &bench_dds_Matched_desc,
                                                (name + "_matched").c_str(), nullptr, nullptr),
                               "topic");
    }
    ~CycloneddsDriver() override { dds_delete(topics.participant); }
    CycloneddsDriver(const CycloneddsDriver&) = delete;
    CycloneddsDriver& operator=(const CycloneddsDriver&) = delete;

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return std::make_unique<CycloneddsPublisher>(topics, topic);
    }

    std::unique_ptr<ISubscriber> MakeSubscriber(int publishers) override {
        auto subscriber = std::make_unique<CycloneddsSubscriber>(topics);
        ++subscribers;
        if (!matches) {
            matches = std::make_unique<Inbox<Matched>>(topics.participant, topics.matched, LastOfEachKey().get());
        }
        for (int i = 0; i < publishers; ++i) {
            while (readers[i] < subscribers) {
                const auto matched = matches->Next();
                readers[matched.publisher] = matched.readers;
            }
        }
        return subscriber;
    }

private:
    Topics topics{};
    std::unique_ptr<Inbox<Matched>> matches;
    std::map<int, int> readers; ///< by publisher
    int subscribers = 0;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::CycloneddsDriver>(address); },
                            argc, argv);
}
