#pragma once

#include "br_MessageBus.h"
#include "bus_interfaces.h"
#include "nk/deferred_reply.h"
#include "support/scripted_platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace test_support {

/// The clients of a worker that defers its replies, without a channel: they ask by calling the worker, and get what it
/// answers, and offers, through the scripted platform. Threads: any; a client asks on one thread at a time.
class DeferringClients final {
public:
    /// One answer as a client sees it: the status of its call, topic and value.
    using Answer = std::tuple<std::int32_t, std::string, long>;

    explicit DeferringClients(ScriptedPlatform& platform) {
        platform.deferReply.Always([this](NkDeferredReply* deferred) { return Defer(*deferred); });
        platform.replyDeferred.Always([this](const NkDeferredReply& deferred, const nk_message* response,
                                             const NkOffers& offers, std::size_t* offered) {
            std::size_t put = 0;
            const std::int32_t status = Reply(deferred, *response, offers, put);
            if (offered != nullptr) {
                *offered = put;
            }
            return status;
        });
        platform.takeBackOffers.Always(
            [this](const NkDeferredReply& deferred, std::size_t* taken) { return TakeBack(deferred, *taken); });
        platform.noteLoss.Always([this](const NkDeferredReply& deferred, const NkLoss& loss) {
            const std::lock_guard lock(mutex);
            clients[deferred.client].loss = loss;
            return KnStatusOk;
        });
    }
    DeferringClients(const DeferringClients&) = delete;
    DeferringClients& operator=(const DeferringClients&) = delete;

    /// The client sends a wait. Returns: what the worker returns.
    cor::ResultCode Ask(std::uint64_t client, message_bus::IWorker& worker, long subscriber, std::string& topic,
                        long& value) {
        asking = client;
        const cor::ResultCode result = worker.Wait(subscriber, topic, value);
        asking = 0;
        return result;
    }

    /// The client sends a wait. Fails unless the worker defers its reply.
    void Wait(std::uint64_t client, message_bus::IWorker& worker, long subscriber) {
        const std::uint32_t before = Calls(client);
        std::string topic = "untouched";
        long value = -77;
        EXPECT_EQ(Ask(client, worker, subscriber, topic, value), cor::ResultCode::Success);
        EXPECT_EQ(topic, "untouched");
        EXPECT_EQ(value, -77);
        EXPECT_EQ(Calls(client), before + 1);
    }

    /// The client takes so many offers as answers.
    void TakeOffers(std::uint64_t client, std::size_t count) {
        const std::lock_guard lock(mutex);
        State& state = clients[client];
        ASSERT_LE(state.taken + count, state.offers.size());
        for (; count != 0; --count) {
            state.answers.emplace_back(0, state.topic, state.offers[state.taken++]);
        }
    }

    void SetGone(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        clients[client].isGone = true;
    }

    /// Every operation answers KnStatusClosed from now on.
    void CloseChannel() {
        const std::lock_guard lock(mutex);
        isClosed = true;
    }

    /// No more than so many offers find room from now on.
    void SetRoom(std::size_t count) {
        const std::lock_guard lock(mutex);
        room = count;
    }

    std::vector<Answer> Answers(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        return clients[client].answers;
    }
    /// What the client could take now.
    std::vector<long> Offers(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        const State& state = clients[client];
        return {state.offers.begin() + static_cast<std::ptrdiff_t>(state.taken), state.offers.end()};
    }
    NkLoss Loss(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        return clients[client].loss;
    }
    bool IsBlocked(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        return clients[client].isBlocked;
    }

private:
    std::uint32_t Calls(std::uint64_t client) {
        const std::lock_guard lock(mutex);
        return clients[client].call;
    }

    struct State {
        /// With room for more answers than tests need: the platform's functions do not throw.
        State() {
            answers.reserve(4096);
            offers.reserve(NkMaxOffers);
        }

        std::uint32_t call = 0;
        bool isBlocked = false;
        bool isGone = false;
        bool hasOffers = false; // until they are taken back
        std::uint32_t offerCall = 0;
        std::string topic;
        std::vector<long> offers;
        std::size_t taken = 0;
        std::vector<Answer> answers;
        NkLoss loss;
    };

    std::int32_t Defer(NkDeferredReply& deferred) {
        const std::lock_guard lock(mutex);
        if (asking == 0) {
            return KnStatusInvalidArgument;
        }
        State& state = clients[asking];
        state.isBlocked = true;
        deferred = {1, ++state.call, asking};
        asking = 0;
        return KnStatusOk;
    }

    std::int32_t Reply(const NkDeferredReply& deferred, const nk_message& response, const NkOffers& offers,
                       std::size_t& offered) {
        const std::lock_guard lock(mutex);
        EXPECT_LE(offers.count, NkMaxOffers);
        State& state = clients[deferred.client];
        if (isClosed || state.isGone) {
            return isClosed ? KnStatusClosed : KnStatusPeerGone;
        }
        if (!state.isBlocked || state.call != deferred.call) {
            return KnStatusInvalidArgument;
        }
        state.isBlocked = false;
        br_MessageBusSubs_Wait_res record;
        std::memcpy(&record, &response, sizeof record);
        EXPECT_EQ(response.iid, br_MessageBusComponent_subs_iid);
        if (NkIsError(response)) {
            std::uint16_t code = 0;
            std::memcpy(&code, &response + 1, sizeof code);
            state.answers.emplace_back(code, "", 0);
            EXPECT_EQ(offers.count, 0U);
            return KnStatusOk;
        }
        state.answers.emplace_back(0, record.topic, record.message);
        if (offers.count != 0 && !state.hasOffers && room != 0) {
            EXPECT_EQ(offers.offset, offsetof(br_MessageBusSubs_Wait_res, message));
            offered = std::min(offers.count, room);
            state.hasOffers = true;
            state.offerCall = deferred.call;
            state.topic = record.topic;
            state.offers.assign(offers.values, offers.values + offered);
            state.taken = 0;
        }
        return KnStatusOk;
    }

    std::int32_t TakeBack(const NkDeferredReply& deferred, std::size_t& taken) {
        const std::lock_guard lock(mutex);
        State& state = clients[deferred.client];
        if (isClosed || state.isGone) {
            return isClosed ? KnStatusClosed : KnStatusPeerGone;
        }
        if (!state.hasOffers || state.offerCall != deferred.call) {
            ADD_FAILURE() << "taken back twice";
            return KnStatusInvalidArgument;
        }
        taken = state.taken;
        state.hasOffers = false;
        state.offers.clear();
        state.taken = 0;
        return KnStatusOk;
    }

    inline static thread_local std::uint64_t asking = 0; // the client whose request the thread serves; 0: none

    std::mutex mutex; // guards all below
    std::map<std::uint64_t, State> clients;
    bool isClosed = false;
    std::size_t room = NkMaxOffers;
};

} // namespace test_support
