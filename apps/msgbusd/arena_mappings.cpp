// The arenas of the bus from a pool.
//
// The bus maps two arenas of a few bytes for every request that a worker of the dynamic mode serves, and unmaps them
// after its reply. For the kernel that is two address ranges, two zeroed pages and two flushes of the translation
// buffers, on every processor that runs a thread of the process: 20 us a request, 50 us where another thread is running
// (docs/performance.md). So this program replaces mmap and munmap, as other programs replace malloc. Every call goes to
// the kernel, except those that the bus's own library makes for an arena.

#include "arena_mappings.h"

#include "arena_pages.h"

#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string_view>

namespace {

using msgbus_server::ArenaPages;

constexpr std::string_view BusLibrary = "libmessagebus.so";
[[maybe_unused]] constexpr std::size_t ArenaLength =
    sizeof(std::uint64_t); // an arena without room: its length word alone

[[maybe_unused]] constinit ArenaPages pool;
constinit std::atomic<std::uintptr_t> busBegin{0}; // where the bus's library is mapped; empty: nothing is pooled
constinit std::atomic<std::uintptr_t> busEnd{0};
constinit std::atomic<std::uint64_t> pooled{0};

[[maybe_unused]] bool IsTheBus(const void* caller) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= busBegin.load(std::memory_order_relaxed) && address < busEnd.load(std::memory_order_relaxed);
}

int FindBus(dl_phdr_info* object, std::size_t, void*) {
    const std::string_view path(object->dlpi_name);
    if (!path.substr(path.rfind('/') + 1).starts_with(BusLibrary)) {
        return 0;
    }
    for (unsigned i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
            busBegin.store(object->dlpi_addr + segment.p_vaddr, std::memory_order_relaxed);
            busEnd.store(object->dlpi_addr + segment.p_vaddr + segment.p_memsz, std::memory_order_relaxed);
        }
    }
    return 1;
}

} // namespace

void msgbusd::PoolArenaMappings() {
    if (::getpagesize() == static_cast<int>(ArenaPages::PageSize)) {
        ::dl_iterate_phdr(FindBus, nullptr);
    }
}

std::uint64_t msgbusd::PooledArenaCount() noexcept {
    return pooled.load(std::memory_order_relaxed);
}

#ifndef BORVEN_KEEP_MMAP // where a sanitizer has an mmap of its own

extern "C" {

[[gnu::visibility("default")]] void* mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                                          off_t offset) noexcept {
    if (length == ArenaLength && address == nullptr && protection == (PROT_READ | PROT_WRITE) &&
        flags == (MAP_PRIVATE | MAP_ANONYMOUS) && IsTheBus(__builtin_return_address(0))) {
        if (void* const page = pool.Lend()) {
            pooled.fetch_add(1, std::memory_order_relaxed);
            return page;
        }
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): so the kernel answers
    return reinterpret_cast<void*>(::syscall(SYS_mmap, address, length, protection, flags, descriptor, offset));
}

[[gnu::visibility("default")]] int munmap(void* address, std::size_t length) noexcept {
    if (length == ArenaLength && IsTheBus(__builtin_return_address(0)) && pool.GiveBack(address)) {
        return 0;
    }
    return static_cast<int>(::syscall(SYS_munmap, address, length));
}

} // extern "C"

#endif
