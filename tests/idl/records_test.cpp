// Defends the wire format: every record, offset, size, name and error result that clients rely on, in literals. The
// generated header asserts its layout too, but with numbers from the IDL; these do not follow the IDL.
#include "br_MessageBus.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>

namespace {

TEST(Records, Push_CarriesPublisherIdAndMessage) {
    using Request = br_MessageBusProvider_Push_req;
    EXPECT_EQ(offsetof(Request, header), 0U);
    EXPECT_EQ(offsetof(Request, publisherId), 24U);
    EXPECT_EQ(sizeof(Request::publisherId), 8U);
    EXPECT_EQ(offsetof(Request, message), 32U);
    EXPECT_EQ(sizeof(Request::message), 8U);
    EXPECT_EQ(sizeof(Request), 40U);
    EXPECT_EQ(sizeof(br_MessageBusProvider_Push_res), 24U);
}

TEST(Records, RegisterPublisher_CarriesTopicAndReturnsPublisherId) {
    using Request = br_MessageBusCtl_RegisterPublisher_req;
    using Response = br_MessageBusCtl_RegisterPublisher_res;
    EXPECT_EQ(offsetof(Request, topic), 24U);
    EXPECT_EQ(sizeof(Request::topic), 1024U);
    EXPECT_EQ(sizeof(Request), 1048U);
    EXPECT_EQ(offsetof(Response, publisherId), 24U);
    EXPECT_EQ(sizeof(Response::publisherId), 8U);
    EXPECT_EQ(sizeof(Response), 32U);
}

TEST(Records, StartSubs_CarriesNameAndReturnsRegistrationId) {
    using Request = br_MessageBusCtl_StartSubs_req;
    using Response = br_MessageBusCtl_StartSubs_res;
    EXPECT_EQ(offsetof(Request, name), 24U);
    EXPECT_EQ(sizeof(Request::name), 1024U);
    EXPECT_EQ(sizeof(Request), 1048U);
    EXPECT_EQ(offsetof(Response, registrationId), 24U);
    EXPECT_EQ(sizeof(Response::registrationId), 8U);
    EXPECT_EQ(sizeof(Response), 32U);
}

TEST(Records, Subscribe_CarriesRegistrationIdAndTopic) {
    using Request = br_MessageBusCtl_Subscribe_req;
    EXPECT_EQ(offsetof(Request, registrationId), 24U);
    EXPECT_EQ(sizeof(Request::registrationId), 8U);
    EXPECT_EQ(offsetof(Request, topic), 32U);
    EXPECT_EQ(sizeof(Request::topic), 1024U);
    EXPECT_EQ(sizeof(Request), 1056U);
    EXPECT_EQ(sizeof(br_MessageBusCtl_Subscribe_res), 24U);
}

TEST(Records, FinishSubs_CarriesRegistrationIdAndFlagAndReturnsSubscriberId) {
    using Request = br_MessageBusCtl_FinishSubs_req;
    using Response = br_MessageBusCtl_FinishSubs_res;
    EXPECT_EQ(offsetof(Request, registrationId), 24U);
    EXPECT_EQ(sizeof(Request::registrationId), 8U);
    EXPECT_EQ(offsetof(Request, commit), 32U);
    EXPECT_EQ(sizeof(Request::commit), 1U);
    EXPECT_EQ(offsetof(Response, subscriberId), 24U);
    EXPECT_EQ(sizeof(Response::subscriberId), 8U);
    EXPECT_EQ(sizeof(Response), 32U);
}

TEST(Records, UnregisterPublisher_CarriesPublisherId) {
    using Request = br_MessageBusCtl_UnregisterPublisher_req;
    EXPECT_EQ(offsetof(Request, publisherId), 24U);
    EXPECT_EQ(sizeof(Request::publisherId), 8U);
    EXPECT_EQ(sizeof(Request), 32U);
    EXPECT_EQ(sizeof(br_MessageBusCtl_UnregisterPublisher_res), 24U);
}

TEST(Records, UnregisterSubscriber_CarriesSubscriberId) {
    using Request = br_MessageBusCtl_UnregisterSubscriber_req;
    EXPECT_EQ(offsetof(Request, subscriberId), 24U);
    EXPECT_EQ(sizeof(Request::subscriberId), 8U);
    EXPECT_EQ(sizeof(Request), 32U);
    EXPECT_EQ(sizeof(br_MessageBusCtl_UnregisterSubscriber_res), 24U);
}

TEST(Records, Wait_CarriesSubscriberIdAndReturnsTopicAndMessage) {
    using Request = br_MessageBusSubs_Wait_req;
    using Response = br_MessageBusSubs_Wait_res;
    EXPECT_EQ(offsetof(Request, subscriberId), 24U);
    EXPECT_EQ(sizeof(Request::subscriberId), 8U);
    EXPECT_EQ(sizeof(Request), 32U);
    EXPECT_EQ(offsetof(Response, topic), 24U);
    EXPECT_EQ(sizeof(Response::topic), 1024U);
    EXPECT_EQ(offsetof(Response, message), 1048U);
    EXPECT_EQ(sizeof(Response::message), 8U);
    EXPECT_EQ(sizeof(Response), 1056U);
}

TEST(Records, BuffersOfTheEntity_HoldAnyRecordBehindOneHeader) {
    EXPECT_EQ(sizeof(br_MessageBus_component_req), 1056U);
    EXPECT_EQ(sizeof(br_MessageBus_component_res), 1056U);
    EXPECT_EQ(offsetof(br_MessageBus_component_req, header), 0U);
    EXPECT_EQ(offsetof(br_MessageBus_component_res, header), 0U);
    EXPECT_EQ(alignof(br_MessageBus_component_req), 8U);
    EXPECT_EQ(alignof(br_MessageBus_component_res), 8U);
}

TEST(Records, MethodTables_KeepTheOrderOfTheMethods) {
    constexpr std::size_t pointer = sizeof(void*);
    EXPECT_EQ(offsetof(br_MessageBusProvider_ops, Push), 0U);
    EXPECT_EQ(sizeof(br_MessageBusProvider_ops), pointer);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, RegisterPublisher), 0U);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, StartSubs), pointer);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, Subscribe), 2 * pointer);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, FinishSubs), 3 * pointer);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, UnregisterPublisher), 4 * pointer);
    EXPECT_EQ(offsetof(br_MessageBusCtl_ops, UnregisterSubscriber), 5 * pointer);
    EXPECT_EQ(sizeof(br_MessageBusCtl_ops), 6 * pointer);
    EXPECT_EQ(offsetof(br_MessageBusSubs_ops, Wait), 0U);
    EXPECT_EQ(sizeof(br_MessageBusSubs_ops), pointer);
}

