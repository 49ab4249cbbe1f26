// Defends the server against programs of the same user that write into its account: it goes by its own numbers, and
// writes nowhere else.
#include "account/account_keeper.h"

#include "account/fan_out_ring.h"
#include "instruments/read_account.h"
#include "support/bus_test.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

using instruments::AccountReader;
using msgbus_server::AccountKeeper;
using msgbus_server::FanOutRing;
using msgbus_server::SubscriberEntry;
using testing::SizeIs;
namespace layout = instruments::layout;

constexpr instruments::AccountCapacities Small{
    .publishers = 4, .subscribers = 4, .clients = 4, .textBytes = 4096, .latencyPages = 2};

class AccountKeeperTest : public test_support::BusTest {
protected:
    layout::Header& Head() const { return keeper.File().Head(); }

    std::shared_ptr<SubscriberEntry> Add(long id, const std::string& name) {
        return keeper.AddSubscriber(id, name, {"t"}, ring);
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& subscriber : AccountReader(keeper.File().Memory()).Read().subscribers) {
            names.push_back(subscriber.name);
        }
        return names;
    }

    AccountKeeper keeper{std::nullopt, Small, {"1.2.3", "--option", true}};
    FanOutRing ring{keeper.Bus().fanOut};
};

TEST_F(AccountKeeperTest, UsedCountsAndRegionsOfOthers_AreNotFollowed) {
    const auto first = Add(1, "a");
    Head().subscribersUsed = 0;
    const auto second = Add(2, "b");
    const layout::Regions regions = Head().regions;
    Head().regions.subscribers.offset = std::uint64_t{1} << 40;
    Head().regions.subscribers.count = std::numeric_limits<std::uint64_t>::max();
    Head().subscribersUsed = std::numeric_limits<std::uint64_t>::max() - 1;
    const auto third = Add(3, "c");
    const auto fourth = Add(4, "d");
    EXPECT_EQ(Add(5, "e"), nullptr);
    Head().regions = regions;
    EXPECT_EQ(Names(), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST_F(AccountKeeperTest, ASubscriberInTheSlotOfAnother_HasNoLatencyYet) {
    const auto count = [this] {
        return AccountReader(keeper.File().Memory()).Read().subscribers.at(0).latency.Count();
    };
    const auto first = Add(1, "a");
    static_cast<msgbus_server::ISubscriberSink&>(keeper).Note(first->Slot(), 1000);
    EXPECT_EQ(count(), 1U);
    keeper.EndSubscriber(*first, "a", std::nullopt, 0);
    const auto second = Add(2, "b");
    EXPECT_EQ(&second->Slot(), &first->Slot());
    EXPECT_EQ(count(), 0U);
}

TEST_F(AccountKeeperTest, ATextOfOthers_IsNotUsedAgain) {
    const auto first = Add(1, "a");
    layout::SubscriberIdentity identity = first->Slot().identity.Read();
    identity.text = {0xFFFF0000, 0xFFFF};
    first->Slot().identity.Write(identity);
    keeper.EndSubscriber(*first, "a", std::nullopt, 0);
    const auto second = Add(2, std::string(1000, 'b'));
    const auto text = second->Slot().identity.Read().text;
    EXPECT_LE(text.offset * sizeof(std::uint64_t) + text.size, Small.textBytes);
    EXPECT_EQ(Names(), (std::vector<std::string>{std::string(1000, 'b')}));
}

TEST_F(AccountKeeperTest, APageOfOthers_IsNotWritten) {
    const auto entry = Add(1, "a");
    entry->Slot().latency[0] = 3; // there are two, of which none is in use yet
    keeper.Note(entry->Slot(), 5);
    const auto latency = AccountReader(keeper.File().Memory()).Read(AccountReader::Depth::WithoutLatency);
    EXPECT_THAT(latency.subscribers, SizeIs(1));
    EXPECT_EQ(keeper.Bus().latency[0], 1U); // the first page that is in use
    keeper.EndSubscriber(*entry, "a", std::nullopt, 0);
    EXPECT_NE(Add(2, "b"), nullptr); // whose histogram is cleared
}

} // namespace
