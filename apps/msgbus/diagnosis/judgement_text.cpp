// A judgement for the programs that watch services.

#include "instruments/account_json.h"
#include "judgement.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cctype>

namespace diagnosis {

namespace {

std::string Joined(const std::vector<std::string>& reasons) {
    std::string text;
    for (const auto& reason : reasons) {
        text += (text.empty() ? "" : "; ") + reason;
    }
    return text.empty() ? "the server serves" : text;
}

std::string LimitText(const std::optional<double>& limit) {
    return limit ? fmt::format("{}", *limit) : "";
}

nlohmann::ordered_json LimitJson(const std::optional<double>& limit) {
    return limit ? nlohmann::ordered_json(*limit) : nlohmann::ordered_json(nullptr);
}

std::string LowerCase(std::string_view text) {
    std::string lower;
    for (const char c : text) {
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

} // namespace

std::string PluginText(const Judgement& judgement) {
    std::string sentence;
    for (const char c : Joined(judgement.reasons)) {
        sentence += c == '|' ? std::string("\\x7c") : std::string(1, c); // the bar begins the performance data
    }
    std::string text = fmt::format("MSGBUS {} - {}", NameOf(judgement.verdict), sentence);
    std::string_view separator = " | ";
    for (const auto& measure : judgement.measures) {
        text += fmt::format("{}{}={}{};{};{};0", separator, measure.name, measure.value, measure.unit,
                            LimitText(measure.limits.warning), LimitText(measure.limits.critical));
        separator = " ";
    }
    return text + '\n';
}

std::string JsonText(const Judgement& judgement) {
    auto measures = nlohmann::ordered_json::array();
    for (const auto& measure : judgement.measures) {
        measures.push_back({{"name", measure.name},
                            {"value", measure.value},
                            {"unit", measure.unit == "s" ? "s" : ""},
                            {"warning", LimitJson(measure.limits.warning)},
                            {"critical", LimitJson(measure.limits.critical)}});
    }
    return terminal::JsonLine({{"version", instruments::JsonVersion},
                               {"status", LowerCase(NameOf(judgement.verdict))},
                               {"code", static_cast<int>(judgement.verdict)},
                               {"reasons", judgement.reasons},
                               {"measures", std::move(measures)}});
}

std::string MetricsText(const Judgement& judgement) {
    std::string text = fmt::format("# HELP msgbus_check_status 0: ok, 1: warning, 2: critical, 3: unknown\n"
                                   "# TYPE msgbus_check_status gauge\n"
                                   "msgbus_check_status {}\n",
                                   static_cast<int>(judgement.verdict));
    for (const auto& reason : judgement.reasons) {
        text += "# " + reason + '\n'; // a comment
    }
    for (const auto& measure : judgement.measures) {
        const bool isCounter = measure.unit == "c";
        const auto name = fmt::format("msgbus_check_{}{}", measure.name,
                                      measure.unit == "s" ? "_seconds"
                                      : isCounter         ? "_total"
                                                          : "");
        text += fmt::format("# TYPE {0} {1}\n{0} {2}\n", name, isCounter ? "counter" : "gauge", measure.value);
    }
    return text;
}

} // namespace diagnosis
