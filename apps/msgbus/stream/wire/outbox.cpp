#include "stream/wire/outbox.h"

#include "stream/wire/protocol.h"

#include <boost/asio/write.hpp>

#include <utility>

namespace stream {

namespace asio = boost::asio;

namespace {

/// The kernel would let it grow to megabytes, and a client that is slow would see what was long ago.
constexpr int SocketBufferBytes = 262144;

/// For the client's end of a connection that is through.
constexpr std::chrono::seconds TimeToEnd{1};

/// A backlog that fills a batch is sent without a delay.
constexpr std::size_t ValuesOfBatch = Outbox::BatchBytes / (2 + ValueSize);

} // namespace

Outbox::Outbox(asio::ip::tcp::socket connected)
    : socket(std::move(connected)), delay(socket.get_executor()), sent(socket.get_executor()),
      end(socket.get_executor()) {
    boost::system::error_code ignored; // a connection that has ended already fails with the first operation
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::send_buffer_size(SocketBufferBytes), ignored);
    sent.expires_at(asio::steady_timer::time_point::max());
}

void Outbox::Write(std::string_view bytes) {
    direct += bytes;
    Schedule();
}

void Outbox::Schedule() {
    if (isScheduled || isSending || hasFailed || (direct.empty() && !HasBacklog())) {
        return;
    }
    isScheduled = true;
    delay.expires_after(Delay);
    delay.async_wait([self = shared_from_this()](const boost::system::error_code&) {
        self->isScheduled = false;
        self->Send();
    });
}

void Outbox::Send() {
    if (hasFailed) {
        return;
    }
    batch = std::exchange(direct, {});
    if (!isBacklogStopped) {
        backlog.TakeFrames(batch, BatchBytes);
    }
    if (batch.empty()) {
        return;
    }
    isSending = true;
    asio::async_write(
        socket, asio::buffer(batch),
        [self = shared_from_this()](const boost::system::error_code& error, std::size_t) { self->OnSent(error); });
}

void Outbox::OnSent(const boost::system::error_code& error) {
    isSending = false;
    if (error) {
        Close();
        return;
    }
    sent.cancel();
    if (HasBacklog() && backlog.ValueCount() >= ValuesOfBatch) {
        Send();
    } else {
        Schedule();
    }
}

void Outbox::Close() {
    hasFailed = true;
    boost::system::error_code ignored;
    socket.close(ignored);
    sent.cancel();
    end.cancel();
}

void Outbox::CloseSoon() {
    end.expires_after(TimeToEnd);
    end.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (!error) {
            self->Close();
        }
    });
}

} // namespace stream
