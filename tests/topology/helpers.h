// Helpers of the topology tests: conversions to std::vector for readable
// comparisons, and a brute-force oracle for element neighbours.
#ifndef NODARA_TESTS_TOPOLOGY_HELPERS_H
#define NODARA_TESTS_TOPOLOGY_HELPERS_H

#include <zq5/nodara.h>

#include "core/shapes.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace topo_test {

using zq5::dense1D;
using zq5::dense2D;
using namespace zq5::nodara;

constexpr unsigned X = zq5::NULL_INDEX;

inline std::vector<unsigned> values(const dense1D<unsigned>& v) {
    return v.empty() ? std::vector<unsigned>() : std::vector<unsigned>(v.begin(), v.end());
}

inline std::vector<unsigned> column(const dense2D<unsigned>& m, std::size_t j) {
    return std::vector<unsigned>(m.col(j), m.col(j) + m.rows());
}

/// All columns, one after the other.
inline std::vector<unsigned> flat(const dense2D<unsigned>& m) {
    std::vector<unsigned> v;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) v.push_back(m(i, j));
    return v;
}

/// The documented face match, pairwise, written from the rule rather than from a
/// canonical form: sides equal in either direction; triangles rotated to their
/// smallest node; quadrangles also needing equal opposite nodes; a triangle never
/// matches a quadrangle.
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
