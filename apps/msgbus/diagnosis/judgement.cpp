#include "judgement.h"

#include "common/escape.h"
#include "look/account_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace diagnosis {

namespace {

using instruments::ServerState;
using instruments::Snapshot;
using instruments::SubscriberAccount;

double Seconds(instruments::Nanoseconds time) {
    return static_cast<double>(std::max<instruments::Nanoseconds>(time, 0)) / 1e9;
}

/// Collects what was found, and orders it.
class Findings final {
public:
    void Add(Verdict verdict, std::string reason) { found.emplace_back(verdict, std::move(reason)); }

    /// Adds the measure, and a reason when it is beyond its limits. `what`: a sentence in front of the limit.
    void Weigh(const Measure& measure, const std::string& what) {
        measures.push_back(measure);
        const auto isBeyond = [&](const std::optional<double>& limit) { return limit && measure.value > *limit; };
        const Verdict verdict = isBeyond(measure.limits.critical)  ? Verdict::Critical
                                : isBeyond(measure.limits.warning) ? Verdict::Warning
                                                                   : Verdict::Ok;
        if (verdict != Verdict::Ok) {
            const double limit = verdict == Verdict::Critical ? *measure.limits.critical : *measure.limits.warning;
            Add(verdict, fmt::format("{}, more than {}{}", what, limit, measure.unit == "s" ? " s" : ""));
        }
    }

    /// Adds a measure without limits.
    void Note(std::string_view name, std::uint64_t value, std::string_view unit) {
        measures.push_back({name, static_cast<double>(value), unit, {}});
    }

    Judgement Result() && {
        std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
        Judgement judgement;
        judgement.verdict = found.empty() ? Verdict::Ok : found.front().first;
        for (auto& [verdict, reason] : found) {
            judgement.reasons.push_back(std::move(reason));
        }
        judgement.measures = std::move(measures);
        return judgement;
    }

private:
    std::vector<std::pair<Verdict, std::string>> found;
    std::vector<Measure> measures;
};

void JudgeServer(const Snapshot& snapshot, Findings& findings) {
    const auto& server = snapshot.server;
    if (std::string warning = look::WarningAbout(server); !warning.empty()) {
        findings.Add(Verdict::Critical, std::move(warning));
    } else if (server.state != ServerState::Serving) {
        findings.Add(Verdict::Warning, "the server is " + std::string(instruments::NameOf(server.state)));
    }
    if (!snapshot.bus.AddsUp() || snapshot.bus.discrepancies != 0) {
        findings.Add(Verdict::Critical, "the account does not add up");
    }
}

/// Returns: the subscriber with the most of something; null when there is none.
template <typename Amount>
const SubscriberAccount* Greatest(const Snapshot& snapshot, const Amount& amount) {
    const auto found = std::max_element(snapshot.subscribers.begin(), snapshot.subscribers.end(),
                                        [&](const auto& a, const auto& b) { return amount(a) < amount(b); });
    return found == snapshot.subscribers.end() ? nullptr : &*found;
}

std::string NameOf(const SubscriberAccount& subscriber) {
    return fmt::format("subscriber '{}' (id {})", common::Escaped(subscriber.name), subscriber.id);
}

void JudgeSubscribers(const Snapshot& snapshot, const Rules& rules, Findings& findings) {
    const auto* const most = Greatest(snapshot, [](const auto& subscriber) { return subscriber.flows.queued; });
    const std::uint64_t lag = most == nullptr ? 0 : most->flows.queued;
    findings.Weigh({"lag", static_cast<double>(lag), "", rules.lag},
                   most == nullptr ? "" : fmt::format("{} has {} values unread", NameOf(*most), lag));
    const auto ageOf = [&](const SubscriberAccount& subscriber) {
        return subscriber.oldestSince == 0 ? 0.0 : Seconds(snapshot.readAt - subscriber.oldestSince);
    };
    const auto* const oldest = Greatest(snapshot, ageOf);
    const double age = oldest == nullptr ? 0 : ageOf(*oldest);
    findings.Weigh({"age", age, "s", rules.age},
                   oldest == nullptr
                       ? ""
                       : fmt::format("the oldest unread value of {} has waited {:.3g} s", NameOf(*oldest), age));
}

void JudgeThreads(const Snapshot& snapshot, const Rules& rules, Findings& findings) {
    double away = 0;
    std::string name;
    for (const auto& thread : snapshot.threads) {
        if (thread.awaySince != 0 && Seconds(snapshot.readAt - thread.awaySince) > away) {
            away = Seconds(snapshot.readAt - thread.awaySince);
            name = thread.name;
        }
    }
    findings.Weigh({"away", away, "s", rules.away},
                   fmt::format("thread '{}' has been away from its loop for {:.3g} s", common::Escaped(name), away));
}

} // namespace

std::string_view NameOf(Verdict verdict) noexcept {
    switch (verdict) {
    case Verdict::Ok:
        return "OK";
    case Verdict::Warning:
        return "WARNING";
    case Verdict::Critical:
        return "CRITICAL";
    case Verdict::Unknown:
        break;
    }
    return "UNKNOWN";
}

Judgement Judge(const Snapshot& snapshot, const Rules& rules) {
    const auto& bus = snapshot.bus;
    Findings findings;
    JudgeServer(snapshot, findings);
    JudgeSubscribers(snapshot, rules, findings);
    const std::uint64_t dropped = bus.flows.dropped.Total();
    findings.Weigh({"drops", static_cast<double>(dropped), "c", rules.drops},
                   fmt::format("{} values were dropped", dropped));
    findings.Weigh({"inbound", static_cast<double>(bus.inbound), "", rules.inbound},
                   fmt::format("{} values are in the inbound queue", bus.inbound));
    JudgeThreads(snapshot, rules, findings);
    findings.Note("topics", instruments::TopicsOf(snapshot).size(), "");
    findings.Note("subscribers", snapshot.subscribers.size(), "");
    findings.Note("accepted", bus.accepted, "c");
    findings.Note("taken", bus.flows.taken, "c");
    return std::move(findings).Result();
}

} // namespace diagnosis
