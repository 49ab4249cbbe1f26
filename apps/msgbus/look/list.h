#pragma once

#include "exit_status.h"
#include "instruments/snapshot.h"

#include <optional>
#include <string>

namespace look {

enum class ListKind { Topics, Publishers, Subscribers };

/// `msgbus list`
struct ListArguments {
    std::optional<std::string> account;
    ListKind kind = ListKind::Topics;
    bool json = false;
};

/// Returns: one line for each topic, publisher or subscriber below the headings. Each column but the last is one word,
/// "-" when there is nothing to say.
std::string ListText(const instruments::Snapshot& snapshot, ListKind kind);

/// Returns: the bytes of a name as one word: escaped as in common/escape.h, and a space as \x20.
std::string AsWord(std::string_view name);

/// Runs `msgbus list`. Throws: instruments::NoAccountError; instruments::AccountError; std::system_error.
ExitStatus List(const ListArguments& arguments);

} // namespace look
