// Defends what a service manager hears, and from which addresses and periods.
#include "service_manager.h"

#include "support/bus_test.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

namespace {

using msgbus_server::ServiceManager;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// The manager's end.
class Manager final {
public:
    explicit Manager(const std::string& name) : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), length), 0);
        EXPECT_EQ(::setenv("NOTIFY_SOCKET", name.c_str(), 1), 0);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    ~Manager() {
        ::close(socket);
        ::unsetenv("NOTIFY_SOCKET");
    }

    /// Returns: the next datagram that has arrived.
    std::string Next() const {
        std::array<char, 256> text{};
        const auto size = ::recv(socket, text.data(), text.size(), MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(text.data(), static_cast<std::size_t>(size));
    }

private:
    int socket;
};

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
    const Manager manager(path);
    const ServiceManager client;
    client.Report("READY=1\nSTATUS=Serving");
    EXPECT_EQ(manager.Next(), "READY=1\nSTATUS=Serving");
    EXPECT_EQ(manager.Next(), "nothing");
}

TEST_F(ServiceManagerTest, Report_ReachesAnAbstractSocket) {
    const Manager manager("@borven-test-" + std::to_string(::getpid()));
    const ServiceManager client;
    client.Report("READY=1");
    EXPECT_EQ(manager.Next(), "READY=1");
}

TEST_F(ServiceManagerTest, Report_WithoutAManager_DoesNothing) {
    ServiceManager().Report("READY=1");
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
    std::optional<Manager> manager(path);
    const ServiceManager client;
    manager.reset();
    client.Report("READY=1");
    EXPECT_THAT(journal.Logs(), ElementsAre(StartsWith("3 Warn: Cannot report to the service manager")));
}

TEST_F(ServiceManagerTest, WatchdogPeriod_IsThatOfThisProcess) {
    EXPECT_FALSE(ServiceManager::WatchdogPeriod());
    const Manager manager(path);
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
