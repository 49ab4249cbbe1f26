#include "registration_gate.h"

namespace msgbus_server {

using cor::ResultCode;

/// Holds pushes back for a scope.
class RegistrationGate::Change final {
public:
    explicit Change(RegistrationGate& changed) : gate(changed) {
        if (gate.holdsBack) {
            ++gate.waiting;
        }
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
    ~Change() {
        if (gate.holdsBack) {
            --gate.waiting;
            ++gate.done;
            gate.done.notify_all();
        }
    }

private:
    RegistrationGate& gate;
};

void RegistrationGate::AwaitChange() noexcept {
    const std::uint32_t before = done.load();
    if (waiting.load() != 0) { // what is waiting now is not counted in `before`
        done.wait(before);
    }
}

ResultCode RegistrationGate::RegisterPublisher(const std::string& topic, long& publisherId) {
    return control.RegisterPublisher(topic, publisherId);
}

ResultCode RegistrationGate::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                                long& subscriberId) {
    const Change change(*this);
    const ResultCode result = control.RegisterSubscriber(name, topics, subscriberId);
    if (result == ResultCode::Success && onRegistered) {
        onRegistered(subscriberId);
    }
    return result;
}

ResultCode RegistrationGate::UnregisterPublisher(long publisherId) {
    return control.UnregisterPublisher(publisherId);
}

ResultCode RegistrationGate::UnregisterSubscriber(long subscriberId) {
    const Change change(*this);
    return control.UnregisterSubscriber(subscriberId);
}

} // namespace msgbus_server
