// A client that overwrites the pages that it shares with the server: `scribbling_client MILLISECONDS`. It has three
// connections, to one service each in dynamic mode. Prints how many words it wrote, how many calls were answered, and
// how many connections were ended. Exit status 0 unless the server refused a join.

#include "scribbling.h"

#include <cstdlib>
#include <iostream>
#include <vector>

namespace {

std::vector<std::string> Names() {
    if (std::string(std::getenv("BORVEN_BUS")) == "static") {
        return {3, "static/msgbus_connection_id"};
    }
    const std::string component = "services/br.MessageBusComponent.";
    return {component + "provider", component + "ctl", component + "subs"};
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(throw_on_failure, true); // a join that fails ends the program
    const auto end = attack::Clock::now() + std::chrono::milliseconds(argc > 1 ? std::stoll(argv[1]) : 1000);
    attack::ScribbleCounts counts;
    std::vector<std::thread> clients;
    const auto names = Names();
    for (std::size_t interface = 0; interface < names.size(); ++interface) {
        clients.emplace_back([&, interface] { attack::ScribbleOn(names[interface], interface, end, counts); });
    }
    for (auto& client : clients) {
        client.join();
    }
    std::cout << counts.words << ' ' << counts.answered << ' ' << counts.ended << std::endl;
    return 0;
}
