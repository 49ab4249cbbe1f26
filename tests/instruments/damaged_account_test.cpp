// Defends the readers of an account against what no server has written: it is read to its end, or an error, but takes
// neither time nor memory without bound.
#include "instruments/account_file.h"
#include "instruments/read_account.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

using instruments::AccountCapacities;
using instruments::AccountError;
using instruments::AccountFile;
using instruments::AccountReader;
using instruments::Twin;
using testing::HasSubstr;
using testing::IsEmpty;
namespace layout = instruments::layout;

constexpr std::uint64_t Highest = std::numeric_limits<std::uint64_t>::max();
constexpr AccountCapacities Small{
    .publishers = 8, .subscribers = 8, .clients = 8, .textBytes = 4096, .latencyPages = 4};

class DamagedAccountTest : public testing::Test {
protected:
    DamagedAccountTest() { file.Publish(); }

    layout::Header& Head() const { return file.Head(); }

    void PutSubscriber(std::size_t index, layout::Text text) const {
        layout::SubscriberIdentity identity;
        identity.id = static_cast<std::int64_t>(index) + 1;
        identity.text = text;
        file.At<layout::Subscriber>(file.Regions().subscribers, index).identity.Write(identity);
        Head().subscribersUsed = index + 1;
    }

    /// Puts `bytes` at the beginning of the texts.
    void PutText(const std::string& bytes) const {
        std::memcpy(&file.At<std::byte>(file.Regions().text, 0), bytes.data(), bytes.size());
    }

    void PutEvent(std::uint64_t number) const {
        layout::Event event;
        event.number = number;
        file.At<Twin<layout::Event>>(file.Regions().events, (number - 1) % layout::EventCapacityInFile).Write(event);
    }

    std::string ErrorOfReading() const {
        try {
            AccountReader(file.Memory()).Read();
        } catch (const AccountError& error) {
            return error.what();
        }
        return "none";
    }

    AccountFile file{std::nullopt, Small};
};

std::string Part(const std::string& text) {
    const auto size = static_cast<std::uint32_t>(text.size());
    return std::string(reinterpret_cast<const char*>(&size), sizeof size) + text;
}

TEST_F(DamagedAccountTest, TheHighestEventNumber_IsReadOnce) {
    Head().bus.lastEvent = Highest;
    PutEvent(Highest);
    const AccountReader reader(file.Memory());
    const auto events = reader.EventsAfter(0);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].number, Highest);
    EXPECT_THAT(reader.EventsAfter(Highest), IsEmpty());
}

TEST_F(DamagedAccountTest, EventsBehindTheLastOne_AreNone) {
    Head().bus.lastEvent = 5;
    PutEvent(5);
    const AccountReader reader(file.Memory());
    EXPECT_EQ(reader.EventsAfter(4).size(), 1U);
    EXPECT_THAT(reader.EventsAfter(5), IsEmpty());
    EXPECT_THAT(reader.EventsAfter(6), IsEmpty());
    EXPECT_THAT(reader.EventsAfter(Highest), IsEmpty());
}

TEST_F(DamagedAccountTest, MoreInUseThanThereIs_IsAnError) {
    for (auto* const used : {&Head().publishersUsed, &Head().subscribersUsed, &Head().clientsUsed}) {
        *used = 8;
        EXPECT_EQ(ErrorOfReading(), "none");
        *used = 9;
        EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
        *used = Highest;
        EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
        *used = 0;
    }
}

