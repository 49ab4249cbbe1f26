#pragma once

#include "bus_options.h"
#include "stream/live_topics.h"
#include "stream/wire/admission.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace stream {

class Connection;

/// The clients that are connected, and what all of them get. Threads: one.
class Broadcast final {
public:
    /// Each takes about a megabyte when it does not read, and at most 4 MiB more of texts.
    static constexpr std::size_t MostClients = 32;

    Broadcast(const std::vector<std::string>& topics, AdmissionRules admissionRules, bool letsAnyUserIn, bool isQuiet);

    /// Adds a client that has been admitted. Lifetime: until Remove.
    void Add(Connection& connection) { clients.insert(&connection); }
    void Remove(Connection& connection) { clients.erase(&connection); }
    const std::set<Connection*>& Clients() const noexcept { return clients; }
    /// Returns: a number for the next client, from 1.
    std::uint64_t NextNumber() noexcept { return ++lastNumber; }

    /// Takes a value from the bus. Returns: whether Describe is due.
    bool Take(const std::string& topic, std::uint64_t timeNs, std::int64_t value);
    /// Looks at what the values mean now, and gives topics of another type new channels.
    /// Returns: whether values are still held back.
    bool Describe(const recordings::Descriptions& descriptions);

    /// Sends a sentence to every client.
    void Report(Level level, const std::string& sentence);
    /// Reports what was dropped for clients since the last time, to these and on stderr.
    void ReportDropped();
    /// Says on stderr that a client was refused; at most once a second, with the number of others.
    void ReportRefusal(const std::string& reason);
    /// Ends all connections. They are through with it soon; those that do not read are cut by the end of the program.
    void Farewell(std::uint16_t code, const std::string& reason);

    const AdmissionRules& Rules() const noexcept { return rules; }
    const LiveTopics& Topics() const noexcept { return liveTopics; }
    bool LetsAnyUserIn() const noexcept { return isAnyUserAdmitted; }
    bool IsQuiet() const noexcept { return saysErrorsOnly; }
    /// Returns: what tells this run of the program from another one.
    const std::string& SessionId() const noexcept { return session; }

private:
    const AdmissionRules rules;
    const bool isAnyUserAdmitted;
    const bool saysErrorsOnly;
    const std::string session;
    std::set<Connection*> clients;
    LiveTopics liveTopics;
    std::uint64_t lastNumber = 0;
    Clock::time_point refusalPrinted{};
    std::uint64_t refusalsNotPrinted = 0;
};

} // namespace stream
