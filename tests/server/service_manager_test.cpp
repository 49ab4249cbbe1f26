// Defends what a service manager hears, and from which addresses and periods.
#include "service_manager.h"

#include "fake_manager.h"
#include "support/bus_test.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace {

using msgbus_server::ServiceManager;
using test_support::FakeManager;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class ServiceManagerTest : public test_support::BusTest {
protected:
    ServiceManagerTest() {
        for (const char* const variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            ::unsetenv(variable);
        }
    }
    ~ServiceManagerTest() override {
        ::unsetenv("NOTIFY_SOCKET");
        ::unsetenv("WATCHDOG_USEC");
        ::unsetenv("WATCHDOG_PID");
        std::filesystem::remove(path);
    }

    const std::string path = testing::TempDir() + "notify-" + std::to_string(::getpid());
};

TEST_F(ServiceManagerTest, Report_ArrivesAsOneDatagram) {
    const FakeManager manager(path);
    const ServiceManager client;
    EXPECT_TRUE(client.IsPresent());
    client.Report("READY=1\nSTATUS=Serving");
    EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=Serving");
    EXPECT_EQ(manager.Next(), "nothing");
}

TEST_F(ServiceManagerTest, Report_ReachesAnAbstractSocket) {
    const FakeManager manager("@borven-test-" + std::to_string(::getpid()));
    const ServiceManager client;
    client.Report("READY=1");
    EXPECT_EQ(manager.Next(), "READY=1");
}

TEST_F(ServiceManagerTest, Report_WithoutAManager_DoesNothing) {
    const ServiceManager client;
    EXPECT_FALSE(client.IsPresent());
    client.Report("READY=1");
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(ServiceManagerTest, AManagerThatCannotBeReached_IsAWarning) {
    for (const std::string& name : {path, std::string("relative"), std::string(200, '/')}) {
        journal.Clear();
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        const ServiceManager client;
        client.Report("READY=1");
        EXPECT_THAT(journal.Logs(), ElementsAre(StartsWith("3 Warn: Cannot report to the service manager")));
    }
}

TEST_F(ServiceManagerTest, AManagerThatHasGone_IsAWarning) {
    std::optional<FakeManager> manager(path);
    const ServiceManager client;
    manager.reset();
    client.Report("READY=1");
    EXPECT_THAT(journal.Logs(), ElementsAre(StartsWith("3 Warn: Cannot report to the service manager")));
}

TEST_F(ServiceManagerTest, WatchdogPeriod_IsThatOfThisProcess) {
    EXPECT_FALSE(ServiceManager::WatchdogPeriod());
    const FakeManager manager(path);
    EXPECT_FALSE(ServiceManager::WatchdogPeriod());
    ::setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(ServiceManager::WatchdogPeriod(), std::chrono::seconds(30));
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    EXPECT_EQ(ServiceManager::WatchdogPeriod(), std::chrono::seconds(30));
    ::setenv("WATCHDOG_PID", "1", 1);
    EXPECT_FALSE(ServiceManager::WatchdogPeriod());
    ::unsetenv("WATCHDOG_PID");
    for (const char* const wrong : {"", "0", "-1", "soon", "5s"}) {
        ::setenv("WATCHDOG_USEC", wrong, 1);
        EXPECT_FALSE(ServiceManager::WatchdogPeriod()) << wrong;
    }
}

} // namespace
