#include "instruments/account_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>
#include <utility>

namespace instruments {

using namespace layout;

namespace {

constexpr const char* AccountName = "account";
constexpr const char* NewSuffix = ".new.";
constexpr int MostTries = 16; ///< each in vain means that another server starts at this moment
constexpr std::size_t Page = 4096;
constexpr std::size_t CommitStep = 64 * Page;

std::size_t RoundUp(std::size_t bytes, std::size_t unit) {
    return (bytes + unit - 1) / unit * unit;
}

layout::Regions Arrange(const AccountCapacities& capacities, std::size_t& fileSize) {
    std::size_t offset = RoundUp(sizeof(Header), Page);
    const auto next = [&offset](std::size_t count, std::size_t elementSize) {
        const Region region{offset, count, elementSize};
        offset = RoundUp(offset + count * elementSize, Page);
        return region;
    };
    Regions regions;
    regions.threads = next(ThreadCapacity, sizeof(Thread));
    regions.errors = next(ErrorCapacity, sizeof(Twin<Error>));
    regions.events = next(EventCapacityInFile, sizeof(Twin<Event>));
    regions.publishers = next(capacities.publishers, sizeof(Publisher));
    regions.subscribers = next(capacities.subscribers, sizeof(Subscriber));
    regions.clients = next(capacities.clients, sizeof(Client));
    regions.text = next(capacities.textBytes / sizeof(std::uint64_t), sizeof(std::uint64_t));
    regions.latencyPages = next(capacities.latencyPages, LatencyPageSize);
    fileSize = offset;
    return regions;
}

std::string Sentence(const std::string& what, const std::string& path) {
    return what + " '" + path + "': " + std::strerror(errno);
}

/// A descriptor that is closed at the end of its block.
class Opened final {
public:
    explicit Opened(const std::string& path)
        : file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {}
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() {
        if (file >= 0) {
            ::close(file);
        }
    }

    int Get() const noexcept { return file; }

private:
    const int file;
};

bool Lock(int file) {
    return ::flock(file, LOCK_EX | LOCK_NB) == 0;
}

/// Returns: whether `path` is a name of the open file. Only then does a lock on the file say anything of the name.
bool IsNameOf(const std::string& path, int file) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(file, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

/// Moves the account of an earlier server out of the way, unless another server has done so meanwhile.
void KeepPrevious(const std::string& path) {
    const Opened old(path);
    if (old.Get() < 0) {
        if (errno == ENOENT) {
            return;
        }
        throw AccountFileError(Sentence("cannot replace the account", path));
    }
    if (!Lock(old.Get())) {
        throw AccountFileError("another server keeps its account in '" + path + "'");
    }
    if (IsNameOf(path, old.Get()) && ::rename(path.c_str(), (path + ".previous").c_str()) != 0) {
        throw AccountFileError(Sentence("cannot keep the previous account", path));
    }
}

/// Removes accounts that never got their name, because their servers were killed before.
void RemoveLeft(const std::string& directory) {
    std::error_code error;
    for (std::filesystem::directory_iterator i(directory, error), end; !error && i != end; i.increment(error)) {
        const std::string path = i->path();
        if (!i->path().filename().string().starts_with(std::string(AccountName) + NewSuffix)) {
            continue;
        }
        const Opened left(path);
        if (left.Get() >= 0 && Lock(left.Get()) && IsNameOf(path, left.Get())) {
            ::unlink(path.c_str());
        }
    }
}

/// Makes a new file of `size` bytes that is not written yet, locked for this process. Returns: it.
/// `name`: that of the account, to which a suffix is added.
int CreateFile(std::string& name, std::size_t size) {
    const std::string account = name;
    for (int tries = 0;; ++tries) {
        name = account + NewSuffix + "XXXXXX";
        const int file = ::mkostemp(name.data(), O_CLOEXEC);
        // A server that starts at this moment may have taken it for a file that was left, and removed it.
        const bool isOurs = file >= 0 && Lock(file) && IsNameOf(name, file);
        if (isOurs && ::ftruncate(file, static_cast<off_t>(size)) == 0) {
            return file;
        }
        const std::string failure = Sentence("cannot create the account", account);
        if (file >= 0) {
            ::unlink(name.c_str());
            ::close(file);
        }
        if (file < 0 || isOurs || tries == MostTries) {
            throw AccountFileError(failure);
        }
    }
}

} // namespace

AccountFile::AccountFile(const std::optional<std::string>& directory, const AccountCapacities& capacities) {
    assert(capacities.publishers <= MostSlots && capacities.subscribers <= MostSlots &&
           capacities.clients <= MostClients && capacities.textBytes <= MostTextBytes &&
           capacities.latencyPages <= MostLatencyPages);
    std::size_t size = 0;
    regions = Arrange(capacities, size);
    if (directory) {
        path = *directory + '/' + AccountName;
        newPath = path;
        RemoveLeft(*directory);
        file = CreateFile(newPath, size);
    }
    void* const mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                directory ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, file, 0);
    const auto giveUp = [&](const std::string& failure) {
        if (mapped != MAP_FAILED) {
            ::munmap(mapped, size);
        }
        Withdraw();
        if (file >= 0) {
            ::close(file);
        }
        throw AccountFileError(failure);
    };
    if (mapped == MAP_FAILED) {
        giveUp(Sentence("cannot map the account", path));
    }
    // The fixed part now; the rest when it is used.
    if (file >= 0) {
        if (const int error = ::posix_fallocate(file, 0, static_cast<off_t>(regions.publishers.offset)); error != 0) {
            errno = error;
            giveUp(Sentence("there is no room for the account", path));
        }
    }
    memory = {static_cast<std::byte*>(mapped), size};
    Header& header = *new (mapped) Header;
    header.fileSize = size;
    header.regions = regions;
}

AccountFile::~AccountFile() {
    Withdraw();
    ::munmap(memory.data(), memory.size());
    if (file >= 0) {
        ::close(file);
    }
}

/// Removes the name that it has until it is published.
void AccountFile::Withdraw() noexcept {
    if (!newPath.empty()) {
        ::unlink(newPath.c_str());
        newPath.clear();
    }
}

void AccountFile::Publish() {
    MarkReadable();
    if (newPath.empty()) {
        return;
    }
    try {
        // A link, unlike a new name for the file, never replaces what another server has put there meanwhile.
        for (int tries = 0; ::link(newPath.c_str(), path.c_str()) != 0; ++tries) {
            if (errno != EEXIST || tries == MostTries) {
                throw AccountFileError(Sentence("cannot create the account", path));
            }
            KeepPrevious(path);
        }
    } catch (...) {
        Withdraw();
        throw;
    }
    Withdraw();
}

bool AccountFile::Commit(const Region& region, std::size_t count) noexcept {
    if (count > region.count) {
        return false;
    }
    assert(&region >= &regions.threads && &region <= &regions.latencyPages);
    const auto index = static_cast<std::size_t>(&region - &regions.threads);
    const std::size_t wanted = count * region.elementSize;
    if (file < 0 || wanted <= committed[index]) {
        return true;
    }
    const std::size_t end = std::min(RoundUp(wanted, CommitStep), RoundUp(region.count * region.elementSize, Page));
    if (::posix_fallocate(file, static_cast<off_t>(region.offset + committed[index]),
                          static_cast<off_t>(end - committed[index])) != 0) {
        return false;
    }
    committed[index] = end;
    return true;
}

} // namespace instruments
