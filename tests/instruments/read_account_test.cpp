// Defends what is made of the words in an account: rates over the time that a client has lived, and events that were
// not overwritten meanwhile.
#include "instruments/read_account.h"

#include "instruments/account_file.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using instruments::AccountFile;
using instruments::AccountReader;
using instruments::Twin;
using namespace std::literals;
namespace layout = instruments::layout;

class ReadAccountTest : public testing::Test {
protected:
    ReadAccountTest() { file.Publish(); }

    instruments::Snapshot Read() const { return AccountReader(file.Memory()).Read(); }

    AccountFile file{std::nullopt, {8, 8, 8, 4096, 4}};
};

TEST_F(ReadAccountTest, RatesOfAYoungClient_AreThoseOfItsLife) {
    auto& slot = file.At<layout::Publisher>(file.Regions().publishers, 0);
    layout::PublisherIdentity identity;
    identity.id = 1;
    identity.since = (std::chrono::steady_clock::now() - 20s).time_since_epoch() / 1ns;
    identity.acceptedBase = 500;
    slot.identity.Write(identity);
    layout::PublisherFlow flow;
    flow.accepted = 1500;
    slot.flow.Write(flow);
    file.Head().publishersUsed = 1;

    const auto snapshot = Read();

    ASSERT_EQ(snapshot.publishers.size(), 1U);
    EXPECT_EQ(snapshot.publishers[0].accepted, 1000U);
    EXPECT_GT(snapshot.publishers[0].rates.last60, 1000.0 / 59) << "in the 20 s, not in 60 s";
    EXPECT_LE(snapshot.publishers[0].rates.last60, 1000.0 / 18);
}

TEST_F(ReadAccountTest, EventThatWasOverwritten_IsLeftOut) {
    const auto put = [this](std::uint64_t place, std::uint64_t number) {
        layout::Event event;
        event.number = number;
        file.At<Twin<layout::Event>>(file.Regions().events, place).Write(event);
    };
    put(0, layout::EventCapacityInFile + 1); // the server has gone on since the number of the last one was read
    put(1, 2);
    file.Head().bus.lastEvent = 2;

    const auto events = Read().events;

    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].number, 2U);
}

} // namespace
