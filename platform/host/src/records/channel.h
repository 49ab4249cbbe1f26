#pragma once

// How records travel. This is the one place that chooses.
#include "records/shared_memory_channel.h"
#include "records/shared_memory_connection.h"
