#include "failure.h"

#include "br_MessageBus.h"
#include "kn/status.h"

#include <pthread.h>

#include <atomic>
#include <stdexcept>

namespace msgbus {

namespace {

constexpr std::size_t LongestText = sizeof(br_MessageBusCtl_RegisterPublisher_req::topic) - 1; // its NUL travels too

std::atomic<unsigned> forks{0};

// Not at the first use: a thread that is in the middle of that when another one forks would block the child for good.
[[maybe_unused]] const int CountsForks =
    ::pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

} // namespace

void ThrowUnlessOk(std::int32_t status, const std::string& sentence) {
    if (status == 0) {
        return;
    }
    if (status > 0) {
        throw RefusedError(status, sentence.empty() ? DescribeResult(status) : sentence);
    }
    if (status == KnStatusClosed) {
        throw ServerGoneError(status, "the message bus server is gone");
    }
    throw PlatformError(status, std::string("the request to the message bus failed: ") + KnStatusText(status));
}

void ThrowIfTimedOut(std::int32_t status, const std::string& limit, const std::string& unknown,
                     const std::string& unsent) {
    if (status == KnStatusTimedOut) {
        throw TimedOutError(KnStatusTimedOut,
                            "the message bus server did not answer " + limit + "; whether " + unknown + " is unknown");
    }
    if (status == KnStatusBusy) {
        throw TimedOutError(KnStatusTimedOut, "the message bus server did not answer an earlier request " + limit +
                                                  "; " + unsent + " was not sent");
    }
}

void ThrowIfTimedOut(std::int32_t status, std::chrono::milliseconds timeout, const std::string& unknown,
                     const std::string& unsent) {
    ThrowIfTimedOut(status, "within " + std::to_string(timeout.count()) + " ms", unknown, unsent);
}

void CheckText(const std::string& text, const char* what) {
    if (text.empty()) {
        throw std::invalid_argument(std::string("the ") + what + " is empty");
    }
    if (text.size() > LongestText) {
        throw std::invalid_argument(std::string("the ") + what + " has " + std::to_string(text.size()) +
                                    " bytes; at most " + std::to_string(LongestText) + " can be sent");
    }
    if (text.find('\0') != std::string::npos) {
        throw std::invalid_argument(std::string("the ") + what + " contains a NUL byte");
    }
}

void CheckProcess(unsigned forksThen) {
    if (ForkCount() != forksThen) {
        throw ServerGoneError(KnStatusClosed,
                              "this publisher or subscriber belongs to the process that forked this one");
    }
}

unsigned ForkCount() noexcept {
    return forks.load(std::memory_order_relaxed);
}

} // namespace msgbus
