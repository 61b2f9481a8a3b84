// Small builders shared by the editing tests.
#ifndef NODARA_TESTS_EDITING_HELPERS_H
#define NODARA_TESTS_EDITING_HELPERS_H

#include <zq5/nodara.h>

#include <cstdint>
#include <random>
#include <vector>

namespace nodara_test {

using zq5::dense1D;
using zq5::dense2D;

inline dense1D<unsigned> list_of(const std::vector<unsigned>& v) {
    dense1D<unsigned> out(v.size());
    for (std::size_t i = 0; i < v.size(); ++i) out[i] = v[i];
    return out;
}

inline std::vector<unsigned> vec_of(const dense1D<unsigned>& d) { return std::vector<unsigned>(d.begin(), d.end()); }

inline std::vector<unsigned> vec_of(const dense2D<unsigned>& m) {
    std::vector<unsigned> out;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) out.push_back(m(i, j));
    return out;
}

inline std::vector<double> vec_of(const dense2D<double>& m) {
    std::vector<double> out;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) out.push_back(m(i, j));
    return out;
}

/// A cloud of n nodes in `dim` dimensions: with grid = true the coordinates are
/// small integers times `step` (many equal or nearly equal distances, coincident
/// nodes), otherwise random reals with about a quarter of the nodes repeating an
/// earlier node exactly.
inline dense2D<double> random_cloud(unsigned dim, unsigned n, bool grid, std::uint64_t seed, double step = 1.0) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> real(-1.0, 1.0);
    std::uniform_int_distribution<int> small(0, 6);
    dense2D<double> pos(dim, n);
    for (unsigned j = 0; j < n; ++j) {
        if (!grid && j > 0 && gen() % 4 == 0) {
            const unsigned src = static_cast<unsigned>(gen() % j);
            for (unsigned k = 0; k < dim; ++k) pos(k, j) = pos(k, src);
            continue;
        }
        for (unsigned k = 0; k < dim; ++k) pos(k, j) = grid ? small(gen) * step : real(gen);
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

}  // namespace nodara_test

#endif  // NODARA_TESTS_EDITING_HELPERS_H
