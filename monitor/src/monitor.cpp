#include "monitor.h"

#include "answers.h"
#include "connection.h"
#include "listener.h"
#include "listening_socket.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace msgbus_monitor {

namespace asio = boost::asio;

namespace {

/// The calling thread goes behind those of the bus, whatever these were started with.
void YieldToTheBus() {
    constexpr int distance = 10;
    constexpr int lowest = 19;
    const sched_param none{};
    ::sched_setscheduler(0, SCHED_BATCH, &none); // of a real-time thread the next one would change nothing
    const auto self = static_cast<id_t>(::gettid());
    ::setpriority(PRIO_PROCESS, self, std::min(::getpriority(PRIO_PROCESS, self) + distance, lowest));
}

/// Returns: so many connections, or fewer where the process may have few descriptors, of which the bus needs most.
std::size_t WithinDescriptors(std::size_t most) {
    constexpr std::size_t share = 16;
    constexpr std::size_t least = 4;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return std::min(most, std::max<std::size_t>(limit.rlim_cur / share, least));
}

} // namespace

class Monitor::Server final {
public:
    Server(IMonitored& monitored, MonitorOptions settings)
        : options(std::move(settings)),
          answers(monitored, options.limits), service{monitored, options, worker, answers} {
        ListenOnPath();
        ListenOnAddress();
        StartThreads();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() { Stop(); }

    bool HasUnixSocket() const noexcept { return unixListener != nullptr; }
    const std::optional<LoopbackAddress>& Address() const noexcept { return address; }

private:
    void ListenOnPath();
    void ListenOnAddress();
    void StartThreads();
    void Run(asio::io_context& context, const char* name);
    void Warn(const std::exception& error) const noexcept;
    void Stop();

    const MonitorOptions options;
    asio::io_context connections{1};
    asio::io_context worker{1};
    asio::executor_work_guard<asio::io_context::executor_type> connectionsStay{connections.get_executor()};
    asio::executor_work_guard<asio::io_context::executor_type> workerStays{worker.get_executor()};
    Answers answers;
    Service service;
    std::unique_ptr<Listener> unixListener;
    std::unique_ptr<Listener> tcpListener;
    std::optional<LoopbackAddress> address;
    std::thread connectionsThread;
    std::thread workerThread;
};

void Monitor::Server::ListenOnPath() {
    if (!options.socketPath) {
        return;
    }
    try {
        unixListener = std::make_unique<Listener>(connections, ListeningSocket::OnPath(*options.socketPath),
                                                  WithinDescriptors(options.limits.unixConnections), service);
    } catch (const std::system_error& error) {
        options.warn(std::string("The account is not served on a Unix socket: ") + error.what());
    }
}

void Monitor::Server::ListenOnAddress() {
    if (!options.address) {
        return;
    }
    if (options.token.empty()) {
        throw MonitorError("there is no token for " + options.address->ToText());
    }
    try {
        auto socket = ListeningSocket::OnAddress(*options.address);
        address = options.address;
        address->port = PortOf(socket.Descriptor());
        tcpListener = std::make_unique<Listener>(connections, std::move(socket),
                                                 WithinDescriptors(options.limits.tcpConnections), service);
    } catch (const std::system_error& error) {
        throw MonitorError(std::string("the account cannot be served on ") + error.what());
    }
}

void Monitor::Server::StartThreads() {
    for (const auto& listener : {unixListener.get(), tcpListener.get()}) {
        if (listener != nullptr) {
            listener->Start();
        }
    }
    try {
        connectionsThread = std::thread([this] { Run(connections, "monitor-1"); });
        workerThread = std::thread([this] { Run(worker, "monitor-2"); });
    } catch (const std::system_error&) {
        Stop();
        throw;
    }
}

void Monitor::Server::Run(asio::io_context& context, const char* name) {
    ::pthread_setname_np(::pthread_self(), name);
    YieldToTheBus();
    options.onThreadStart();
    for (bool isOver = false; !isOver;) {
        try {
            context.run();
            isOver = true;
        } catch (const std::exception& error) {
            Warn(error);
        }
    }
}

void Monitor::Server::Warn(const std::exception& error) const noexcept {
    try {
        options.warn(std::string("A request to the monitor failed: ") + error.what());
    } catch (...) {
        // There is not even memory for the sentence.
    }
}

void Monitor::Server::Stop() {
    worker.stop();
    if (workerThread.joinable()) {
        workerThread.join();
    }
    const auto forEach = [this](auto&& action) {
        for (const auto& listener : {unixListener.get(), tcpListener.get()}) {
            if (listener != nullptr) {
                action(*listener);
            }
        }
    };
    const auto finish = [&] {
        try {
            forEach([](Listener& listener) { listener.Flush(); });
        } catch (const std::exception& error) {
            Warn(error); // the streams that are left end without what they lack
        }
        connections.stop();
    };
    // Behind what that thread itself has put off: a stream whose last part has gone out can be sent the next.
    asio::post(connections, [&] { asio::post(connections, finish); });
    if (connectionsThread.joinable()) {
        connectionsThread.join();
    }
    forEach([](Listener& listener) { listener.CloseAll(); });
}

Monitor::Monitor(IMonitored& monitored, MonitorOptions options)
    : server(std::make_unique<Server>(monitored, std::move(options))) {}

Monitor::~Monitor() = default;

bool Monitor::HasUnixSocket() const noexcept {
    return server->HasUnixSocket();
}

std::optional<LoopbackAddress> Monitor::Address() const {
    return server->Address();
}

} // namespace msgbus_monitor
