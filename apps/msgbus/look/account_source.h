#pragma once

#include "instruments/read_account.h"
#include "instruments/snapshot.h"

#include <chrono>
#include <optional>
#include <string>

namespace look {

/// The account that a command reads, and of a server that is restarted the new one's. Threads: one at a time.
class AccountSource final {
public:
    /// Opens the account file `file`, or that of this user's server.
    /// Throws: instruments::NoAccountError; instruments::AccountError.
    explicit AccountSource(const std::optional<std::string>& file);

    /// Throws: instruments::AccountError.
    instruments::Snapshot
    Read(instruments::AccountReader::Depth depth = instruments::AccountReader::Depth::Everything) const {
        return reader.Read(depth);
    }
    const instruments::AccountReader& Reader() const noexcept { return reader; }

    /// Opens the account of a newer server, if there is one that can be read. Returns: whether it has.
    bool FollowRestart();

private:
    std::string path;
    instruments::AccountReader reader;
};

/// Waits until the account is that of a server that runs: the account file `file`, or that of this user's server.
/// Throws: instruments::NoAccountError after `patience`; instruments::AccountError. Blocks: for `patience`.
void AwaitServer(const std::optional<std::string>& file, std::chrono::milliseconds patience);

/// Returns: what to say of a server that does not work on; empty when it does.
std::string WarningAbout(const instruments::ServerAccount& server);

/// Prints that on stderr, if there is something, unless it is what was printed before.
class ServerWarning final {
public:
    void Update(const instruments::ServerAccount& server);

private:
    std::string last;
};

} // namespace look
