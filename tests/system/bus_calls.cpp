// A client by hand: `bus_calls` makes the calls that it reads from its standard input, one per line, and prints the
// result code of each, and what else came back. It keeps its connections until its input ends: one to each service, or
// `bus_calls N` times as many.
//
//     publisher TOPIC     push PUBLISHER VALUE       unpublish PUBLISHER
//                         publish PUBLISHER VALUE    (again while the bus is full)
//     start NAME          topic HANDSHAKE TOPIC      finish HANDSHAKE commit|cancel
//     wait SUBSCRIBER     unsubscribe SUBSCRIBER     lost
//
// `repeat N CALL` makes a call N times and prints how many had each result. A result below 0 is a platform status.

#include "br_MessageBus_client.h"
#include "connect.h"
#include "nk/loss.h"
#include "nk/transport.h"

#include <cstdint>
#include <iostream>
#include <list>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using test_support::Connect;

constexpr std::int32_t Full = br_MessageBus_ErrorResult(2);

class Client final {
public:
    /// Returns: what the call returned, as the stub gives it; `answer`: what else came back.
    std::int32_t Make(std::istream& call, std::string& answer) {
        std::string name;
        std::int64_t id = -1;
        std::string text;
        call >> name;
        if (name == "publisher") {
            call >> text;
            const auto status = br_MessageBusCtl_RegisterPublisher_call(&ctl, text, id);
            answer = std::to_string(id);
            return status;
        }
        if (name == "start") {
            call >> text;
            const auto status = br_MessageBusCtl_StartSubs_call(&ctl, text, id);
            answer = std::to_string(id);
            return status;
        }
        if (name == "lost") {
            NkLoss loss;
            const auto status = NkReadLoss(subs.handle, &loss);
            answer = std::to_string(loss.reason) + ' ' + std::to_string(loss.lost);
            return status;
        }
        call >> id;
        if (name == "push") {
            std::int64_t value = 0;
            call >> value;
            return br_MessageBusProvider_Push_call(&provider, id, value);
        }
        if (name == "publish") {
            std::int64_t value = 0;
            call >> value;
            std::int32_t status = 0;
            while ((status = br_MessageBusProvider_Push_call(&provider, id, value)) == Full) {
                std::this_thread::yield();
            }
            return status;
        }
        if (name == "topic") {
            call >> text;
            return br_MessageBusCtl_Subscribe_call(&ctl, id, text);
        }
        if (name == "finish") {
            call >> text;
            std::int64_t subscriber = -1;
            const auto status = br_MessageBusCtl_FinishSubs_call(&ctl, id, text == "commit" ? 1 : 0, subscriber);
            answer = std::to_string(subscriber);
            return status;
        }
        if (name == "wait") {
            std::int64_t value = 0;
            const auto status = br_MessageBusSubs_Wait_call(&subs, id, text, value);
            answer = status == 0 ? text + ' ' + std::to_string(value) : std::string();
            return status;
        }
        if (name == "unpublish") {
            return br_MessageBusCtl_UnregisterPublisher_call(&ctl, id);
        }
        if (name == "unsubscribe") {
            return br_MessageBusCtl_UnregisterSubscriber_call(&ctl, id);
        }
        throw std::runtime_error("unknown call: " + name);
    }

private:
    NkBosTransport ctl = Connect(br_MessageBusComponent_ctl_service);
    NkBosTransport provider = Connect(br_MessageBusComponent_provider_service);
    NkBosTransport subs = Connect(br_MessageBusComponent_subs_service);
};

std::int32_t CodeOf(std::int32_t status) {
    return br_MessageBus_IsErrorResult(status) ? br_MessageBus_ErrorValue(status) : status;
}

void Repeat(Client& client, std::istream& line) {
    std::size_t times = 0;
    line >> times;
    std::string call;
    std::getline(line, call);
    std::map<std::int32_t, std::size_t> counts;
    for (std::size_t i = 0; i < times; ++i) {
        std::string numbered = call;
        if (const auto place = numbered.find('#'); place != std::string::npos) {
            numbered.replace(place, 1, std::to_string(i)); // a text of its own for each
        }
        std::istringstream words(numbered);
        std::string answer;
        ++counts[CodeOf(client.Make(words, answer))];
    }
    std::string separator;
    for (const auto& [code, count] : counts) {
        std::cout << separator << code << " x " << count;
        separator = ", ";
    }
    std::cout << std::endl;
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::list<Client> idle(argc > 1 ? std::stoul(argv[1]) - 1 : 0);
        Client client;
        std::cout << "connected" << std::endl;
        std::string text;
        while (std::getline(std::cin, text)) {
            std::istringstream line(text);
            if (text.starts_with("repeat ")) {
                line.ignore(6);
                Repeat(client, line);
                continue;
            }
            std::string answer;
            const std::int32_t code = CodeOf(client.Make(line, answer));
            std::cout << code << (answer.empty() ? "" : " ") << answer << std::endl;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "bus_calls: " << error.what() << '\n';
        return 1;
    }
}
