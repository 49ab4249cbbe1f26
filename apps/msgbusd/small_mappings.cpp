// The memory mappings of this program, with the small ones from a pool.
//
// The bus maps two arenas of a few bytes for every request that a worker of the dynamic mode takes, and unmaps them
// after its reply. To the kernel that is two new address ranges, two zeroed pages and two flushes of the translation
// buffers, on every CPU that runs a thread of the process: 20 us for a request, 50 us where another thread is running.
// docs/performance.md has the figures. So this program has its own mmap and munmap, as others have their own malloc: an
// anonymous page comes from a pool, all else is the kernel's.

#include "page_pool.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constinit msgbus_server::PagePool pool;

} // namespace

extern "C" {

[[gnu::visibility("default")]] void* mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                                          off_t offset) noexcept {
    if (address == nullptr && length != 0 && length <= msgbus_server::PagePool::PageSize &&
        protection == (PROT_READ | PROT_WRITE) && flags == (MAP_PRIVATE | MAP_ANONYMOUS) &&
        getpagesize() == static_cast<int>(msgbus_server::PagePool::PageSize)) {
        if (void* const page = pool.Take()) {
            return page;
        }
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): so the kernel answers
    return reinterpret_cast<void*>(syscall(SYS_mmap, address, length, protection, flags, descriptor, offset));
}

[[gnu::visibility("default")]] int munmap(void* address, std::size_t length) noexcept {
    if (length != 0 && length <= msgbus_server::PagePool::PageSize && pool.GiveBack(address)) {
        return 0;
    }
    return static_cast<int>(syscall(SYS_munmap, address, length));
}

} // extern "C"
