// Defends the generated dispatch: which handler it calls for which indexes, how much of the response it clears before,
// and what the response's header says afterwards, for success and every kind of failure.
#include "br_MessageBus.h"
#include "kn/status.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

constexpr unsigned char Dirt = 0xAA; // what the response buffer holds before a dispatch
using Bytes = std::array<unsigned char, NkRecordSize>;

/// What the handlers got, and what they do.
struct Script {
    std::string called; // name of the last handler
    int calls = 0;
    const void* self = nullptr;
    const void* request = nullptr;
    const nk_arena* requestArena = nullptr;
    void* response = nullptr;
    nk_arena* responseArena = nullptr;
    Bytes responseBefore{};
    std::function<void(nk_message&)> action = [](nk_message&) {};
    std::int32_t result = 0;

    std::int32_t Play(const char* name, const void* selfSeen, const void* requestSeen, const nk_arena* requestArenaSeen,
                      void* responseSeen, nk_arena* responseArenaSeen) {
        called = name;
        ++calls;
        self = selfSeen;
        request = requestSeen;
        requestArena = requestArenaSeen;
        response = responseSeen;
        responseArena = responseArenaSeen;
        std::memcpy(responseBefore.data(), responseSeen, responseBefore.size());
        action(*static_cast<nk_message*>(responseSeen));
        return result;
    }
};

template <typename Interface>
struct Scripted : Interface {
    Script* script = nullptr;
};

/// A handler that plays the script of its interface object.
template <const char* Name, typename Interface, typename Request, typename Response>
std::int32_t Handler(Interface* self, const Request* request, const nk_arena* requestArena, Response* response,
                     nk_arena* responseArena) {
    return static_cast<Scripted<Interface>*>(self)->script->Play(Name, self, request, requestArena, response,
                                                                 responseArena);
}

constexpr char Push[] = "Push";
constexpr char RegisterPublisher[] = "RegisterPublisher";
constexpr char StartSubs[] = "StartSubs";
constexpr char Subscribe[] = "Subscribe";
constexpr char FinishSubs[] = "FinishSubs";
constexpr char UnregisterPublisher[] = "UnregisterPublisher";
constexpr char UnregisterSubscriber[] = "UnregisterSubscriber";
constexpr char Wait[] = "Wait";

constexpr br_MessageBusProvider_ops ProviderOps{&Handler<Push>};
constexpr br_MessageBusCtl_ops CtlOps{&Handler<RegisterPublisher>,   &Handler<StartSubs>,
                                      &Handler<Subscribe>,           &Handler<FinishSubs>,
                                      &Handler<UnregisterPublisher>, &Handler<UnregisterSubscriber>};
constexpr br_MessageBusSubs_ops SubsOps{&Handler<Wait>};

struct MethodRow {
    const char* name;
    std::size_t cleared;
    std::uint16_t iid;
    std::uint16_t mid;
    std::uint32_t size;
};

void PrintTo(const MethodRow& row, std::ostream* out) {
    *out << row.name;
}

constexpr MethodRow Methods[] = {
    {"Push", 32, 0, 0, 24},
    {"RegisterPublisher", 32, 1, 0, 32},
    {"StartSubs", 32, 1, 1, 32},
    {"Subscribe", 32, 1, 2, 24},
    {"FinishSubs", 32, 1, 3, 32},
    {"UnregisterPublisher", 32, 1, 4, 24},
    {"UnregisterSubscriber", 32, 1, 5, 24},
    {"Wait", 1056, 2, 0, 1056},
};

class EntityDispatchTest : public testing::Test {
protected:
    EntityDispatchTest() {
        provider.ops = &ProviderOps;
        ctl.ops = &CtlOps;
        subs.ops = &SubsOps;
        provider.script = ctl.script = subs.script = &script;
        std::memset(request.record, 0, sizeof(request.record));
        std::memset(response.record, Dirt, sizeof(response.record));
    }

    std::int32_t Dispatch(std::uint16_t iid, std::uint16_t mid) {
        request.header.iid = iid;
        request.header.mid = mid;
        request.header.size = NkRecordSize;
        return br_MessageBus_entity_dispatch(&entity, &request.header, &requestArena, &response.header, &responseArena);
    }

