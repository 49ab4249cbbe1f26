#pragma once

// All of the client library, except for tests (msgbus/testing.h) and C (msgbus/msgbus_c.h).

#include "msgbus/codec.h"        // IWYU pragma: export
#include "msgbus/error.h"        // IWYU pragma: export
#include "msgbus/options.h"      // IWYU pragma: export
#include "msgbus/publisher.h"    // IWYU pragma: export
#include "msgbus/stop_signals.h" // IWYU pragma: export
#include "msgbus/subscriber.h"   // IWYU pragma: export
#include "msgbus/typed.h"        // IWYU pragma: export
