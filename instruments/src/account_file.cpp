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
#include <cstring>
#include <new>

namespace instruments {

using namespace layout;

namespace {

constexpr std::size_t Page = 4096;
constexpr std::size_t CommitStep = 64 * Page;

std::size_t RoundUp(std::size_t bytes, std::size_t unit) {
    return (bytes + unit - 1) / unit * unit;
}

Regions Arrange(const AccountCapacities& capacities, std::size_t& fileSize) {
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

/// Moves the account of an earlier server out of the way.
void KeepPrevious(const std::string& path) {
    const int old = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (old < 0) {
        if (errno == ENOENT) {
            return;
        }
        throw AccountFileError(Sentence("cannot replace the account", path));
    }
    const bool isTaken = ::flock(old, LOCK_EX | LOCK_NB) != 0;
    const bool isMoved = !isTaken && ::rename(path.c_str(), (path + ".previous").c_str()) == 0;
    const std::string failure = isTaken ? "another server keeps its account in '" + path + "'"
                                        : Sentence("cannot keep the previous account", path);
    ::close(old);
    if (!isMoved) {
        throw AccountFileError(failure);
    }
}

/// Returns: a new file of `size` bytes that is not written yet, locked for this process.
int CreateFile(const std::string& path, std::size_t size) {
    ::unlink(path.c_str());
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (file < 0 || ::flock(file, LOCK_EX | LOCK_NB) != 0 || ::ftruncate(file, static_cast<off_t>(size)) != 0) {
        const std::string failure = Sentence("cannot create the account", path);
        if (file >= 0) {
            ::unlink(path.c_str());
            ::close(file);
        }
        throw AccountFileError(failure);
    }
    return file;
}

} // namespace

AccountFile::AccountFile(const std::optional<std::string>& directory, const AccountCapacities& capacities) {
    assert(capacities.publishers <= MostSlots && capacities.subscribers <= MostSlots &&
           capacities.clients <= MostClients && capacities.textBytes <= MostTextBytes &&
           capacities.latencyPages <= MostLatencyPages);
    std::size_t size = 0;
    const Regions regions = Arrange(capacities, size);
    path = directory ? *directory + "/account" : "";
    newPath = path + ".new." + std::to_string(::getpid());
    if (directory) {
        KeepPrevious(path);
        file = CreateFile(newPath, size);
    }
    void* const mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                directory ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, file, 0);
    if (mapped == MAP_FAILED) {
        const std::string failure = Sentence("cannot map the account", path);
        if (file >= 0) {
            ::unlink(newPath.c_str());
            ::close(file);
        }
        throw AccountFileError(failure);
    }
    memory = {static_cast<std::byte*>(mapped), size};
    const auto give = [&](std::string what) {
        ::munmap(mapped, size);
        if (file >= 0) {
            ::unlink(newPath.c_str());
            ::close(file);
        }
        throw AccountFileError(std::move(what));
    };
    // The fixed part now; the rest when it is used.
    if (file >= 0) {
        if (const int error = ::posix_fallocate(file, 0, static_cast<off_t>(regions.publishers.offset)); error != 0) {
            errno = error;
            give(Sentence("there is no room for the account", path));
        }
    }
    Header& header = *new (mapped) Header;
    header.fileSize = size;
    header.regions = regions;
}

AccountFile::~AccountFile() {
    ::munmap(memory.data(), memory.size());
    if (file >= 0) {
        ::close(file);
    }
}

void AccountFile::Publish() {
    Head().magic.store(Magic, std::memory_order_release);
    if (file >= 0 && ::rename(newPath.c_str(), path.c_str()) != 0) {
        const std::string failure = Sentence("cannot create the account", path);
        ::unlink(newPath.c_str());
        throw AccountFileError(failure);
    }
}

bool AccountFile::Commit(const Region& region, std::size_t count) noexcept {
    if (count > region.count) {
        return false;
    }
    const auto index = static_cast<std::size_t>(&region - &Head().regions.threads);
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
