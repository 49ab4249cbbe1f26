// Defends service_locator.h: a name leads to one live server end; every other attempt to claim or use it fails at once.
#include "support.h"

namespace platform_test {
namespace {

using ServiceLocator = PlatformTest;

TEST_F(ServiceLocator, ALiveName_IsNotStolen) {
    const Handle server = RegisterStatic();
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1)) << "the first server goes on";
}

TEST_F(ServiceLocator, AName_IsFreeOnceItsServerEndClosed) {
    for (int i = 0; i < 3; ++i) {
        Handle server = RegisterStatic();
        EXPECT_EQ(KnStatusOk, server.Close());
    }
}

TEST_F(ServiceLocator, OfManyThatStartTogether_OneGetsTheName) {
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<Background<KnHandle>>> servers;
        for (int i = 0; i < 4; ++i) {
            servers.push_back(std::make_unique<Background<KnHandle>>([] {
                std::uint32_t iid = 0;
                return ServiceLocatorRegister("line", nullptr, 0, &iid);
            }));
        }
        int winners = 0;
        for (const auto& server : servers) {
            winners += KnHandleClose(server->Get()) == KnStatusOk;
        }
        // A server that comes after the winner has closed may win too; two that are open at once may not.
        EXPECT_GE(winners, 1);
    }
}

TEST_F(ServiceLocator, TheFirstDescriptorsInterface_ComesBack) {
    const std::array<ServiceLocatorDescriptor, 2> services{ServiceLocatorDescriptor{"one", 5},
                                                           ServiceLocatorDescriptor{"two", 6}};
    std::uint32_t iid = 0;
    const Handle server(ServiceLocatorRegister("line", services.data(), 2, &iid));
    EXPECT_NE(KnInvalidHandle, server.Get());
    EXPECT_EQ(5u, iid);
}

TEST_F(ServiceLocator, WhatIsNoName_IsRefused) {
    std::uint32_t iid = 0;
    KnHandle handle = 99;
    const std::string tooLong(256, 'x');
    for (const char* name : {static_cast<const char*>(nullptr), "", ".", "..", "a/b", "/", tooLong.c_str()}) {
        EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister(name, nullptr, 0, &iid));
        EXPECT_EQ(KnStatusInvalidArgument, ServiceLocatorConnect(name, 0, &handle));
    }
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 1, &iid)) << "a descriptor that is not there";
    EXPECT_EQ(KnStatusInvalidArgument, ServiceLocatorConnect("line", 0, nullptr));
    EXPECT_EQ(99u, handle);
}

TEST_F(ServiceLocator, EveryOtherName_Works) {
    for (const std::string& name : {std::string(255, 'x'), std::string("..."), std::string("with space"),
                                    std::string("\xC3\xA9\n\x01"), std::string("unfinished"), std::string("-")}) {
        const Handle server = RegisterStatic(name.c_str());
        const Handle client = ConnectStatic(name.c_str());
        const Echoers echoers(server.Get());
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1)) << name;
    }
}

TEST_F(ServiceLocator, ConnectingToNobody_IsAnsweredAtOnce) {
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("line", PatienceMs, &handle));
    RegisterStatic();
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("line", PatienceMs, &handle)) << "after its server end closed";
    EXPECT_EQ(99u, handle);
}

TEST_F(ServiceLocator, StaticNamesAndServices_DoNotMeet) {
    const Handle server = RegisterStatic("name");
    EXPECT_EQ(KnStatusNotFound, NsLookupService(NameServer(), "name"));
    EXPECT_EQ(KnStatusOk, Publish("name"));
}

} // namespace
} // namespace platform_test
