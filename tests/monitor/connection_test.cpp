// Defends one connection to the monitor: requests in all their forms are answered or refused in a sentence, a client
// that is slow, silent or gone takes nothing for long, and event streams go on where they ended.
#include "monitor/served_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

namespace {

using msgbus_monitor::DescribeOutcome;
using testing::HasSubstr;
using testing::StartsWith;
using namespace std::literals;

std::string ErrorOf(const HttpClient::Response& response) {
    return nlohmann::json::parse(response.body)["error"].get<std::string>();
}

class ConnectionTest : public ServedMonitor {};

TEST_F(ConnectionTest, Request_IsAnswered) {
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/state");

    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.headers.at("content-type"), "application/json");
    EXPECT_EQ(response.headers.at("cache-control"), "no-store");
    EXPECT_EQ(response.headers.at("x-content-type-options"), "nosniff");
    EXPECT_EQ(nlohmann::json::parse(response.body)["server"]["pid"], 4711);
}

TEST_F(ConnectionTest, Requests_FollowEachOtherOnOneConnection) {
    Serve();
    auto client = Connect();

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.Get("/v1/topics/temperature").status, 200);
        EXPECT_EQ(client.Get("/elsewhere").status, 404);
        EXPECT_EQ(client.Get("/healthz").body, "ok\n");
    }
}

TEST_F(ConnectionTest, RequestsSentAtOnce_AreAnsweredInOrder) {
    Serve();
    auto client = Connect();

    client.Send("GET /v1/topics HTTP/1.1\r\nHost: x\r\n\r\nGET /healthz HTTP/1.1\r\nHost: x\r\n\r\n"
                "GET /elsewhere HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");

    EXPECT_EQ(client.Receive().headers.at("content-type"), "application/json");
    EXPECT_EQ(client.Receive().body, "ok\n");
    EXPECT_EQ(client.Receive().status, 404);
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, RequestThatCouldBeReadInTwoWays_IsRefusedAndNothingBehindIt) {
    Serve();
    for (const auto* const header : {"Host: x\r\nTransfer-Encoding: xchunked", "Host: x\r\nTransfer-Encoding: identity",
                                     "Host: x\r\nTransfer-Encoding: chunked, gzip", "Host: x\r\nHost: y"}) {
        auto client = Connect();

        client.Send(std::string("GET /healthz HTTP/1.1\r\n") + header +
                    "\r\n\r\nGET /elsewhere HTTP/1.1\r\nHost: x\r\n\r\n");

        EXPECT_EQ(client.Receive().status, 400) << header;
        EXPECT_TRUE(client.AwaitEnd()) << header;
    }
}

TEST_F(ConnectionTest, Head_HasNoBody) {
    Serve();
    auto client = Connect();
    const auto whole = client.Get("/v1/topics");

    const auto head = client.Get("/v1/topics", "", "HEAD");

    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.headers.at("content-length"), std::to_string(whole.body.size()));
    EXPECT_EQ(client.Get("/healthz").body, "ok\n");
    EXPECT_EQ(client.Get("/v1/events", "", "HEAD").headers.at("content-type"), "text/event-stream");
    EXPECT_EQ(client.Get("/healthz").body, "ok\n");
}

TEST_F(ConnectionTest, OldVersionOfHttp_IsAnsweredAndClosed) {
    Serve();
    auto client = Connect();

    client.Send("GET /healthz HTTP/1.0\r\n\r\n");

    EXPECT_EQ(client.Receive().body, "ok\n");
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, ClientThatSendsNoMore_GetsItsAnswer) {
    Serve();
    auto client = Connect();

    client.Send("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");
    client.EndSending();

    EXPECT_EQ(client.Receive().status, 200);
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, OtherMethods_AreNotAllowed) {
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/state", "", "DELETE");

    EXPECT_EQ(response.status, 405);
    EXPECT_EQ(response.headers.at("allow"), "GET, HEAD");
    EXPECT_EQ(client.Get("/v1/state", "", "BREW").status, 405);
}

