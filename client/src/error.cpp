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
        return "this process, its user, or all processes together have as many publishers or subscribers as the server "
               "allows";
    case 4:
        return "this process, its user, or all processes together have as many unfinished registrations as the server "
               "allows";
    case 5:
        return "the bus has no connection to dispatch on";
    case 6:
        return "the bus could not be initialised";
    case 7:
        return "the names and topics of this process, of its user, or of all together take as many bytes as the server "
               "allows";
    case 8:
        return "already registered, or no such id";
    case 9:
        return "the subscriber left more values unread than the server allows, and was cut";
    case 10:
        return "internal error of the bus, or the bus is shutting down";
    default:
        return "the bus returned the unknown result code " + std::to_string(code);
    }
}

} // namespace msgbus
