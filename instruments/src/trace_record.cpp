#include "instruments/trace_record.h"

#include "common/escape.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

namespace instruments {

namespace {

using Json = nlohmann::ordered_json;

Json TimeOf(std::int64_t at, std::int64_t clockOffset) {
    return at == 0 ? Json() : Json(at + clockOffset);
}

std::int64_t TimeIn(const nlohmann::json& object, const char* key) {
    const auto& time = object.at(key);
    return time.is_null() ? 0 : time.get<std::int64_t>();
}

TracedCopy CopyIn(const nlohmann::json& object) {
    TracedCopy copy;
    copy.subscriber = object.at("subscriber");
    copy.queuedAt = TimeIn(object, "queued_unix_ns");
    copy.offeredAt = TimeIn(object, "offered_unix_ns");
    copy.takenAt = TimeIn(object, "taken_unix_ns");
    copy.droppedAt = TimeIn(object, "dropped_unix_ns");
    copy.isUncertain = object.at("uncertain");
    return copy;
}

} // namespace

bool TracedValue::HasEnded() const noexcept {
    return copies.size() == subscribers &&
           std::all_of(copies.begin(), copies.end(), [](const TracedCopy& copy) { return copy.HasEnded(); });
}

bool TraceRecord::HasEnded() const noexcept {
    return values.size() == wanted &&
           std::all_of(values.begin(), values.end(), [](const TracedValue& value) { return value.HasEnded(); });
}

Json TraceToJson(const TraceRecord& record, std::int64_t clockOffset) {
    Json values = Json::array();
    for (const auto& value : record.values) {
        Json copies = Json::array();
        for (const auto& copy : value.copies) {
            copies.push_back({{"subscriber", copy.subscriber},
                              {"queued_unix_ns", TimeOf(copy.queuedAt, clockOffset)},
                              {"offered_unix_ns", TimeOf(copy.offeredAt, clockOffset)},
                              {"taken_unix_ns", TimeOf(copy.takenAt, clockOffset)},
                              {"dropped_unix_ns", TimeOf(copy.droppedAt, clockOffset)},
                              {"uncertain", copy.isUncertain}});
        }
        values.push_back({{"value", value.value},
                          {"value_text", std::to_string(value.value)},
                          {"publisher", value.publisher},
                          {"pushed_unix_ns", TimeOf(value.pushedAt, clockOffset)},
                          {"subscribers", value.subscribers},
                          {"fanned_out_unix_ns", TimeOf(value.fannedOutAt, clockOffset)},
                          {"copies", std::move(copies)}});
    }
    return {{"version", 1},
            {"topic", common::Escaped(record.topic)},
            {"wanted", record.wanted},
            {"lost_steps", record.lostSteps},
            {"values", std::move(values)}};
}

TraceRecord TraceFromJson(const std::string& text) {
    try {
        const auto json = nlohmann::json::parse(text);
        TraceRecord record;
        record.topic = json.at("topic");
        record.wanted = json.at("wanted");
        record.lostSteps = json.at("lost_steps");
        for (const auto& object : json.at("values")) {
            TracedValue value;
            value.value = object.at("value");
            value.publisher = object.at("publisher");
            value.pushedAt = TimeIn(object, "pushed_unix_ns");
            value.subscribers = object.at("subscribers");
            value.fannedOutAt = TimeIn(object, "fanned_out_unix_ns");
            for (const auto& copy : object.at("copies")) {
                value.copies.push_back(CopyIn(copy));
            }
            record.values.push_back(std::move(value));
        }
        return record;
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(std::string("the server's answer about the trace cannot be read: ") + error.what());
    }
}

} // namespace instruments
