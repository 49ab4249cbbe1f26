// Defends the server program's mmap: the bus's arenas come from the pool once that is switched on, and no other mapping
// of the process ever does.
#include "msgbusd/arena_mappings.h"

#include "bos/logger.h"
#include "ipc_server.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t ArenaLength = sizeof(std::uint64_t);
#ifdef BORVEN_KEEP_MMAP
constexpr std::uint64_t PooledInAPass = 0; // the sanitizer's mmap stays
#else
constexpr std::uint64_t PooledInAPass = 2;
#endif

void* MapAnonymous(std::size_t length) {
    return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

/// One pass of a dispatcher, which maps its two arenas before it fails to receive on a handle that is not open.
void ServeOnce() {
    bos_ipc::IpcServer server(message_bus::ConnectionType::Dynamic);
    server.CreateThread([&server] {
        server.ShutdownIpcServer();
        server.RunIpcDispatcher(0);
    });
    server.WaitAllThreads();
}

class ArenaMappingsTest : public testing::Test {
protected:
    ArenaMappingsTest() { bos::logger::BOSLogger::SetThreshold(static_cast<bos::logger::LogLevel>(5)); }
};

// One test, because a pool that was switched on stays on.
TEST_F(ArenaMappingsTest, TheBussArenas_ComeFromThePoolOnceItIsOn) {
    ServeOnce();
    EXPECT_EQ(msgbusd::PooledArenaCount(), 0U);
    msgbusd::PoolArenaMappings();
    ServeOnce();
    EXPECT_EQ(msgbusd::PooledArenaCount(), PooledInAPass);
    ServeOnce();
    EXPECT_EQ(msgbusd::PooledArenaCount(), 2 * PooledInAPass);
}

TEST_F(ArenaMappingsTest, OtherMappingsOfTheSameKind_AreTheKernels) {
    msgbusd::PoolArenaMappings();
    const auto before = msgbusd::PooledArenaCount();
    for (const std::size_t length : {ArenaLength, static_cast<std::size_t>(::getpagesize())}) {
        // A page whose protection changed must not come back read-only.
        for (int round = 0; round < 2; ++round) {
            void* const page = MapAnonymous(length);
            ASSERT_NE(page, MAP_FAILED);
            std::memset(page, 1, length);
            ASSERT_EQ(::mprotect(page, length, PROT_READ), 0);
            ASSERT_EQ(::munmap(page, length), 0);
            unsigned char resident = 0;
            EXPECT_EQ(::mincore(page, length, &resident), -1) << "still mapped";
        }
    }
    EXPECT_EQ(msgbusd::PooledArenaCount(), before);
}

TEST_F(ArenaMappingsTest, Failures_AreReportedAsTheKernelDoes) {
    errno = 0;
    EXPECT_EQ(MapAnonymous(0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(::munmap(reinterpret_cast<void*>(1), 8), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