    Bytes Response() const {
        Bytes bytes;
        std::memcpy(bytes.data(), response.record, bytes.size());
        return bytes;
    }

    /// The 16-bit field that an error reply carries.
    std::uint16_t ErrorValue() const {
        std::uint16_t value = 0;
        std::memcpy(&value, response.record + 24, sizeof(value));
        return value;
    }

    const void* InterfaceObject(std::uint16_t iid) const {
        const std::array<const void*, 3> objects{static_cast<const br_MessageBusProvider*>(&provider),
                                                 static_cast<const br_MessageBusCtl*>(&ctl),
                                                 static_cast<const br_MessageBusSubs*>(&subs)};
        return objects.at(iid);
    }

    Script script;
    Scripted<br_MessageBusProvider> provider{};
    Scripted<br_MessageBusCtl> ctl{};
    Scripted<br_MessageBusSubs> subs{};
    br_MessageBusComponent_component component{&provider, &ctl, &subs};
    br_MessageBus_component entity{&component};
    br_MessageBus_component_req request{};
    br_MessageBus_component_res response{};
    nk_arena requestArena{};
    nk_arena responseArena{};
};

class EntityDispatchOfMethodTest : public EntityDispatchTest, public testing::WithParamInterface<MethodRow> {
protected:
    std::int32_t DispatchMethod() { return Dispatch(GetParam().iid, GetParam().mid); }
};

