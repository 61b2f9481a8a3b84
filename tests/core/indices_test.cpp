// Index utilities: checking, largest index, shifting, renumbering, scattering,
// the counting sort of positions, and bounding boxes.
#include <zq5/nodara.h>

#include "common/fault_injection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;
using nodara_test::for_each_allocation_failure;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;
constexpr unsigned N = NULL_INDEX;

using doubles = std::vector<double>;

template <class T>
std::vector<T> values_of(const dense1D<T>& a) { return std::vector<T>(a.begin(), a.end()); }

template <class T>
dense1D<T> make(const std::vector<T>& v) {
    dense1D<T> a;
    EXPECT_TRUE(a.resize(v.size(), T()));
    std::copy(v.begin(), v.end(), a.begin());
    return a;
}

// The first `rows` rows of a (rows + 1)-row matrix whose last row holds `filler`:
// a view with ld > rows that must be walked column by column.
matrix strided(const matrix& m, unsigned filler) {
    matrix parent(m.rows() + 1, m.cols(), filler);
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) parent(i, j) = m(i, j);
    return parent.sub_matrix(0, 0, m.rows(), m.cols());
}

// ---------------------------------------------------------------------------
// check_IDs

TEST(CheckIDs, ListForm) {
    struct id_case {
        list ids;
        unsigned nods;
        bool ok;
    };
    const id_case cases[] = {
        {list(), 0, true},     {list{0, 1, N}, 2, true}, {list{0, 2}, 2, false}, {list{N, 5, 0}, 3, false},
        {list{N, N}, 0, true}, {list{N, 0}, 0, false},   {list{N - 1, 7}, N, true},
    };
    for (const id_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(values_of(c.ids)) + " nods " + std::to_string(c.nods));
        EXPECT_EQ(check_IDs(c.ids, c.nods), c.ok);
        // A view is checked, not its buffer: an out-of-range entry behind it is not read.
        list longer;
        ASSERT_TRUE(longer.copy(c.ids));
        ASSERT_TRUE(longer.push_back(c.nods == 0 ? 1 : c.nods));
        EXPECT_EQ(check_IDs(longer.sub_vector(0, c.ids.size()), c.nods), c.ok);
    }
}

