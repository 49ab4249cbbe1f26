#pragma once

#include <fcntl.h>
#include <unistd.h>

/// Gives a descriptor to each of the standard three that was closed, so that no channel ever takes its number.
inline void OccupyStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}
