#pragma once

#include <fcntl.h>
#include <unistd.h>

/// Opens /dev/null for each of descriptors 0 to 2 that is closed, so that no channel gets one of these numbers and
/// receives what is written to a standard stream. Threads: call before any other thread starts.
inline void OccupyStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}