TEST_F(ConnectionTest, WhatIsNotHttp_IsABadRequest) {
    for (const auto bytes : {"\r\n\r\n\r\n"sv, "hello\r\n\r\n"sv, "GET / HTTP/9.9\r\n\r\n"sv,
                             "GET /v1/state HTTP/1.1\r\nContent-Length: x\r\n\r\n"sv, "\x16\x03\x01\0\0"sv}) {
        monitor.reset();
        Serve();
        auto client = Connect();
        client.Send(bytes);
        client.EndSending();

        const auto response = client.Receive();

        EXPECT_EQ(response.status, 400) << bytes;
        EXPECT_TRUE(client.AwaitEnd());
        EXPECT_EQ(Connect().Get("/healthz").status, 200);
    }
}

TEST_F(ConnectionTest, ClientThatLeavesWithinARequest_GetsNothing) {
    Serve();
    for (const auto bytes : {"GET /healthz HT"sv, "GET /healthz HTTP/1.1\r\nHost: x\r\n"sv,
                             "PUT /v1/topics/a/description HTTP/1.1\r\nContent-Length: 4\r\n\r\nbo"sv}) {
        auto client = Connect();
        client.Send(bytes);
        client.EndSending();

        EXPECT_TRUE(client.AwaitEnd()) << bytes;
    }
}

TEST_F(ConnectionTest, LongHeader_IsRefused) {
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/state", "X: " + std::string(9000, 'x') + "\r\n");

    EXPECT_EQ(response.status, 431);
    EXPECT_THAT(ErrorOf(response), HasSubstr("too long"));
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, HeaderThatIsLongOnlyAsAWhole_IsRefused) {
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/topics/" + std::string(400, 'x'), "X: " + std::string(8000, 'x') + "\r\n");

    EXPECT_EQ(response.status, 431);
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, LongBody_IsRefusedWithoutBeingRead) {
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/topics/a/description", "Content-Length: 65537\r\n", "PUT");

    EXPECT_EQ(response.status, 413);
    EXPECT_TRUE(monitored.described.empty());
}

TEST_F(ConnectionTest, LongBodyInPieces_IsRefused) {
    Serve();
    auto client = Connect();
    client.Send("PUT /v1/topics/a/description HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int i = 0; i < 17; ++i) {
        client.Send("1000\r\n" + std::string(4096, 'x') + "\r\n");
    }

    EXPECT_EQ(client.Receive().status, 413);
}

TEST_F(ConnectionTest, SlowRequest_IsGivenUp) {
    options.limits.requestTime = 20ms;
    Serve();
    for (const auto part :
         {"G"sv, "PUT /v1/topics/a/description HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nb"sv}) {
        auto client = Connect();
        client.Send(part);

        EXPECT_EQ(client.Receive().status, 408) << part;
        EXPECT_TRUE(client.AwaitEnd());
    }
}

TEST_F(ConnectionTest, SilentClient_IsClosed) {
    options.limits.idleTime = 20ms;
    Serve();

    EXPECT_TRUE(Connect().AwaitEnd());

    auto client = Connect();
    EXPECT_EQ(client.Get("/healthz").status, 200);
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, ClientThatDoesNotReadItsAnswer_IsClosed) {
    monitored.Change([](FakeMonitored& fake) { fake.snapshot.server.options.assign(8 << 20, 'x'); });
    options.limits.writeTime = 50ms;
    Serve();
    auto client = Connect();

    client.Send("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");

    ASSERT_EQ(client.ReceiveUntil("\r\n\r\n").has_value(), true);
    while (client.Send("x")) { // until the server has closed the connection
    }
    EXPECT_EQ(client.Receive().status, 0);
}

TEST_F(ConnectionTest, AccountThatTakesTooLong_IsUnavailable) {
    options.limits.answerTime = 20ms;
    monitored.isHeld = true;
    Serve();
    auto client = Connect();

    const auto response = client.Get("/v1/state");

    EXPECT_EQ(response.status, 503);
    EXPECT_THAT(ErrorOf(response), HasSubstr("in time"));
    EXPECT_EQ(client.Get("/healthz").body, "ok\n");
    monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });
    EXPECT_EQ(client.Get("/v1/topics/temperature").status, 200);
}

TEST_F(ConnectionTest, AnswerThatIsLate_IsNotThatOfTheNextRequest) {
    options.limits.answerTime = 100ms;
    monitored.isHeld = true;
    Serve();
    auto client = Connect();
    EXPECT_EQ(client.Get("/v1/state").status, 503);

    client.Send("GET /v1/subscribers HTTP/1.1\r\nHost: x\r\n\r\n");
    Connect().Get("/healthz"); // so the request is under way
    Connect().Get("/healthz");
    monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });

    EXPECT_FALSE(nlohmann::json::parse(client.Receive().body).contains("server"));
}