TEST(Records, Components_HoldTheInterfacesInTheirOrder) {
    constexpr std::size_t pointer = sizeof(void*);
    EXPECT_EQ(offsetof(br_MessageBusComponent_component, provider), 0U);
    EXPECT_EQ(offsetof(br_MessageBusComponent_component, ctl), pointer);
    EXPECT_EQ(offsetof(br_MessageBusComponent_component, subs), 2 * pointer);
    EXPECT_EQ(sizeof(br_MessageBusComponent_component), 3 * pointer);
    EXPECT_EQ(sizeof(br_MessageBus_component), pointer);
}

TEST(Records, MethodIndexes_CountFromZeroInEachInterface) {
    EXPECT_EQ(br_MessageBusProvider_Push_mid, 0);
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_mid, 0);
    EXPECT_EQ(br_MessageBusCtl_StartSubs_mid, 1);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_mid, 2);
    EXPECT_EQ(br_MessageBusCtl_FinishSubs_mid, 3);
    EXPECT_EQ(br_MessageBusCtl_UnregisterPublisher_mid, 4);
    EXPECT_EQ(br_MessageBusCtl_UnregisterSubscriber_mid, 5);
    EXPECT_EQ(br_MessageBusSubs_Wait_mid, 0);
}

TEST(Records, InterfaceTable_TellsTypeServiceIndexAndMethodCount) {
    struct Row {
        std::string type;
        std::string service;
        int iid;
        int methodCount;
    };
    const Row rows[] = {
        {"br.MessageBusProvider", "br.MessageBusComponent.provider", 0, 1},
        {"br.MessageBusCtl", "br.MessageBusComponent.ctl", 1, 6},
        {"br.MessageBusSubs", "br.MessageBusComponent.subs", 2, 1},
    };
    ASSERT_EQ(std::size(br_MessageBus_interfaces), std::size(rows));
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(br_MessageBus_interfaces[i].type, rows[i].type);
        EXPECT_EQ(br_MessageBus_interfaces[i].service, rows[i].service);
        EXPECT_EQ(br_MessageBus_interfaces[i].iid, rows[i].iid);
        EXPECT_EQ(br_MessageBus_interfaces[i].methodCount, rows[i].methodCount);
    }
}

TEST(Records, Connection_HasTheNameThatStaticClientsAskFor) {
    EXPECT_STREQ(br_MessageBus_connection, "msgbus_connection_id");
}

TEST(Records, ErrorResults_AreTheNumbersOfTheWire) {
    struct Row {
        std::uint16_t value;
        std::int32_t result;
    };
    const Row rows[] = {{0, -16384},   {1, -49152},           {8, -278528},
                        {10, -344064}, {0x8000, -1073758208}, {0xFFFF, -2147467264}};
    for (const auto& [value, result] : rows) {
        EXPECT_EQ(br_MessageBus_ErrorResult(value), result) << value;
        EXPECT_TRUE(br_MessageBus_IsErrorResult(result)) << value;
        EXPECT_EQ(br_MessageBus_ErrorValue(result), value) << value;
    }
}

TEST(Records, IsErrorResult_TestsBit14OfTheNegatedResult) {
    for (const std::int32_t result :
         {0, -1, -42, -0x3FFF, -0x8000, -0x10000, std::numeric_limits<std::int32_t>::min()}) {
        EXPECT_FALSE(br_MessageBus_IsErrorResult(result)) << result;
    }
    for (const std::int32_t result : {1, -0x4000, -0x4001, -0x7FFF, -0xC000}) {
        EXPECT_TRUE(br_MessageBus_IsErrorResult(result)) << result;
    }
}

TEST(Records, ErrorValue_IsTheSixteenBitsAboveBit14OfTheNegatedResult) {
    EXPECT_EQ(br_MessageBus_ErrorValue(-0x7FFF), 0);
    EXPECT_EQ(br_MessageBus_ErrorValue(-0xFFFF), 1);
    EXPECT_EQ(br_MessageBus_ErrorValue(1), 0xFFFF); // bit 31 of the negated result is dropped
}

} // namespace
