// Test helper: drives an operation through every allocation it makes, failing
// one at a time.
#ifndef NODARA_TESTS_COMMON_FAULT_INJECTION_H
#define NODARA_TESTS_COMMON_FAULT_INJECTION_H

#include "arrays/memory.h"

#include <gtest/gtest.h>

namespace nodara_test {

/// Skips the current test when the library was built without fault injection.
#define NODARA_REQUIRE_FAULT_INJECTION()                                        \
    do {                                                                        \
        if (!zq5::detail::fault_injection_enabled())                            \
            GTEST_SKIP() << "library built without allocation-failure injection"; \
    } while (0)

/// For k = 1, 2, ...: calls setup() with no failure armed, then call() with the
/// k-th allocation from now failing, then check(result) for every run in which the
/// injected failure fired.  Stops at the first run that completes without the
/// failure firing and returns its result in `final_result`.  Returns the number of
/// failing runs.
template <class Setup, class Call, class Check, class Result>
unsigned long long for_each_allocation_failure(Setup setup, Call call, Check check, Result& final_result) {
    for (unsigned long long k = 1; k < 100000; ++k) {
        setup();
        zq5::detail::fail_allocation_after(k);
        Result r = call();
        const bool fired = !zq5::detail::allocation_failure_pending();
        zq5::detail::fail_allocation_after(0);
        if (!fired) {
            final_result = r;
            return k - 1;
        }
        check(r);
    }
    ADD_FAILURE() << "operation never completed under fault injection";
    return 0;
}

/// As for_each_allocation_failure with an int status, expecting at least one
/// failing run; returns the status of the run that no failure reached.
template <class Setup, class Call, class Check>
int status_under_failures(Setup setup, Call call, Check check) {
    int status = 1;
    EXPECT_GE(for_each_allocation_failure(setup, call, check, status), 1u);
    return status;
}

/// Arms a single failure for the lifetime of the object (the n-th allocation).
class scoped_allocation_failure {
public:
    explicit scoped_allocation_failure(unsigned long long n) { zq5::detail::fail_allocation_after(n); }
    ~scoped_allocation_failure() { zq5::detail::fail_allocation_after(0); }
    bool fired() const { return !zq5::detail::allocation_failure_pending(); }
    scoped_allocation_failure(const scoped_allocation_failure&) = delete;
    scoped_allocation_failure& operator=(const scoped_allocation_failure&) = delete;
};

}  // namespace nodara_test

#endif  // NODARA_TESTS_COMMON_FAULT_INJECTION_H