TEST_F(ConnectionTest, RequestsWithoutAnAnswer_DoNotPileUp) {
    options.limits.answerTime = 1ms;
    options.limits.unixConnections = 2;
    options.limits.tcpConnections = 1;
    monitored.isHeld = true;
    Serve();
    auto client = Connect();
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(ErrorOf(client.Get("/v1/state")), HasSubstr("in time"));
    }

    EXPECT_THAT(ErrorOf(client.Get("/v1/state")), HasSubstr("no answer yet"));
}

TEST_F(ConnectionTest, IllServer_SaysWhy) {
    monitored.illness = "The events thread is away from its loop.";
    Serve();

    const auto response = Connect().Get("/healthz");

    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(response.body, "The events thread is away from its loop.\n");
}

// -- descriptions

TEST_F(ConnectionTest, Description_ComesWithTheProcessThatWritesIt) {
    Serve();
    auto client = Connect();

    const auto response =
        client.Get("/v1/topics/a%2fb/description", "Content-Type: text/plain\r\nContent-Length: 4\r\n\r\nbool", "PUT");

    EXPECT_EQ(response.status, 204);
    ASSERT_EQ(monitored.described.size(), 1U);
    EXPECT_EQ(monitored.described[0].peer.pid, ::getpid());
    EXPECT_EQ(monitored.described[0].peer.uid, ::geteuid());
    EXPECT_EQ(monitored.described[0].topic, "a/b");
    EXPECT_EQ(monitored.described[0].text, "bool");
}

