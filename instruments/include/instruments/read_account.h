#pragma once

#include "instruments/snapshot.h"

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

namespace instruments {

class MappedAccount;

/// The account cannot be read: what() is a sentence.
class AccountError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The account belongs to a server of another user, who alone may read it.
class AccountClosedError final : public AccountError {
public:
    using AccountError::AccountError;
};

/// There is no account: no server has kept one in this runtime directory, or it was removed.
class NoAccountError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads the account of a server, whether it runs, is stopped or is gone. The server is not asked, and does nothing for
/// it. Threads: one at a time.
class AccountReader final {
public:
    /// What to read beside the numbers: it takes most of the time.
    enum class Depth { Everything, WithoutLatency };

    /// Opens the account file at `path`. Throws: NoAccountError; AccountError when it is damaged, of another version,
    /// or must not be read.
    explicit AccountReader(const std::string& path);
    /// Reads the account in memory, which must outlive this object: that of the calling server itself.
    explicit AccountReader(std::span<const std::byte> memory);
    AccountReader(AccountReader&&) noexcept;
    AccountReader& operator=(AccountReader&&) noexcept;
    ~AccountReader();

    /// Returns: the account at this moment: each publisher and each subscriber adds up in itself, and so do the sums.
    /// Throws: AccountError.
    Snapshot Read(Depth depth = Depth::Everything) const;

    /// Returns: the events behind the one with the number `after`, at most EventCapacity of them, oldest first.
    std::vector<Event> EventsAfter(std::uint64_t after) const;

    /// Returns: as ServerAccount::clockOffset. Threads: any.
    std::int64_t ClockOffset() const noexcept;

    /// Returns: whether the file has been replaced by a newer server's. Always false for memory.
    bool IsReplaced() const;

private:
    std::unique_ptr<MappedAccount> account;
};

/// Returns: the path of the account file in the runtime directory of this user, "account" there.
std::string AccountPath();
/// Returns: the path of the account of the server before, "account.previous" there.
std::string PreviousAccountPath();

} // namespace instruments
