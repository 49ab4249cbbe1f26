#include "stream/stream.h"

#include "arguments.h"
#include "end_watch.h"
#include "msgbus/subscriber.h"
#include "stream/broadcast.h"
#include "stream/reception.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <fcntl.h>

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>

namespace stream {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

/// How long clients may take for the last frame.
constexpr std::chrono::milliseconds FarewellTime{250};

/// Between two looks at descriptions, losses and drops.
constexpr std::chrono::seconds ReportInterval{1};

/// Values that are taken from the bus before clients have their turn.
constexpr int ValuesOfTurn = 512;

// Close codes (RFC 6455, 7.4.1).
constexpr std::uint16_t GoingAway = 1001;
constexpr std::uint16_t InternalError = 1011;

tcp::acceptor Listen(asio::io_context& context, std::uint16_t port) {
    tcp::acceptor acceptor(context, tcp::v4());
    ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
    boost::system::error_code error;
    acceptor.set_option(tcp::acceptor::reuse_address(true)); // a connection of the run before is no obstacle
    acceptor.bind({asio::ip::address_v4::loopback(), port}, error);
    if (!error) {
        acceptor.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error == asio::error::address_in_use) {
        throw std::system_error(error.value(), std::system_category(),
                                "port " + std::to_string(port) +
                                    " of 127.0.0.1 is taken (--port N takes another, --port 0 a free one)");
    }
    if (error) {
        throw std::system_error(error.value(), std::system_category(),
                                "cannot listen at port " + std::to_string(port) + " of 127.0.0.1");
    }
    return acceptor;
}

/// Brings what comes from the bus to the clients.
class BusSide final {
public:
    BusSide(asio::io_context& context, msgbus::Subscriber& source, Broadcast& target)
        : subscriber(source), broadcast(target), descriptor(context, source.Descriptor()), reports(context),
          settling(context) {}
    BusSide(const BusSide&) = delete;
    BusSide& operator=(const BusSide&) = delete;
    ~BusSide() { descriptor.release(); } // it is the subscriber's

    void Start() {
        AwaitValues();
        Report();
    }

private:
    void AwaitValues() {
        descriptor.async_wait(asio::posix::descriptor_base::wait_read, [this](const boost::system::error_code& error) {
            if (!error && TakeValues()) {
                AwaitValues();
            }
        });
    }

    /// Returns: false after Cancel.
    bool TakeValues() {
        bool isHeldBack = false;
        auto outcome = msgbus::Outcome::Value;
        for (int count = 0; count < ValuesOfTurn && outcome == msgbus::Outcome::Value; ++count) {
            const auto received = subscriber.TryNext();
            outcome = received.outcome;
            if (received) {
                const auto now = std::chrono::system_clock::now().time_since_epoch();
                const auto nowNs = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
                isHeldBack |= broadcast.Take(received->topic, static_cast<std::uint64_t>(nowNs), received->value);
            }
        }
        if (isHeldBack) {
            Describe();
        }
        return outcome != msgbus::Outcome::Canceled;
    }

    /// Looks at the descriptions, and again later while values are held back.
    void Describe() {
        if (!broadcast.Describe(recordings::DescriptionsOnTheBus()) || isSettling) {
            return;
        }
        isSettling = true;
        settling.expires_after(LiveTopics::Patience);
        settling.async_wait([this](const boost::system::error_code& error) {
            isSettling = false;
            if (!error) {
                Describe();
            }
        });
    }

    void Report() {
        Describe();
        broadcast.ReportDropped();
        if (const auto lost = subscriber.Lost().values; lost > lostReported) {
            const std::string sentence = "lost " + std::to_string(lost - lostReported) +
                                         " values, which the server dropped because they were not read in time";
            lostReported = lost;
            Say(sentence);
            broadcast.Report(Level::Warning, "msgbus stream " + sentence);
        }
        reports.expires_after(ReportInterval);
        reports.async_wait([this](const boost::system::error_code& error) {
            if (!error) {
                Report();
            }
        });
    }

    msgbus::Subscriber& subscriber;
    Broadcast& broadcast;
    asio::posix::stream_descriptor descriptor;
    asio::steady_timer reports;
    asio::steady_timer settling;
    std::uint64_t lostReported = 0;
    bool isSettling = false;
};

/// Says the address where the user looks for it; also with --quiet when it cannot be known otherwise.
void Announce(const Arguments& arguments, std::uint16_t port) {
    const std::string sentence = "streaming at ws://127.0.0.1:" + std::to_string(port) + " as '" + arguments.name + "'";
    if (arguments.port == 0) {
        Say(sentence);
    } else {
        Say(arguments.access, sentence);
    }
}

/// Sends the last frames to the clients, and waits a moment for them.
void End(asio::io_context& context, Broadcast& broadcast, std::uint16_t code, const std::string& reason) {
    broadcast.Farewell(code, reason);
    context.restart();
    const auto deadline = Clock::now() + FarewellTime;
    while (!broadcast.Clients().empty() && context.run_one_until(deadline) != 0) {
    }
}

} // namespace

ExitStatus Stream(const Arguments& arguments) {
    for (const auto& topic : arguments.topics) {
        WarnAboutCutTopic(topic);
    }
    // Each must outlive those behind it: coroutines that have not ended live in the context.
    Broadcast broadcast(arguments.topics, AdmissionRules(arguments.origins), arguments.letsAnyUserIn,
                        arguments.access.isQuiet);
    Reception reception(broadcast);
    std::optional<msgbus::Subscriber> subscriber;
    asio::io_context context(1);
    tcp::acceptor acceptor = Listen(context, arguments.port);
    EndWatch watch(std::nullopt, EndWatch::Output::Ignored);

    BusAccess access = arguments.access;
    access.options.onNotice = [say = arguments.access.options.onNotice, &broadcast](msgbus::Notice notice,
                                                                                    const std::string& sentence) {
        say(notice, sentence);
        broadcast.Report(Level::Warning, sentence);
    };
    if (!Connect(access, watch, [&] { subscriber.emplace(arguments.name, arguments.topics, access.options); })) {
        return ExitStatus::Done;
    }
    std::optional<BusSide> busSide(std::in_place, context, *subscriber, broadcast);
    Announce(arguments, acceptor.local_endpoint().port());
    watch.OnEnd([&] {
        context.stop();
        subscriber->Cancel();
    });

    try {
        busSide->Start();
        asio::co_spawn(context, reception.Serve(acceptor), [](const std::exception_ptr& failure) {
            if (failure) {
                std::rethrow_exception(failure);
            }
        });
        context.run();
    } catch (const std::exception& error) {
        busSide.reset();
        broadcast.Report(Level::Error, error.what());
        End(context, broadcast, InternalError, "the bus cannot be received any more");
        throw;
    }
    busSide.reset();
    End(context, broadcast, GoingAway, "msgbus stream ends");
    subscriber->Cancel();
    return ExitStatus::Done;
}

} // namespace stream
