#include "adapter.h"
#include "kn/handle.h"
#include "support/scripted_platform.h"

namespace platform_test {

void BeginTest() {}

void EndTest() {
    KnHandleCloseServerEnds(); // the in-process platform leaves nothing else behind
}

void RemoveName(const char*) {} // in one process there is nothing that could be removed

void TakeName(const char* name) {
    test_support::ScriptedPlatform::Current().InProcess().LoseName(name);
}

} // namespace platform_test
