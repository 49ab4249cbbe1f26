#pragma once

// How records travel. This is the one place that chooses.
#include "socket_channel.h"
