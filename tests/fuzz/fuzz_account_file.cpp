// An account in which any words have any values, or that ends anywhere. To its readers it is an account that may say
// anything, or damaged: what they take of it is bounded by what it has room for, and it has a text in each of the forms
// in which it is shown.
//
// Input: a byte, how much of the file there is, in 255ths less one (0: all of it); then for each word that is replaced
// a part of the file (8 bits), an index of a word in it (16 bits) and its value (64 bits).

#include "fuzzing.h"
#include "instruments/account_file.h"
#include "instruments/account_json.h"
#include "instruments/open_metrics.h"
#include "instruments/read_account.h"

#include <new>
#include <span>
#include <string>

namespace {

using fuzzing::Input;
using fuzzing::Require;
using instruments::AccountError;
using instruments::AccountFile;
using instruments::AccountReader;
using instruments::Snapshot;
using instruments::Twin;
using namespace instruments::layout;

constexpr instruments::AccountCapacities Small{
    .publishers = 4, .subscribers = 4, .clients = 4, .textBytes = 1024, .latencyPages = 4};
constexpr std::size_t Used = 2; ///< of the slots of each kind, and of other records
constexpr std::int64_t Second = 1'000'000'000;

/// An account as a server writes it.
class Account final {
public:
    Account() {
        Header& head = file.Head();
        head.pid = 1;
        head.startedAt = Second;
        head.clockOffset = Second;
        head.state = 1;
        head.gauges.Write({1, 2, 3, 4, Second});
        head.bus.pushes.Write({6, 4, 2});
        head.bus.fanOut.Write({4, 4, 6});
        for (std::size_t i = 0; i < Used; ++i) {
            PutPublisher(i);
            PutSubscriber(i);
            PutClient(i);
            PutRecords(i);
        }
        head.publishersUsed = Used;
        head.subscribersUsed = Used;
        head.clientsUsed = Used;
        head.bus.lastEvent = Used;
        file.Publish();
    }

    std::span<const std::byte> Memory() const { return file.Memory(); }

    void Replace(Input& input) const {
        const auto& regions = file.Regions();
        constexpr std::size_t parts = 9;
        const std::size_t part = input.Below(parts);
        const std::size_t index = input.Number<std::uint16_t>();
        const auto value = input.Number<std::uint64_t>();
        if (part == parts - 1) {
            Put(0, sizeof(Header), index, value);
            return;
        }
        const Region& region = (&regions.threads)[part];
        const bool isText = &region == &regions.text;
        Put(region.offset, isText ? Small.textBytes : Used * region.elementSize, index, value);
    }

private:
    void Put(std::size_t offset, std::size_t size, std::size_t index, std::uint64_t value) const {
        const std::size_t words = std::min(size, Memory().size() - offset) / sizeof value;
        if (words != 0) {
            std::memcpy(const_cast<std::byte*>(Memory().data()) + offset + index % words * sizeof value, &value,
                        sizeof value);
        }
    }

    Text Add(const std::string& text) {
        const Text place{textEnd, static_cast<std::uint32_t>(text.size())};
        std::memcpy(&file.At<std::byte>(file.Regions().text, textEnd), text.data(), text.size());
        textEnd += static_cast<std::uint32_t>((text.size() + sizeof(Counter) - 1) / sizeof(Counter));
        return place;
    }

    static std::string Part(const std::string& text) {
        const auto size = static_cast<std::uint32_t>(text.size());
        return std::string(reinterpret_cast<const char*>(&size), sizeof size) + text;
    }

    static Program ProgramOf(std::size_t i) { return {i, static_cast<std::int64_t>(i), {'p'}}; }

    void PutPublisher(std::size_t i) {
        auto& slot = *new (&file.At<Publisher>(file.Regions().publishers, i)) Publisher;
        PublisherIdentity identity;
        identity.id = static_cast<std::int64_t>(i) + 1;
        identity.topic = Add("topic" + std::to_string(i));
        identity.description = Add("fixed;step=1/10;unit=V");
        identity.program = ProgramOf(i);
        identity.since = Second;
        slot.identity.Write(identity);
        slot.flow.Write({3, 1, 215, Second, 1, 2});
        slot.rates.second = 1;
    }

