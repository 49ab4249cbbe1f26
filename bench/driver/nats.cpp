// NATS through its C client over loopback TCP, the only kind of socket the server has; both ends set TCP_NODELAY by
// themselves. PUB has no reply.
// Acknowledgement: the PONG to a PING sent after the PUB (natsConnection_Flush). The server handles the commands of a
// connection in order, so the PONG means that the value has been routed to every subscriber.

#include "driver.h"

#include <nats/nats.h>

#include <cstring>
#include <limits>

namespace bench {
namespace {

void Check(natsStatus status, const char* what) {
    if (status != NATS_OK) {
        throw DriverError(std::string("nats: ") + what + ": " + natsStatus_GetText(status));
    }
}

struct Destroy {
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
using Connection = std::unique_ptr<natsConnection, Destroy>;

Connection Connect(const std::string& url) {
    natsOptions* rawOptions = nullptr;
    Check(natsOptions_Create(&rawOptions), "options");
    const std::unique_ptr<natsOptions, Destroy> options(rawOptions);
    Check(natsOptions_SetURL(rawOptions, url.c_str()), "url");
    Check(natsOptions_SetAllowReconnect(rawOptions, false), "options");
    // Otherwise a second thread sends, which adds a third to the latency.
    Check(natsOptions_SetSendAsap(rawOptions, true), "options");
    natsConnection* connection = nullptr;
    Check(natsConnection_Connect(&connection, rawOptions), "cannot connect");
    return Connection(connection);
}

class NatsPublisher final : public IPublisher {
public:
    NatsPublisher(const std::string& url, int topicNumber) : topic(TopicName(topicNumber)), connection(Connect(url)) {}

    bool Publish(std::int64_t value) override {
        Check(natsConnection_Publish(connection.get(), topic.c_str(), &value, sizeof(value)), "publish");
        Check(natsConnection_Flush(connection.get()), "flush");
        return true;
    }

private:
    const std::string topic;
    const Connection connection;
};

class NatsSubscriber final : public ISubscriber {
public:
    NatsSubscriber(const std::string& url, int topics) : connection(Connect(url)) {
        // Each subscription object has its own queue, so several topics are one pattern: one queue to wait on.
        const std::string subject = topics == 1 ? TopicName(0) : "bench.*";
        natsSubscription* raw = nullptr;
        Check(natsConnection_SubscribeSync(&raw, connection.get(), subject.c_str()), "subscribe");
        subscription.reset(raw);
        Check(natsSubscription_SetPendingLimits(raw, -1, -1), "pending limits");
        Check(natsConnection_Flush(connection.get()), "flush");
    }

    std::int64_t Next() override {
        natsMsg* raw = nullptr;
        Check(natsSubscription_NextMsg(&raw, subscription.get(), ForEverMs), "next message");
        const std::unique_ptr<natsMsg, Destroy> message(raw);
        std::int64_t value = 0;
        if (natsMsg_GetDataLength(raw) != sizeof(value)) {
            throw DriverError("nats: unexpected message");
        }
        std::memcpy(&value, natsMsg_GetData(raw), sizeof(value));
        return value;
    }

private:
    static constexpr std::int64_t ForEverMs = 3'600'000;

    const Connection connection;
    std::unique_ptr<natsSubscription, Destroy> subscription;
};

class NatsDriver final : public IDriver {
public:
    explicit NatsDriver(const std::string& serverUrl) : url(serverUrl) {}

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return std::make_unique<NatsPublisher>(url, topic);
    }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        return std::make_unique<NatsSubscriber>(url, topics);
    }

private:
    const std::string url;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::NatsDriver>(address); }, argc,
                            argv);
}
