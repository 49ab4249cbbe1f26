#pragma once

#include "br_MessageBus.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace fuzzing {

using Record = std::array<char, NkRecordSize>;

/// What a request has to bring.
struct Reply {
    enum class Kind { FromHandler, UnknownInterface, UnknownMethod };

    Kind kind = Kind::FromHandler;
    std::string start; ///< with which the response begins; what follows may be anything
};

/// What the bus promises, one request at a time: every message is delivered before the next request, except that a wait
/// for which there is none ends because its subscriber is unregistered meanwhile.
class BusModel final {
public:
    struct Subscriber {
        std::set<std::string> topics;
        std::deque<std::pair<std::string, long>> queue;
    };

    Reply Apply(const Record& record) {
        const auto header = As<nk_message>(record);
        switch (header.iid) {
        case br_MessageBusComponent_provider_iid:
            return header.mid == br_MessageBusProvider_Push_mid ? Push(record) : UnknownMethod(header);
        case br_MessageBusComponent_ctl_iid:
            switch (header.mid) {
            case br_MessageBusCtl_RegisterPublisher_mid:
                return RegisterPublisher(record);
            case br_MessageBusCtl_StartSubs_mid:
                return StartSubs();
            case br_MessageBusCtl_Subscribe_mid:
                return Subscribe(record);
            case br_MessageBusCtl_FinishSubs_mid:
                return FinishSubs(record);
            case br_MessageBusCtl_UnregisterPublisher_mid:
                return UnregisterPublisher(record);
            case br_MessageBusCtl_UnregisterSubscriber_mid:
                return UnregisterSubscriber(record);
            default:
                return UnknownMethod(header);
            }
        case br_MessageBusComponent_subs_iid:
            return header.mid == br_MessageBusSubs_Wait_mid ? Wait(record) : UnknownMethod(header);
        default:
            return {Reply::Kind::UnknownInterface, Start(nk_message{0, 0, NkRecordSize, {}})};
        }
    }

    /// Ids that others have used up.
    void SkipIds(long count) { lastId += count; }

    const std::map<std::string, long>& Publishers() const { return publishers; }
    const std::map<long, Subscriber>& Subscribers() const { return subscribers; }

private:
    static constexpr std::size_t DeliveredTopicLimit = 1022;

    template <typename Object>
    static Object As(const Record& record) {
        Object object{};
        std::memcpy(&object, record.data(), sizeof object);
        return object;
    }

    /// A text ends at its first NUL, wherever in the record that is, or with the record.
    static std::string TextAt(const Record& record, std::size_t offset) {
        const std::string_view rest(record.data() + offset, record.size() - offset);
        return std::string(rest.substr(0, rest.find('\0')));
    }

    template <typename Object>
    static std::string Start(const Object& object) {
        return {reinterpret_cast<const char*>(&object), sizeof object};
    }

    template <typename Response>
    static Reply Done(const Record& record, Response response) {
        response.header.iid = As<nk_message>(record).iid;
        response.header.mid = As<nk_message>(record).mid;
        response.header.size = sizeof response;
        return {Reply::Kind::FromHandler, Start(response)};
    }

    static Reply Refused(const Record& record, std::uint16_t code) {
        constexpr std::uint32_t errorReplySize = 32;
        const auto header = As<nk_message>(record);
        return {Reply::Kind::FromHandler,
                Start(nk_message{header.iid, header.mid, NkErrorFlag | errorReplySize, {}}) + Start(code)};
    }

    static Reply UnknownMethod(const nk_message& header) {
        return {Reply::Kind::UnknownMethod, Start(nk_message{header.iid, header.mid, NkRecordSize, {}})};
    }

    Reply Push(const Record& record) {
        const auto request = As<br_MessageBusProvider_Push_req>(record);
        for (const auto& [topic, id] : publishers) {
            if (id == request.publisherId && !topic.empty()) {
                for (auto& [number, subscriber] : subscribers) {
                    if (subscriber.topics.contains(topic)) {
                        subscriber.queue.emplace_back(topic, request.message);
                    }
                }
            }
        }
        return Done(record, br_MessageBusProvider_Push_res{});
    }

    Reply RegisterPublisher(const Record& record) {
        const std::string topic = TextAt(record, offsetof(br_MessageBusCtl_RegisterPublisher_req, topic));
        if (publishers.contains(topic)) {
            return Refused(record, 8);
        }
        publishers[topic] = ++lastId;
        br_MessageBusCtl_RegisterPublisher_res response{};
        response.publisherId = lastId;
        return Done(record, response);
    }

    Reply StartSubs() {
        registrations.try_emplace(nextRegistration);
        br_MessageBusCtl_StartSubs_res response{};
        response.registrationId = nextRegistration++;
        Record record{};
        const nk_message header{br_MessageBusComponent_ctl_iid, br_MessageBusCtl_StartSubs_mid, 0, {}};
        std::memcpy(record.data(), &header, sizeof header);
        return Done(record, response);
    }

    Reply Subscribe(const Record& record) {
        const auto found = registrations.find(As<br_MessageBusCtl_Subscribe_req>(record).registrationId);
        if (found == registrations.end()) {
            return Refused(record, 10);
        }
        return found->second.insert(TextAt(record, offsetof(br_MessageBusCtl_Subscribe_req, topic))).second
                   ? Done(record, br_MessageBusCtl_Subscribe_res{})
                   : Refused(record, 8);
    }

    Reply FinishSubs(const Record& record) {
        const auto request = As<br_MessageBusCtl_FinishSubs_req>(record);
        const auto found = registrations.find(request.registrationId);
        if (found == registrations.end()) {
            return Refused(record, 8);
        }
        const auto topics = std::move(found->second);
        registrations.erase(found);
        if (request.commit == 0) {
            return Refused(record, 1);
        }
        subscribers[++lastId].topics = topics;
        br_MessageBusCtl_FinishSubs_res response{};
        response.subscriberId = lastId;
        return Done(record, response);
    }

    Reply UnregisterPublisher(const Record& record) {
        const auto id = As<br_MessageBusCtl_UnregisterPublisher_req>(record).publisherId;
        return std::erase_if(publishers, [id](const auto& entry) { return entry.second == id; }) == 1
                   ? Done(record, br_MessageBusCtl_UnregisterPublisher_res{})
                   : Refused(record, 8);
    }

    Reply UnregisterSubscriber(const Record& record) {
        return subscribers.erase(As<br_MessageBusCtl_UnregisterSubscriber_req>(record).subscriberId) == 1
                   ? Done(record, br_MessageBusCtl_UnregisterSubscriber_res{})
                   : Refused(record, 8);
    }

    Reply Wait(const Record& record) {
        const auto id = As<br_MessageBusSubs_Wait_req>(record).subscriberId;
        if (id == -1) {
            return Refused(record, 2);
        }
        const auto found = subscribers.find(id);
        if (found == subscribers.end()) {
            return Refused(record, 1);
        }
        auto& queue = found->second.queue;
        if (queue.empty()) {
            subscribers.erase(found);
            return Refused(record, 1);
        }
        br_MessageBusSubs_Wait_res response{};
        queue.front().first.copy(response.topic, DeliveredTopicLimit);
        response.message = queue.front().second;
        queue.pop_front();
        return Done(record, response);
    }

    long lastId = 0;
    std::int64_t nextRegistration = 0;
    std::map<std::int64_t, std::set<std::string>> registrations;
    std::map<std::string, long> publishers;
    std::map<long, Subscriber> subscribers;
};

} // namespace fuzzing
