#pragma once

// How records travel. This is the one place that chooses.
#include "shared_memory_channel.h"
#include "shared_memory_connection.h"
