#pragma once

#include "br_MessageBus.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "kn/handle.h"
#include "nk/transport.h"
#include "service_locator.h"
#include "support/bus_test.h"

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

/// A server on the static channel that answers as the test says and records each request:
///   RegisterPublisher(heat)   StartSubs(reader)   Subscribe(7, heat)   FinishSubs(7, 1)   Push(1, 42)   ...
/// It has two threads, so that one may block in Wait.
class FakeServer final {
public:
    FakeServer() {
        self.component = {&provider, &ctl, &subs};
        self.entity = {&self.component};
        KnHandle handle = ServiceLocatorRegister(br_MessageBus_connection, nullptr, 0, &iid);
        NkBosTransport_Init(&transport, handle, nullptr, 0);
        for (auto& thread : threads) {
            thread = std::thread([this] { Serve(); });
        }
    }
    ~FakeServer() {
        Release();
        LetGo();
        KnHandleClose(transport.handle);
        for (auto& thread : threads) {
            thread.join();
        }
    }
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    /// Answers the next `times` requests of `method` with result code `code` of the bus.
    void Answer(const std::string& method, std::int32_t code, int times = 1) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        answers[method] = {code, times, 0};
    }

    /// Answers the requests of `method` after the next `times` ones with result code `code`.
    void AnswerAfter(int times, const std::string& method, std::int32_t code) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        answers[method] = {code, 1, times};
    }

    /// Does not answer requests of `method` until LetGo.
    void Hold(const std::string& method) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        held = method;
    }
    void LetGo() EXCLUDES(mutex) {
        {
            const common::MutexLock lock(mutex);
            held.clear();
        }
        released.NotifyAll();
    }

    /// Answers blocked and later Waits with "not registered".
    void Release() EXCLUDES(mutex) {
        {
            const common::MutexLock lock(mutex);
            isReleased = true;
        }
        released.NotifyAll();
    }

    /// Returns: the requests so far.
    std::vector<std::string> Asked() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return asked;
    }

    void AwaitAsked(const std::string& request) EXCLUDES(mutex) {
        common::MutexLock lock(mutex);
        while (std::find(asked.begin(), asked.end(), request) == asked.end()) {
            wasAsked.Wait(lock);
        }
    }

    /// Queues a value that one Wait returns instead of blocking.
    void Deliver(const std::string& topic, std::int64_t value) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        messages.emplace_back(topic, value);
    }

    static constexpr std::int64_t PublisherId = 11;
    static constexpr std::int64_t RegistrationId = 7;
    static constexpr std::int64_t SubscriberId = 12;

