// Defends the room for names in the account: what is given back can be used again, in pieces and as a whole.
#include "text_heap.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using instruments::AccountFile;
using msgbus_server::TextHeap;

constexpr std::size_t Room = 4096;

std::string OfSize(std::size_t size) {
    return std::string(size, 'x');
}

class TextHeapTest : public testing::Test {
protected:
    instruments::layout::Text Add(std::size_t size) {
        const auto text = heap.Add(OfSize(size));
        EXPECT_TRUE(text);
        return text.value_or(instruments::layout::Text{});
    }

    AccountFile file{std::nullopt, {4, 4, 4, Room, 4}};
    TextHeap heap{file};
};

TEST_F(TextHeapTest, FullHeap_HasRoomForNoMore) {
    Add(Room - 7); // takes whole words

    EXPECT_FALSE(heap.Add("x"));
    EXPECT_TRUE(heap.Add(""));
}

TEST_F(TextHeapTest, RoomSideBySide_IsOneRoom) {
    for (const bool isFirstGivenBackFirst : {true, false}) {
        TextHeap other(file);
        const auto first = other.Add(OfSize(Room / 4));
        const auto second = other.Add(OfSize(Room / 4));
        const auto last = other.Add(OfSize(Room / 2));
        ASSERT_TRUE(first && second && last);
        EXPECT_FALSE(other.Add("x"));

        other.Remove(isFirstGivenBackFirst ? *first : *second);
        EXPECT_FALSE(other.Add(OfSize(Room / 2)));
        other.Remove(isFirstGivenBackFirst ? *second : *first);
        EXPECT_TRUE(other.Add(OfSize(Room / 2)));
    }
}

TEST_F(TextHeapTest, RoomThatIsAllGivenBack_IsWhole) {
    const auto first = Add(Room / 4);
    const auto second = Add(Room / 4);
    const auto third = Add(Room / 4);
    heap.Remove(second);
    heap.Remove(third);
    heap.Remove(first);

    Add(Room);
}

TEST_F(TextHeapTest, WhatIsNotThere_IsNotGivenBack) {
    const auto text = Add(Room);
    heap.Remove({text.offset + 8, 8});

    EXPECT_FALSE(heap.Add("x"));
    heap.Remove(text);
    heap.Remove(text);
    Add(Room);
    EXPECT_FALSE(heap.Add("x"));
}

} // namespace