TEST(CheckIDs, MatrixFormsInTheOrderOfTheirRules) {
    // Outside the catalogue: stands for the form without a type.
    const element_type untyped = static_cast<element_type>(31);
    struct id_case {
        matrix m;
        element_type FE;
        unsigned nods;
        bool ok;
    };
    const id_case cases[] = {
        // Without type: NULL_INDEX always passes, nods = NULL_INDEX accepts anything.
        {matrix(2, 2, {0, 1, N, 2}), untyped, 3, true}, {matrix(2, 2, {0, 1, N, 3}), untyped, 3, false},
        {matrix(1, 2, {N - 1, 4}), untyped, N, true},   {matrix(1, 2, {N, 0}), untyped, 0, false},
        // Plain kinds: rows = nbr_nodes, and NULL_INDEX never passes.
        {matrix(1, 1, {0}), EL_NONE, 10, false},        {matrix(1, 1, {0}), static_cast<element_type>(30), 10, false},
        {matrix(1, 1, {N - 1}), EL_NODE, N, true},      {matrix(1, 1, {N}), EL_NODE, N, false},
        {matrix(3, 1, {0, 1, 2}), EL_TRIA3, 3, true},   {matrix(4, 1, {0, 1, 2, 3}), EL_TRIA3, 4, false},
        {matrix(3, 1, {0, 1, N}), EL_TRIA3, N, false},  {matrix(3, 2, {0, 1, 2, 0, 1, 3}), EL_TRIA3, 3, false},
        {matrix(2, 1, {0, N}), EL_EDGE_ANY, 3, false},  {matrix(2, 2, {0, 1, 1, 2}), EL_EDGE_ANY, 3, true},
        // Mixed faces: 3 rows are triangles; with 4, NULL_INDEX only in row 3.
        {matrix(3, 1, {0, 1, 2}), EL_FACE_ANY, 3, true}, {matrix(3, 1, {0, 1, N}), EL_FACE_ANY, 3, false},
        {matrix(4, 2, {0, 1, 2, N, 0, 2, 3, 1}), EL_FACE_ANY, 4, true},
        {matrix(4, 1, {N, 1, 2, 3}), EL_FACE_ANY, 4, false}, {matrix(4, 1, {0, 1, N, 3}), EL_FACE_ANY, 4, false},
        {matrix(4, 1, {0, 1, 2, 4}), EL_FACE_ANY, 4, false}, {matrix(4, 1, {0, 1, 4, N}), EL_FACE_ANY, 4, false},
        {matrix(2, 1, {0, 1}), EL_FACE_ANY, 4, false},       {matrix(5, 1, {0, 1, 2, 3, 0}), EL_FACE_ANY, 4, false},
        // Mixed solids: 4, 5, 6 rows are tetrahedra, pyramids, wedges; 8 rows below.
        {matrix(4, 1, {0, 1, 2, 3}), EL_SOLID_ANY, 4, true}, {matrix(4, 1, {0, 1, 2, N}), EL_SOLID_ANY, 4, false},
        {matrix(5, 1, {0, 1, 2, 3, 4}), EL_SOLID_ANY, 5, true}, {matrix(5, 1, {0, 1, 2, 3, 5}), EL_SOLID_ANY, 5, false},
        {matrix(6, 1, {0, 1, 2, 3, 4, 5}), EL_SOLID_ANY, 6, true},
        {matrix(6, 1, {0, 1, 2, 3, 4, N}), EL_SOLID_ANY, 6, false},
        {matrix(3, 1, 0u), EL_SOLID_ANY, 10, false},         {matrix(7, 1, 0u), EL_SOLID_ANY, 10, false},
    };
    for (const id_case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(values(c.m.data(), c.m.data() + c.m.entries())) + " type " +
                     std::to_string(static_cast<int>(c.FE)) + " nods " + std::to_string(c.nods));
        const auto check = [&](const matrix& m) { return c.FE == untyped ? check_IDs(m, c.nods) : check_IDs(m, c.FE, c.nods); };
        EXPECT_EQ(check(c.m), c.ok);
        // Behind a strided view whose hidden row fails if it is read.
        EXPECT_EQ(check(strided(c.m, c.nods == 0 ? 1 : c.nods)), c.ok);
    }
    // Empty matrices pass whatever the type.
    for (element_type FE : {untyped, EL_NONE, EL_TRIA3, EL_FACE_ANY, EL_SOLID_ANY, static_cast<element_type>(30)})
        for (const matrix& m : {matrix(), matrix(5, 0), matrix(0, 5)})
            EXPECT_TRUE(FE == untyped ? check_IDs(m, 0) : check_IDs(m, FE, 0));
}

TEST(CheckIDs, MixedSolidsTailPatterns) {
    // Eight rows: hexahedron, then the tails of wedge, pyramid, tetrahedron.
    struct pattern {
        values rows;
        bool valid;
    };
    const pattern patterns[] = {
        {{0, 1, 2, 3, 4, 5, 6, 7}, true},  {{0, 1, 2, 3, 4, 5, N, N}, true},   {{0, 1, 2, 3, 4, N, N, N}, true},
        {{0, 1, 2, 3, N, N, N, N}, true},  {{0, 1, 2, 3, 4, 5, 6, N}, false},  {{0, 1, 2, 3, N, 5, N, N}, false},
        {{0, 1, 2, 3, 4, N, 6, N}, false}, {{0, 1, 2, 3, N, N, N, 7}, false},  {{0, 1, 2, N, N, N, N, N}, false},
        {{N, 1, 2, 3, 4, 5, 6, 7}, false}, {{0, 1, 2, 3, 4, 5, 8, 7}, false},  {{0, 1, 2, 3, 8, N, N, N}, false},
        {{0, 1, 2, 8, N, N, N, N}, false},
    };
    for (const pattern& p : patterns) {
        SCOPED_TRACE(::testing::PrintToString(p.rows));
        matrix m(8, 2, 0u);
        for (std::size_t i = 0; i < 8; ++i) {
            m(i, 0) = static_cast<unsigned>(i);  // a valid hexahedron first
            m(i, 1) = p.rows[i];
        }
        EXPECT_EQ(check_IDs(m, EL_SOLID_ANY, 8), p.valid);
        EXPECT_EQ(check_IDs(strided(m, 1000), EL_SOLID_ANY, 8), p.valid);
    }
}

