// Index utilities: checking, largest index, shifting, renumbering, scattering,
// the counting sort of positions, and bounding boxes.
#include <zq5/nodara.h>

#include "common/fault_injection.h"
#include "common/values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;
using nodara_test::values_of;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;
using doubles = std::vector<double>;
constexpr unsigned N = NULL_INDEX;

// The first `rows` rows of a (rows + 1)-row matrix whose last row holds `filler`:
// a view with ld > rows that must be walked column by column.
matrix strided(const matrix& m, unsigned filler) {
    matrix parent(m.rows() + 1, m.cols(), filler);
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) parent(i, j) = m(i, j);
    return parent.sub_matrix(0, 0, m.rows(), m.cols());
}

using nodara_test::status_under_failures;

// ---------------------------------------------------------------------------
// check_IDs

TEST(CheckIDs, ListForm) {
    struct id_case {
        list ids;
        unsigned nods;
        bool ok;
    };
    const id_case cases[] = {
        {list(), 0, true},      {list{0, 1, N}, 2, true}, {list{0, 2}, 2, false}, {list{N, 5, 0}, 3, false},
        {list{N, 0}, 0, false}, {list{N - 1, 7}, N, true},
    };
    for (const id_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(values_of(c.ids)) + " nods " + std::to_string(c.nods));
        EXPECT_EQ(check_IDs(c.ids, c.nods), c.ok);
        list longer;  // a view is checked, not the out-of-range entry behind it
        ASSERT_TRUE(longer.copy(c.ids) && longer.push_back(c.nods == 0 ? 1 : c.nods));
        EXPECT_EQ(check_IDs(longer.sub_vector(0, c.ids.size()), c.nods), c.ok);
    }
}

// An 8-row mixed solid: a valid hexahedron, then `tail` as the second column.
matrix hexa_then(const values& tail) {
    matrix m(8, 2, 0u);
    for (unsigned i = 0; i < 8; ++i) m(i, 0) = i;
    std::copy(tail.begin(), tail.end(), m.col(1));
    return m;
}

