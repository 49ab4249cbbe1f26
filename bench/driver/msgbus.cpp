// This bus through its client library. Acknowledgement: the reply to Push, sent when the value is in the inbound queue.
// The address is the server's runtime directory.

#include "driver.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <cstdlib>
#include <vector>

namespace bench {
namespace {

class MsgbusPublisher final : public IPublisher {
public:
    explicit MsgbusPublisher(int topic) : publisher(TopicName(topic)) {}

    bool Publish(std::int64_t value) override { return publisher.TryPush(value); }

private:
    msgbus::Publisher publisher;
};

class MsgbusSubscriber final : public ISubscriber {
public:
    explicit MsgbusSubscriber(std::vector<std::string> topics) : subscriber("bench", std::move(topics)) {}

    std::int64_t Next() override {
        const auto message = subscriber.Next();
        if (!message) {
            throw DriverError("msgbus: canceled");
        }
        return message->value;
    }

private:
    msgbus::Subscriber subscriber;
};

class MsgbusDriver final : public IDriver {
public:
    explicit MsgbusDriver(const std::string& directory) { setenv("BORVEN_RUNTIME_DIR", directory.c_str(), 1); }

    std::unique_ptr<IPublisher> MakePublisher(int topic) override { return std::make_unique<MsgbusPublisher>(topic); }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        std::vector<std::string> names;
        for (int i = 0; i < topics; ++i) {
            names.push_back(TopicName(i));
        }
        return std::make_unique<MsgbusSubscriber>(std::move(names));
    }
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::MsgbusDriver>(address); }, argc,
                            argv);
}