TEST(CheckIDs, LongInputsFindASingleBadEntryAnywhere) {
    // Long runs may be scanned in blocks: a bad entry must be found at every place.
    const std::size_t n = 2000;
    for (std::size_t at : {std::size_t(0), std::size_t(511), std::size_t(512), std::size_t(1500), n - 1}) {
        SCOPED_TRACE(at);
        list ids(n, 3u);
        ids[n / 3] = N;
        EXPECT_TRUE(check_IDs(ids, 4));
        ids[at] = 4;
        EXPECT_FALSE(check_IDs(ids, 4));
        matrix m(10, n / 10, 3u);
        EXPECT_TRUE(check_IDs(m, EL_TETRA10, 4));
        m(at % 10, at / 10) = N;
        EXPECT_TRUE(check_IDs(m, 4));
        EXPECT_FALSE(check_IDs(m, EL_TETRA10, 4));
        m(at % 10, at / 10) = 4;
        EXPECT_FALSE(check_IDs(m, 4));
    }
}

// ---------------------------------------------------------------------------
// max_ID, shift_indices, change_indices

TEST(MaxID, ListAndMatrixFormsWithTheirAsymmetry) {
    EXPECT_EQ(max_ID(list()), N);
    EXPECT_EQ(max_ID(list{N, N}), 0u);
    EXPECT_EQ(max_ID(list{3, N, 7, 2}), 7u);
    EXPECT_EQ(max_ID(list{N - 1, N}), N - 1);
    EXPECT_EQ(max_ID(list{1, 2, 90}.sub_vector(0, 2)), 2u);
    // ld = rows: read as one list, so an empty matrix gives NULL_INDEX.
    EXPECT_EQ(max_ID(matrix(3, 0)), N);
    EXPECT_EQ(max_ID(matrix(2, 2, {4, N, 1, 9})), 9u);
    EXPECT_EQ(max_ID(matrix(2, 1, {N, N})), 0u);
    // ld != rows: columns are walked, so an empty view gives 0.
    const matrix parent(3, 3, {1, 2, 100, 3, 4, 200, 5, 6, 300});
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 3)), 6u);
    EXPECT_EQ(max_ID(parent.sub_matrix(1, 1, 2, 2)), 300u);
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 0)), 0u);
    EXPECT_EQ(max_ID(strided(matrix(2, 1, {N, N}), 50)), 0u);
}

TEST(ShiftIndices, NullIndexIsSkippedByListsAndMixedKindsOnly) {
    list a{0, 5, N};
    EXPECT_EQ(shift_indices(a, 3), 0);
    EXPECT_EQ(values_of(a), (values{3, 8, N}));
    EXPECT_EQ(shift_indices(a, -4), 0);  // two's-complement wrap-around
    EXPECT_EQ(values_of(a), (values{N, 4, N}));
    struct shift_case {
        matrix before;
        element_type FE;
        int shift;
        matrix after;
    };
    const shift_case cases[] = {
        {matrix(3, 1, {N, 1, 2}), EL_TRIA3, 1, matrix(3, 1, {0, 2, 3})},
        {matrix(4, 1, {0, 1, 2, N}), EL_QUAD4, 10, matrix(4, 1, {10, 11, 12, 9})},
        {matrix(4, 2, {0, 1, 2, N, 3, 4, 5, 6}), EL_FACE_ANY, 10, matrix(4, 2, {10, 11, 12, N, 13, 14, 15, 16})},
        {matrix(8, 1, {0, 1, 2, 3, N, N, N, N}), EL_SOLID_ANY, 2, matrix(8, 1, {2, 3, 4, 5, N, N, N, N})},
        {matrix(3, 1, {N, 1, 2}), EL_TRIA3, 0, matrix(3, 1, {N, 1, 2})},
    };
    for (const shift_case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.FE));
        matrix m;
        ASSERT_TRUE(m.copy(c.before));
        EXPECT_EQ(shift_indices(m, c.shift, c.FE), 0);
        EXPECT_EQ(m, c.after);
    }
    // A strided view: the hidden row keeps its value.
    matrix parent(3, 2, {1, 2, 50, 3, 4, 60});
    matrix view = parent.sub_matrix(0, 0, 2, 2);
    EXPECT_EQ(shift_indices(view, 100, EL_EDGE2), 0);
    EXPECT_EQ(parent, matrix(3, 2, {101, 102, 50, 103, 104, 60}));
}

