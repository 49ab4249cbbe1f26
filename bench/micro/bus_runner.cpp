#include "bus_runner.h"

#include <set>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

using cor::ResultCode;

class BodyConnector final : public message_bus::IConnector {
public:
    explicit BodyConnector(std::function<void()> serverBody) : body(std::move(serverBody)) {}

    ResultCode RunServer() override {
        body();
        done = true;
        return ResultCode::Success;
    }
    ResultCode SwitchActiveIpcServer() override { return ResultCode::Success; }
    bool ShouldBeStopped() override { return done; }

private:
    const std::function<void()> body;
    bool done = false;
};

void Check(ResultCode code, const char* what) {
    if (code != ResultCode::Success) {
        throw std::runtime_error(std::string(what) + " failed");
    }
}

} // namespace

BusRunner::BusRunner() : bus(std::make_shared<message_bus::MessageBus>()) {
    rescuer = Publisher("rescue");
}

void BusRunner::Run(const std::function<void(BusRunner&)>& body) {
    BusRunner runner;
    runner.bus->Run(std::make_shared<BodyConnector>([&] { body(runner); }));
}

long BusRunner::Publisher(const std::string& topic) {
    long id = -1;
    Check(bus->RegisterPublisher(topic, id), "RegisterPublisher");
    return id;
}

long BusRunner::Subscriber(const std::string& topic) {
    long id = -1;
    Check(bus->RegisterSubscriber("bench", std::set<std::string>{topic}, id), "RegisterSubscriber");
    return id;
}

void BusRunner::Push(long publisher, long count) {
    for (long value = 0; value < count; ++value) {
        Check(bus->Push(publisher, value), "Push");
    }
}

void BusRunner::Take(long subscriber, long count) {
    const auto record = bus->GetSubscriberPtrById(subscriber);
    std::shared_ptr<message_bus::Message> message;
    while (count > 0) {
        if (record->queue.Pop(message, static_cast<unsigned>(StuckAfter.count()))) {
            --count;
        } else {
            Rescue();
        }
    }
}

void BusRunner::Rescue() {
    ++rescues;
    Push(rescuer, 1);
}

} // namespace bench
