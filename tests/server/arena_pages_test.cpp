// Defends the pool behind the server program's arenas: pages of zeros, each with one owner at a time, and no
// claim on memory that is not its own.
#include "arena_pages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <span>
#include <thread>
#include <vector>

namespace {

using msgbus_server::ArenaPages;

std::span<unsigned char> Bytes(void* page) {
    return {static_cast<unsigned char*>(page), ArenaPages::PageSize};
}

class ArenaPagesTest : public testing::Test {
protected:
    const std::unique_ptr<ArenaPages> pool = std::make_unique<ArenaPages>();
};

TEST_F(ArenaPagesTest, Lend_HandsOutAPageOfZerosAtAPageBoundary) {
    void* const page = pool->Lend();
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(page) % ArenaPages::PageSize, 0U);
    EXPECT_THAT(Bytes(page), testing::Each(0));
}

TEST_F(ArenaPagesTest, Lend_OfAPageThatWasUsed_ClearsIt) {
    void* const page = pool->Lend();
    std::ranges::fill(Bytes(page), 0xFF);
    EXPECT_TRUE(pool->GiveBack(page));
    EXPECT_EQ(pool->Lend(), page) << "few pages are ever touched";
    EXPECT_THAT(Bytes(page), testing::Each(0));
}

TEST_F(ArenaPagesTest, Lend_WhenAllAreOut_ReturnsNullUntilOneComesBack) {
    std::set<void*> pages;
    for (std::size_t i = 0; i < ArenaPages::Capacity; ++i) {
        pages.insert(pool->Lend());
    }
    EXPECT_EQ(pages.size(), ArenaPages::Capacity);
    EXPECT_FALSE(pages.contains(nullptr));
    EXPECT_EQ(pool->Lend(), nullptr);
    EXPECT_TRUE(pool->GiveBack(*pages.rbegin()));
    EXPECT_EQ(pool->Lend(), *pages.rbegin());
}

TEST_F(ArenaPagesTest, GiveBack_OfWhatIsNotAPageOfIts_RefusesIt) {
    void* const page = pool->Lend();
    const auto foreign = std::make_unique<ArenaPages>();
    EXPECT_FALSE(pool->GiveBack(foreign->Lend()));
    EXPECT_FALSE(pool->GiveBack(nullptr));
    EXPECT_FALSE(pool->GiveBack(Bytes(page).data() + 8));
    EXPECT_NE(pool->Lend(), page) << "still out";
}

TEST_F(ArenaPagesTest, Pages_HaveOneOwnerAtATime) {
    constexpr unsigned char threadCount = 4;
    std::vector<std::thread> threads;
    for (unsigned char number = 1; number <= threadCount; ++number) {
        threads.emplace_back([this, number] {
            for (int round = 0; round < 2000; ++round) {
                void* const first = pool->Lend();
                void* const second = pool->Lend();
                std::ranges::fill(Bytes(first).first(64), number);
                std::ranges::fill(Bytes(second).first(64), number);
                EXPECT_THAT(Bytes(first).first(64), testing::Each(number));
                EXPECT_THAT(Bytes(second).first(64), testing::Each(number));
                pool->GiveBack(first);
                pool->GiveBack(second);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace
