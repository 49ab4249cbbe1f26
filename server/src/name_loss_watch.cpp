#include "name_loss_watch.h"

#include "diagnostics.h"
#include "ns/name_loss.h"

#include <utility>

namespace msgbus_server {

using diagnostics::Log;
using diagnostics::LogLevel;

NameLossWatch::NameLossWatch(std::function<void()> onLoss) : reportLoss(std::move(onLoss)) {
    NsOnNameLost(&NameLossWatch::OnLost, this);
}

NameLossWatch::~NameLossWatch() {
    NsOnNameLost(nullptr, nullptr);
}

void NameLossWatch::OnLost(const char* name, void* self) {
    auto& watch = *static_cast<NameLossWatch*>(self);
    Log(LogLevel::Error, "Clients no longer find the bus: the name {} is lost; stopping", name);
    watch.hasLost.store(true);
    watch.reportLoss();
}

} // namespace msgbus_server
