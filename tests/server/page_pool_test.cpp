// Defends the pool behind the server program's small mappings: pages of zeros, each with one owner at a time, and no
// claim on memory that is not its own.
#include "page_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <span>
#include <thread>
#include <vector>

namespace {

using msgbus_server::PagePool;

std::span<unsigned char> Bytes(void* page) {
    return {static_cast<unsigned char*>(page), PagePool::PageSize};
}

class PagePoolTest : public testing::Test {
protected:
    const std::unique_ptr<PagePool> pool = std::make_unique<PagePool>();
};

TEST_F(PagePoolTest, Take_HandsOutAPageOfZerosAtAPageBoundary) {
    void* const page = pool->Take();
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(page) % PagePool::PageSize, 0U);
    EXPECT_THAT(Bytes(page), testing::Each(0));
}

TEST_F(PagePoolTest, Take_OfAPageThatWasUsed_ClearsIt) {
    void* const page = pool->Take();
    std::ranges::fill(Bytes(page), 0xFF);
    EXPECT_TRUE(pool->GiveBack(page));
    EXPECT_EQ(pool->Take(), page) << "few pages are ever touched";
    EXPECT_THAT(Bytes(page), testing::Each(0));
}

TEST_F(PagePoolTest, Take_WhenAllAreOut_ReturnsNullUntilOneComesBack) {
    std::set<void*> pages;
    for (std::size_t i = 0; i < PagePool::Capacity; ++i) {
        pages.insert(pool->Take());
    }
    EXPECT_EQ(pages.size(), PagePool::Capacity);
    EXPECT_FALSE(pages.contains(nullptr));
    EXPECT_EQ(pool->Take(), nullptr);
    EXPECT_TRUE(pool->GiveBack(*pages.rbegin()));
    EXPECT_EQ(pool->Take(), *pages.rbegin());
}

TEST_F(PagePoolTest, GiveBack_OfWhatIsNotAPageOfIts_RefusesIt) {
    void* const page = pool->Take();
    const auto foreign = std::make_unique<PagePool>();
    EXPECT_FALSE(pool->GiveBack(foreign->Take()));
    EXPECT_FALSE(pool->GiveBack(nullptr));
    EXPECT_FALSE(pool->GiveBack(Bytes(page).data() + 8));
    EXPECT_NE(pool->Take(), page) << "still out";
}

TEST_F(PagePoolTest, Pages_HaveOneOwnerAtATime) {
    constexpr unsigned char threadCount = 4;
    std::vector<std::thread> threads;
    for (unsigned char number = 1; number <= threadCount; ++number) {
        threads.emplace_back([this, number] {
            for (int round = 0; round < 2000; ++round) {
                void* const first = pool->Take();
                void* const second = pool->Take();
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
