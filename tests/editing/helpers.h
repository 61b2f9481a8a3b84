// Small builders shared by the editing tests.
#ifndef NODARA_TESTS_EDITING_HELPERS_H
#define NODARA_TESTS_EDITING_HELPERS_H

#include "common/fault_injection.h"
#include "common/meshes.h"
#include "common/values.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace nodara_test {

using zq5::dense1D;
using zq5::dense2D;
using V2 = zq5::vector_fixed<double, 2>;
using V3 = zq5::vector_fixed<double, 3>;
using uvec = std::vector<unsigned>;
using dvec = std::vector<double>;
constexpr unsigned NIL = zq5::NULL_INDEX;

inline dense1D<unsigned> list_of(const std::vector<unsigned>& v) {
    dense1D<unsigned> out(v.size());
    for (std::size_t i = 0; i < v.size(); ++i) out[i] = v[i];
    return out;
}

inline std::vector<unsigned> iota(unsigned n) {
    std::vector<unsigned> v(n);
    for (unsigned i = 0; i < n; ++i) v[i] = i;
    return v;
}

inline std::vector<unsigned> vec_of(const dense1D<unsigned>& d) { return nodara_test::values_of(d); }

/// Column by column.
template <class T>
std::vector<T> vec_of(const dense2D<T>& m) {
    std::vector<T> out;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) out.push_back(m(i, j));
    return out;
}

inline void expect_near(const dense2D<double>& m, const std::vector<double>& want, double eps) {
    const std::vector<double> got = vec_of(m);
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], eps) << "entry " << i;
}

/// n nodes: small integers times `step` (grid: many ties), or random reals with about
/// a quarter of the nodes repeating an earlier one exactly.
inline dense2D<double> random_cloud(unsigned dim, unsigned n, bool grid, std::uint64_t seed, double step = 1.0) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> real(-1.0, 1.0);
    std::uniform_int_distribution<int> small(0, 6);
    dense2D<double> pos(dim, n);
    for (unsigned j = 0; j < n; ++j) {
        const unsigned src = !grid && j > 0 && gen() % 4 == 0 ? static_cast<unsigned>(gen() % j) : j;
        for (unsigned k = 0; k < dim; ++k) pos(k, j) = src != j ? pos(k, src) : grid ? small(gen) * step : real(gen);
    }
    return pos;
}

/// A random connectivity of `cols` elements of `rows` nodes below `nodes`.
inline dense2D<unsigned> random_connectivity(unsigned rows, unsigned cols, unsigned nodes, std::uint64_t seed) {
    std::mt19937_64 gen(seed);
    dense2D<unsigned> m(rows, cols);
    for (unsigned j = 0; j < cols; ++j)
        for (unsigned i = 0; i < rows; ++i) m(i, j) = static_cast<unsigned>(gen() % nodes);
    return m;
}

/// Fails each allocation of call() in turn: every failing run returns -199 and passes
/// unchanged(); returns the result of the run that completes.
template <class Setup, class Call, class Unchanged>
int expect_failures_report(Setup setup, Call call, Unchanged unchanged) {
    int result = 0;
    const auto runs = for_each_allocation_failure(
        setup, call,
        [&](int r) {
            EXPECT_EQ(r, -199);
            unchanged();
        },
        result);
    EXPECT_GT(runs, 0u);
    return result;
}

}  // namespace nodara_test

#endif  // NODARA_TESTS_EDITING_HELPERS_H
