#include "fail_stop.h"

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <string>

namespace msgbus_server {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

namespace {

constinit thread_local bool mayAllocationsFail = false;

iovec Piece(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()}; // writev only reads it
}

void WriteLine(std::string_view reason) noexcept {
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&writable, 1, 0) != 1 || (writable.revents & POLLOUT) == 0) {
        return; // it could block for ever
    }
    const std::array<iovec, 4> line{Piece(program_invocation_short_name), Piece(": "), Piece(reason),
                                    Piece("; ending, so that the server can be started again\n")};
    static_cast<void>(!::writev(STDERR_FILENO, line.data(), line.size()));
}

[[noreturn]] void OnTerminate() noexcept {
    try {
        if (const auto exception = std::current_exception()) {
            std::rethrow_exception(exception);
        }
    } catch (const std::exception& error) {
        std::array<char, 256> reason{"a thread has failed: "};
        std::strncat(reason.data(), error.what(), reason.size() - std::strlen(reason.data()) - 1);
        FailStop(reason.data());
    } catch (...) {
        // There is no text.
    }
    FailStop("a thread has failed");
}

/// Returns: what the line says about the bus; empty: nothing that keeps it from serving.
std::string_view FaultIn(std::string_view function, std::string_view message) {
    if (function == "CreateThread") {
        return "cannot start a thread of the bus";
    }
    if (function == "EventsProcessor") {
        return "the events thread has ended";
    }
    if ((function == "RunDynamicLoop" || function == "RunStaticLoop") && message.starts_with("Error during")) {
        return "a worker of the bus has ended";
    }
    if (function == "operator()" && message.starts_with("operator(): ")) {
        return "a dispatcher of the bus has ended";
    }
    // This worker goes on, but no request reaches it before there is memory again.
    if (function == "RunIpcDispatcher" && message.find("Buffer is null") != message.npos) {
        return "there is no memory for requests";
    }
    return {};
}

} // namespace

void FailStop(std::string_view reason) noexcept {
    static std::atomic_flag isEnding;
    if (isEnding.test_and_set()) {
        while (true) {
            ::pause();
        }
    }
    WriteLine(reason);
    ::_exit(FaultStatus);
}

void FailStopOnFaults() {
    std::set_new_handler([] {
        if (mayAllocationsFail) {
            throw std::bad_alloc();
        }
        FailStop("there is no memory left");
    });
    std::set_terminate(OnTerminate);
    std::signal(SIGXFSZ, SIG_IGN);
}

void LetAllocationsFail() noexcept {
    mayAllocationsFail = true;
}

FaultWatch::FaultWatch(void (*faultAction)(std::string_view reason) noexcept)
    : onFault(faultAction), next(BOSLogger::RootLogger().SetBackEnd(*this)) {}

FaultWatch::~FaultWatch() {
    BOSLogger::RootLogger().SetBackEnd(next);
}

bool FaultWatch::IsEnabled(LogLevel level) const {
    return level == LogLevel::Error || next.IsEnabled(level);
}

void FaultWatch::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    if (next.IsEnabled(level)) {
        next.Write(level, file, line, function, message);
    }
    if (level != LogLevel::Error) {
        return;
    }
    if (const auto fault = FaultIn(function, message); !fault.empty()) {
        onFault(fault);
    }
}

} // namespace msgbus_server
