// ZeroMQ over unix sockets. It has no broker, so the verb `serve` runs the usual proxy process: publishers are REQ
// sockets on its ROUTER, subscribers are SUB sockets on its XPUB, one thread moves the values. Acknowledgement: the
// proxy's reply, sent when the XPUB socket has the value, that is, when it is in the queue of every subscriber.

#include "driver.h"
#include "options.h"

#include <zmq.hpp>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace bench {
namespace {

constexpr const char* ReceiptPrefix = "receipt.";

std::string PublisherEnd(const std::string& directory) {
    return "ipc://" + directory + "/in";
}
std::string SubscriberEnd(const std::string& directory) {
    return "ipc://" + directory + "/out";
}

/// The topic frame in front of a value. Its last character keeps any topic from being a prefix of another one.
std::string TopicFrame(int topic) {
    return TopicName(topic) + ".";
}

template <typename Work>
auto Translated(Work work) {
    try {
        return work();
    } catch (const zmq::error_t& error) {
        throw DriverError(std::string("zeromq: ") + error.what());
    }
}

zmq::socket_t Socket(zmq::context_t& context, zmq::socket_type type) {
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::sndhwm, 0);
    socket.set(zmq::sockopt::rcvhwm, 0);
    socket.set(zmq::sockopt::linger, 0);
    return socket;
}

zmq::message_t Received(zmq::socket_t& socket) {
    zmq::message_t message;
    if (!socket.recv(message)) {
        throw DriverError("zeromq: receive returned nothing");
    }
    return message;
}

class ZeromqPublisher final : public IPublisher {
public:
    ZeromqPublisher(zmq::context_t& context, const std::string& directory, int topicNumber)
        : topic(TopicFrame(topicNumber)), socket(Socket(context, zmq::socket_type::req)) {
        socket.connect(PublisherEnd(directory));
    }

    bool Publish(std::int64_t value) override {
        return Translated([&] {
            socket.send(zmq::buffer(topic), zmq::send_flags::sndmore);
            socket.send(zmq::buffer(&value, sizeof(value)));
            Received(socket);
            return true;
        });
    }

private:
    const std::string topic;
    zmq::socket_t socket;
};

class ZeromqSubscriber final : public ISubscriber {
public:
    ZeromqSubscriber(zmq::context_t& context, const std::string& directory, int topics, int number)
        : socket(Socket(context, zmq::socket_type::sub)) {
        socket.connect(SubscriberEnd(directory));
        for (int i = 0; i < topics; ++i) {
            socket.set(zmq::sockopt::subscribe, TopicFrame(i));
        }
        // Subscriptions are not acknowledged. The proxy answers a subscription to a receipt with a message of that
        // name, and the subscriptions of a connection arrive in order.
        const std::string receipt = ReceiptPrefix + std::to_string(number) + ".";
        socket.set(zmq::sockopt::subscribe, receipt);
        Received(socket);
        socket.set(zmq::sockopt::unsubscribe, receipt);
    }

    std::int64_t Next() override {
        return Translated([&] {
            Received(socket);
            const auto message = Received(socket);
            std::int64_t value = 0;
            if (message.size() != sizeof(value)) {
                throw DriverError("zeromq: unexpected message");
            }
            std::memcpy(&value, message.data(), sizeof(value));
            return value;
        });
    }

private:
    zmq::socket_t socket;
};

class ZeromqDriver final : public IDriver {
public:
    explicit ZeromqDriver(const std::string& socketDirectory) : directory(socketDirectory) {
        context.set(zmq::ctxopt::max_sockets, 4096);
    }

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return Translated([&] { return std::make_unique<ZeromqPublisher>(context, directory, topic); });
    }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        return Translated(
            [&] { return std::make_unique<ZeromqSubscriber>(context, directory, topics, subscribers++); });
    }

private:
    const std::string directory;
    zmq::context_t context;
    int subscribers = 0;
};

void ForwardValue(zmq::socket_t& publishers, zmq::socket_t& subscribers) {
    std::array<zmq::message_t, 4> frames; // routing id, delimiter, topic, value
    for (auto& frame : frames) {
        frame = Received(publishers);
    }
    subscribers.send(frames[2], zmq::send_flags::sndmore);
    subscribers.send(frames[3], zmq::send_flags::none);
    publishers.send(frames[0], zmq::send_flags::sndmore);
    publishers.send(frames[1], zmq::send_flags::sndmore);
    publishers.send(zmq::message_t(), zmq::send_flags::none);
}

void AnswerReceipt(zmq::socket_t& subscribers) {
    const auto request = Received(subscribers).to_string();
    constexpr char subscribe = 1;
    if (!request.empty() && request.front() == subscribe && request.find(ReceiptPrefix) == 1) {
        subscribers.send(zmq::buffer(request.data() + 1, request.size() - 1));
    }
}

int Serve(const std::string& directory) {
    zmq::context_t context;
    auto publishers = Socket(context, zmq::socket_type::router);
    auto subscribers = Socket(context, zmq::socket_type::xpub);
    subscribers.bind(SubscriberEnd(directory));
    publishers.bind(PublisherEnd(directory));
    std::array<zmq::pollitem_t, 2> items{
        {{publishers.handle(), 0, ZMQ_POLLIN, 0}, {subscribers.handle(), 0, ZMQ_POLLIN, 0}}};
    for (;;) {
        zmq::poll(items.data(), items.size(), std::chrono::milliseconds(-1));
        if ((items[1].revents & ZMQ_POLLIN) != 0) {
            AnswerReceipt(subscribers);
        }
        if ((items[0].revents & ZMQ_POLLIN) != 0) {
            ForwardValue(publishers, subscribers);
        }
    }
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    try {
        const bench::Options options(argc, argv);
        if (options.Verb() == "serve") {
            return bench::Serve(options.Text("address", "."));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
        return 1;
    }
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::ZeromqDriver>(address); }, argc,
                            argv);
}
