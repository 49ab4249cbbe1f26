// Defends what the steps of a handshake take of their caller's limits. What the clients see of it is tested with real
// processes.
#include "handshake_watch.h"

#include "br_MessageBus.h"
#include "support/bus_test.h"

#include <string>

namespace {

using cor::ResultCode;
using msgbus_server::CallerAccounts;
using msgbus_server::HandshakeWatch;
using msgbus_server::Kind;
using msgbus_server::Limits;
using msgbus_server::TopicOverhead;

constexpr long Handshake = 7;

class HandshakeWatchTest : public test_support::BusTest {
protected:
    static Limits Small() {
        Limits limits;
        limits.nameBytesPerProcess = TopicOverhead + 10;
        return limits;
    }

    HandshakeWatchTest() {
        caller.id = 1;
        caller.startTime = 1;
        EXPECT_EQ(accounts.Charge(caller, Kind::Handshake, 0), ResultCode::Success);
        accounts.Add(caller, {Kind::Handshake, Handshake}, 0);
    }

    /// A step that names `topic`, to which the bus replies with `result`. Returns: whether it reaches the bus.
    bool Name(const std::string& topic, std::int32_t result = 0) {
        br_MessageBusCtl_Subscribe_req request{};
        request.header.mid = br_MessageBusCtl_Subscribe_mid;
        request.registrationId = Handshake;
        topic.copy(request.topic, sizeof request.topic - 1);
        br_MessageBus_component_res reply{};
        if (!watch.OnRequest(caller, request.header, reply.header)) {
            EXPECT_TRUE(NkIsError(reply.header));
            return false;
        }
        br_MessageBusCtl_Subscribe_reply(result, &reply.header);
        watch.OnReply(caller, request.header, reply.header);
        return true;
    }

    KnCaller caller;
    CallerAccounts accounts{Small()};
    HandshakeWatch watch{accounts, true, {[](const KnCaller&) {}, [] {}}};
};

TEST_F(HandshakeWatchTest, ATopic_TakesMoreThanItsBytes) {
    EXPECT_FALSE(Name(std::string(11, 'x')));
    EXPECT_TRUE(Name(std::string(10, 'x')));
    EXPECT_FALSE(Name("")) << "another block";
}

TEST_F(HandshakeWatchTest, ATopicThatTheBusRejects_TakesNothing) {
    const auto conflict = br_MessageBus_ErrorResult(static_cast<std::uint16_t>(ResultCode::Conflict));
    EXPECT_TRUE(Name("1234567890", conflict));
    EXPECT_TRUE(Name("1234567890"));
}

} // namespace
