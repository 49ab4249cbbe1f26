#include "records/connection_limits.h"

#include "kn/policy.h"
#include "kn/status.h"
#include "records/shared_memory_channel.h"

#include <atomic>

namespace borven_host {

namespace {

std::atomic<std::uint32_t> mostPerCaller{Channel::MaxClients};
std::atomic<std::uint32_t> mostPerChannel{Channel::MaxClients};
std::atomic<std::uint64_t> refusals{0};

} // namespace

bool ConnectionLimits::Exist() const noexcept {
    return perCaller < Channel::MaxClients || perChannel < Channel::MaxClients;
}

ConnectionLimits ConnectionLimits::Current() noexcept {
    return {mostPerCaller.load(std::memory_order_relaxed), mostPerChannel.load(std::memory_order_relaxed)};
}

void ConnectionLimits::CountRefusal() noexcept {
    refusals.fetch_add(1, std::memory_order_relaxed);
}

} // namespace borven_host

std::int32_t KnPolicySetConnectionLimits(std::uint32_t perCaller, std::uint32_t perChannel) noexcept {
    if (perCaller == 0 || perChannel == 0 || perChannel > borven_host::Channel::MaxClients) {
        return KnStatusInvalidArgument;
    }
    borven_host::mostPerCaller.store(perCaller, std::memory_order_relaxed);
    borven_host::mostPerChannel.store(perChannel, std::memory_order_relaxed);
    return KnStatusOk;
}

std::uint64_t KnPolicyRefusedConnections() noexcept {
    return borven_host::refusals.load(std::memory_order_relaxed);
}
