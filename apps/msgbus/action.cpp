#include "action.h"

#include "arguments.h"
#include "instruments/read_account.h"
#include "msgbus/error.h"
#include "search_place.h"
#include "server_access/monitor_endpoint.h"

#include <exception>
#include <stdexcept>

ExitStatus Run(const Action& action) {
    try {
        return action();
    } catch (const msgbus::RefusedError& error) {
        Say(error.what());
        return ExitStatus::Refused;
    } catch (const msgbus::NoServerError& error) {
        Say(error.what() + SearchPlace());
        return ExitStatus::NoServer;
    } catch (const msgbus::ServerGoneError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const instruments::NoAccountError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const server_access::ServerAwayError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const msgbus::TimedOutError& error) {
        Say(error.what());
        return ExitStatus::NoServer;
    } catch (const std::invalid_argument& error) {
        Say(error.what());
        return ExitStatus::Usage;
    } catch (const std::exception& error) {
        Say(error.what());
        return ExitStatus::Failed;
    }
}
