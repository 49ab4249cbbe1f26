// Defends what a server says about its process: it stays as it was while that cannot be read, and no failure to read it
// ends the process.
#include "account/gauges.h"

#include "account/account_keeper.h"
#include "instruments/read_account.h"
#include "support/bus_test.h"

#include <sys/resource.h>

#include <latch>
#include <stdexcept>
#include <thread>

namespace {

using instruments::AccountReader;
using msgbus_server::AccountKeeper;
using msgbus_server::GaugeRefresh;
using msgbus_server::ReadGauges;
using testing::ElementsAre;
using testing::HasSubstr;

/// While it exists, nothing can be opened.
class NoDescriptors final {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before); }

private:
    rlimit before{};
};

class GaugesTest : public test_support::BusTest {};

TEST_F(GaugesTest, Gauges_AreOfThisProcess) {
    const auto gauges = ReadGauges();
    ASSERT_TRUE(gauges.has_value());
    EXPECT_GE(gauges->threads, 1U);
    EXPECT_GE(gauges->descriptors, 3U);
    EXPECT_GT(gauges->memoryBytes, 0U);
    EXPECT_NE(gauges->at, 0);
}

TEST_F(GaugesTest, WithoutADescriptorLeft_TheLastGaugesStayAndTheServerIsAlive) {
    AccountKeeper keeper(std::nullopt, {}, {});
    const AccountReader reader(keeper.File().Memory());
    while (reader.Read().server.gaugesAt == 0) { // its own thread has read them, and then has nothing to do
        std::this_thread::yield();
    }
    const auto before = reader.Read().server;
    const NoDescriptors none;
    EXPECT_FALSE(ReadGauges().has_value());
    keeper.RefreshGauges();
    const auto after = reader.Read().server;
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.gaugesAt, before.gaugesAt);
    EXPECT_TRUE(after.isAlive);
}

TEST_F(GaugesTest, TheOffsetOfTheClock_IsRefreshedWithThem) {
    AccountKeeper keeper(std::nullopt, {}, {});
    const AccountReader reader(keeper.File().Memory());
    while (reader.Read().server.gaugesAt == 0) {
        std::this_thread::yield();
    }
    keeper.File().Head().clockOffset = 0;
    keeper.RefreshGauges();
    EXPECT_GT(reader.Read().server.clockOffset, 0);
}

TEST_F(GaugesTest, ARefreshThatThrows_IsLoggedAndEndsNothing) {
    std::latch called(1);
    {
        const GaugeRefresh gauges([&] {
            called.count_down();
            throw std::runtime_error("no memory");
        });
        called.wait();
    }
    EXPECT_THAT(journal.Logs(), ElementsAre(HasSubstr("The gauges of the account cannot be read: no memory")));
}

} // namespace
