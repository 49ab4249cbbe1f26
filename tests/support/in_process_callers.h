#pragma once

#include "kn/caller.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace test_support {

/// A process with connections. Guarded by the mutex of InProcessCallers but for the identity, which is constant.
struct InProcessCaller {
    KnCaller identity;
    std::uint32_t connections = 0;
    bool isGone = false;
};

/// The callers of the in-process platform. All threads are of this process, unless a test lets them act as another.
class InProcessCallers final {
public:
    static InProcessCallers& Instance();

    std::shared_ptr<InProcessCaller> Enter();
    void Leave(InProcessCaller& caller);
    bool IsGone(const InProcessCaller& caller);

    void SetObserver(KnIRequestObserver* newObserver, std::uint16_t interface);
    /// Returns: null when there is none that sees `request`.
    KnIRequestObserver* ObserverOf(const nk_message& request);

private:
    std::mutex mutex;                                                 // guards all below
    std::map<std::int32_t, std::shared_ptr<InProcessCaller>> callers; ///< by process
    std::uint64_t lastId = 0;
    KnIRequestObserver* observer = nullptr;
    std::uint16_t iid = 0;
};

/// While it exists, the connections that the calling thread opens are those of the process `pid`.
class ActingAs final {
public:
    explicit ActingAs(std::int32_t pid);
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;
    ~ActingAs();

    /// Returns: the process that the calling thread acts as.
    static std::int32_t Current();

private:
    const std::int32_t before;
};

} // namespace test_support