TEST(CheckIDs, MatrixFormsInTheOrderOfTheirRules) {
    const element_type untyped = static_cast<element_type>(31);  // stands for the form without a type
    struct id_case {
        matrix m;
        element_type FE;
        unsigned nods;
        bool ok;
    };
    const id_case cases[] = {
        // Without type: NULL_INDEX always passes, nods = NULL_INDEX accepts anything.
        {matrix(2, 2, {0, 1, N, 2}), untyped, 3, true}, {matrix(2, 2, {0, 1, N, 3}), untyped, 3, false},
        {matrix(1, 2, {N - 1, 4}), untyped, N, true},
        // Plain kinds: rows = nbr_nodes, and NULL_INDEX never passes.
        {matrix(1, 1, {0}), EL_NONE, 10, false},        {matrix(1, 1, {N}), EL_NODE, N, false},
        {matrix(3, 1, {0, 1, 2}), EL_TRIA3, 3, true},   {matrix(4, 1, {0, 1, 2, 3}), EL_TRIA3, 4, false},
        {matrix(3, 2, {0, 1, 2, 0, 1, 3}), EL_TRIA3, 3, false}, {matrix(2, 1, {0, N}), EL_EDGE_ANY, 3, false},
        // Mixed faces: 3 rows are triangles; with 4, NULL_INDEX only in row 3.
        {matrix(3, 1, {0, 1, N}), EL_FACE_ANY, 3, false},
        {matrix(4, 2, {0, 1, 2, N, 0, 2, 3, 1}), EL_FACE_ANY, 4, true},
        {matrix(4, 1, {0, 1, N, 3}), EL_FACE_ANY, 4, false}, {matrix(4, 1, {0, 1, 4, N}), EL_FACE_ANY, 4, false},
        {matrix(5, 1, {0, 1, 2, 3, 0}), EL_FACE_ANY, 4, false},
        // Mixed solids: 4, 5, 6 rows are tetrahedra, pyramids, wedges; with 8, only the tails
        // of wedge, pyramid and tetrahedron may be NULL_INDEX.
        {matrix(4, 1, {0, 1, 2, N}), EL_SOLID_ANY, 4, false}, {matrix(5, 1, {0, 1, 2, 3, 4}), EL_SOLID_ANY, 5, true},
        {matrix(6, 1, {0, 1, 2, 3, 4, N}), EL_SOLID_ANY, 6, false}, {matrix(7, 1, 0u), EL_SOLID_ANY, 10, false},
        {hexa_then({0, 1, 2, 3, 4, 5, N, N}), EL_SOLID_ANY, 8, true},
        {hexa_then({0, 1, 2, 3, 4, N, N, N}), EL_SOLID_ANY, 8, true},
        {hexa_then({0, 1, 2, 3, N, N, N, N}), EL_SOLID_ANY, 8, true},
        {hexa_then({0, 1, 2, 3, 4, 5, 6, N}), EL_SOLID_ANY, 8, false},
        {hexa_then({0, 1, 2, 3, N, 5, N, N}), EL_SOLID_ANY, 8, false},
        {hexa_then({0, 1, 2, 3, N, N, N, 7}), EL_SOLID_ANY, 8, false},
        {hexa_then({0, 1, 2, N, N, N, N, N}), EL_SOLID_ANY, 8, false},
        {hexa_then({0, 1, 2, 3, 8, N, N, N}), EL_SOLID_ANY, 8, false},
    };
    for (const id_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(values(c.m.data(), c.m.data() + c.m.entries())) + " type " +
                     std::to_string(static_cast<int>(c.FE)) + " nods " + std::to_string(c.nods));
        const auto check = [&](const matrix& m) { return c.FE == untyped ? check_IDs(m, c.nods) : check_IDs(m, c.FE, c.nods); };
        EXPECT_EQ(check(c.m), c.ok);
        EXPECT_EQ(check(strided(c.m, c.nods == 0 ? 1 : c.nods)), c.ok);  // the hidden row fails if read
    }
    for (element_type FE : {untyped, EL_NONE, EL_FACE_ANY, EL_SOLID_ANY})  // empty passes whatever the type
        for (const matrix& m : {matrix(), matrix(5, 0), matrix(0, 5)})
            EXPECT_TRUE(FE == untyped ? check_IDs(m, 0) : check_IDs(m, FE, 0));
}

TEST(CheckIDs, LongInputsFindASingleBadEntryAnywhere) {
    const std::size_t n = 2000;
    for (std::size_t at : {std::size_t(0), std::size_t(511), std::size_t(512), n - 1}) {
        SCOPED_TRACE(at);
        list ids(n, 3u);
        ids[at] = 4;
        EXPECT_FALSE(check_IDs(ids, 4));
        matrix m(10, n / 10, 3u);
        m(at % 10, at / 10) = N;
        EXPECT_TRUE(check_IDs(m, 4));
        EXPECT_FALSE(check_IDs(m, EL_TETRA10, 4));
    }
}

// ---------------------------------------------------------------------------
// max_ID, shift_indices, change_indices, permutation

TEST(MaxID, ListAndMatrixFormsWithTheirAsymmetry) {
    EXPECT_EQ(max_ID(list()), N);
    EXPECT_EQ(max_ID(list{N, N}), 0u);
    EXPECT_EQ(max_ID(list{3, N, 7, 2}), 7u);
    EXPECT_EQ(max_ID(list{1, 2, 90}.sub_vector(0, 2)), 2u);
    EXPECT_EQ(max_ID(matrix(3, 0)), N);  // ld = rows: read as one list
    EXPECT_EQ(max_ID(matrix(2, 2, {4, N, 1, 9})), 9u);
    const matrix parent(3, 3, {1, 2, 100, 3, 4, 200, 5, 6, 300});  // ld != rows: columns walked
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 3)), 6u);
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 0)), 0u);
}

