// Defends ns/name_server.h: a service is published by one live server, or by none.
#include "support.h"

namespace platform_test {
namespace {

using NameServerTest = PlatformTest;

TEST_F(NameServerTest, APublishedService_IsFound_UntilItIsWithdrawn) {
    const NsHandle nameServer = NameServer();
    EXPECT_EQ(KnStatusNotFound, NsLookupService(nameServer, "service"));
    EXPECT_EQ(KnStatusOk, NsPublishService(nameServer, "test.Type", "tester", "service"));
    EXPECT_EQ(KnStatusOk, NsLookupService(nameServer, "service"));
    EXPECT_EQ(KnStatusNotFound, NsLookupService(nameServer, "other"));
    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusNotFound, NsLookupService(nameServer, "service"));
}

TEST_F(NameServerTest, AServiceOfALiveServer_CannotBePublishedAgain) {
    EXPECT_EQ(KnStatusOk, Publish("service"));
    EXPECT_EQ(KnStatusAlreadyExists, Publish("service"));
    EXPECT_EQ(KnStatusAlreadyExists, Publish("service", "test.Other"));
    EXPECT_EQ(KnStatusOk, Publish("another"));
}

TEST_F(NameServerTest, OfManyThatPublishTogether_OneSucceeds) {
    std::vector<std::unique_ptr<Background<std::int32_t>>> publishers;
    for (int i = 0; i < 6; ++i) {
        publishers.push_back(std::make_unique<Background<std::int32_t>>([] { return Publish("service"); }));
    }
    int winners = 0;
    for (const auto& publisher : publishers) {
        const auto status = publisher->Get();
        winners += status == KnStatusOk;
        EXPECT_TRUE(status == KnStatusOk || status == KnStatusAlreadyExists) << status;
    }
    EXPECT_EQ(1, winners);
}

TEST_F(NameServerTest, ALookUp_IsNoRequest) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(KnStatusOk, NsLookupService(NameServer(), "service"));
    }
    EXPECT_EQ(KnStatusTimedOut, Listen(0).status);
}

TEST_F(NameServerTest, WhatIsNoName_IsRefused) {
    const NsHandle nameServer = NameServer();
    const std::string tooLong(256, 'x');
    for (const char* name : {static_cast<const char*>(nullptr), "", ".", "..", "a/b", tooLong.c_str()}) {
        EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(nameServer, "test.Type", "tester", name));
        EXPECT_EQ(KnStatusInvalidArgument, NsLookupService(nameServer, name));
    }
    EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(nameServer, nullptr, "tester", "service"));
    EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(nameServer, "", "tester", "service"));
    EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(nameServer, "test.Type", nullptr, "service"));
    EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(nameServer, "test.Type", "", "service"));
}

TEST_F(NameServerTest, ANameOf255Bytes_Works) {
    const std::string name(255, 'n');
    ASSERT_EQ(KnStatusOk, Publish(name.c_str()));
    const Joined joined = Join(name.c_str());
    const Echoers echoers(joined.channel);
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
}

TEST_F(NameServerTest, AHandleOfNoNameServer_IsRefused) {
    const NsHandle wrong = NameServer() + 1;
    EXPECT_EQ(KnStatusInvalidArgument, NsPublishService(wrong, "test.Type", "tester", "service"));
    EXPECT_EQ(KnStatusInvalidArgument, NsLookupService(wrong, "service"));
    EXPECT_EQ(KnStatusInvalidArgument, NsCreate(nullptr, 0, nullptr));
}

TEST_F(NameServerTest, AnotherNameServer_IsNotFound) {
    NsHandle nameServer = 99;
    EXPECT_EQ(KnStatusNotFound, NsCreate("elsewhere", 0, &nameServer));
    EXPECT_EQ(99u, nameServer);
}

} // namespace
} // namespace platform_test