TEST_F(ConnectionTest, BodyThatIsAnnounced_IsAskedFor) {
    Serve();
    auto client = Connect();
    client.Send(
        "PUT /v1/topics/a/description HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");

    EXPECT_EQ(client.ReceiveUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
    client.Send("bool");
    EXPECT_EQ(client.Receive().status, 204);
    EXPECT_EQ(client.Get("/healthz").status, 200);
}

TEST_F(ConnectionTest, BodyInAnOldVersionOfHttp_IsNotAskedFor) {
    Serve();
    auto client = Connect();

    client.Send("PUT /v1/topics/a/description HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\nbool");

    EXPECT_EQ(client.Receive().status, 204);
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(ConnectionTest, BodyOfARefusedRequest_IsNotAskedFor) {
    Serve();
    auto client = Connect();
    client.Send("PUT /v1/state HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");

    EXPECT_EQ(client.Receive().status, 405);
    EXPECT_TRUE(client.AwaitEnd());
}

// -- event streams

TEST_F(ConnectionTest, EventStream_BeginsWithASignOfLifeAndGoesOnWithEvents) {
    Serve();
    auto client = Connect();
    client.Send("GET /v1/events HTTP/1.1\r\nHost: x\r\n\r\n");
    const auto head = client.ReceiveUntil("\r\n\r\n");
    ASSERT_TRUE(head);
    EXPECT_THAT(*head, StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\n"));
    EXPECT_EQ(client.ReceiveUntil("\n\n"), ": keep-alive\n\n");

    monitored.AddEvent(7);

    EXPECT_THAT(client.ReceiveUntil("\n\n").value_or(""), StartsWith("id: 7\nevent: subscriber-gone\ndata: {"));
}

TEST_F(ConnectionTest, EventStream_GoesOnBehindTheLastEventThatTheClientHas) {
    Serve();
    for (const auto* const request : {"GET /v1/events?after=5 HTTP/1.1\r\nHost: x\r\n\r\n",
                                      "GET /v1/events HTTP/1.1\r\nHost: x\r\nLast-Event-ID: 5\r\n\r\n",
                                      "GET /v1/events?after=0 HTTP/1.1\r\nHost: x\r\nlast-event-id: 5\r\n\r\n"}) {
        auto client = Connect();
        client.Send(request);
        client.ReceiveUntil("\r\n\r\n");

        EXPECT_THAT(client.ReceiveUntil("\n\n").value_or(""), StartsWith("id: 6\n")) << request;
    }
}

TEST_F(ConnectionTest, NumberThatIsNone_IsABadRequest) {
    Serve();
    auto client = Connect();

    EXPECT_EQ(client.Get("/v1/events", "Last-Event-ID: x\r\n").status, 400);
    EXPECT_EQ(client.Get("/v1/events?after=x").status, 400);
}

TEST_F(ConnectionTest, SilentEventStream_ShowsThatItLives) {
    options.limits.keepAliveTime = 1ms;
    Serve();
    auto client = Connect();
    client.Send("GET /v1/events HTTP/1.1\r\nHost: x\r\n\r\n");
    client.ReceiveUntil("\r\n\r\n");

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.ReceiveUntil("\n\n"), ": keep-alive\n\n");
    }
}

TEST_F(ConnectionTest, MoreEventStreamsThanMayBe_AreRefusedUntilOneEnds) {
    options.limits.eventStreams = 1;
    Serve();
    std::optional<HttpClient> first(Connect());
    first->Send("GET /v1/events HTTP/1.1\r\nHost: x\r\n\r\n");
    first->ReceiveUntil("\n\n");

    EXPECT_EQ(Connect().Get("/v1/events").status, 503);

    first.reset();
    int status = 503;
    const auto latest = std::chrono::steady_clock::now() + 60s;
    while (status == 503 && std::chrono::steady_clock::now() < latest) { // until it is seen that the client has gone
        auto client = Connect();
        client.Send("GET /v1/events HTTP/1.1\r\nHost: x\r\n\r\n");
        status = std::stoi(client.ReceiveUntil("\r\n").value_or("HTTP/1.1 0").substr(9));
    }
    EXPECT_EQ(status, 200);
}

TEST_F(ConnectionTest, ClientThatDoesNotReadItsStream_IsClosed) {
    options.limits.writeTime = 50ms;
    monitored.Change([](FakeMonitored& fake) {
        fake.snapshot.events.clear();
        for (std::uint64_t number = 1; number <= 1024; ++number) {
            fake.snapshot.events.push_back({number, 1, {}, 0, 0, 0, {}, std::string(8192, 'x')});
        }
    });
    Serve();
    auto client = Connect();

    client.Send("GET /v1/events?after=0 HTTP/1.1\r\nHost: x\r\n\r\n");

    while (client.Send("x")) { // until the server has closed the connection
    }
    EXPECT_EQ(Connect().Get("/healthz").status, 200);
}

// -- TCP

constexpr const char* Token = "0123456789abcdef";
constexpr const char* Bearer = "Authorization: Bearer 0123456789abcdef\r\n";

TEST_F(ConnectionTest, OverTcp_TheTokenIsRequired) {
    ServeOnTcp(Token);

    for (const auto* const target : {"/v1/state", "/healthz", "/metrics", "/v1/events", "/elsewhere"}) {
        const auto response = ConnectOverTcp().Get(target);
        EXPECT_EQ(response.status, 401) << target;
        EXPECT_EQ(response.headers.at("www-authenticate"), "Bearer");
    }
    EXPECT_EQ(ConnectOverTcp().Get("/v1/state", "Authorization: Bearer 0123456789abcdeF\r\n").status, 401);
    EXPECT_EQ(ConnectOverTcp().Get("/v1/state", Bearer).status, 200);
    EXPECT_EQ(ConnectOverTcp().Get("/healthz", Bearer).body, "ok\n");
}

TEST_F(ConnectionTest, OverTcp_TheHostIsThisMachine) {
    ServeOnTcp(Token);
    auto client = ConnectOverTcp();

    client.Send("GET /healthz HTTP/1.1\r\nHost: example.com\r\n" + std::string(Bearer) + "\r\n");
    EXPECT_EQ(client.Receive().status, 403);
    client.Send("GET /healthz HTTP/1.1\r\n" + std::string(Bearer) + "\r\n");
    EXPECT_EQ(client.Receive().status, 403);
    client.Send("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n" + std::string(Bearer) + "\r\n");
    EXPECT_EQ(client.Receive().status, 200);
}

TEST_F(ConnectionTest, OverTcp_NothingIsWritten) {
    ServeOnTcp(Token);

    const auto response =
        ConnectOverTcp().Get("/v1/topics/a/description", std::string(Bearer) + "Content-Length: 4\r\n\r\nbool", "PUT");

    EXPECT_EQ(response.status, 403);
    EXPECT_TRUE(monitored.described.empty());
}

} // namespace