TEST(ShiftAndChangeIndices, NullIndexIsSkippedByListsAndMixedKindsOnly) {
    list a{0, 5, N};
    EXPECT_EQ(shift_indices(a, 3), 0);
    EXPECT_EQ(shift_indices(a, -4), 0);  // two's-complement wrap-around
    EXPECT_EQ(values_of(a), (values{N, 4, N}));
    const auto shifted = [](matrix m, int shift, element_type FE) {
        EXPECT_EQ(shift_indices(m, shift, FE), 0);
        return m;
    };
    EXPECT_EQ(shifted(matrix(3, 1, {N, 1, 2}), 1, EL_TRIA3), matrix(3, 1, {0, 2, 3}));
    EXPECT_EQ(shifted(matrix(3, 1, {N, 1, 2}), 0, EL_TRIA3), matrix(3, 1, {N, 1, 2}));
    EXPECT_EQ(shifted(matrix(4, 2, {0, 1, 2, N, 3, 4, 5, 6}), 10, EL_FACE_ANY),
              matrix(4, 2, {10, 11, 12, N, 13, 14, 15, 16}));
    EXPECT_EQ(shifted(matrix(8, 1, {0, 1, 2, 3, N, N, N, N}), 2, EL_SOLID_ANY), matrix(8, 1, {2, 3, 4, 5, N, N, N, N}));
    matrix parent(3, 2, {1, 2, 50, 3, 4, 60});
    matrix view = parent.sub_matrix(0, 0, 2, 2);
    EXPECT_EQ(shift_indices(view, 100, EL_EDGE2), 0);  // the hidden row keeps its value
    EXPECT_EQ(parent, matrix(3, 2, {101, 102, 50, 103, 104, 60}));

    const list new_ids{10, 11, N};
    list b{0, 2, 5, N, 1};
    change_indices(b, new_ids);
    EXPECT_EQ(values_of(b), (values{10, N, 5, N, 11}));
    matrix cparent(3, 2, {0, 1, 2, 1, 3, 0});
    matrix cview = cparent.sub_matrix(0, 0, 2, 2);
    change_indices(cview, new_ids);
    EXPECT_EQ(cparent, matrix(3, 2, {10, 11, 2, 11, 3, 0}));
}

TEST(Permutation, ScattersAndKeepsUnnamedPositions) {
    list v{10, 20, 30, 40};
    EXPECT_EQ(permutation(v, list{2, 0, 1}), 0);
    EXPECT_EQ(values_of(v), (values{20, 30, 10, 40}));
    list w{10, 20, 30};  // two entries naming position 2: the later wins
    EXPECT_EQ(permutation(w, list{2, 2, 0}), 0);
    EXPECT_EQ(values_of(w), (values{30, 20, 20}));
    dense1D<double> d{1.5, 2.5};  // entries beyond the values, and out-of-range targets, are ignored
    EXPECT_EQ(permutation(d, list{1, 0, 5, 7}), 0);
    EXPECT_EQ(permutation(d, list{9, N}), 0);
    EXPECT_EQ(values_of(d), (doubles{2.5, 1.5}));
    list self{1, 2, 0};  // the values may be the permutation itself
    EXPECT_EQ(permutation(self, self), 0);
    EXPECT_EQ(values_of(self), (values{0, 1, 2}));
}

TEST(Permutation, CopyFailureLeavesValuesUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const list perm{1, 2, 0};
    list v;
    EXPECT_EQ(status_under_failures([&] { v = list{10, 20, 30}; }, [&] { return permutation(v, perm); },
                                    [&](int r) {
                                        EXPECT_EQ(r, -199);
                                        EXPECT_EQ(values_of(v), (values{10, 20, 30}));
                                    }),
              0);
    EXPECT_EQ(values_of(v), (values{30, 10, 20}));
}

// ---------------------------------------------------------------------------
// get_sorted_order

