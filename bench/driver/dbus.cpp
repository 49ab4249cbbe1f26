// D-Bus through sd-bus to a private dbus-daemon over a unix socket. A value is a signal, which has no reply.
// Acknowledgement: the daemon's own reply to a Ping sent after the signal. The daemon handles the messages of a
// connection in order, so the reply means that the signal is in the queue of every subscriber.

#include "driver.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <deque>

namespace bench {
namespace {

constexpr const char* ObjectPath = "/bench";
constexpr const char* InterfaceName = "borven.bench.Values";

int Check(int code, const char* what) {
    if (code < 0) {
        throw DriverError(std::string("dbus: ") + what + ": " + std::strerror(-code));
    }
    return code;
}

struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Connection = std::unique_ptr<sd_bus, Close>;

Connection Connect(const std::string& address) {
    sd_bus* raw = nullptr;
    Check(sd_bus_new(&raw), "new");
    Connection bus(raw);
    Check(sd_bus_set_address(raw, address.c_str()), "address");
    Check(sd_bus_set_bus_client(raw, 1), "client");
    Check(sd_bus_start(raw), "cannot connect");
    return bus;
}

/// Member names have no dots.
std::string MemberName(int topic) {
    return std::string("T").append(std::to_string(topic));
}

class DbusPublisher final : public IPublisher {
public:
    DbusPublisher(const std::string& address, int topic) : member(MemberName(topic)), bus(Connect(address)) {}

    bool Publish(std::int64_t value) override {
        Check(sd_bus_emit_signal(bus.get(), ObjectPath, InterfaceName, member.c_str(), "x", value), "emit");
        Check(sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, ""),
              "ping");
        return true;
    }

private:
    const std::string member;
    const Connection bus;
};

class DbusSubscriber final : public ISubscriber {
public:
    DbusSubscriber(const std::string& address, int topics) : bus(Connect(address)) {
        for (int i = 0; i < topics; ++i) {
            Check(sd_bus_match_signal(bus.get(), nullptr, nullptr, ObjectPath, InterfaceName, MemberName(i).c_str(),
                                      &DbusSubscriber::Received, this),
                  "match");
        }
    }
    DbusSubscriber(const DbusSubscriber&) = delete;
    DbusSubscriber& operator=(const DbusSubscriber&) = delete;

    std::int64_t Next() override {
        while (values.empty()) {
            if (Check(sd_bus_process(bus.get(), nullptr), "process") == 0) {
                Check(sd_bus_wait(bus.get(), UINT64_MAX), "wait");
            }
        }
        const auto value = values.front();
        values.pop_front();
        return value;
    }

private:
    static int Received(sd_bus_message* message, void* self, sd_bus_error*) {
        std::int64_t value = 0;
        const int code = sd_bus_message_read(message, "x", &value);
        if (code >= 0) {
            static_cast<DbusSubscriber*>(self)->values.push_back(value);
        }
        return code;
    }

    const Connection bus;
    std::deque<std::int64_t> values;
};

class DbusDriver final : public IDriver {
public:
    explicit DbusDriver(const std::string& busAddress) : address(busAddress) {}

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return std::make_unique<DbusPublisher>(address, topic);
    }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        return std::make_unique<DbusSubscriber>(address, topics);
    }

private:
    const std::string address;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::DbusDriver>(address); }, argc,
                            argv);
}
