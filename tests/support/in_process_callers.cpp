#include "support/in_process_callers.h"

#include "support/in_process_platform.h"

#include <unistd.h>

#include <string_view>

namespace test_support {

namespace {

thread_local std::int32_t actingAs = 0;

} // namespace

InProcessCallers& InProcessCallers::Instance() {
    static InProcessCallers callers;
    return callers;
}

std::shared_ptr<InProcessCaller> InProcessCallers::Enter() {
    const std::lock_guard lock(mutex);
    const std::int32_t pid = ActingAs::Current();
    auto& caller = callers[pid];
    if (!caller) {
        caller = std::make_shared<InProcessCaller>();
        caller->identity.id = ++lastId;
        caller->identity.pid = pid;
        caller->identity.uid = ::getuid();
        caller->identity.startTime = 1;
        std::string_view(InProcessPlatform::TaskName)
            .copy(caller->identity.program, sizeof caller->identity.program - 1);
    }
    ++caller->connections;
    return caller;
}

void InProcessCallers::Leave(InProcessCaller& caller) {
    KnIRequestObserver* learns = nullptr;
    std::shared_ptr<InProcessCaller> gone;
    {
        const std::lock_guard lock(mutex);
        if (--caller.connections != 0) {
            return;
        }
        caller.isGone = true;
        learns = observer;
        const auto place = callers.find(caller.identity.pid);
        gone = std::move(place->second);
        callers.erase(place);
    }
    if (learns != nullptr) {
        learns->OnCallerGone(gone->identity);
    }
}

bool InProcessCallers::IsGone(const InProcessCaller& caller) {
    const std::lock_guard lock(mutex);
    return caller.isGone;
}

void InProcessCallers::SetObserver(KnIRequestObserver* newObserver, std::uint16_t interface) {
    const std::lock_guard lock(mutex);
    observer = newObserver;
    iid = interface;
}

KnIRequestObserver* InProcessCallers::ObserverOf(const nk_message& request) {
    const std::lock_guard lock(mutex);
    return request.iid == iid ? observer : nullptr;
}

ActingAs::ActingAs(std::int32_t pid) : before(actingAs) {
    actingAs = pid;
}

ActingAs::~ActingAs() {
    actingAs = before;
}

std::int32_t ActingAs::Current() {
    return actingAs != 0 ? actingAs : ::getpid();
}

} // namespace test_support