private:
    struct Self {
        br_MessageBusComponent_component component;
        br_MessageBus_component entity;
    };
    struct Planned {
        std::int32_t code;
        int times;  ///< how often still
        int before; ///< how many requests are answered as always first
    };
    struct Provider : br_MessageBusProvider {
        FakeServer* server;
    };
    struct Ctl : br_MessageBusCtl {
        FakeServer* server;
    };
    struct Subs : br_MessageBusSubs {
        FakeServer* server;
    };

    template <typename Interface>
    static FakeServer& Of(Interface* interface) {
        if constexpr (std::is_same_v<Interface, br_MessageBusProvider>) {
            return *static_cast<Provider*>(interface)->server;
        } else if constexpr (std::is_same_v<Interface, br_MessageBusCtl>) {
            return *static_cast<Ctl*>(interface)->server;
        } else {
            return *static_cast<Subs*>(interface)->server;
        }
    }

    /// Records a request.
    /// Returns: the status to answer it with.
    std::int32_t Note(const std::string& method, const std::string& arguments) EXCLUDES(mutex) {
        common::MutexLock lock(mutex);
        asked.push_back(method + "(" + arguments + ")");
        wasAsked.NotifyAll();
        while (held == method) {
            released.Wait(lock);
        }
        const auto answer = answers.find(method);
        if (answer == answers.end() || answer->second.times == 0) {
            return 0;
        }
        if (answer->second.before > 0) {
            --answer->second.before;
            return 0;
        }
        --answer->second.times;
        return Result(answer->second.code);
    }

    std::int32_t Wait(const br_MessageBusSubs_Wait_req& request, br_MessageBusSubs_Wait_res& response) EXCLUDES(mutex) {
        if (const std::int32_t result = Note("Wait", std::to_string(request.subscriberId)); result != 0) {
            return result;
        }
        common::MutexLock lock(mutex);
        if (!messages.empty()) {
            messages.front().first.copy(response.topic, sizeof response.topic);
            response.message = messages.front().second;
            messages.erase(messages.begin());
            return 0;
        }
        while (!isReleased) {
            released.Wait(lock);
        }
        return Result(1);
    }

    static std::int32_t Result(std::int32_t code) { return code == 0 ? 0 : -(2 * code + 1) * 0x4000; }

    void Serve() {
        while (true) {
            br_MessageBus_component_req request{};
            br_MessageBus_component_res response{};
            nk_arena arena{};
            request.header.size = NkRecordSize;
            if (NkBosTransport_Receive(&transport, &request.header, &arena) != 0) {
                return;
            }
            br_MessageBus_entity_dispatch(&self.entity, &request.header, &arena, &response.header, &arena);
            NkBosTransport_Reply(&transport, &response.header, &arena);
        }
    }

    static const br_MessageBusProvider_ops ProviderOps;
    static const br_MessageBusCtl_ops CtlOps;
    static const br_MessageBusSubs_ops SubsOps;

    Provider provider{{&ProviderOps}, this};
    Ctl ctl{{&CtlOps}, this};
    Subs subs{{&SubsOps}, this};
    Self self{};
    std::uint32_t iid = 0;
    NkBosTransport transport{};
    std::thread threads[2];

    mutable common::Mutex mutex;
    common::ConditionVariable wasAsked; ///< `asked` has grown
    common::ConditionVariable released; ///< `isReleased` is set, or `held` has changed
    bool isReleased GUARDED_BY(mutex) = false;
    std::vector<std::string> asked GUARDED_BY(mutex);
    std::map<std::string, Planned> answers GUARDED_BY(mutex); ///< by method
    std::string held GUARDED_BY(mutex);                       ///< a method, or empty
    std::vector<std::pair<std::string, std::int64_t>> messages GUARDED_BY(mutex);
};

inline const br_MessageBusProvider_ops FakeServer::ProviderOps{[](auto* object, auto* request, auto*, auto*, auto*) {
    return Of(object).Note("Push", std::to_string(request->publisherId) + ", " + std::to_string(request->message));
}};
inline const br_MessageBusCtl_ops FakeServer::CtlOps{
    [](auto* object, auto* request, auto*, auto* response, auto*) {
        response->publisherId = PublisherId;
        return Of(object).Note("RegisterPublisher", request->topic);
    },
    [](auto* object, auto* request, auto*, auto* response, auto*) {
        response->registrationId = RegistrationId;
        return Of(object).Note("StartSubs", request->name);
    },
    [](auto* object, auto* request, auto*, auto*, auto*) {
        return Of(object).Note("Subscribe", std::to_string(request->registrationId) + ", " + request->topic);
    },
    [](auto* object, auto* request, auto*, auto* response, auto*) {
        response->subscriberId = SubscriberId;
        return Of(object).Note("FinishSubs",
                               std::to_string(request->registrationId) + ", " + std::to_string(request->commit));
    },
    [](auto* object, auto* request, auto*, auto*, auto*) {
        return Of(object).Note("UnregisterPublisher", std::to_string(request->publisherId));
    },
    [](auto* object, auto* request, auto*, auto*, auto*) {
        const std::int32_t result = Of(object).Note("UnregisterSubscriber", std::to_string(request->subscriberId));
        Of(object).Release();
        return result;
    }};
inline const br_MessageBusSubs_ops FakeServer::SubsOps{
    [](auto* object, auto* request, auto*, auto* response, auto*) { return Of(object).Wait(*request, *response); }};

} // namespace test_support
