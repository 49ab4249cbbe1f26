#include "queue_budget.h"

namespace msgbus_server {

QueueBudget::Exceeded QueueBudget::Change(std::uint64_t caller, std::size_t before, std::size_t now) {
    const common::MutexLock lock(mutex);
    total += now - before;
    const auto place = ofCallers.try_emplace(caller, 0).first;
    const std::size_t own = place->second += now - before;
    if (own == 0) {
        ofCallers.erase(place);
    }
    return total > mostOfAll ? Exceeded::Total : own > mostOfCaller ? Exceeded::OfCaller : Exceeded::Nothing;
}

} // namespace msgbus_server