TEST(ChangeIndices, ListAndStridedMatrix) {
    const list new_ids{10, 11, N};
    list a{0, 2, 5, N, 1};
    change_indices(a, new_ids);
    EXPECT_EQ(values_of(a), (values{10, N, 5, N, 11}));
    change_indices(a, list());
    EXPECT_EQ(values_of(a), (values{10, N, 5, N, 11}));
    matrix parent(3, 2, {0, 1, 2, 1, 3, 0});
    matrix view = parent.sub_matrix(0, 0, 2, 2);
    change_indices(view, new_ids);
    EXPECT_EQ(parent, matrix(3, 2, {10, 11, 2, 11, 3, 0}));
}

// ---------------------------------------------------------------------------
// permutation

TEST(Permutation, ScattersAndKeepsUnnamedPositions) {
    list v{10, 20, 30, 40};
    EXPECT_EQ(permutation(v, list{2, 0, 1}), 0);
    EXPECT_EQ(values_of(v), (values{20, 30, 10, 40}));
    // Two entries naming position 2: the later wins; position 1 keeps its value.
    list w{10, 20, 30};
    EXPECT_EQ(permutation(w, list{2, 2, 0}), 0);
    EXPECT_EQ(values_of(w), (values{30, 20, 20}));
    // Entries beyond the values, and out-of-range targets, are ignored.
    dense1D<double> d{1.5, 2.5};
    EXPECT_EQ(permutation(d, list{1, 0, 5, 7}), 0);
    EXPECT_EQ(permutation(d, list{9, N}), 0);
    EXPECT_EQ(values_of(d), (doubles{2.5, 1.5}));
    list empty;
    EXPECT_EQ(permutation(empty, list{0, 1}), 0);
    EXPECT_TRUE(empty.empty());
    // The values may be the permutation itself: the scatter reads the old values.
    list self{1, 2, 0};
    EXPECT_EQ(permutation(self, self), 0);
    EXPECT_EQ(values_of(self), (values{0, 1, 2}));
}

TEST(Permutation, CopyFailureLeavesValuesUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const list perm{1, 2, 0};
    const auto run = [&](const auto& initial, const auto& expected) {
        dense1D<typename std::decay_t<decltype(initial)>::value_type> v;
        int status = 1;
        EXPECT_EQ(for_each_allocation_failure([&] { v = make(initial); }, [&] { return permutation(v, perm); },
                                              [&](int r) {
                                                  EXPECT_EQ(r, -199);
                                                  EXPECT_EQ(values_of(v), initial);
                                              },
                                              status),
                  2u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(v), expected);
    };
    run(values{10, 20, 30}, values{30, 10, 20});
    run(doubles{1., 2.}, doubles{1., 1.});  // position 0 is named by no entry
}

// ---------------------------------------------------------------------------
// get_sorted_order