TEST(SortedOrder, WorkedExamplesAndSharedBuffers) {
    list order{7, 7, 7, 7, 7, 7};
    list first{7};
    EXPECT_EQ(get_sorted_order(list{2, N, 0, 2}, order, first), 0);
    EXPECT_EQ(values_of(order), (values{2, 0, 3}));
    EXPECT_EQ(values_of(first), (values{0, 1, 1, 3}));
    EXPECT_EQ(get_sorted_order(list(), order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (values{0}));
    // max_ID of a list of NULL_INDEX is 0, so -1 cannot be reached: the list sorts to nothing.
    EXPECT_EQ(get_sorted_order(list{N, N}, order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (values{0, 0}));

    list ids{2, 0, 1, 0};  // order is a view of ids: the input as given is sorted
    list same = ids;
    EXPECT_EQ(get_sorted_order(ids, same, first), 0);
    EXPECT_EQ(values_of(same), (values{1, 3, 2, 0}));
    EXPECT_EQ(values_of(first), (values{0, 2, 3, 4}));
    list ids2{3, 3, 0};  // first is a view of ids and must grow past it
    list first2 = ids2.sub_vector(0, 1);
    EXPECT_EQ(get_sorted_order(ids2, order, first2), 0);
    EXPECT_EQ(values_of(order), (values{2, 0, 1}));
    EXPECT_EQ(values_of(first2), (values{0, 1, 1, 1, 3}));
}

TEST(SortedOrder, MatchesAStableSortOfPositions) {
    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        const unsigned n = 1 + rng() % 300, range = 1 + rng() % 50;
        list ids(n);
        for (unsigned i = 0; i < n; ++i) ids[i] = rng() % 8 == 0 ? N : rng() % range;
        values expected_order, expected_first(max_ID(ids) + 2, 0);
        for (unsigned i = 0; i < n; ++i)
            if (ids[i] != N) {
                expected_order.push_back(i);
                for (std::size_t v = ids[i] + 1; v < expected_first.size(); ++v) ++expected_first[v];
            }
        std::stable_sort(expected_order.begin(), expected_order.end(),
                         [&](unsigned a, unsigned b) { return ids[a] < ids[b]; });
        list order, first;
        ASSERT_EQ(get_sorted_order(ids, order, first), 0);
        EXPECT_EQ(values_of(order), expected_order);
        EXPECT_EQ(values_of(first), expected_first);
    }
}

TEST(SortedOrder, AllocationFailureEmptiesBothOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const list input{2, N, 0, 2};
    list order, first;
    EXPECT_EQ(status_under_failures([&] { order = list{9, 9}; first = list{9}; },
                                    [&] { return get_sorted_order(input, order, first); },
                                    [&](int r) {
                                        EXPECT_EQ(r, -199);
                                        EXPECT_EQ(order.size() + first.size(), 0u);
                                    }),
              0);
    EXPECT_EQ(values_of(first), (values{0, 1, 1, 3}));
}

// ---------------------------------------------------------------------------
// inc_bounding_box

using box2 = vector_fixed<double, 2>;
using box3 = vector_fixed<double, 3>;
constexpr double inf = std::numeric_limits<double>::infinity();

// min then max, coordinate by coordinate.
template <std::size_t D>
doubles corners(const vector_fixed<double, D>& lo, const vector_fixed<double, D>& hi) {
    doubles c(lo.data(), lo.data() + D);
    c.insert(c.end(), hi.data(), hi.data() + D);
    return c;
}

TEST(BoundingBox, AllNodesWidensTheCallersBox) {
    const dense2D<double> pos(2, 3, {1., 5., -2., 0.5, 3., 7.});
    box2 lo{-10., -10.}, hi{10., 10.};  // never reset: a larger box stays
    EXPECT_EQ(inc_bounding_box(pos, lo, hi), 0);
    EXPECT_EQ(corners(lo, hi), (doubles{-10., -10., 10., 10.}));
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 l2{inf, inf}, h2{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos3, l2, h2), -1);  // wrong dimension: the box unchanged
    EXPECT_EQ(corners(l2, h2), (doubles{inf, inf, -inf, -inf}));
    box3 l3{inf, inf, inf}, h3{-inf, -inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos3, l3, h3), 0);
    EXPECT_EQ(corners(l3, h3), (doubles{1., 2., 3., 1., 2., 3.}));
    const dense2D<double> parent(3, 2, {1., 2., 100., 3., 4., -100.});  // the hidden row is no coordinate
    EXPECT_EQ(inc_bounding_box(parent.sub_matrix(0, 0, 2, 2), l2, h2), 0);
    EXPECT_EQ(corners(l2, h2), (doubles{1., 2., 3., 4.}));

    // A NaN min is replaced, max never takes a NaN, a NaN coordinate replaces min.
    const double nan = std::nan("");
    box2 nlo{nan, nan}, nhi{nan, -inf};
    EXPECT_EQ(inc_bounding_box(dense2D<double>(2, 2, {3., 4., 1., 5.}), nlo, nhi), 0);
    EXPECT_EQ(nlo[0], 1.);
    EXPECT_EQ(nlo[1], 4.);
    EXPECT_TRUE(std::isnan(nhi[0]));
    EXPECT_EQ(nhi[1], 5.);
    box2 l{0., 0.}, h{0., 0.};
    EXPECT_EQ(inc_bounding_box(dense2D<double>(2, 3, {1., 1., nan, -1., 2., 0.5}), l, h), 0);
    EXPECT_EQ(corners(l, h), (doubles{2., -1., 2., 1.}));
}