INSTANTIATE_TEST_SUITE_P(, EntityDispatchOfMethodTest, testing::ValuesIn(Methods),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(EntityDispatchTest, UnknownInterface_ReturnsMinusTwoAndLeavesTheResponseAlone) {
    const Bytes before = Response();
    for (const std::uint16_t iid : std::initializer_list<std::uint16_t>{3, 4, 255, 256, 65535}) {
        EXPECT_EQ(Dispatch(iid, 0), -2) << iid;
        EXPECT_EQ(Response(), before) << iid;
    }
    EXPECT_EQ(script.calls, 0);
}

TEST_F(EntityDispatchTest, UnknownMethod_ReturnsMinusTwoAndSetsTheIndexesAlone) {
    struct {
        std::uint16_t iid;
        std::uint16_t mid;
    } const unknown[] = {{0, 1}, {0, 2}, {0, 65535}, {1, 6}, {1, 7}, {1, 256}, {1, 65535}, {2, 1}, {2, 65535}};
    for (const auto& [iid, mid] : unknown) {
        std::memset(response.record, Dirt, sizeof(response.record));
        EXPECT_EQ(Dispatch(iid, mid), -2);
        EXPECT_EQ(response.header.iid, iid);
        EXPECT_EQ(response.header.mid, mid);
        const Bytes bytes = Response();
        EXPECT_TRUE(std::all_of(bytes.begin() + 4, bytes.end(), [](unsigned char byte) { return byte == Dirt; }));
    }
    EXPECT_EQ(script.calls, 0);
}

TEST_P(EntityDispatchOfMethodTest, Request_ReachesItsHandlerWithEverythingThatCameWithIt) {
    EXPECT_EQ(DispatchMethod(), 0);
    EXPECT_EQ(script.calls, 1);
    EXPECT_EQ(script.called, GetParam().name);
    EXPECT_EQ(script.self, InterfaceObject(GetParam().iid));
    EXPECT_EQ(script.request, request.record);
    EXPECT_EQ(script.requestArena, &requestArena);
    EXPECT_EQ(script.response, response.record);
    EXPECT_EQ(script.responseArena, &responseArena);
}

TEST_P(EntityDispatchOfMethodTest, Response_IsClearedToItsLimitBeforeTheHandlerRuns) {
    DispatchMethod();
    auto* const cleared = script.responseBefore.begin() + static_cast<std::ptrdiff_t>(GetParam().cleared);
    EXPECT_TRUE(std::all_of(script.responseBefore.begin(), cleared, [](unsigned char byte) { return byte == 0; }));
    EXPECT_TRUE(std::all_of(cleared, script.responseBefore.end(), [](unsigned char byte) { return byte == Dirt; }));
}

TEST_P(EntityDispatchOfMethodTest, Success_SetsIndexesAndSizeAndNothingElse) {
    EXPECT_EQ(DispatchMethod(), 0);
    EXPECT_EQ(response.header.iid, GetParam().iid);
    EXPECT_EQ(response.header.mid, GetParam().mid);
    EXPECT_EQ(response.header.size, GetParam().size);
    const Bytes after = Response();
    EXPECT_TRUE(std::equal(after.begin() + 8, after.end(), script.responseBefore.begin() + 8));
}

TEST_P(EntityDispatchOfMethodTest, Success_KeepsBits23To30OfTheSizeWord) {
    script.action = [](nk_message& header) { header.size = 0xFFFFFFFF; };
    EXPECT_EQ(DispatchMethod(), 0);
    EXPECT_EQ(response.header.size, 0x7F800000 | GetParam().size);
}

TEST_P(EntityDispatchOfMethodTest, ClientFailure_BecomesAnErrorReplyWithItsCode) {
    constexpr std::int32_t results[] = {-16384,  -49152,  -81920,  -114688, -147456, -180224,
                                        -212992, -245760, -278528, -311296, -344064};
    for (std::uint16_t code = 0; code <= 10; ++code) {
        script.result = results[code];
        EXPECT_EQ(DispatchMethod(), 0);
        EXPECT_EQ(response.header.iid, GetParam().iid);
        EXPECT_EQ(response.header.mid, GetParam().mid);
        EXPECT_EQ(response.header.size, 0x80000020);
        EXPECT_EQ(ErrorValue(), code);
    }
}

TEST_P(EntityDispatchOfMethodTest, ClientFailure_LeavesTheRestOfTheResponseAsTheHandlerDid) {
    script.action = [](nk_message& header) {
        header.size = 0xFFFFFFFF;
        std::memset(reinterpret_cast<unsigned char*>(&header) + 24, 0x5C, 8);
    };
    script.result = -49152;
    EXPECT_EQ(DispatchMethod(), 0);
    EXPECT_EQ(response.header.size, 0x80000020);
    EXPECT_EQ(ErrorValue(), 1);
    Bytes expected = script.responseBefore;
    std::fill(expected.begin() + 26, expected.begin() + 32, static_cast<unsigned char>(0x5C));
    const Bytes after = Response();
    EXPECT_TRUE(std::equal(after.begin() + 8, after.begin() + 24, expected.begin() + 8));
    EXPECT_TRUE(std::equal(after.begin() + 26, after.end(), expected.begin() + 26));
}

TEST_P(EntityDispatchOfMethodTest, ClientFailure_CarriesTheLow16BitsOfItsShiftedValue) {
    struct {
        std::int32_t result;
        std::uint16_t value;
    } const rows[] = {
        {-2147467264, 0xFFFF}, {1, 0xFFFF}, // negated: 0xFFFFFFFF
        {16384, 0xFFFF},       {std::numeric_limits<std::int32_t>::max() - 0x3FFF, 0},
        {-0x4001, 0},          {-0x7FFF, 0},
    };
    for (const auto& [result, value] : rows) {
        script.result = result;
        EXPECT_EQ(DispatchMethod(), 0) << result;
        EXPECT_EQ(response.header.size, 0x80000020) << result;
        EXPECT_EQ(ErrorValue(), value) << result;
    }
}

TEST_P(EntityDispatchOfMethodTest, OtherFailure_IsReturnedUnchangedWithTheIndexesSet) {
    for (const std::int32_t result :
         {-42, -1, -2, -0x3FFF, -0x8000, 0x8000, std::numeric_limits<std::int32_t>::min()}) {
        std::memset(response.record, Dirt, sizeof(response.record));
        script.result = result;
        script.action = [](nk_message& header) {
            header.size = 0x12345678;
            std::memset(reinterpret_cast<unsigned char*>(&header) + 24, 0x5C, 8);
        };
        EXPECT_EQ(DispatchMethod(), result);
        EXPECT_EQ(response.header.iid, GetParam().iid);
        EXPECT_EQ(response.header.mid, GetParam().mid);
        EXPECT_EQ(response.header.size, 0x12345678U) << result;
        EXPECT_EQ(ErrorValue(), 0x5C5C) << result;
    }
}

TEST_P(EntityDispatchOfMethodTest, Exception_PassesThrough) {
    script.action = [](nk_message&) { throw std::runtime_error("from the handler"); };
    EXPECT_THROW(DispatchMethod(), std::runtime_error);
}

} // namespace
