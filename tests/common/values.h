// Test helper: the elements of an array view as a std::vector, for comparisons
// and readable failure messages.
#ifndef NODARA_TESTS_COMMON_VALUES_H
#define NODARA_TESTS_COMMON_VALUES_H

#include <zq5/arrays.h>

#include <vector>

namespace nodara_test {

template <class T>
std::vector<T> values_of(const zq5::dense1D<T>& a) {
    return std::vector<T>(a.begin(), a.end());
}

}  // namespace nodara_test

#endif  // NODARA_TESTS_COMMON_VALUES_H
