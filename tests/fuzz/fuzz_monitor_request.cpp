// What a client of the monitor may send: any bytes, in any pieces. Each request that is complete is answered once and
// in order, with the status that it deserves, in the form that the documentation promises; what follows an answer that
// closes the connection is not. Nothing is served beyond a limit, and over TCP nothing without the token.
//
// Input: a byte of flags: 1 over TCP, 2 other connections wait for room, 4 the bus is ill, 8 the account cannot be
// read, 16 and 32 the outcome of a description, 64 the client keeps its sending side open, 128 it leaves without
// reading; a byte: in so many pieces (modulo 32) less one the rest is sent; the rest.

#include "fuzzing.h"
#include "monitor/fake_monitored.h"
#include "monitor_model.h"
#include "monitor_reply.h"

#include <boost/asio/io_context.hpp>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace {

namespace asio = boost::asio;

using fuzzing::Input;
using fuzzing::Require;
using monitor_model::Setting;
using msgbus_monitor::Connection;
using msgbus_monitor::Peer;
using namespace std::literals;

constexpr Peer Client{4711, 1000};

class Owner final : public msgbus_monitor::IConnectionOwner {
public:
    explicit Owner(bool isFull) : isCrowded(isFull) {}
    void OnClosed(const Connection&) override { ++closed; }
    bool IsCrowded() const override { return isCrowded; }
    void OnAnswered() override {}

    int closed = 0;

private:
    const bool isCrowded;
};

msgbus_monitor::MonitorOptions OptionsOf() {
    msgbus_monitor::MonitorOptions options;
    options.token = monitor_model::Token;
    options.limits.headerBytes = monitor_model::HeaderBytes;
    options.limits.bodyBytes = monitor_model::BodyBytes;
    options.limits.mostCacheTime = 0ms;
    for (auto* const time : {&options.limits.idleTime, &options.limits.requestTime, &options.limits.answerTime,
                             &options.limits.writeTime, &options.limits.pollTime, &options.limits.keepAliveTime}) {
        *time = 1h; // an input that is run slowly does the same
    }
    return options;
}

/// One connection to a monitor, both ends of it in this thread.
class Session final {
public:
    explicit Session(const Setting& given)
        : setting(given), answers(monitored, options.limits), service{monitored, options, worker, answers},
          owner(setting.isCrowded) {
        monitored.outcome = setting.outcome;
        monitored.failure = setting.isUnreadable ? "there is no account" : "";
        if (setting.isIll) {
            monitored.illness = "it hangs";
        }
        std::array<int, 2> ends{};
        Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "there are sockets");
        client = ends[0];
        ::fcntl(client, F_SETFL, O_NONBLOCK);
        auto peer = setting.isTcp ? std::nullopt : std::optional(Client);
        connection = std::make_shared<Connection>(
            Connection::Socket(connections, asio::generic::stream_protocol(AF_UNIX, 0), ends[1]), peer, service, owner);
        connection->Start();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        Leave();
        Run();
        Require(owner.closed == 1, "a connection without a client is closed, once");
        Require(service.openStreams == 0 && service.pendingWork == 0, "nothing is left of it");
        Require(connection.use_count() == 1, "nothing refers to it");
    }

    void Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t count = ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count > 0) {
                bytes.remove_prefix(static_cast<std::size_t>(count));
            } else if (errno == EPIPE || !Run()) {
                return; // is closed
            }
        }
        Run();
    }

    void EndSending() {
        ::shutdown(client, SHUT_WR);
        Run();
    }

    /// Returns: whether anything has happened.
    bool Run() {
        bool hasRun = false;
        for (bool isBusy = true; isBusy; hasRun |= isBusy) {
            connections.restart();
            worker.restart();
            isBusy = connections.poll() != 0;
            isBusy |= worker.poll() != 0;
            isBusy |= Receive();
        }
        return hasRun;
    }

    void Leave() {
        if (client >= 0) {
            ::close(client);
            client = -1;
        }
    }

    FakeMonitored monitored;
    std::string received;

private:
    bool Receive() {
        std::array<char, 65536> bytes;
        const ssize_t count = client >= 0 && !setting.leavesAtOnce ? ::recv(client, bytes.data(), bytes.size(), 0) : 0;
        if (count > 0) {
            received.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    const Setting setting;
    const msgbus_monitor::MonitorOptions options = OptionsOf();
    asio::io_context connections{1};
    asio::io_context worker{1};
    msgbus_monitor::Answers answers;
    msgbus_monitor::Service service;
    Owner owner;
    std::shared_ptr<Connection> connection;
    int client = -1;
};

void RequirePercents(std::string_view text) {
    std::string encoded;
    for (const char c : text) {
        constexpr std::string_view digits = "0123456789aBcDeF";
        const auto byte = static_cast<unsigned char>(c);
        encoded += {'%', digits[byte >> 4], digits[byte & 15U]};
    }
    Require(msgbus_monitor::DecodePercents(encoded) == std::string(text), "every text can be encoded");
    const auto signs = static_cast<std::size_t>(std::count(text.begin(), text.end(), '%'));
    const auto decoded = msgbus_monitor::DecodePercents(text);
    Require(decoded ? decoded->size() == text.size() - 2 * signs : signs != 0, "three characters become a byte");
    if (const auto number = msgbus_monitor::ReadNumber(text)) {
        const auto digits = text.substr(std::min(text.find_first_not_of('0'), text.size() - 1));
        Require(std::to_string(*number) == digits, "a number is all of its text");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::RestartCallsAfterAlarm();
    Input input(data, size);
    const Setting setting(input.Number<std::uint8_t>());
    const std::size_t pieces = input.Below(32) + 1;
    const std::string text = input.Text(size);
    RequirePercents(text);

    constexpr std::size_t firstRead = 512; // what is longer is read in pieces however it comes
    const monitor_model::Prediction prediction(text, pieces > 1 || text.size() > firstRead, setting);
    Session session(setting);
    for (std::string_view left = text; !left.empty();) {
        const auto piece = left.substr(0, text.size() / pieces + 1);
        left.remove_prefix(piece.size());
        session.Send(piece);
    }
    if (setting.leavesAtOnce) {
        return 0;
    }
    if (!setting.staysOpen) {
        session.EndSending();
    }
    monitor_model::Reply reply(session.received);
    for (const auto& answer : prediction.answers) {
        reply.RequireNext(answer, setting);
    }
    reply.RequireNothingMore();
    Require(session.monitored.described.size() == prediction.descriptions,
            "a description that was accepted is written");
    for (const auto& description : session.monitored.described) {
        Require(description.peer.pid == Client.pid && description.peer.uid == Client.uid, "it is known by whom");
    }
    Require(!setting.isTcp || text.find(monitor_model::Token) != std::string::npos || session.monitored.Reads() == 0,
            "nothing is read without the token");
    return 0;
}