TEST_F(DamagedAccountTest, ATextThatDoesNotFit_IsAnError) {
    PutSubscriber(0, {0, 0});
    EXPECT_EQ(ErrorOfReading(), "none");
    PutSubscriber(0, {4096 / 8, 1});
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
    PutSubscriber(0, {0xFFFFFFFF, 0xFFFFFFFF});
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, ATextOfZeros_IsNoNumberOfTopics) {
    PutSubscriber(0, {0, 2048});
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, TheTopicWithoutAByte_IsATopic) {
    const std::string text = Part("name") + Part("") + Part("a") + Part("b");
    PutText(text);
    PutSubscriber(0, {0, static_cast<std::uint32_t>(text.size())});
    const auto snapshot = AccountReader(file.Memory()).Read();
    ASSERT_EQ(snapshot.subscribers.size(), 1U);
    EXPECT_EQ(snapshot.subscribers[0].topics, (std::vector<std::string>{"", "a", "b"}));
}

TEST_F(DamagedAccountTest, APartBeyondItsText_IsAnError) {
    const std::string text = Part("name");
    PutText(text);
    PutSubscriber(0, {0, static_cast<std::uint32_t>(text.size()) - 1});
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, SlotsThatShareATextAreAnError_BecauseTheyTakeMoreThanThereIs) {
    const std::string text = Part(std::string(4092, 'x'));
    PutText(text);
    PutSubscriber(0, {0, 4096});
    PutSubscriber(1, {0, 4096});
    EXPECT_EQ(ErrorOfReading(), "none"); // it could have moved
    PutSubscriber(2, {0, 4096});
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, PagesOfHistogramsThatAreShared_AreAnError) {
    auto& latency = file.At<layout::Subscriber>(file.Regions().subscribers, 0).latency;
    PutSubscriber(0, {0, 0});
    for (std::size_t octave = 0; octave < Small.latencyPages; ++octave) {
        latency[octave] = 1;
    }
    EXPECT_EQ(ErrorOfReading(), "none");
    latency[Small.latencyPages] = 1;
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
    latency[Small.latencyPages] = 0;
    latency[0] = 5;
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, TimesBeyondAnyClock_CanBeAddedAllTheSame) {
    constexpr auto highest = std::numeric_limits<std::int64_t>::max();
    Head().startedAt = highest;
    Head().clockOffset = highest;
    auto server = AccountReader(file.Memory()).Read().server;
    EXPECT_LE(server.startedAt, highest - server.clockOffset);
    Head().startedAt = -highest;
    server = AccountReader(file.Memory()).Read().server;
    EXPECT_GE(server.startedAt, server.clockOffset - highest);
}

TEST_F(DamagedAccountTest, RegionsBeyondWhatAServerMakes_AreAnError) {
    // There is more memory behind them, as a sparse file may have any amount of it.
    AccountFile large(std::nullopt, {.clients = layout::MostClients});
    large.Publish();
    auto& head = large.Head();
    const auto error = [&] {
        try {
            const AccountReader reader(large.Memory());
        } catch (const AccountError& thrown) {
            return std::string(thrown.what());
        }
        return std::string("none");
    };
    EXPECT_EQ(error(), "none");
    head.regions.clients.count = layout::MostClients + 1;
    EXPECT_THAT(error(), HasSubstr("damaged"));
    head.regions.clients.count = layout::MostClients;
    head.regions.events.count = layout::EventCapacityInFile + 1;
    EXPECT_THAT(error(), HasSubstr("damaged"));
    head.regions.events.count = 0;
    EXPECT_THAT(error(), HasSubstr("damaged"));
}

TEST_F(DamagedAccountTest, AFileThatEndsWithinARegion_IsAnError) {
    const auto& regions = file.Regions();
    for (const auto* region = &regions.threads; region <= &regions.latencyPages; ++region) {
        const std::size_t end = region->offset + region->count * region->elementSize;
        EXPECT_THROW(AccountReader(file.Memory().first(end - 1)), AccountError) << region - &regions.threads;
    }
}

TEST_F(DamagedAccountTest, RegionsThatMoveLater_AreNotFollowed) {
    const AccountReader reader(file.Memory());
    Head().regions.events.offset = std::uint64_t{1} << 60;
    Head().regions.threads.offset = std::uint64_t{1} << 60;
    EXPECT_THAT(reader.Read().events, IsEmpty());
}

} // namespace
