// Defends the places that the server holds for the threads of its stop: they exist at once, and are free in time.
#include "reserved_threads.h"

#include "support/bus_test.h"

#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace {

using msgbus_server::ReservedThreads;

std::ptrdiff_t ThreadCount() {
    using Tasks = std::filesystem::directory_iterator;
    return std::distance(Tasks("/proc/self/task"), Tasks());
}

std::ptrdiff_t ReservedCount() {
    std::ptrdiff_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name == "reserved" ? 1 : 0;
    }
    return count;
}

class ReservedThreadsTest : public test_support::BusTest {
protected:
    const std::ptrdiff_t before = ThreadCount();
};

TEST_F(ReservedThreadsTest, Construction_StartsThatManyThreads) {
    const ReservedThreads reserve(3);
    EXPECT_EQ(ThreadCount(), before + 3);
    EXPECT_EQ(ReservedCount(), 3);
}

TEST_F(ReservedThreadsTest, Shrink_EndsTheOthersBeforeItReturns) {
    for (int round = 0; round < 100; ++round) {
        ReservedThreads reserve(4);
        reserve.Shrink(1);
        ASSERT_EQ(ThreadCount(), before + 1) << round;
        reserve.Shrink(0);
        ASSERT_EQ(ThreadCount(), before) << round;
    }
}

TEST_F(ReservedThreadsTest, Destruction_EndsAllOfThem) {
    { const ReservedThreads reserve(2); }
    EXPECT_EQ(ThreadCount(), before);
}

} // namespace