TEST(SortedOrder, WorkedExamplesAndEmptyInputs) {
    list order{7, 7, 7, 7, 7, 7};
    list first{7};
    EXPECT_EQ(get_sorted_order(list{2, N, 0, 2}, order, first), 0);
    EXPECT_EQ(values_of(order), (values{2, 0, 3}));
    EXPECT_EQ(values_of(first), (values{0, 1, 1, 3}));
    EXPECT_EQ(get_sorted_order(list(), order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (values{0}));
    // max_ID of a list of NULL_INDEX is 0, so such a list sorts to nothing: the
    // status -1 (largest index NULL_INDEX) cannot be reached through max_ID.
    EXPECT_EQ(get_sorted_order(list{N, N}, order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (values{0, 0}));
}

TEST(SortedOrder, MatchesAStableSortOfPositions) {
    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        const unsigned n = 1 + rng() % 300, range = 1 + rng() % 50;
        list ids(n);
        for (unsigned i = 0; i < n; ++i) ids[i] = rng() % 8 == 0 ? N : rng() % range;
        values expected_order;
        for (unsigned i = 0; i < n; ++i)
            if (ids[i] != N) expected_order.push_back(i);
        std::stable_sort(expected_order.begin(), expected_order.end(),
                         [&](unsigned a, unsigned b) { return ids[a] < ids[b]; });
        values expected_first(max_ID(ids) + 2, 0);
        for (unsigned i = 0; i < n; ++i)
            if (ids[i] != N)
                for (std::size_t v = ids[i] + 1; v < expected_first.size(); ++v) ++expected_first[v];
        list order, first;
        ASSERT_EQ(get_sorted_order(ids, order, first), 0);
        EXPECT_EQ(values_of(order), expected_order);
        EXPECT_EQ(values_of(first), expected_first);
    }
}

TEST(SortedOrder, OutputsThatShareTheInputsBuffer) {
    // order is a view of ids: the result is still the sort of the input as given.
    list ids{2, 0, 1, 0};
    list order = ids;
    list first;
    EXPECT_EQ(get_sorted_order(ids, order, first), 0);
    EXPECT_EQ(values_of(order), (values{1, 3, 2, 0}));
    EXPECT_EQ(values_of(first), (values{0, 2, 3, 4}));
    // first is a view of ids and must grow past it.
    list ids2{3, 3, 0};
    list first2 = ids2.sub_vector(0, 1);
    EXPECT_EQ(get_sorted_order(ids2, order, first2), 0);
    EXPECT_EQ(values_of(order), (values{2, 0, 1}));
    EXPECT_EQ(values_of(first2), (values{0, 1, 1, 1, 3}));
}

TEST(SortedOrder, AllocationFailureEmptiesBothOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (const values& ids : {values{2, N, 0, 2}, values()}) {
        SCOPED_TRACE(ids.size());
        const list input = make(ids);
        list order, first;
        int status = 1;
        EXPECT_GE(for_each_allocation_failure([&] { order = list{9, 9}; first = ids.empty() ? list() : list{9}; },
                                              [&] { return get_sorted_order(input, order, first); },
                                              [&](int r) {
                                                  EXPECT_EQ(r, -199);
                                                  EXPECT_EQ(order.size() + first.size(), 0u);
                                              },
                                              status),
                  1u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(first), (ids.empty() ? values{0} : values{0, 1, 1, 3}));
    }
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
    box2 lo{inf, inf}, hi{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos, lo, hi), 0);
    EXPECT_EQ(corners(lo, hi), (doubles{-2., 0.5, 3., 7.}));
    box2 big_lo{-10., -10.}, big_hi{10., 10.};  // never reset: a larger box stays
    EXPECT_EQ(inc_bounding_box(pos, big_lo, big_hi), 0);
    EXPECT_EQ(corners(big_lo, big_hi), (doubles{-10., -10., 10., 10.}));
    // Wrong dimension: -1 and the box unchanged.
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 l2{inf, inf}, h2{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos3, l2, h2), -1);
    EXPECT_EQ(corners(l2, h2), (doubles{inf, inf, -inf, -inf}));
    box3 l3{inf, inf, inf}, h3{-inf, -inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos, l3, h3), -1);
    EXPECT_EQ(inc_bounding_box(pos3, l3, h3), 0);
    EXPECT_EQ(corners(l3, h3), (doubles{1., 2., 3., 1., 2., 3.}));
    // Strided coordinates: the hidden third row is not a coordinate.
    const dense2D<double> parent(3, 2, {1., 2., 100., 3., 4., -100.});
    EXPECT_EQ(inc_bounding_box(parent.sub_matrix(0, 0, 2, 2), l2, h2), 0);
    EXPECT_EQ(corners(l2, h2), (doubles{1., 2., 3., 4.}));
}

