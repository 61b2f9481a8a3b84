#include "arrays/memory.h"

#include <cstdint>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace zq5 {

#ifdef NODARA_FAULT_INJECTION
namespace {
thread_local unsigned long long fail_countdown = 0;  // 0: disarmed
thread_local unsigned long long allocations = 0;
}  // namespace
#endif

namespace {

// Large blocks (node tables, coordinates of big meshes) are read and written all
// over: asking the kernel for huge pages spares most page faults and TLB misses.
// Only a hint; nothing changes where it is not supported.
void advise_huge_pages(void* p, std::size_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr std::size_t kLarge = std::size_t(4) << 20;
    constexpr std::uintptr_t kHuge = std::uintptr_t(2) << 20;
    if (bytes < kLarge) return;
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
    const std::uintptr_t last = (reinterpret_cast<std::uintptr_t>(p) + bytes) & ~(kHuge - 1);
    if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

}  // namespace

void* __vector_num_alloc(std::size_t bytes) noexcept {
#ifdef NODARA_FAULT_INJECTION
    ++allocations;
    if (fail_countdown != 0 && --fail_countdown == 0) return nullptr;
#endif
    void* p = std::malloc(bytes == 0 ? 1 : bytes);
    if (p) advise_huge_pages(p, bytes);
    return p;
}

void __vector_num_free(void* p) noexcept { std::free(p); }

namespace detail {

#ifdef NODARA_FAULT_INJECTION
void fail_allocation_after(unsigned long long n) noexcept { fail_countdown = n; }
bool allocation_failure_pending() noexcept { return fail_countdown != 0; }
unsigned long long allocation_count() noexcept { return allocations; }
bool fault_injection_enabled() noexcept { return true; }
#else
void fail_allocation_after(unsigned long long) noexcept {}
bool allocation_failure_pending() noexcept { return false; }
unsigned long long allocation_count() noexcept { return 0; }
bool fault_injection_enabled() noexcept { return false; }
#endif

}  // namespace detail
}  // namespace zq5