TEST(BoundingBox, NodeListAndConnectivityStatusesInOrder) {
    const dense2D<double> pos(2, 3, {0., 0., 4., 1., -1., 2.});
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 lo{inf, inf}, hi{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos3, list(), lo, hi), 0);  // empty: success before any check
    EXPECT_EQ(inc_bounding_box(pos3, matrix(1, 1, {N}), lo, hi), 0);
    EXPECT_EQ(inc_bounding_box(pos3, list{7}, lo, hi), -1);  // dimension before range
    EXPECT_EQ(inc_bounding_box(pos3, matrix(1, 1, {0}), lo, hi), -1);
    EXPECT_EQ(inc_bounding_box(pos, list{1, 3}, lo, hi), -2);  // before anything changes
    EXPECT_EQ(inc_bounding_box(pos, matrix(2, 1, {1, 3}), lo, hi), -2);
    EXPECT_EQ(corners(lo, hi), (doubles{inf, inf, -inf, -inf}));
    EXPECT_EQ(inc_bounding_box(pos, list{2, 1}, lo, hi), 0);  // only the listed nodes
    EXPECT_EQ(corners(lo, hi), (doubles{-1., 1., 4., 2.}));
    // Connectivity: node 3 only appears in the hidden row of the strided view.
    const dense2D<double> pos4(3, 4, {0., 0., 0., 1., 2., 3., -1., 5., 0., 9., 9., 9.});
    box3 l3{inf, inf, inf}, h3{-inf, -inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos4, strided(matrix(2, 2, {0, 1, N, 2}), 3), l3, h3), 0);
    EXPECT_EQ(corners(l3, h3), (doubles{-1., 0., 0., 1., 5., 3.}));
}

TEST(BoundingBox, ConnectivityFormUnderAllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    // Node j at (j, -j); the extreme nodes come first, where the node list grows.
    const unsigned n = 300;
    dense2D<double> pos(2, n);
    matrix connect(1, n);
    for (unsigned j = 0; j < n; ++j) {
        pos(0, j) = j;
        pos(1, j) = -static_cast<double>(j);
        connect(0, j) = j == 0 ? n - 1 : j == n - 1 ? 1 : j == 1 ? 0 : j;
    }
    const doubles full{0., 1. - n, n - 1., 0.};
    box2 lo, hi;
    EXPECT_EQ(status_under_failures([&] { lo = box2{inf, inf}; hi = box2{-inf, -inf}; },
                                    [&] { return inc_bounding_box(pos, connect, lo, hi); },
                                    [&](int r) {
                                        if (r != -199) {
                                            EXPECT_EQ(corners(lo, hi), full) << r;  // reported, or complete
                                        }
                                    }),
              0);
    EXPECT_EQ(corners(lo, hi), full);
}

}  // namespace
