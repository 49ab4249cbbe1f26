#include "autopsy.h"

#include "instruments/account_json.h"
#include "instruments/read_account.h"
#include "look/account_source.h"
#include "terminal/write_out.h"

#include <nlohmann/json.hpp>

namespace diagnosis {

ExitStatus Autopsy(const AutopsyArguments& arguments) {
    const auto path = arguments.isPrevious && !arguments.account ? std::optional(instruments::PreviousAccountPath())
                                                                 : arguments.account;
    const auto snapshot = look::AccountSource(path).Read();
    terminal::WriteOut(arguments.json ? terminal::JsonLine(instruments::StateToJson(snapshot)) : AutopsyText(snapshot));
    return ExitStatus::Done;
}

} // namespace diagnosis
