#include "msgbusd/options/effective.h"

#include "msgbusd/options/config_file.h"

#include <algorithm>

namespace msgbusd {

namespace {

bool IsSwitchedOff(const Given* given) {
    return given != nullptr && given->value == "false";
}

bool IsAddress(const Given& monitor) {
    return BoolOf(monitor.value).empty();
}

/// Returns: what names a value of a list: the part before "=" of a limit, else the whole value.
std::string NameIn(const Option& option, const std::string& value) {
    return option.key == "limit" ? value.substr(0, value.find('=')) : value;
}

} // namespace

EffectiveSettings::EffectiveSettings(const std::vector<GivenOptions>& given) {
    for (const auto& source : given) {
        mistakes.insert(mistakes.end(), source.mistakes.begin(), source.mistakes.end());
        TakeBare(source.given);
        for (const auto& each : source.given) {
            Take(each);
        }
    }
    CheckTogether();
    for (const auto& option : Options()) {
        for (const auto& each : values[option.key]) {
            option.set(settings, each.value);
        }
    }
}

void EffectiveSettings::Take(const Given& given) {
    auto& counting = values[given.option->key];
    if (given.option->kind != OptionKind::List || given.value.empty()) {
        counting.clear();
    }
    if (given.option->kind != OptionKind::Preset) {
        counting.push_back(given);
    }
}

/// What the source itself has of these options counts more, and comes afterwards.
void EffectiveSettings::TakeBare(const std::vector<Given>& given) {
    const auto bare =
        std::find_if(given.rbegin(), given.rend(), [](const Given& each) { return each.option->key == "bare"; });
    if (bare == given.rend() || bare->value == "false") {
        return;
    }
    for (const auto key : BareOptions()) {
        Take({FindOption(key), "false", bare->source});
    }
}

const Given* EffectiveSettings::LastOf(const std::string& key) const {
    const auto found = values.find(key);
    return found == values.end() || found->second.empty() ? nullptr : &found->second.back();
}

/// What needs a part that a stronger source switches off does not count; one that is as strong contradicts it.
void EffectiveSettings::CheckNeed(const std::string& dependent, const std::string& needed) {
    const Given* const given = LastOf(dependent);
    const Given* const part = LastOf(needed);
    if (given == nullptr || given->value.empty() || !IsSwitchedOff(part)) {
        return;
    }
    if (given->source.rank < part->source.rank) {
        values[dependent].clear();
        return;
    }
    mistakes.push_back(given->source.name + ": '" + dependent + "' needs '" + needed + "', which " + part->source.name +
                       " switches off");
}

void EffectiveSettings::CheckTogether() {
    CheckNeed("limit", "limits");
    CheckNeed("slow-subscriber", "limits");
    CheckNeed("retain", "notices");
    CheckNeed("retain", "account");
    if (const Given* const hold = LastOf("hold-pushes"); hold != nullptr && hold->value != "0") {
        CheckNeed("hold-pushes", "intake");
    }
    if (const Given* const monitor = LastOf("monitor"); monitor != nullptr && IsAddress(*monitor)) {
        CheckNeed("monitor", "account");
    }
    const Given* const monitor = LastOf("monitor");
    const Given* const token = LastOf("monitor-token-file");
    if (token != nullptr && !token->value.empty() && (monitor == nullptr || !IsAddress(*monitor))) {
        if (monitor != nullptr && token->source.rank < monitor->source.rank) {
            values["monitor-token-file"].clear();
        } else {
            mistakes.push_back(token->source.name + ": a token file needs an address to serve on, 'monitor'");
        }
    }
    if (IsSwitchedOff(LastOf("parked-waits"))) {
        for (const auto& rule : values["slow-subscriber"]) {
            const auto parsed = msgbus_server::QueueRule::Parse(rule.value);
            if (parsed && parsed->policy != msgbus_server::SlowSubscriber::Cut) {
                mistakes.push_back(rule.source.name + ": '" + rule.value + "' needs 'parked-waits', which " +
                                   LastOf("parked-waits")->source.name +
                                   " switches off: then a subscriber can only be cut");
            }
        }
    }
}

std::string EffectiveSettings::SourceOf(const Option& option, const std::string& value) const {
    const auto found = values.find(option.key);
    if (found != values.end()) {
        const auto& given = found->second;
        const std::string name = NameIn(option, value);
        const auto from = std::find_if(given.rbegin(), given.rend(), [&](const Given& each) {
            return option.kind != OptionKind::List || NameIn(option, each.value) == name;
        });
        if (from != given.rend()) {
            return from->source.name;
        }
    }
    return "default";
}

std::string EffectiveSettings::ToFile() const {
    std::string file;
    std::string group;
    for (const auto& option : Options()) {
        if (option.kind == OptionKind::Preset) {
            continue;
        }
        if (option.group != group) {
            group = option.group;
            file += (file.empty() ? "# " : "\n# ") + group + '\n';
        }
        const auto shown = option.show(settings);
        if (shown.empty()) {
            file += "# " + option.key + " is not set\n";
        }
        for (const auto& value : shown) {
            file += option.key + " = " + ConfigValue(value) + "  # " + SourceOf(option, value) + '\n';
        }
    }
    return file;
}

std::string EffectiveSettings::AsCommandLine() const {
    std::string line;
    for (const auto& option : Options()) {
        const auto found = values.find(option.key);
        if (found == values.end()) {
            continue;
        }
        for (const auto& each : found->second) {
            if (each.source.rank == Rank::CommandLine) {
                continue;
            }
            const bool isOff = BoolOf(each.value) == "false";
            line += line.empty() ? "" : " ";
            if (option.kind == OptionKind::Switch || (option.key == "monitor" && isOff)) {
                line += "--no-" + option.key + (isOff ? "" : "=false");
            } else {
                line += "--" + option.key + '=' + each.value;
            }
        }
    }
    return line;
}

} // namespace msgbusd
