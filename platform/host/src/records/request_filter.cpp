#include "records/request_filter.h"

#include "base/no_throw.h"
#include "common/mutex.h"
#include "kn/policy.h"
#include "kn/status.h"

#include <unordered_map>

namespace borven_host {

namespace {

struct MethodCounts {
    common::Mutex mutex;
    std::unordered_map<std::string, std::uint32_t> byType GUARDED_BY(mutex);
};

/// Never destroyed: threads may use it until the process is gone.
MethodCounts& Counts() {
    static MethodCounts& counts = *new MethodCounts;
    return counts;
}

} // namespace

std::int32_t RequestFilter::Check(const nk_message& request) const noexcept {
    if (NkIsError(request) || NkGetSize(request) != NkRecordSize) {
        return KnStatusBadRecord;
    }
    if (onlyInterface && request.iid != *onlyInterface) {
        return KnStatusDenied;
    }
    if (methodCount && request.mid >= *methodCount) {
        return KnStatusUnimplemented;
    }
    return KnStatusOk;
}

std::optional<std::uint32_t> DeclaredMethodCount(const std::string& type) {
    auto& counts = Counts();
    const common::MutexLock lock(counts.mutex);
    const auto found = counts.byType.find(type);
    return found == counts.byType.end() ? std::nullopt : std::optional(found->second);
}

} // namespace borven_host

std::int32_t KnPolicySetMethodCount(const char* type, std::uint32_t methodCount) noexcept {
    if (type == nullptr || *type == '\0') {
        return KnStatusInvalidArgument;
    }
    return borven_host::NoThrow([&] {
        auto& counts = borven_host::Counts();
        const common::MutexLock lock(counts.mutex);
        counts.byType[type] = methodCount;
        return KnStatusOk;
    });
}