    void PutSubscriber(std::size_t i) {
        auto& slot = *new (&file.At<Subscriber>(file.Regions().subscribers, i)) Subscriber;
        SubscriberIdentity identity;
        identity.id = static_cast<std::int64_t>(i) + 3;
        identity.text = Add(Part("name" + std::to_string(i)) + Part("topic0") + Part("topic1"));
        identity.program = ProgramOf(i);
        identity.since = Second;
        slot.identity.Write(identity);
        slot.due = 4;
        slot.flow.Write({3, 1, 1, 0, {1}, 1, 0, Second});
        slot.latency[2 + i] = static_cast<std::uint32_t>(i) + 1;
        file.Head().bus.latency[i] = static_cast<std::uint32_t>(i) + 3;
        file.At<LatencyPage>(file.Regions().latencyPages, i)[i] = 1;
    }

    void PutClient(std::size_t i) {
        auto& slot = *new (&file.At<Client>(file.Regions().clients, i)) Client;
        slot.identity.Write({i + 1, ProgramOf(i), Second, 0, 0, 0});
        slot.unknownPushes = i;
    }

    void PutRecords(std::size_t i) {
        file.At<Thread>(file.Regions().threads, i).name[0] = 't';
        Error error;
        error.count = 1;
        error.place = {'f'};
        error.text = {'e'};
        file.At<Twin<Error>>(file.Regions().errors, i).Write(error);
        Event event;
        event.number = i + 1;
        event.at = Second;
        event.kind = static_cast<std::uint32_t>(i) + 1;
        event.program = ProgramOf(i);
        event.nameSize = 1;
        event.name = {'n'};
        file.At<Twin<Event>>(file.Regions().events, i).Write(event);
    }

    AccountFile file{std::nullopt, Small};
    std::uint32_t textEnd = 0;
};

std::size_t BytesOfTexts(const Snapshot& snapshot) {
    std::size_t bytes = 0;
    for (const auto& publisher : snapshot.publishers) {
        bytes += publisher.topic.size();
    }
    for (const auto& description : snapshot.descriptions) {
        bytes += description.text.size();
    }
    for (const auto& subscriber : snapshot.subscribers) {
        bytes += subscriber.name.size();
        for (const auto& topic : subscriber.topics) {
            bytes += topic.size() + sizeof(std::uint32_t);
        }
    }
    return bytes;
}

void Show(const Snapshot& snapshot) {
    Require(snapshot.events.size() <= instruments::EventCapacity, "there are no more events than have room");
    // What the header says of the regions may be up to this much more than the account had at first.
    Require(BytesOfTexts(snapshot) <= 2 * MostTextBytes, "texts take no more than there is");
    Require(!StateToJson(snapshot).dump().empty() && !TopicsToJson(snapshot).dump().empty() &&
                !SubscribersToJson(snapshot).dump().empty(),
            "it is JSON");
    for (const auto& topic : TopicsOf(snapshot)) {
        Require(TopicToJson(snapshot, topic.topic).has_value(), "a topic that is known is found");
    }
    Require(ToOpenMetrics(snapshot).ends_with("# EOF\n"), "the metrics have an end");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const Account account;
    const std::size_t share = input.Number<std::uint8_t>();
    while (!input.IsEmpty()) {
        account.Replace(input);
    }
    const auto memory = account.Memory();
    try {
        const AccountReader reader(share == 0 ? memory : memory.first(memory.size() * (share - 1) / 255));
        for (const std::uint64_t after : {std::uint64_t{0}, std::uint64_t{1}, ~std::uint64_t{0}}) {
            Require(reader.EventsAfter(after).size() <= instruments::EventCapacity, "there are so many events");
        }
        Show(reader.Read());
    } catch (const AccountError&) {
        return 0; // it is damaged
    }
    return 0;
}
