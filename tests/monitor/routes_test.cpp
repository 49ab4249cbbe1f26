// Defends what a request line means: every resource by its path, topics by any bytes, and a sentence for everything
// else.
#include "routes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using msgbus_monitor::DecodePercents;
using msgbus_monitor::FindRoute;
using msgbus_monitor::Refusal;
using msgbus_monitor::Resource;
using msgbus_monitor::Route;
using testing::HasSubstr;
using namespace std::literals;

Route Found(std::string_view method, std::string_view target) {
    const auto found = FindRoute(method, target);
    return std::holds_alternative<Route>(found) ? std::get<Route>(found) : Route{static_cast<Resource>(-1)};
}

Refusal Refused(std::string_view method, std::string_view target) {
    const auto found = FindRoute(method, target);
    return std::holds_alternative<Refusal>(found) ? std::get<Refusal>(found) : Refusal{};
}

TEST(RoutesTest, Paths_AreTheirResources) {
    for (const auto* const method : {"GET", "HEAD"}) {
        EXPECT_EQ(Found(method, "/v1/state").resource, Resource::State);
        EXPECT_EQ(Found(method, "/v1/topics").resource, Resource::Topics);
        EXPECT_EQ(Found(method, "/v1/topics/a").resource, Resource::Topic);
        EXPECT_EQ(Found(method, "/v1/subscribers").resource, Resource::Subscribers);
        EXPECT_EQ(Found(method, "/v1/events").resource, Resource::Events);
        EXPECT_EQ(Found(method, "/metrics").resource, Resource::Metrics);
        EXPECT_EQ(Found(method, "/healthz").resource, Resource::Health);
    }
    EXPECT_EQ(Found("PUT", "/v1/topics/a/description").resource, Resource::Description);
}

TEST(RoutesTest, QueryAndHost_DoNotMatter) {
    EXPECT_EQ(Found("GET", "/v1/state?x=y").resource, Resource::State);
    EXPECT_EQ(Found("GET", "http://localhost/v1/state").resource, Resource::State);
    EXPECT_EQ(Refused("GET", "http://localhost").status, 404U);
}

TEST(RoutesTest, Topics_AreAnyBytes) {
    EXPECT_EQ(Found("GET", "/v1/topics/a%2Fb%00%ff%25").topic, "a/b\0\xff%"s);
    EXPECT_EQ(Found("GET", "/v1/topics/a/b+c").topic, "a/b+c");
    EXPECT_EQ(Found("GET", "/v1/topics/").topic, "");
    EXPECT_EQ(Found("PUT", "/v1/topics/a%2fb/description").topic, "a/b");
    EXPECT_EQ(Found("PUT", "/v1/topics/description/description").topic, "description");
    EXPECT_EQ(Found("GET", "/v1/topics/a/description").topic, "a/description");
}

TEST(RoutesTest, InvalidPercents_AreABadRequest) {
    for (const auto* const name : {"%", "%4", "%zz", "%-1", "%+1", "%1z"}) {
        EXPECT_EQ(Refused("GET", "/v1/topics/"s + name).status, 400U) << name;
        EXPECT_EQ(DecodePercents(name), std::nullopt) << name;
    }
    EXPECT_EQ(Refused("PUT", "/v1/topics/%/description").status, 400U);
}

TEST(RoutesTest, UnknownPath_ListsTheKnownOnes) {
    const Refusal refusal = Refused("GET", "/v2\x1b");

    EXPECT_EQ(refusal.status, 404U);
    EXPECT_THAT(refusal.sentence, HasSubstr("'/v2\\x1b'"));
    EXPECT_THAT(refusal.sentence, HasSubstr("/v1/state, "));
    EXPECT_THAT(refusal.sentence, HasSubstr("/healthz"));
}

TEST(RoutesTest, OtherMethods_AreNotAllowed) {
    EXPECT_EQ(Refused("POST", "/v1/state").status, 405U);
    EXPECT_EQ(Refused("POST", "/v1/state").allowed, "GET, HEAD");
    EXPECT_EQ(Refused("PUT", "/v1/topics/a").allowed, "GET, HEAD");
    EXPECT_EQ(Refused("DELETE", "/v1/topics/a/description").allowed, "GET, HEAD, PUT");
    EXPECT_EQ(Refused("", "/metrics").status, 405U);
    EXPECT_EQ(Refused("POST", "/elsewhere").status, 404U);
}

TEST(RoutesTest, Events_BeginBehindANumber) {
    EXPECT_EQ(Found("GET", "/v1/events").after, std::nullopt);
    EXPECT_EQ(Found("GET", "/v1/events?after=17").after, 17U);
    EXPECT_EQ(Found("GET", "/v1/events?x=1&after=0").after, 0U);
    for (const auto* const number : {"", "-1", "1x", "18446744073709551616"}) {
        EXPECT_EQ(Refused("GET", "/v1/events?after="s + number).status, 400U) << number;
    }
}

TEST(RoutesTest, Trace_IsStartedReadAndStopped) {
    const auto start = std::get<Route>(FindRoute("PUT", "/v1/trace?topic=a%20b&values=7"));
    EXPECT_EQ(start.resource, Resource::Trace);
    EXPECT_EQ(start.change, Route::Change::Start);
    EXPECT_EQ(start.topic, "a b");
    EXPECT_EQ(start.values, 7U);
    EXPECT_EQ(std::get<Route>(FindRoute("GET", "/v1/trace")).change, Route::Change::None);
    EXPECT_EQ(std::get<Route>(FindRoute("DELETE", "/v1/trace")).change, Route::Change::Stop);
    EXPECT_EQ(std::get<Refusal>(FindRoute("POST", "/v1/trace")).allowed, "GET, HEAD, PUT, DELETE");
}

TEST(RoutesTest, TraceOfNothing_IsABadRequest) {
    for (const char* target :
         {"/v1/trace", "/v1/trace?topic=a", "/v1/trace?values=1", "/v1/trace?topic=&values=1",
          "/v1/trace?topic=a&values=0", "/v1/trace?topic=a&values=x", "/v1/trace?topic=%zz&values=1"}) {
        EXPECT_EQ(std::get<Refusal>(FindRoute("PUT", target)).status, 400U) << target;
    }
}

TEST(RoutesTest, OnlyDescriptionsAndTraces_AreWritten) {
    EXPECT_TRUE(IsWrite(std::get<Route>(FindRoute("PUT", "/v1/topics/t/description"))));
    EXPECT_TRUE(IsWrite(std::get<Route>(FindRoute("PUT", "/v1/trace?topic=a&values=7"))));
    EXPECT_TRUE(IsWrite(std::get<Route>(FindRoute("DELETE", "/v1/trace"))));
    EXPECT_FALSE(IsWrite(std::get<Route>(FindRoute("GET", "/v1/trace"))));
    EXPECT_FALSE(IsWrite(std::get<Route>(FindRoute("GET", "/v1/state"))));
}

} // namespace
