#include "queue_budget.h"

#include <utility>

namespace msgbus_server {

QueueBudget::Exceeded QueueBudget::Change(std::uint64_t caller, std::size_t before, std::size_t now) {
    const common::MutexLock lock(mutex);
    const auto place = ofCallers.try_emplace(caller).first;
    Usage& own = place->second;
    for (Usage* const usage : {&own, &total}) {
        usage->bytes += now - before;
    }
    if (own.bytes == 0) {
        ofCallers.erase(place);
    }
    if (now <= before) {
        return Exceeded::Nothing;
    }
    if (total.bytes > mostOfAll && !std::exchange(total.isReported, true)) {
        return Exceeded::Total;
    }
    return own.bytes > mostOfCaller && !std::exchange(own.isReported, true) ? Exceeded::OfCaller : Exceeded::Nothing;
}

void QueueBudget::Acknowledge(Exceeded what, std::uint64_t caller) {
    const common::MutexLock lock(mutex);
    if (what == Exceeded::Total) {
        total.isReported = false;
    } else if (const auto found = ofCallers.find(caller); found != ofCallers.end()) {
        found->second.isReported = false;
    }
}

} // namespace msgbus_server