TEST(BoundingBox, NaNRules) {
    // A NaN in min is replaced by the first coordinate; max never takes a NaN
    // and a NaN max stays NaN; a NaN coordinate replaces min, and the next node
    // then replaces the NaN.
    const double nan = std::nan("");
    box2 lo{nan, nan}, hi{nan, -inf};
    EXPECT_EQ(inc_bounding_box(dense2D<double>(2, 2, {3., 4., 1., 5.}), lo, hi), 0);
    EXPECT_EQ(lo[0], 1.);
    EXPECT_EQ(lo[1], 4.);
    EXPECT_TRUE(std::isnan(hi[0]));
    EXPECT_EQ(hi[1], 5.);
    box2 l{0., 0.}, h{0., 0.};
    EXPECT_EQ(inc_bounding_box(dense2D<double>(2, 3, {1., 1., nan, -1., 2., 0.5}), l, h), 0);
    EXPECT_EQ(corners(l, h), (doubles{2., -1., 2., 1.}));
}

TEST(BoundingBox, NodeListAndConnectivityStatusesInOrder) {
    const dense2D<double> pos(2, 3, {0., 0., 4., 1., -1., 2.});
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 lo{inf, inf}, hi{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos3, list(), lo, hi), 0);  // empty: success before any check
    EXPECT_EQ(inc_bounding_box(pos3, matrix(3, 0), lo, hi), 0);
    EXPECT_EQ(inc_bounding_box(pos3, matrix(1, 1, {N}), lo, hi), 0);
    EXPECT_EQ(inc_bounding_box(pos3, list{7}, lo, hi), -1);  // dimension before range
    EXPECT_EQ(inc_bounding_box(pos3, matrix(1, 1, {0}), lo, hi), -1);
    EXPECT_EQ(inc_bounding_box(pos, list{1, 3}, lo, hi), -2);  // before anything changes
    EXPECT_EQ(inc_bounding_box(pos, matrix(2, 1, {1, 3}), lo, hi), -2);
    EXPECT_EQ(corners(lo, hi), (doubles{inf, inf, -inf, -inf}));
    EXPECT_EQ(inc_bounding_box(pos, list{2, N, 1}, lo, hi), 0);  // only the listed nodes
    EXPECT_EQ(corners(lo, hi), (doubles{-1., 1., 4., 2.}));
    // Connectivity: node 3 only appears in the hidden row of the strided view.
    const dense2D<double> pos4(3, 4, {0., 0., 0., 1., 2., 3., -1., 5., 0., 9., 9., 9.});
    box3 l3{inf, inf, inf}, h3{-inf, -inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos4, strided(matrix(2, 2, {0, 1, N, 2}), 3), l3, h3), 0);
    EXPECT_EQ(corners(l3, h3), (doubles{-1., 0., 0., 1., 5., 3.}));
}

TEST(BoundingBox, ConnectivityFormUnderAllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    // Node j at (j, -j).  The node list grows several times; the extreme nodes
    // come first, where it is created and first grown, so that a node skipped
    // there would show in the box.
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
    int status = 1;
    for_each_allocation_failure([&] { lo = box2{inf, inf}; hi = box2{-inf, -inf}; },
                                [&] { return inc_bounding_box(pos, connect, lo, hi); },
                                [&](int r) {
                                    // Either the failure is reported, or the box is complete.
                                    if (r != -199) {
                                        EXPECT_EQ(corners(lo, hi), full) << r;
                                    }
                                },
                                status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(corners(lo, hi), full);
}

}  // namespace
