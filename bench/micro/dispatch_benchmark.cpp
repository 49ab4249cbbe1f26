// The generated dispatch of one request record to a handler that does nothing.

#include "br_MessageBus.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

template <typename Interface, typename Request, typename Response>
std::int32_t Nothing(Interface*, const Request*, const nk_arena*, Response*, nk_arena*) {
    return 0;
}

constexpr br_MessageBusProvider_ops ProviderOps{&Nothing};
constexpr br_MessageBusCtl_ops CtlOps{&Nothing, &Nothing, &Nothing, &Nothing, &Nothing, &Nothing};
constexpr br_MessageBusSubs_ops SubsOps{&Nothing};

void Dispatch(benchmark::State& state, std::uint16_t iid, std::uint16_t mid) {
    br_MessageBusProvider provider{&ProviderOps};
    br_MessageBusCtl ctl{&CtlOps};
    br_MessageBusSubs subs{&SubsOps};
    br_MessageBusComponent_component component{&provider, &ctl, &subs};
    br_MessageBus_component entity{&component};
    br_MessageBus_component_req request;
    br_MessageBus_component_res response;
    std::memset(request.record, 0, sizeof(request.record));
    request.header.iid = iid;
    request.header.mid = mid;
    request.header.size = NkRecordSize;
    nk_arena requestArena{};
    nk_arena responseArena{};
    for ([[maybe_unused]] auto once : state) {
        benchmark::DoNotOptimize(
            br_MessageBus_entity_dispatch(&entity, &request.header, &requestArena, &response.header, &responseArena));
        benchmark::ClobberMemory();
    }
}
BENCHMARK_CAPTURE(Dispatch, Push, br_MessageBusComponent_provider_iid, br_MessageBusProvider_Push_mid);
BENCHMARK_CAPTURE(Dispatch, Wait, br_MessageBusComponent_subs_iid, br_MessageBusSubs_Wait_mid);

} // namespace
