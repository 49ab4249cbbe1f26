#include "stream/wire/protocol.h"

#include "common/escape.h"
#include "recording/value_message.h"

#include <boost/endian/conversion.hpp>
#include <nlohmann/json.hpp>

#include <array>
#include <limits>

namespace stream {

namespace {

using Json = nlohmann::json;

constexpr char MessageData = 1; // the kind of a binary message
constexpr std::size_t LongestQuote = 64;

/// Bytes of unknown origin become U+FFFD where they are not UTF-8, so that it is JSON whatever they are.
std::string Text(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::uint32_t NumberOf(const Json& object, const char* key) {
    const auto found = object.is_object() ? object.find(key) : object.end();
    if (!object.is_object() || found == object.end() || !found->is_number_unsigned() ||
        found->get<std::uint64_t>() > std::numeric_limits<std::uint32_t>::max()) {
        throw BadRequestError(std::string("each subscription needs '") + key + "', a number of 32 bits");
    }
    return found->get<std::uint32_t>();
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

std::string Unadvertise(std::uint32_t channel) {
    return Text({{"op", "unadvertise"}, {"channelIds", Json::array({channel})}});
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
    const Json request = Json::parse(text, nullptr, false);
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
            subscribe.wishes.push_back({NumberOf(each, "id"), NumberOf(each, "channelId")});
        }
        return subscribe;
    }
    if (operation == "unsubscribe") {
        Unsubscribe unsubscribe;
        for (const auto& id : ListOf(request, "subscriptionIds")) {
            unsubscribe.ids.push_back(NumberOf({{"id", id}}, "id"));
        }
        return unsubscribe;
    }
    return OtherRequest{common::Escaped(operation.substr(0, LongestQuote))};
}

} // namespace stream
