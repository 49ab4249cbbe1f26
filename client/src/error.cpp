#include "msgbus/error.h"

namespace msgbus {

std::string DescribeResult(std::int32_t code) {
    switch (code) {
    case 0:
        return "success";
    case 1:
        return "the id is not registered, or the request was canceled";
    case 2:
        return "the inbound queue of the bus is full, or the id is -1";
    case 3:
        return "the bus rejected the request with result code 3";
    case 4:
        return "the bus rejected the request with result code 4";
    case 5:
        return "the bus has no connection to dispatch on";
    case 6:
        return "the bus could not be initialised";
    case 7:
        return "the bus rejected the request with result code 7";
    case 8:
        return "already registered, or no such id";
    case 9:
        return "the bus rejected the request with result code 9";
    case 10:
        return "internal error of the bus, or the bus is shutting down";
    default:
        return "the bus returned the unknown result code " + std::to_string(code);
    }
}

} // namespace msgbus
