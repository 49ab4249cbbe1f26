#pragma once

#include "adapter.h"
#include "kn/connection_manager.h"
#include "kn/handle.h"
#include "kn/status.h"
#include "nk/message.h"
#include "nk/transport.h"
#include "ns/name_server.h"
#include "service_locator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace platform_test {

/// How long anything may take before it counts as hung. No test depends on how fast things are.
inline constexpr std::chrono::seconds Patience{60};
inline constexpr std::uint32_t PatienceMs = 60000;

[[noreturn]] inline void GiveUp(const char* what) {
    std::fprintf(stderr, "hung: %s\n", what);
    std::abort();
}

inline std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator listing("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(listing), end(listing)));
}

/// Repeats `condition` until it holds.
template <typename Condition>
void Await(const char* what, const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + Patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            GiveUp(what);
        }
        std::this_thread::yield();
    }
}

/// A step that runs on a thread of its own.
template <typename Result>
class Background final {
public:
    explicit Background(std::function<Result()> step)
        : result(done.get_future()), thread([this, step = std::move(step)] {
              threadId.store(::gettid());
              if constexpr (std::is_void_v<Result>) {
                  step();
                  done.set_value();
              } else {
                  done.set_value(step());
              }
          }) {}
    Background(Background&&) = delete;
    ~Background() {
        if (thread.joinable()) {
            Finish();
        }
    }

    /// Waits until the thread sleeps in the kernel.
    void AwaitBlocked() const {
        Await("a thread should block", [this] {
            if (threadId.load() == 0) {
                return false;
            }
            std::ifstream file("/proc/self/task/" + std::to_string(threadId.load()) + "/stat");
            std::string line;
            std::getline(file, line);
            const auto behindName = line.rfind(") ");
            return behindName != std::string::npos && line[behindName + 2] == 'S';
        });
    }

    bool IsDone() const { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

    Result Get() {
        Finish();
        return result.get();
    }

private:
    void Finish() {
        if (result.wait_for(Patience) != std::future_status::ready) {
            GiveUp("a step on another thread");
        }
        if (thread.joinable()) {
            thread.join();
        }
    }

    std::promise<Result> done;
    std::future<Result> result;
    std::atomic<pid_t> threadId{0};
    std::thread thread;
};

template <typename Step>
Background(Step) -> Background<std::invoke_result_t<Step>>;

struct Record {
    nk_message header{};
    std::array<std::byte, NkRecordSize - sizeof(nk_message)> body{};

    std::int64_t Value() const {
        std::int64_t value = 0;
        std::memcpy(&value, body.data(), sizeof value);
        return value;
    }
    void SetValue(std::int64_t value) { std::memcpy(body.data(), &value, sizeof value); }
};
static_assert(sizeof(Record) == NkRecordSize);

inline Record RequestOf(std::int64_t value, std::uint16_t iid = 0, std::uint16_t mid = 0) {
    Record record;
    record.header.iid = iid;
    record.header.mid = mid;
    NkSetSize(record.header, NkRecordSize);
    record.SetValue(value);
    return record;
}

/// One end of a channel, closed with the object.
class Handle final {
public:
    explicit Handle(KnHandle opened) : number(opened) {}
    Handle(Handle&& other) noexcept : number(std::exchange(other.number, KnInvalidHandle)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~Handle() { static_cast<void>(Close()); }

    KnHandle Get() const { return number; }
    std::int32_t Close() {
        return number == KnInvalidHandle ? std::int32_t{KnStatusInvalidArgument}
                                         : KnHandleClose(std::exchange(number, KnInvalidHandle));
    }

private:
    KnHandle number;
};

inline NkBosTransport TransportOf(KnHandle handle) {
    NkBosTransport transport{};
    EXPECT_EQ(KnStatusOk, NkBosTransport_Init(&transport, handle, nullptr, 0));
    return transport;
}

inline std::int32_t Receive(KnHandle handle, Record& request) {
    NkBosTransport transport = TransportOf(handle);
    NkSetSize(request.header, NkRecordSize);
    return NkBosTransport_Receive(&transport, &request.header, nullptr);
}

inline std::int32_t Reply(KnHandle handle, const Record& response) {
    NkBosTransport transport = TransportOf(handle);
    return NkBosTransport_Reply(&transport, &response.header, nullptr);
}

inline std::int32_t Call(KnHandle handle, const Record& request, Record& response) {
    NkBosTransport transport = TransportOf(handle);
    return NkBosTransport_Call(&transport, &request.header, nullptr, &response.header, nullptr);
}

/// Calls with `value`. Returns: the status, with the value that came back in `*returned`.
inline std::int32_t CallWith(KnHandle handle, std::int64_t value, std::int64_t* returned = nullptr) {
    Record response;
    const auto status = Call(handle, RequestOf(value), response);
    if (returned != nullptr) {
        *returned = response.Value();
    }
    return status;
}

/// Answers a request with its own value plus one.
inline std::int32_t Echo(KnHandle handle, const Record& request) {
    Record response = request;
    response.SetValue(request.Value() + 1);
    return Reply(handle, response);
}

/// Threads that answer every request of a channel. The channel closes with them.
class Echoers final {
public:
    explicit Echoers(KnHandle served, std::size_t count = 1) : channel(served) {
        for (std::size_t i = 0; i < count; ++i) {
            threads.push_back(std::make_unique<Background<std::int32_t>>([this]() -> std::int32_t {
                Record request;
                std::int32_t status = KnStatusOk;
                while ((status = Receive(channel, request)) == KnStatusOk) {
                    ++requests;
                    static_cast<void>(Echo(channel, request));
                }
                return status;
            }));
        }
    }

