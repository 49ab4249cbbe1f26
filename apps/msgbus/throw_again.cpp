#include "throw_again.h"

#include "msgbus/error.h"

#include <stdexcept>

void ThrowAgain(const std::function<std::string(const std::string&)>& complete) {
    try {
        throw;
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument(complete(error.what()));
    } catch (const msgbus::RefusedError& error) {
        throw msgbus::RefusedError(error.Code(), complete(error.what()));
    } catch (const msgbus::NoServerError& error) {
        throw msgbus::NoServerError(error.Code(), complete(error.what()));
    } catch (const msgbus::ServerGoneError& error) {
        throw msgbus::ServerGoneError(error.Code(), complete(error.what()));
    } catch (const msgbus::TimedOutError& error) {
        throw msgbus::TimedOutError(error.Code(), complete(error.what()));
    } catch (const std::exception& error) {
        throw std::runtime_error(complete(error.what()));
    }
}
