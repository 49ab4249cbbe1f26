#include "adapter.h"
#include "kn/handle.h"

namespace platform_test {

void BeginTest() {}

void EndTest() {
    KnHandleCloseServerEnds(); // the in-process platform leaves nothing else behind
}

} // namespace platform_test
