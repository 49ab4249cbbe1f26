#include "msgbusd/monitoring.h"

#include "access_token.h"
#include "common/monitor_socket.h"
#include "common/secret.h"
#include "diagnostics.h"
#include "fail_stop.h"

#include <unistd.h>

#include <utility>

namespace msgbusd {

using diagnostics::Log;
using diagnostics::LogLevel;
using msgbus_monitor::DescribeOutcome;
using msgbus_server::Described;

namespace {

DescribeOutcome OutcomeOf(Described described) {
    switch (described) {
    case Described::Done:
        return DescribeOutcome::Done;
    case Described::NoPublisher:
        return DescribeOutcome::UnknownTopic;
    case Described::OtherOwner:
        return DescribeOutcome::NotOwner;
    case Described::NoRoom:
        break;
    }
    return DescribeOutcome::NoRoom;
}

} // namespace

Monitoring::Monitoring(msgbus_server::BusServer& server, const MonitorSettings& settings,
                       const std::optional<std::string>& directory)
    : health(server.Account()->File()),
      account(
          server.Account()->File().Memory(), [this] { return health.WhyIll(); },
          [&server](const msgbus_monitor::Peer& peer, std::string_view topic, std::string_view text) {
              return OutcomeOf(server.Describe(std::string(topic), peer.pid, text));
          },
          {[&server](std::string_view topic, std::size_t values) {
               return server.Accounted().StartTrace(topic, values);
           },
           [&server] { server.Accounted().StopTrace(); }, [&server] { return server.Accounted().ReadTrace(); }}) {
    msgbus_monitor::MonitorOptions options;
    options.warn = [](const std::string& sentence) { Log(LogLevel::Warning, "{}", sentence); };
    options.onThreadStart = msgbus_server::LetAllocationsFail; // for want of memory a reader is refused, and no more
    if (directory) {
        options.socketPath = *directory + '/' + common::MonitorSocketName;
    }
    const bool makesToken = settings.address && settings.tokenFile.empty();
    if (settings.address) {
        options.address = settings.address;
        options.token = makesToken ? common::MakeSecret() : msgbus_monitor::ReadToken(settings.tokenFile);
    }
    const std::string token = options.token;
    monitor.emplace(account, std::move(options));
    if (makesToken) {
        Publish(token, directory);
    }
    if (const auto address = monitor->Address()) {
        Log(LogLevel::Info, "The account is served on http://{}; the token is in {}", address->ToText(),
            makesToken ? ownTokenFile : settings.tokenFile);
    }
}

Monitoring::~Monitoring() {
    if (!ownTokenFile.empty()) {
        ::unlink(ownTokenFile.c_str());
    }
}

/// Writes the file from which clients take the token, but not in place of another server's.
void Monitoring::Publish(const std::string& token, const std::optional<std::string>& directory) {
    if (!monitor->HasUnixSocket()) {
        throw msgbus_monitor::TokenError(
            "without a Unix socket there is no place for a token; --monitor-token-file names a file that has one");
    }
    const std::string path = *directory + "/monitor.token";
    msgbus_monitor::WriteToken(path, token);
    ownTokenFile = path;
}

} // namespace msgbusd
