// iceoryx: values go through shared memory into the queue of every subscriber. RouDi only connects the two sides; no
// broker is in the path. There is no acknowledgement: publish returns when the value is in every queue. A full queue
// (256 values) blocks the publisher, so that nothing is lost.

#include "driver.h"

#include <iceoryx_posh/popo/publisher.hpp>
#include <iceoryx_posh/popo/subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>

#include <unistd.h>

#include <thread>

namespace bench {
namespace {

// All topics share one service, so that a subscriber has one queue to wait on.
iox::capro::ServiceDescription Service() {
    return {"borven", "bench", "values"};
}

iox::popo::PublisherOptions Blocking() {
    iox::popo::PublisherOptions options;
    options.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
    return options;
}

iox::popo::SubscriberOptions Lossless() {
    iox::popo::SubscriberOptions options;
    options.queueCapacity = iox::MAX_SUBSCRIBER_QUEUE_CAPACITY;
    options.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
    return options;
}

class IceoryxPublisher final : public IPublisher {
public:
    IceoryxPublisher() : port(Service(), Blocking()) {}

    bool Publish(std::int64_t value) override {
        port.publishCopyOf(value).or_else([](const auto&) { throw DriverError("iceoryx: out of memory chunks"); });
        return true;
    }

private:
    iox::popo::Publisher<std::int64_t> port;
};

class IceoryxSubscriber final : public ISubscriber {
public:
    IceoryxSubscriber() : port(Service(), Lossless()) {
        waitSet.attachState(port, iox::popo::SubscriberState::HAS_DATA).or_else([](const auto&) {
            throw DriverError("iceoryx: cannot attach to the wait set");
        });
        // RouDi connects the two sides in its next cycle and does not report when.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (port.getSubscriptionState() != iox::SubscribeState::SUBSCRIBED) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw DriverError("iceoryx: not subscribed within 10 s");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    std::int64_t Next() override {
        for (;;) {
            const auto sample = port.take();
            if (!sample.has_error()) {
                return **sample;
            }
            waitSet.wait();
        }
    }

private:
    iox::popo::Subscriber<std::int64_t> port;
    iox::popo::WaitSet<1> waitSet;
};

class IceoryxDriver final : public IDriver {
public:
    IceoryxDriver() {
        const auto name = "bench-" + std::to_string(getpid());
        iox::runtime::PoshRuntime::initRuntime(iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name.c_str()));
    }

    std::unique_ptr<IPublisher> MakePublisher(int) override { return std::make_unique<IceoryxPublisher>(); }
    std::unique_ptr<ISubscriber> MakeSubscriber(int) override { return std::make_unique<IceoryxSubscriber>(); }
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto&) { return std::make_unique<bench::IceoryxDriver>(); }, argc, argv);
}
