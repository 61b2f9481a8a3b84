// Internal: the raw allocator seen from inside the library, the allocator adapter
// that lets standard containers draw from it, and the allocation-failure injector
// used by the tests.
#ifndef NODARA_SRC_ARRAYS_MEMORY_H
#define NODARA_SRC_ARRAYS_MEMORY_H

#include <zq5/arrays.h>

#include <cstddef>
#include <new>
#include <vector>

namespace zq5 {
namespace detail {

/// Standard-container allocator over __vector_num_alloc.  It throws std::bad_alloc
/// on failure; every operation that uses it catches that at its boundary and
/// returns -199, so no exception ever leaves the library.
template <class T>
struct raw_allocator {
    using value_type = T;
    raw_allocator() noexcept = default;
    template <class U>
    raw_allocator(const raw_allocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
        void* p = __vector_num_alloc(n * sizeof(T));
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t) noexcept { __vector_num_free(p); }
    template <class U>
    bool operator==(const raw_allocator<U>&) const noexcept { return true; }
    template <class U>
    bool operator!=(const raw_allocator<U>&) const noexcept { return false; }
};

/// std::vector drawing from the library's allocator.
template <class T>
using vec = std::vector<T, raw_allocator<T>>;

// Allocation-failure injection.  Only effective in builds configured with
// NODARA_FAULT_INJECTION (the test builds); elsewhere these do nothing and no
// allocation ever fails on purpose.  The counter is per thread.

/// Makes the n-th allocation from now fail (n >= 1); 0 disarms.
NODARA_API void fail_allocation_after(unsigned long long n) noexcept;
/// True while an injected failure is armed and has not fired yet.
NODARA_API bool allocation_failure_pending() noexcept;
/// Number of allocations made by this thread so far (0 without injection support).
NODARA_API unsigned long long allocation_count() noexcept;
/// True when the library was built with fault injection.
NODARA_API bool fault_injection_enabled() noexcept;

}  // namespace detail
}  // namespace zq5

#endif  // NODARA_SRC_ARRAYS_MEMORY_H
