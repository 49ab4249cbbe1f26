#include "stream/broadcast.h"

#include "arguments.h"
#include "stream/connection.h"

#include <unistd.h>

#include <chrono>
#include <utility>

namespace stream {

namespace {

std::string MakeSessionId() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) + '-' +
           std::to_string(::getpid());
}

} // namespace

Broadcast::Broadcast(const std::vector<std::string>& topics, AdmissionRules admissionRules, bool letsAnyUserIn,
                     bool isQuiet)
    : rules(std::move(admissionRules)), isAnyUserAdmitted(letsAnyUserIn), saysErrorsOnly(isQuiet),
      session(MakeSessionId()), liveTopics(topics, [this](const LiveValue& value) {
          for (auto* const client : clients) {
              client->Send(value);
          }
      }) {}

bool Broadcast::Take(const std::string& topic, std::uint64_t timeNs, std::int64_t value) {
    return liveTopics.Take(topic, timeNs, value, Clock::now());
}

bool Broadcast::Describe(const recordings::Descriptions& descriptions) {
    if (const auto changes = liveTopics.Describe(descriptions); !changes.empty()) {
        for (auto* const client : clients) {
            client->Replace(changes);
        }
    }
    return liveTopics.Settle(Clock::now());
}

void Broadcast::Report(Level level, const std::string& sentence) {
    const std::string status = Status(level, sentence);
    for (auto* const client : clients) {
        client->Send(status);
    }
}

void Broadcast::ReportDropped() {
    for (auto* const client : clients) {
        client->ReportDropped();
    }
}

void Broadcast::ReportRefusal(const std::string& reason) {
    const auto now = Clock::now();
    if (now - refusalPrinted < std::chrono::seconds(1)) {
        ++refusalsNotPrinted;
        return;
    }
    refusalPrinted = now;
    const auto others = std::exchange(refusalsNotPrinted, 0);
    Say("refused a connection: " + reason + (others == 0 ? "" : " (and " + std::to_string(others) + " others before)"));
}

void Broadcast::Farewell(std::uint16_t code, const std::string& reason) {
    for (auto* const client : clients) {
        client->Farewell(code, reason);
    }
}

} // namespace stream
