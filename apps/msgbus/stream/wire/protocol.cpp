#include "stream/wire/protocol.h"

#include "common/escape.h"
#include "recording/value_message.h"

#include <boost/endian/conversion.hpp>
#include <nlohmann/json.hpp>

#include <array>
#include <limits>
#include <string>

namespace stream {

namespace {

using Json = nlohmann::json;

constexpr char MessageData = 1; // the kind of a binary message
constexpr std::size_t LongestQuote = 64;

/// Far more than the protocol has; what walks through a value recursively has a bounded stack.
constexpr int DeepestRequest = 64;

/// Bytes of unknown origin become U+FFFD where they are not UTF-8, so that it is JSON whatever they are.
std::string Text(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// `value`: null where there is none.
std::uint32_t NumberOf(const Json* value, const char* key) {
    if (value == nullptr || !value->is_number_unsigned() ||
        value->get<std::uint64_t>() > std::numeric_limits<std::uint32_t>::max()) {
        throw BadRequestError(std::string("each subscription needs '") + key + "', a number of 32 bits");
    }
    return value->get<std::uint32_t>();
}

std::uint32_t MemberOf(const Json& object, const char* key) {
    const auto found = object.find(key); // the end also of what is no object
    return NumberOf(found == object.end() ? nullptr : &*found, key);
}

/// Returns: what is no object for a text that is no JSON.
Json Parse(std::string_view text) {
    const auto limitDepth = [](int depth, Json::parse_event_t event, const Json&) {
        const bool isStart = event == Json::parse_event_t::array_start || event == Json::parse_event_t::object_start;
        if (isStart && depth >= DeepestRequest) {
            throw BadRequestError("a request has at most " + std::to_string(DeepestRequest) + " levels");
        }
        return true;
    };
    return Json::parse(text, limitDepth, false);
}

const Json& ListOf(const Json& request, const char* key) {
    const auto found = request.find(key);
    if (found == request.end() || !found->is_array()) {
        throw BadRequestError(std::string("the request needs '") + key + "', a list");
    }
    return *found;
}

} // namespace

std::string ServerInfo(const std::string& name, const std::string& sessionId) {
    return Text({{"op", "serverInfo"}, {"name", name}, {"capabilities", Json::array()}, {"sessionId", sessionId}});
}

std::string Advertise(const std::vector<Channel>& channels) {
    Json list = Json::array();
    for (const auto& channel : channels) {
        list.push_back({{"id", channel.id},
                        {"topic", channel.name},
                        {"encoding", recording::MessageEncoding},
                        {"schemaName", channel.isFloat ? recording::Float64Name : recording::Int64Name},
                        {"schema", channel.isFloat ? recording::Float64Definition : recording::Int64Definition},
                        {"schemaEncoding", recording::SchemaEncoding}});
    }
    return Text({{"op", "advertise"}, {"channels", std::move(list)}});
}

std::string Unadvertise(const std::vector<std::uint32_t>& channels) {
    return Text({{"op", "unadvertise"}, {"channelIds", channels}});
}

std::string Status(Level level, const std::string& sentence) {
    return Text({{"op", "status"}, {"level", static_cast<int>(level)}, {"message", sentence}});
}

void AppendValue(std::string& bytes, std::uint32_t subscription, std::uint64_t timeNs, std::int64_t value) {
    std::array<unsigned char, 4 + 8> head{};
    boost::endian::store_little_u32(head.data(), subscription);
    boost::endian::store_little_u64(head.data() + 4, timeNs);
    bytes += MessageData;
    bytes.append(reinterpret_cast<const char*>(head.data()), head.size());
    recording::AppendValueMessage(bytes, value);
}

Request ParseRequest(std::string_view text) {
    const Json request = Parse(text);
    if (!request.is_object()) {
        throw BadRequestError("a request is a JSON object");
    }
    const auto op = request.find("op");
    if (op == request.end() || !op->is_string()) {
        throw BadRequestError("a request has 'op', a string");
    }
    const auto& operation = op->get_ref<const std::string&>();
    if (operation == "subscribe") {
        Subscribe subscribe;
        for (const auto& each : ListOf(request, "subscriptions")) {
            subscribe.wishes.push_back({MemberOf(each, "id"), MemberOf(each, "channelId")});
        }
        return subscribe;
    }
    if (operation == "unsubscribe") {
        Unsubscribe unsubscribe;
        for (const auto& id : ListOf(request, "subscriptionIds")) {
            unsubscribe.ids.push_back(NumberOf(&id, "id"));
        }
        return unsubscribe;
    }
    return OtherRequest{common::Escaped(operation.substr(0, LongestQuote))};
}

} // namespace stream
