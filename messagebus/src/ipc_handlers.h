#pragma once

#include "br_MessageBus.h"

namespace message_bus {
class BosConnector;
}

/// The interface objects whose methods serve the bus's clients. One of each per process: a later call overwrites the
/// connector that they lead to.
namespace bos_connection {

br_MessageBusProvider* CreateBusImpl(message_bus::BosConnector* connector);
br_MessageBusCtl* CreateCtlImpl(message_bus::BosConnector* connector);
br_MessageBusSubs* CreateSubscriberImpl(message_bus::BosConnector* connector);

} // namespace bos_connection
