#include "mapped_account.h"

#include "instruments/read_account.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace instruments {

using layout::Counter;
using layout::Header;
using layout::Region;

MappedAccount::MappedAccount(std::span<const std::byte> bytes) : memory(bytes) {
    Check();
}

MappedAccount::MappedAccount(const std::string& accountPath) : path(accountPath) {
    file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (file < 0 || ::fstat(file, &status) != 0) {
        const int error = errno;
        Close();
        if (error == ENOENT) {
            throw NoAccountError("there is no account '" + path + "'");
        }
        const std::string reason = "cannot read '" + path + "': " + std::strerror(error);
        if (error == EACCES) {
            throw AccountClosedError(reason + "; only its user and root may look into this bus");
        }
        throw AccountError(reason);
    }
    device = status.st_dev;
    node = status.st_ino;
    if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) < sizeof(Header)) {
        Close();
        throw AccountError("'" + path + "' is not an account");
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
    if (mapped == MAP_FAILED) {
        const int error = errno;
        Close();
        throw AccountError("cannot read '" + path + "': " + std::strerror(error));
    }
    memory = {static_cast<const std::byte*>(mapped), size};
    try {
        Check();
    } catch (...) {
        Close();
        throw;
    }
}

MappedAccount::~MappedAccount() {
    Close();
}

void MappedAccount::Close() {
    if (file >= 0) {
        if (!memory.empty()) {
            ::munmap(const_cast<std::byte*>(memory.data()), memory.size());
        }
        ::close(file);
        file = -1;
    }
}

void MappedAccount::Check() {
    if (memory.size() < sizeof(Header) || Head().magic.load(std::memory_order_acquire) != layout::Magic) {
        throw AccountError(path.empty() ? "the memory is not an account" : "'" + path + "' is not an account");
    }
    const Header& head = Head();
    if (head.version != layout::Version || head.headerSize != sizeof(Header)) {
        throw AccountError("the account '" + path + "' was written by another version of the server");
    }
    regions = head.regions;
    const auto fits = [this](const Region& region, std::size_t elementSize, std::size_t most) {
        return region.elementSize == elementSize && region.offset % alignof(layout::Subscriber) == 0 &&
               region.offset <= memory.size() && region.count <= (memory.size() - region.offset) / elementSize &&
               region.count <= most;
    };
    using namespace layout;
    if (regions.threads.count != ThreadCapacity || regions.errors.count != ErrorCapacity ||
        regions.events.count != EventCapacityInFile || !fits(regions.threads, sizeof(Thread), ThreadCapacity) ||
        !fits(regions.errors, sizeof(Twin<Error>), ErrorCapacity) ||
        !fits(regions.events, sizeof(Twin<layout::Event>), EventCapacityInFile) ||
        !fits(regions.publishers, sizeof(Publisher), MostSlots) ||
        !fits(regions.subscribers, sizeof(Subscriber), MostSlots) ||
        !fits(regions.clients, sizeof(Client), MostClients) ||
        !fits(regions.text, sizeof(Counter), MostTextBytes / sizeof(Counter)) ||
        !fits(regions.latencyPages, LatencyPageSize, MostLatencyPages)) {
        ThrowDamaged();
    }
}

void MappedAccount::ThrowDamaged() const {
    throw AccountError(path.empty() ? "the account in memory is damaged" : "the account '" + path + "' is damaged");
}

std::string MappedAccount::Copy(layout::Text text) const {
    const auto& region = regions.text;
    const std::size_t words = (std::size_t{text.size} + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);
    if (text.size > layout::MostTextSize || text.offset > region.count || words > region.count - text.offset) {
        ThrowDamaged();
    }
    std::string bytes(words * sizeof(std::uint64_t), '\0');
    for (std::size_t i = 0; i < words; ++i) {
        const std::uint64_t word = At<Counter>(region, text.offset + i).load(std::memory_order_acquire);
        std::memcpy(bytes.data() + i * sizeof word, &word, sizeof word);
    }
    bytes.resize(text.size);
    return bytes;
}

bool MappedAccount::IsReplaced() const {
    struct stat status {};
    return file >= 0 && (::stat(path.c_str(), &status) != 0 || status.st_ino != node || status.st_dev != device);
}

} // namespace instruments
