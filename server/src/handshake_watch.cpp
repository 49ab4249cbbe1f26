#include "handshake_watch.h"

#include "br_MessageBus.h"
#include "kn/status.h"

#include <cstring>

namespace msgbus_server {

using cor::ResultCode;

namespace {

constexpr std::int64_t NoHandshake = -1; // the bus counts from 0

/// A text in a request, which may lack its terminator.
template <std::size_t Size>
std::string_view TextOf(const char (&text)[Size]) {
    return {text, ::strnlen(text, Size)};
}

template <std::size_t Size>
std::size_t BytesOf(const char (&text)[Size]) {
    return TextOf(text).size();
}

template <typename Request>
Request& As(nk_message& record) {
    return reinterpret_cast<Request&>(record);
}

template <typename Request>
const Request& As(const nk_message& record) {
    return reinterpret_cast<const Request&>(record);
}

std::size_t ChargeFor(const br_MessageBusCtl_Subscribe_req& step) {
    return BytesOf(step.topic) + TopicOverhead;
}

std::int32_t ErrorResult(ResultCode code) {
    return br_MessageBus_ErrorResult(static_cast<std::uint16_t>(code));
}

} // namespace

bool HandshakeWatch::OnRequest(const KnCaller& caller, nk_message& request, nk_message& reply) noexcept {
    const auto hide = [&](std::int64_t& handshake) {
        if (isOwned && !accounts.MayUse(caller, {Kind::Handshake, handshake})) {
            handshake = NoHandshake;
        }
    };
    ResultCode result = ResultCode::Success;
    switch (request.mid) {
    case br_MessageBusCtl_StartSubs_mid:
        result = accounts.Charge(caller, Kind::Handshake, BytesOf(As<br_MessageBusCtl_StartSubs_req>(request).name));
        if (result != ResultCode::Success) {
            br_MessageBusCtl_StartSubs_reply(ErrorResult(result), NoHandshake, &reply);
            NoteRefusal(caller, result, TextOf(As<br_MessageBusCtl_StartSubs_req>(request).name));
        }
        break;
    case br_MessageBusCtl_Subscribe_mid: {
        auto& step = As<br_MessageBusCtl_Subscribe_req>(request);
        hide(step.registrationId);
        result = accounts.ChargeTopic(step.registrationId, ChargeFor(step));
        if (result != ResultCode::Success) {
            br_MessageBusCtl_Subscribe_reply(ErrorResult(result), &reply);
            NoteRefusal(caller, result, TextOf(step.topic));
        }
        break;
    }
    case br_MessageBusCtl_FinishSubs_mid: {
        auto& step = As<br_MessageBusCtl_FinishSubs_req>(request);
        hide(step.registrationId);
        // Before the bus finishes it: what it is charged for becomes a subscriber's.
        accounts.Remove({Kind::Handshake, step.registrationId});
        break;
    }
    default:
        break;
    }
    return result == ResultCode::Success;
}

void HandshakeWatch::NoteRefusal(const KnCaller& caller, ResultCode code, std::string_view name) const {
    if (actions.noteRefusal) {
        actions.noteRefusal(caller, code, name);
    }
}

void HandshakeWatch::OnReply(const KnCaller& caller, const nk_message& request, const nk_message& reply) noexcept {
    switch (request.mid) {
    case br_MessageBusCtl_StartSubs_mid: {
        const std::size_t bytes = BytesOf(As<br_MessageBusCtl_StartSubs_req>(request).name);
        if (NkIsError(reply)) {
            accounts.Refund(caller, Kind::Handshake, bytes);
            break;
        }
        accounts.Add(caller, {Kind::Handshake, As<br_MessageBusCtl_StartSubs_res>(reply).registrationId}, bytes);
        actions.noteHandshake();
        if (KnCaller current; KnCallerOfRequest(&current) == KnStatusPeerGone) {
            actions.endAllOf(caller); // its end was reported before the handshake was known
        }
        break;
    }
    case br_MessageBusCtl_Subscribe_mid:
        if (NkIsError(reply)) {
            const auto& step = As<br_MessageBusCtl_Subscribe_req>(request);
            accounts.RefundTopic(step.registrationId, ChargeFor(step));
        }
        break;
    default:
        break;
    }
}

} // namespace msgbus_server
