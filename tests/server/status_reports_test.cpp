// Defends the status that a service manager shows: it follows the account, is reported only when it changes, and never
// after the stop.
#include "status_reports.h"

#include "fake_manager.h"
#include "support/bus_test.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <thread>

namespace {

using instruments::Snapshot;
using msgbus_server::ServiceManager;
using msgbus_server::StatusReports;
using testing::ElementsAre;

bool HasStatusThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == "status") {
            return true;
        }
    }
    return false;
}

/// A thread that was joined may still be listed for a moment.
void AwaitNoStatusThread() {
    while (HasStatusThread()) {
        std::this_thread::yield();
    }
}

std::string StatusOf(std::size_t subscribers) {
    return "STATUS=0 topics, " + std::to_string(subscribers) + " subscribers, 0 values/s, 0 lost";
}

class StatusReportsTest : public test_support::BusTest {
protected:
    StatusReportsTest() { AwaitNoStatusThread(); }
    ~StatusReportsTest() override { std::filesystem::remove(path); }

    Snapshot Read() {
        Snapshot snapshot;
        snapshot.subscribers.resize(subscribers.load());
        ++reads;
        reads.notify_all();
        if (isFailing) {
            throw std::runtime_error("it is damaged");
        }
        return snapshot;
    }

    void AwaitReads(int more) const {
        const int enough = reads.load() + more;
        for (int now = reads.load(); now < enough; now = reads.load()) {
            reads.wait(now);
        }
    }

    const std::string path = testing::TempDir() + "status-" + std::to_string(::getpid());
    std::optional<test_support::FakeManager> manager{path};
    const ServiceManager client;
    std::atomic<std::size_t> subscribers{0};
    std::atomic<int> reads{0};
    std::atomic<bool> isFailing{false};
    StatusReports reports{client, [this] { return Read(); }, std::chrono::milliseconds(1)};
};

TEST_F(StatusReportsTest, EachChange_IsReportedOnce) {
    reports.Start();
    EXPECT_EQ(manager->Await(), StatusOf(0));
    AwaitReads(3);
    subscribers = 2;
    EXPECT_EQ(manager->Await(), StatusOf(2));
    AwaitReads(3);
    EXPECT_EQ(manager->Next(), "nothing");
}

TEST_F(StatusReportsTest, AfterStop_NothingIsReported) {
    reports.Start();
    EXPECT_TRUE(HasStatusThread());
    EXPECT_EQ(manager->Await(), StatusOf(0));
    reports.Stop();
    subscribers = 2;
    AwaitNoStatusThread();
    EXPECT_EQ(manager->Next(), "nothing");
    reports.Stop();
}

TEST_F(StatusReportsTest, Start_AfterStop_DoesNothing) {
    reports.Stop();
    reports.Start();
    EXPECT_FALSE(HasStatusThread());
}

TEST_F(StatusReportsTest, Start_WithoutAManager_DoesNothing) {
    manager.reset();
    const ServiceManager none;
    StatusReports idle(
        none, [this] { return Read(); }, std::chrono::milliseconds(1));
    idle.Start();
    EXPECT_FALSE(HasStatusThread());
}

TEST_F(StatusReportsTest, AnAccountThatCannotBeRead_IsOneWarning_UntilItCanBe) {
    isFailing = true;
    reports.Start();
    AwaitReads(3);
    isFailing = false;
    EXPECT_EQ(manager->Await(), StatusOf(0));
    isFailing = true;
    AwaitReads(3);
    reports.Stop();
    const std::string warning = "3 Run: The account cannot be read for the service manager: it is damaged";
    EXPECT_THAT(journal.Logs(), ElementsAre(warning, warning));
}

} // namespace
