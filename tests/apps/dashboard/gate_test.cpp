// Defends who is let in to the dashboard: the browser that opens the printed address first, with requests of the page
// itself; and which of its requests reach the server.
#include "dashboard/gate.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using dashboard::Gate;
using dashboard::Request;
using dashboard::Verdict;

namespace http = boost::beast::http;

constexpr std::uint16_t Port = 8123;

class GateTest : public testing::Test {
protected:
    Request Ask(const std::string& target, http::verb method = http::verb::get) const {
        Request request(method, target, 11);
        request.set(http::field::host, "127.0.0.1:8123");
        if (!cookie.empty()) {
            request.set(http::field::cookie, cookie);
        }
        return request;
    }

    void LetIn() {
        const std::string given = gate.Judge(Ask(gate.EntryTarget())).cookie;
        cookie = given.substr(0, given.find(';'));
    }

    Gate gate{Port};
    std::string cookie;
};

TEST_F(GateTest, PrintedAddress_LetsInOneBrowser) {
    const auto first = gate.Judge(Ask(gate.EntryTarget()));
    EXPECT_EQ(first.kind, Verdict::Kind::Admitted);
    EXPECT_FALSE(first.cookie.empty());

    const auto second = gate.Judge(Ask(gate.EntryTarget()));
    EXPECT_EQ(second.kind, Verdict::Kind::Refused);
    EXPECT_TRUE(second.cookie.empty());
}

TEST_F(GateTest, PreviewOfThePrintedAddress_LeavesItToTheBrowser) {
    const auto preview = gate.Judge(Ask(gate.EntryTarget(), http::verb::head));

    EXPECT_TRUE(preview.cookie.empty());
    EXPECT_FALSE(gate.Judge(Ask(gate.EntryTarget())).cookie.empty());
}

TEST_F(GateTest, WithoutTheCookie_NothingIsServed) {
    for (const auto* const target : {"/", "/v1/state", "/metrics", "/?token=", "/elsewhere"}) {
        EXPECT_EQ(gate.Judge(Ask(target)).kind, Verdict::Kind::Refused) << target;
    }
}

TEST_F(GateTest, WithTheCookie_ThePageAndItsDataAreServed) {
    LetIn();

    EXPECT_EQ(gate.Judge(Ask("/")).kind, Verdict::Kind::Page);
    EXPECT_EQ(gate.Judge(Ask("/v1/events?after=3")).kind, Verdict::Kind::Relayed);
    EXPECT_EQ(gate.Judge(Ask("/metrics")).kind, Verdict::Kind::Relayed);
}

TEST_F(GateTest, OtherPaths_DoNotReachTheServer) {
    LetIn();

    for (const auto* const target : {"/healthz", "/v1/", "/v1/../healthz", "/v1/./state", "/v1/topics/.."}) {
        EXPECT_EQ(gate.Judge(Ask(target)).status, http::status::not_found) << target;
    }
    EXPECT_EQ(gate.Judge(Ask("/v1/state", http::verb::put)).status, http::status::method_not_allowed);
}

TEST_F(GateTest, OtherHosts_AreRefused) {
    LetIn();

    for (const auto* const host : {"example.org:8123", "127.0.0.1", "127.0.0.1:8124", "localhost", ""}) {
        auto request = Ask("/v1/state");
        request.set(http::field::host, host);
        EXPECT_EQ(gate.Judge(request).status, http::status::forbidden) << host;
    }
}

TEST_F(GateTest, PagesFromElsewhere_AreRefused) {
    LetIn();

    for (const auto* const origin : {"http://example.org", "https://127.0.0.1:8123", "null", ""}) {
        auto request = Ask("/v1/state");
        request.set(http::field::origin, origin);
        EXPECT_EQ(gate.Judge(request).status, http::status::forbidden) << origin;
    }
    auto request = Ask("/v1/state");
    request.set(http::field::origin, "http://localhost:8123");
    EXPECT_EQ(gate.Judge(request).kind, Verdict::Kind::Relayed);
}

} // namespace
