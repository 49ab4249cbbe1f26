#include "records/shared_memory_region.h"

#include "kn/status.h"
#include "names/handshake.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

namespace borven_host {

namespace {

constexpr std::size_t RegionSize = 4096;
static_assert(sizeof(SharedSlot) <= RegionSize);

constexpr int SizeSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

} // namespace

std::int32_t SharedMemoryRegion::Create(std::uint32_t layoutVersion, SharedMemoryRegion& region, UniqueFd& file) {
    UniqueFd created(::memfd_create("borven-slot", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    // Allocated now: a lack of memory is a refused join, not a signal in the middle of a call.
    if (!created || ::ftruncate(created.Get(), RegionSize) != 0 || ::fallocate(created.Get(), 0, 0, RegionSize) != 0 ||
        ::fcntl(created.Get(), F_ADD_SEALS, SizeSeals) != 0) {
        return KnStatusNoResources;
    }
    if (const auto status = Map(created, region); status != KnStatusOk) {
        return status;
    }
    SharedSlot& slot = region.Slot();
    slot.magic = SharedSlot::ExpectedMagic;
    slot.version = layoutVersion;
    slot.size = SharedSlot::SizeIn(layoutVersion);
    slot.recordSize = NkRecordSize;
    file = std::move(created);
    return KnStatusOk;
}

std::int32_t SharedMemoryRegion::Open(const UniqueFd& file, SharedMemoryRegion& region) {
    struct stat status {};
    const int seals = ::fcntl(file.Get(), F_GET_SEALS);
    if (seals < 0 || (seals & SizeSeals) != SizeSeals || ::fstat(file.Get(), &status) != 0 ||
        status.st_size != static_cast<off_t>(RegionSize)) {
        return KnStatusDenied;
    }
    SharedMemoryRegion opened;
    if (const auto mapped = Map(file, opened); mapped != KnStatusOk) {
        return mapped;
    }
    const SharedSlot& slot = opened.Slot();
    if (slot.magic != SharedSlot::ExpectedMagic || slot.version != LayoutVersion || slot.size != sizeof(SharedSlot) ||
        slot.recordSize != NkRecordSize) {
        return KnStatusDenied;
    }
    region = std::move(opened);
    return KnStatusOk;
}

std::int32_t SharedMemoryRegion::Map(const UniqueFd& file, SharedMemoryRegion& region) {
    void* const memory = ::mmap(nullptr, RegionSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file.Get(), 0);
    if (memory == MAP_FAILED) {
        return KnStatusNoResources;
    }
    ::madvise(memory, RegionSize, MADV_DONTFORK);
    // A fresh file is zeros, and zeros are a slot that has never been used.
    // What a child made by fork has in its place is another mapping of its own.
    region.slot =
        std::shared_ptr<SharedSlot>(static_cast<SharedSlot*>(memory), [owner = ::getpid()](SharedSlot* mapped) {
            if (::getpid() == owner) {
                ::munmap(mapped, RegionSize);
            }
        });
    return KnStatusOk;
}

} // namespace borven_host
