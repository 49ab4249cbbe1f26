#include "check.h"

#include "arguments.h"
#include "common/escape.h"
#include "judgement.h"
#include "look/account_source.h"
#include "terminal/write_out.h"

#include <chrono>
#include <stdexcept>

namespace diagnosis {

namespace {

double CountIn(const std::string& text) {
    return text == "0" ? 0 : static_cast<double>(ParseCount(text));
}

double SecondsIn(const std::string& text) {
    return std::chrono::duration<double>(ParseDuration(text)).count();
}

Thresholds ThresholdsOf(const char* name, const CheckArguments::Limits& limits,
                        double (*parse)(const std::string& text)) {
    Thresholds thresholds;
    if (limits.warning) {
        thresholds.warning = parse(*limits.warning);
    }
    if (limits.critical) {
        thresholds.critical = parse(*limits.critical);
    }
    if (thresholds.warning && thresholds.critical && *thresholds.warning > *thresholds.critical) {
        throw std::invalid_argument(std::string("--") + name + "-warn is beyond --" + name + "-crit");
    }
    return thresholds;
}

Judgement JudgeAccount(const CheckArguments& arguments) {
    try {
        Rules rules;
        rules.lag = ThresholdsOf("lag", arguments.lag, CountIn);
        rules.age = ThresholdsOf("age", arguments.age, SecondsIn);
        rules.drops = ThresholdsOf("drops", arguments.drops, CountIn);
        rules.inbound = ThresholdsOf("inbound", arguments.inbound, CountIn);
        rules.away = ThresholdsOf("away", arguments.away, SecondsIn);
        return Judge(look::AccountSource(arguments.account).Read(instruments::AccountReader::Depth::WithoutLatency),
                     rules);
    } catch (const std::exception& error) { // a plug-in says on stdout what kept it from judging
        return {Verdict::Unknown, {common::Escaped(error.what())}, {}};
    }
}

} // namespace

ExitStatus Check(const CheckArguments& arguments) {
    const Judgement judgement = JudgeAccount(arguments);
    try {
        terminal::WriteOut(arguments.format == "json"         ? JsonText(judgement)
                           : arguments.format == "prometheus" ? MetricsText(judgement)
                                                              : PluginText(judgement));
    } catch (const std::exception& error) { // the status of a failed command is that of a warning here
        Say(error.what());
        return static_cast<ExitStatus>(Verdict::Unknown);
    }
    return static_cast<ExitStatus>(judgement.verdict);
}

} // namespace diagnosis
