#include "stream/reception.h"

#include "stream/connection.h"
#include "stream/wire/admission.h"
#include "stream/wire/refusal.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/http/write.hpp>

#include <unistd.h>

#include <chrono>
#include <exception>
#include <sstream>
#include <string>
#include <utility>

namespace stream {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

/// How long to wait when no connection can be accepted, for lack of descriptors.
constexpr std::chrono::milliseconds AcceptPause{200};

/// Answers without waiting for a request. A client that sends one behind this reads the answer all the same: it comes
/// before the end of the connection.
void RefuseAtOnce(tcp::socket& socket, const std::string& reason) {
    std::ostringstream text;
    text << RefusalOf({boost::beast::http::status::forbidden, reason, {}});
    boost::system::error_code ignored;
    socket.non_blocking(true, ignored);
    socket.write_some(asio::buffer(text.str()), ignored);
    socket.shutdown(tcp::socket::shutdown_send, ignored);
}

} // namespace

asio::awaitable<void> Reception::Serve(tcp::acceptor& acceptor) {
    PeerOwners owners(acceptor);
    asio::steady_timer pause(acceptor.get_executor());
    while (true) {
        boost::system::error_code error;
        tcp::socket socket = co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            pause.expires_after(AcceptPause);
            co_await pause.async_wait(asio::use_awaitable);
        } else {
            Take(std::move(socket), owners);
        }
    }
}

void Reception::Take(tcp::socket socket, PeerOwners& owners) {
    if ((!broadcast.LetsAnyUserIn() && !Admits(socket, owners)) || !MakeRoom()) {
        return;
    }
    const auto executor = socket.get_executor();
    const auto outbox = std::make_shared<Outbox>(std::move(socket));
    const auto number = ++lastNumber;
    newcomers.emplace(number, outbox);
    const auto leave = [this, number] { newcomers.erase(number); };
    asio::co_spawn(executor, ServeClient(outbox, broadcast, leave), [leave](const std::exception_ptr&) { leave(); });
}

bool Reception::Admits(tcp::socket& socket, PeerOwners& owners) {
    const PeerOwner owner = owners.Of(socket);
    if (owner.state == PeerOwner::State::Left) {
        return false;
    }
    const bool isKnown = owner.state == PeerOwner::State::Known;
    if (isKnown && (owner.user == ::geteuid() || owner.user == 0)) {
        return true;
    }
    const std::string reason = (isKnown ? "user " + std::to_string(owner.user) + " may not connect"
                                        : "it cannot be seen which user connects") +
                               "; --any-user of msgbus stream lets all users of this machine in";
    broadcast.ReportRefusal(reason);
    RefuseAtOnce(socket, reason);
    return false;
}

bool Reception::MakeRoom() {
    if (newcomers.size() + broadcast.Clients().size() < MostConnections) {
        return true;
    }
    if (newcomers.empty()) {
        return false;
    }
    broadcast.ReportRefusal("it did not get through its handshake before " + std::to_string(newcomers.size()) +
                            " others came");
    if (const auto oldest = newcomers.begin()->second.lock()) {
        oldest->Close();
    }
    newcomers.erase(newcomers.begin());
    return true;
}

} // namespace stream
