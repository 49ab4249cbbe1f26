#include "msgbus/error.h"

namespace msgbus {

std::string DescribeResult(std::int32_t code) {
    switch (code) {
    case 0:
        return "done";
    case 1:
        return "the bus does not know that id, or the request was cancelled";
    case 2:
        return "the bus's inbound queue is full, or the id is -1";
    case 3:
        return "the bus refused the request (3)";
    case 4:
        return "the bus refused the request (4)";
    case 5:
        return "the bus has no connection to dispatch on";
    case 6:
        return "the bus could not be initialised";
    case 7:
        return "the bus refused the request (7)";
    case 8:
        return "that is already registered, or there is no such id";
    case 9:
        return "the bus refused the request (9)";
    case 10:
        return "the bus failed inside, or it is shutting down";
    default:
        return "the bus answered with the unknown result code " + std::to_string(code);
    }
}

} // namespace msgbus
