#include "dashboard/dashboard.h"

#include "arguments.h"
#include "dashboard/browser.h"
#include "dashboard/gate.h"
#include "dashboard/session.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <fcntl.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

/// A browser has at most six for each tab, and one that finds no room asks again.
constexpr std::size_t MostConnections = 64;

/// How long to wait when no connection can be accepted, for lack of descriptors.
constexpr std::chrono::milliseconds AcceptPause{200};

tcp::acceptor Listen(asio::io_context& context, std::uint16_t port) {
    tcp::acceptor acceptor(context, tcp::v4());
    ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC); // the browser must not keep the port
    boost::system::error_code error;
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind({asio::ip::address_v4::loopback(), port}, error);
    if (!error) {
        acceptor.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error) {
        throw std::system_error(error.value(), std::system_category(),
                                "cannot listen at port " + std::to_string(port) + " of 127.0.0.1");
    }
    return acceptor;
}

asio::awaitable<void> ServeConnections(tcp::acceptor& acceptor, dashboard::Gate& gate) {
    std::size_t connections = 0;
    asio::steady_timer pause(acceptor.get_executor());
    while (true) {
        boost::system::error_code error;
        tcp::socket socket = co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            pause.expires_after(AcceptPause);
            co_await pause.async_wait(asio::use_awaitable);
        } else if (connections < MostConnections) { // beyond that, it is closed
            ++connections;
            asio::co_spawn(acceptor.get_executor(), dashboard::Serve(std::move(socket), gate),
                           [&connections](const std::exception_ptr&) { --connections; });
        }
    }
}

void Announce(const std::string& address, bool opensBrowser) {
    std::cout << address << std::endl;
    Say("the dashboard is at this address until SIGINT; the address lets one browser in, once");
    if (opensBrowser) {
        try {
            dashboard::OpenBrowser(address);
        } catch (const std::system_error& error) {
            Say(std::string(error.what()) + "; open the address by hand");
        }
    }
}

} // namespace

std::uint16_t ParsePort(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument("'" + std::string(text) +
                                    "' is not a port; it must be a number from 1 to 65535, or 0 for a free one");
    }
    return port;
}

ExitStatus ShowDashboard(const DashboardArguments& arguments) {
    asio::io_context context(1);
    tcp::acceptor acceptor = Listen(context, arguments.port);
    const std::uint16_t port = acceptor.local_endpoint().port();
    dashboard::Gate gate(port);
    asio::signal_set signals(context, SIGINT, SIGTERM, SIGHUP);
    signals.async_wait([&context](const boost::system::error_code&, int) { context.stop(); });
    asio::co_spawn(context, ServeConnections(acceptor, gate), [](const std::exception_ptr& failure) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    });

    Announce("http://127.0.0.1:" + std::to_string(port) + gate.EntryTarget(), arguments.opensBrowser);
    context.run();
    return ExitStatus::Done;
}

void AddDashboardCommand(command_line::Command& program, Action& chosen) {
    struct Words {
        DashboardArguments arguments;
        std::optional<std::string> port;
    };
    auto& command = program.AddCommand(
        "dashboard", "Serve a live page about the bus to this user's browser, until SIGINT.", "Commands");
    const auto words = std::make_shared<Words>();
    command.add_option("--port", words->port, "port of 127.0.0.1 (default: a free one)")->type_name("PORT");
    command.add_flag("--open", words->arguments.opensBrowser, "open the page in the browser, with xdg-open");
    command.notes.environment = {{"BORVEN_RUNTIME_DIR",
                                  "directory of the server's monitor.sock; if unset, "
                                  "$XDG_RUNTIME_DIR/borven, else a directory of the user's own in "
                                  "/tmp"}};
    command.notes.exitStatuses = Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage});
    command.notes.examples = {{"msgbus dashboard --open", "See the bus in the browser"}};
    command.callback([&chosen, words] {
        chosen = [words] {
            words->arguments.port = words->port ? ParsePort(*words->port) : words->arguments.port;
            return ShowDashboard(words->arguments);
        };
    });
}
