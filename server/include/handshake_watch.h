#pragma once

#include "caller_accounts.h"
#include "kn/caller.h"

#include <functional>
#include <string_view>
#include <utility>

namespace msgbus_server {

/// Follows the handshakes of subscribers, which no interface of the bus shows: whose they are, and what they take of
/// their caller's limits. A step with the handshake of another caller reaches the bus with an id that no handshake has.
/// Threads: any.
class HandshakeWatch final : public KnIRequestObserver {
public:
    /// What is done about a caller that is gone, when a handshake has begun, and when one is refused. Must return at
    /// once.
    struct Actions {
        std::function<void(const KnCaller&)> endAllOf;
        std::function<void()> noteHandshake;
        /// A step of a handshake was refused. May be empty.
        std::function<void(const KnCaller&, cor::ResultCode, std::string_view name)> noteRefusal{};
    };

    /// `checksOwners`: false: every process may use every handshake. Lifetime: `kept` must outlive this object.
    HandshakeWatch(CallerAccounts& kept, bool checksOwners, Actions whatToDo)
        : accounts(kept), isOwned(checksOwners), actions(std::move(whatToDo)) {}

    bool OnRequest(const KnCaller& caller, nk_message& request, nk_message& reply) noexcept override;
    void OnReply(const KnCaller& caller, const nk_message& request, const nk_message& reply) noexcept override;
    void OnCallerGone(const KnCaller& caller) noexcept override { actions.endAllOf(caller); }

private:
    void NoteRefusal(const KnCaller& caller, cor::ResultCode code, std::string_view name) const;

    CallerAccounts& accounts;
    const bool isOwned;
    const Actions actions;
};

} // namespace msgbus_server
