// Defends who may connect to msgbus stream, and which subprotocol is spoken.
#include "stream/wire/admission.h"

#include <boost/beast/http/field.hpp>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using namespace stream;

namespace http = boost::beast::http;

Handshake Ask(const std::string& subprotocols, const std::string& origin = "") {
    Handshake request(http::verb::get, "/", 11);
    request.set(http::field::host, "127.0.0.1:8765");
    request.set(http::field::upgrade, "websocket");
    request.set(http::field::connection, "keep-alive, Upgrade");
    request.set(http::field::sec_websocket_key, "AAAAAAAAAAAAAAAAAAAAAA==");
    request.set(http::field::sec_websocket_version, "13");
    if (!subprotocols.empty()) {
        request.set(http::field::sec_websocket_protocol, subprotocols);
    }
    if (!origin.empty()) {
        request.set(http::field::origin, origin);
    }
    return request;
}

std::string Spoken(const std::string& offered) {
    return AdmissionRules({}).Judge(Ask(offered)).subprotocol;
}

TEST(StreamAdmissionTest, FirstKnownSubprotocolOfTheClient_IsSpoken) {
    EXPECT_EQ(Spoken("foxglove.websocket.v1"), "foxglove.websocket.v1");
    EXPECT_EQ(Spoken("foxglove.sdk.v1"), "foxglove.sdk.v1");
    EXPECT_EQ(Spoken("foxglove.sdk.v1, foxglove.websocket.v1"), "foxglove.sdk.v1");
    EXPECT_EQ(Spoken("other,foxglove.websocket.v1,foxglove.sdk.v1"), "foxglove.websocket.v1");
}

TEST(StreamAdmissionTest, SubprotocolsInSeveralFields_AreOneList) {
    auto request = Ask("other");
    request.insert(http::field::sec_websocket_protocol, "foxglove.sdk.v1");
    EXPECT_EQ(AdmissionRules({}).Judge(request).subprotocol, "foxglove.sdk.v1");
}

TEST(StreamAdmissionTest, WithoutAKnownSubprotocol_IsRefused) {
    for (const auto* const offered :
         {"", "other", "foxglove.sdk.v2", "foxglove.websocket", "Foxglove.sdk.v1", ",,", "\x01"}) {
        const auto admission = AdmissionRules({}).Judge(Ask(offered));
        EXPECT_EQ(admission.status, http::status::bad_request) << offered;
        EXPECT_NE(admission.reason.find("foxglove.sdk.v1"), std::string::npos);
    }
}

TEST(StreamAdmissionTest, PagesOfThisMachine_AreAdmitted) {
    for (const auto* const origin :
         {"http://localhost", "http://LOCALHOST:8080", "https://127.0.0.1:1", "http://[::1]:65535"}) {
        EXPECT_TRUE(AdmissionRules({}).Judge(Ask("foxglove.sdk.v1", origin)).IsGranted()) << origin;
    }
}

TEST(StreamAdmissionTest, PagesOfElsewhere_AreRefused) {
    for (const auto* const origin : {"https://app.foxglove.dev", "null", "file://", "http://localhost.evil",
                                     "http://localhost:", "http://localhost:1x", "http://localhost:123456",
                                     "http://evil/localhost", "http://evil@localhost", "ws://localhost", "localhost",
                                     "http://127.0.0.1.evil", "http://127.0.0.2", "http://[::1]evil", "http://"}) {
        EXPECT_EQ(AdmissionRules({}).Judge(Ask("foxglove.sdk.v1", origin)).status, http::status::forbidden) << origin;
    }
}

TEST(StreamAdmissionTest, OneBadOriginOfTwo_IsRefused) {
    auto request = Ask("foxglove.sdk.v1", "http://localhost");
    request.insert(http::field::origin, "http://evil");
    EXPECT_FALSE(AdmissionRules({}).Judge(request).IsGranted());
}

TEST(StreamAdmissionTest, AllowedOrigins_AreComparedAsAWhole) {
    const AdmissionRules rules({"https://App.Foxglove.dev/", "file://"});
    EXPECT_TRUE(rules.Judge(Ask("foxglove.sdk.v1", "https://app.foxglove.dev")).IsGranted());
    EXPECT_TRUE(rules.Judge(Ask("foxglove.sdk.v1", "file://")).IsGranted());
    for (const auto* const origin : {"http://app.foxglove.dev", "https://app.foxglove.dev:444",
                                     "https://app.foxglove.dev.evil", "https://foxglove.dev"}) {
        EXPECT_FALSE(rules.Judge(Ask("foxglove.sdk.v1", origin)).IsGranted()) << origin;
    }
}

TEST(StreamAdmissionTest, WhatIsNoOrigin_CannotBeAllowed) {
    for (const auto* const origin : {"", "*", "null", "app.foxglove.dev", "://x", "https://a/b"}) {
        EXPECT_THROW(AdmissionRules({origin}), std::invalid_argument) << origin;
    }
}

TEST(StreamAdmissionTest, AdviceOfARefusal_IsWhatWouldHelp) {
    const auto reason = [](const std::string& origin) {
        auto request = Ask("foxglove.sdk.v1");
        request.set(http::field::origin, origin);
        return AdmissionRules({}).Judge(request).reason;
    };
    for (const std::string origin : {"https://app.foxglove.dev", "file://", "HTTP://Evil:80"}) {
        EXPECT_NE(reason(origin).find("'--allow-origin " + origin + "'"), std::string::npos) << reason(origin);
        EXPECT_TRUE(AdmissionRules({origin}).Judge(Ask("foxglove.sdk.v1", origin)).IsGranted()) << origin;
    }
    for (const auto* const origin : {"", "null", "x", "://x", "https://a/", "https://a/b", "https://a\xff"}) {
        EXPECT_EQ(reason(origin).find("--allow-origin"), std::string::npos) << reason(origin);
        EXPECT_NE(reason(origin).find("may not connect"), std::string::npos) << reason(origin);
    }
}

TEST(StreamAdmissionTest, OtherNamesOfThisMachine_AreRefused) {
    auto request = Ask("foxglove.sdk.v1");
    request.set(http::field::host, "rebound.example:8765");
    EXPECT_EQ(AdmissionRules({}).Judge(request).status, http::status::forbidden);
    request.erase(http::field::host);
    EXPECT_EQ(AdmissionRules({}).Judge(request).status, http::status::forbidden);
}

TEST(StreamAdmissionTest, APageRequest_LearnsWhatThisIs) {
    Handshake request(http::verb::get, "/", 11);
    request.set(http::field::host, "localhost:8765");
    EXPECT_EQ(AdmissionRules({}).Judge(request).status, http::status::upgrade_required);
}

} // namespace