    ~Echoers() { static_cast<void>(KnHandleClose(channel)); }

    int Served() const { return requests; }

private:
    const KnHandle channel;
    std::atomic<int> requests{0};
    std::vector<std::unique_ptr<Background<std::int32_t>>> threads;
};

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { BeginTest(); }
    void TearDown() override {
        KnHandleCloseServerEnds();
        EndTest();
    }
};

/// The server end of a static connection.
inline Handle RegisterStatic(const char* name = "line") {
    std::uint32_t iid = 7;
    const KnHandle handle = ServiceLocatorRegister(name, nullptr, 0, &iid);
    EXPECT_NE(KnInvalidHandle, handle);
    EXPECT_EQ(0u, iid);
    return Handle(handle);
}

inline Handle ConnectStatic(const char* name = "line") {
    KnHandle handle = KnInvalidHandle;
    EXPECT_EQ(KnStatusOk, ServiceLocatorConnect(name, PatienceMs, &handle));
    return Handle(handle);
}

inline NsHandle NameServer() {
    NsHandle nameServer = 0;
    EXPECT_EQ(KnStatusOk, NsCreate(nullptr, 0xFFFFFFFF, &nameServer));
    return nameServer;
}

inline std::int32_t Publish(const char* service, const char* type = "test.Type") {
    return NsPublishService(NameServer(), type, "tester", service);
}

/// A request for a connection, as KnCmListen returns it.
struct Request {
    std::int32_t status = KnStatusOk;
    std::string client;
    std::string service;
};

inline Request Listen(std::uint32_t timeoutMs = PatienceMs, const char* filter = nullptr) {
    std::array<char, KnCmNameSize> client{};
    std::array<char, KnCmNameSize> service{};
    const auto status = KnCmListen(filter, timeoutMs, client.data(), service.data());
    return {status, client.data(), service.data()};
}

/// A client that asks for a service on a thread of its own.
struct Asking {
    explicit Asking(const char* service, std::uint32_t timeoutMs = PatienceMs)
        : status([this, service, timeoutMs] { return KnCmConnect(service, timeoutMs, &handle); }) {}
    ~Asking() {
        if (status.Get() == KnStatusOk) {
            KnHandleClose(handle);
        }
    }

    KnHandle handle = KnInvalidHandle;

    struct Status {
        explicit Status(std::function<std::int32_t()> step) : background(std::move(step)) {}
        std::int32_t Get() {
            if (!value) {
                value = background.Get();
            }
            return *value;
        }
        Background<std::int32_t> background;
        std::optional<std::int32_t> value;
    } status;
};

/// Joins one client of `service` to `channel`, or to a new one.
struct Joined {
    Handle client{KnInvalidHandle};
    KnHandle channel = KnInvalidHandle;
};

inline Joined Join(const char* service, std::uint32_t iid = 0, KnHandle channel = KnInvalidHandle) {
    Asking asking(service);
    Joined joined;
    std::int32_t status = KnStatusPeerGone;
    while (status == KnStatusPeerGone) { // an earlier client may have given up: that costs one accept
        const Request request = Listen();
        EXPECT_EQ(KnStatusOk, request.status);
        status = KnCmAccept(request.client.c_str(), request.service.c_str(), iid, channel, &joined.channel);
    }
    EXPECT_EQ(KnStatusOk, status);
    EXPECT_EQ(KnStatusOk, asking.status.Get());
    joined.client = Handle(asking.handle);
    asking.status.value = KnStatusClosed; // the handle has another owner now
    return joined;
}

} // namespace platform_test
