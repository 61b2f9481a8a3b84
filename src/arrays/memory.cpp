#include "arrays/memory.h"

#include <cstdlib>

namespace zq5 {

#ifdef NODARA_FAULT_INJECTION
namespace {
thread_local unsigned long long fail_countdown = 0;  // 0: disarmed
thread_local unsigned long long allocations = 0;
}  // namespace
#endif

void* __vector_num_alloc(std::size_t bytes) noexcept {
#ifdef NODARA_FAULT_INJECTION
    ++allocations;
    if (fail_countdown != 0 && --fail_countdown == 0) return nullptr;
#endif
    return std::malloc(bytes == 0 ? 1 : bytes);
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
