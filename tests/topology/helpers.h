// Helpers of the topology tests: matrix builders, the derived topology of a mesh,
// an allocation-failure loop and a brute-force oracle for element neighbours.
#ifndef NODARA_TESTS_TOPOLOGY_HELPERS_H
#define NODARA_TESTS_TOPOLOGY_HELPERS_H

#include <zq5/nodara.h>

#include "common/fault_injection.h"
#include "core/shapes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <set>
#include <utility>
#include <vector>

namespace topo_test {

using zq5::dense1D;
using zq5::dense2D;
using namespace zq5::nodara;

constexpr unsigned X = zq5::NULL_INDEX;
using uv = std::vector<unsigned>;

/// A matrix of `rows` rows from its values, column after column.
inline dense2D<unsigned> M(std::size_t rows, std::initializer_list<unsigned> v) {
    return dense2D<unsigned>(rows, v.size() / rows, v);
}

/// One column holding first, first + 1, ..., first + rows - 1.
inline dense2D<unsigned> seq(unsigned rows, unsigned first = 0) {
    dense2D<unsigned> c(rows, 1);
    for (unsigned i = 0; i < rows; ++i) c(i, 0) = first + i;
    return c;
}

inline uv values(const dense1D<unsigned>& v) { return v.empty() ? uv() : uv(v.begin(), v.end()); }
inline uv column(const dense2D<unsigned>& m, std::size_t j) { return uv(m.col(j), m.col(j) + m.rows()); }

/// All columns, one after the other.
inline uv flat(const dense2D<unsigned>& m) {
    uv v;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) v.push_back(m(i, j));
    return v;
}

/// Two copies of a mesh side by side, node indices of the second shifted.
inline dense2D<unsigned> twice(const dense2D<unsigned>& c, unsigned shift) {
    dense2D<unsigned> out(c.rows(), 2 * c.cols());
    for (std::size_t e = 0; e < c.cols(); ++e)
        for (std::size_t i = 0; i < c.rows(); ++i) {
            out(i, e) = c(i, e);
            out(i, c.cols() + e) = c(i, e) == X ? X : c(i, e) + shift;
        }
    return out;
}

/// The columns of a 2-row matrix as pairs.
inline std::set<std::pair<unsigned, unsigned>> pairs(const dense2D<unsigned>& e) {
    std::set<std::pair<unsigned, unsigned>> s;
    for (std::size_t k = 0; k < e.cols(); ++k) s.insert({e(0, k), e(1, k)});
    return s;
}

/// Neighbours, skin, skin face identifiers and ancestors of a mesh.
struct derived {
    dense2D<unsigned> nb, skin;
    dense1D<unsigned> ids, anc;
    unsigned F = 0;
};

inline derived derive(const dense2D<unsigned>& c, element_type t) {
    derived d;
    EXPECT_EQ(get_neighbors(c, t, false, d.nb), 0);
    EXPECT_EQ(get_mesh_boundaries(c, d.nb, t, d.skin), 0);
    EXPECT_EQ(get_mesh_bounding_elements(c, d.nb, t, d.ids, d.F), 0);
    EXPECT_EQ(get_ancestors(c, d.anc), 0);
    return d;
}

/// Fails each allocation of call() in turn: every failing run (at least min_runs)
/// returns -199 and passes check(); the complete run returns 0.
template <class Reset, class Call, class Check>
void expect_allocation_failures(Reset reset, Call call, Check check, unsigned long long min_runs = 1) {
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        reset, call, [&](int r) { EXPECT_EQ(r, -199); check(); }, result);
    EXPECT_GE(runs, min_runs);
    EXPECT_EQ(result, 0);
}

/// The face match written from the rule: same nodes up to rotation and direction.
inline bool faces_match(std::vector<unsigned> a, std::vector<unsigned> b) {
    if (a.size() != b.size()) return false;
    if (a.size() == 1) return a[0] == b[0];
    if (a.size() == 2) return (a[0] == b[0] && a[1] == b[1]) || (a[0] == b[1] && a[1] == b[0]);
    auto rotate_min = [](std::vector<unsigned>& v) {
        const auto p = std::min_element(v.begin(), v.end());
        std::rotate(v.begin(), p, v.end());
    };
    rotate_min(a);
    rotate_min(b);
    if (a[0] != b[0]) return false;
    if (a.size() == 3) return (a[1] == b[1] && a[2] == b[2]) || (a[1] == b[2] && a[2] == b[1]);
    if (a[2] != b[2]) return false;
    return (a[1] == b[1] && a[3] == b[3]) || (a[1] == b[3] && a[3] == b[1]);
}

/// Neighbours by brute force: every face against every later face.
inline dense2D<unsigned> oracle_neighbors(const dense2D<unsigned>& c, element_type type, bool keep) {
    type = detail::substitute_by_rows(type, c.rows());
    const unsigned F = nbr_boundaries(type);
    struct face {
        unsigned e, j;
        std::vector<unsigned> nodes;
        unsigned long long sum;  // a necessary condition of a match, to skip most pairs
    };
    std::vector<face> faces;
    for (unsigned e = 0; e < c.cols(); ++e) {
        const detail::shape* s = detail::linear_shape(detail::column_kind(type, c.col(e)));
        for (unsigned j = 0; j < s->nbr_boundaries; ++j) {
            face f{e, j, {}, 0};
            for (unsigned i = 0; i < s->boundaries[j].size; ++i) {
                f.nodes.push_back(c(s->boundaries[j].nodes[i], e));
                f.sum += f.nodes.back();
            }
            faces.push_back(f);
        }
    }
    dense2D<unsigned> nb(F, c.cols(), X);
    std::vector<bool> used(faces.size(), false);
    for (std::size_t a = 0; a < faces.size(); ++a) {
        if (used[a]) continue;
        std::vector<std::size_t> m;
        for (std::size_t b = a + 1; b < faces.size(); ++b)
            if (!used[b] && faces[a].sum == faces[b].sum && faces_match(faces[a].nodes, faces[b].nodes))
                m.push_back(b);
        for (std::size_t b : m) used[b] = true;
        if (m.size() == 1 || (keep && m.size() > 1)) {
            for (std::size_t b : m) {
                nb(faces[b].j, faces[b].e) = faces[a].e;
                nb(faces[a].j, faces[a].e) = faces[b].e;
            }
        }
    }
    return nb;
}

}  // namespace topo_test

#endif  // NODARA_TESTS_TOPOLOGY_HELPERS_H
