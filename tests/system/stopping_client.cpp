// A client that goes through a client's life up to a step and then waits to be killed: `stopping_client STEP [TOPIC]`
// prints the name of the step when it has reached it.

#include "br_MessageBus_client.h"
#include "connect.h"
#include "nk/transport.h"

#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using test_support::Connect;

void Expect(std::int32_t status) {
    if (status != 0) {
        throw std::runtime_error("refused: " + std::to_string(status));
    }
}

/// Returns when no step has that name.
void Live(std::string_view last, const std::string& ownTopic) {
    const auto stopAt = [last](std::string_view step) {
        if (step == last) {
            std::cout << step << std::endl;
            while (true) {
                ::pause();
            }
        }
    };
    std::int64_t registration = -1;
    std::int64_t subscriber = -1;
    std::int64_t publisher = -1;
    std::int64_t value = 0;
    std::string topic;

    auto ctl = Connect(br_MessageBusComponent_ctl_service);
    stopAt("connected");
    Expect(br_MessageBusCtl_StartSubs_call(&ctl, "victim", registration));
    stopAt("started");
    Expect(br_MessageBusCtl_Subscribe_call(&ctl, registration, ownTopic));
    stopAt("named-a-topic");
    Expect(br_MessageBusCtl_FinishSubs_call(&ctl, registration, 1, subscriber));
    stopAt("subscribed");
    auto subs = Connect(br_MessageBusComponent_subs_service);
    stopAt("connected-to-wait");
    Expect(br_MessageBusCtl_RegisterPublisher_call(&ctl, ownTopic, publisher));
    stopAt("registered-a-publisher");
    auto provider = Connect(br_MessageBusComponent_provider_service);
    Expect(br_MessageBusProvider_Push_call(&provider, publisher, 1));
    stopAt("pushed");
    Expect(br_MessageBusSubs_Wait_call(&subs, subscriber, topic, value));
    stopAt("received");
    if (last == "waiting") {
        std::cout << last << std::endl;
        Expect(br_MessageBusSubs_Wait_call(&subs, subscriber, topic, value));
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view last = argc > 1 ? argv[1] : "";
    try {
        Live(last, argc > 2 ? argv[2] : "victims");
        std::cerr << "stopping_client: no step is named '" << last << "'\n";
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "stopping_client: " << error.what() << '\n';
        return 1;
    }
}
