// MQTT through libmosquitto over a unix socket, QoS 1 both ways. Acknowledgement: PUBACK. The library's own loop uses
// select, which is limited to descriptors below 1024, too few for 1000 connections. So this driver polls them itself.

#include "driver.h"

#include <mosquitto.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>

namespace bench {
namespace {

constexpr int QualityOfService = 1;

void Check(int code, const char* what) {
    if (code != MOSQ_ERR_SUCCESS) {
        throw DriverError(std::string("mosquitto: ") + what + ": " + mosquitto_strerror(code));
    }
}

/// A connection without a thread of its own: the thread that waits on it does its work.
class Connection final {
public:
    explicit Connection(const std::string& path) : handle(mosquitto_new(nullptr, true, this)) {
        if (!handle) {
            throw DriverError("mosquitto: out of memory");
        }
        mosquitto_connect_callback_set(handle.get(), [](mosquitto*, void* self, int code) {
            static_cast<Connection*>(self)->connected = code == 0;
        });
        mosquitto_publish_callback_set(
            handle.get(), [](mosquitto*, void* self, int id) { static_cast<Connection*>(self)->acknowledgedId = id; });
        mosquitto_subscribe_callback_set(
            handle.get(), [](mosquitto*, void* self, int, int count, const int* qualities) {
                for (int i = 0; i < count; ++i) {
                    static_cast<Connection*>(self)->granted += qualities[i] == QualityOfService ? 1 : 0;
                }
            });
        mosquitto_message_callback_set(handle.get(), [](mosquitto*, void* self, const mosquitto_message* message) {
            std::int64_t value = 0;
            if (message->payloadlen == sizeof(value)) {
                std::memcpy(&value, message->payload, sizeof(value));
                static_cast<Connection*>(self)->values.push_back(value);
            }
        });
        mosquitto_int_option(handle.get(), MOSQ_OPT_RECEIVE_MAXIMUM, 65535);
        constexpr int keepAliveSeconds = 3600;
        Check(mosquitto_connect(handle.get(), path.c_str(), 0, keepAliveSeconds), "cannot connect");
        WaitUntil([this] { return connected; });
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Subscribe(const std::string& topic) {
        const int before = granted;
        Check(mosquitto_subscribe(handle.get(), nullptr, topic.c_str(), QualityOfService), "subscribe");
        WaitUntil([this, before] { return granted > before; });
    }

    void Publish(const std::string& topic, std::int64_t value) {
        int id = 0;
        Check(mosquitto_publish(handle.get(), &id, topic.c_str(), sizeof(value), &value, QualityOfService, false),
              "publish");
        WaitUntil([this, id] { return acknowledgedId == id; });
    }

    std::int64_t Next() {
        WaitUntil([this] { return !values.empty(); });
        const auto value = values.front();
        values.pop_front();
        return value;
    }

private:
    template <typename Condition>
    void WaitUntil(Condition condition) {
        while (!condition()) {
            pollfd ready{mosquitto_socket(handle.get()), POLLIN, 0};
            if (mosquitto_want_write(handle.get())) {
                ready.events |= POLLOUT;
            }
            if (poll(&ready, 1, -1) < 0 && errno != EINTR) {
                throw DriverError(std::string("mosquitto: poll: ") + std::strerror(errno));
            }
            if ((ready.revents & POLLOUT) != 0) {
                Check(mosquitto_loop_write(handle.get(), 1), "write");
            }
            if ((ready.revents & ~POLLOUT) != 0) {
                Check(mosquitto_loop_read(handle.get(), 1), "read");
            }
        }
    }

    struct Destroy {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };
    const std::unique_ptr<mosquitto, Destroy> handle;
    bool connected = false;
    int granted = 0;
    int acknowledgedId = 0;
    std::deque<std::int64_t> values;
};

class MosquittoPublisher final : public IPublisher {
public:
    MosquittoPublisher(const std::string& path, int topicNumber) : topic(TopicName(topicNumber)), connection(path) {}

    bool Publish(std::int64_t value) override {
        connection.Publish(topic, value);
        return true;
    }

private:
    const std::string topic;
    Connection connection;
};

class MosquittoSubscriber final : public ISubscriber {
public:
    MosquittoSubscriber(const std::string& path, int topics) : connection(path) {
        for (int i = 0; i < topics; ++i) {
            connection.Subscribe(TopicName(i));
        }
    }

    std::int64_t Next() override { return connection.Next(); }

private:
    Connection connection;
};

class MosquittoDriver final : public IDriver {
public:
    explicit MosquittoDriver(const std::string& socketPath) : path(socketPath) { mosquitto_lib_init(); }
    ~MosquittoDriver() override { mosquitto_lib_cleanup(); }
    MosquittoDriver(const MosquittoDriver&) = delete;
    MosquittoDriver& operator=(const MosquittoDriver&) = delete;

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return std::make_unique<MosquittoPublisher>(path, topic);
    }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        return std::make_unique<MosquittoSubscriber>(path, topics);
    }

private:
    const std::string path;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::MosquittoDriver>(address); }, argc,
                            argv);
}
