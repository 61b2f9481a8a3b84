// Index utilities: checking, largest index, shifting, renumbering, scattering,
// the counting sort of positions, and bounding boxes.
#include <zq5/nodara.h>

#include "common/fault_injection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;
using nodara_test::for_each_allocation_failure;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
constexpr unsigned N = NULL_INDEX;

std::vector<unsigned> values_of(const list& a) { return std::vector<unsigned>(a.begin(), a.end()); }
std::vector<double> values_of(const dense1D<double>& a) { return std::vector<double>(a.begin(), a.end()); }

// The first `rows` rows of a (rows + 1)-row matrix whose last row holds `filler`:
// a view with ld > rows that must be walked column by column.
matrix strided(std::size_t rows, std::size_t cols, std::initializer_list<unsigned> column_major, unsigned filler) {
    matrix parent(rows + 1, cols, filler);
    std::size_t k = 0;
    for (unsigned v : column_major) {
        parent(k % rows, k / rows) = v;
        ++k;
    }
    return parent.sub_matrix(0, 0, rows, cols);
}

// ---------------------------------------------------------------------------
// check_IDs

TEST(CheckIDs, ListForm) {
    EXPECT_TRUE(check_IDs(list(), 0));
    EXPECT_TRUE(check_IDs(list{0, 1, N}, 2));
    EXPECT_FALSE(check_IDs(list{0, 2}, 2));
    EXPECT_FALSE(check_IDs(list{N, 5, 0}, 3));
    EXPECT_TRUE(check_IDs(list{N}, 0));
    // nods = NULL_INDEX accepts anything.
    EXPECT_TRUE(check_IDs(list{N - 1, 7}, N));
    // A view is checked, not its buffer.
    const list all{0, 1, 9};
    EXPECT_TRUE(check_IDs(all.sub_vector(0, 2), 2));
}

TEST(CheckIDs, LongInputsFindASingleBadEntryAnywhere) {
    // Long runs are scanned in blocks: a bad entry must be found at every place.
    const std::size_t n = 2000;
    for (std::size_t at : {std::size_t(0), std::size_t(511), std::size_t(512), std::size_t(1500), n - 1}) {
        list ids(n, 3u);
        ids[n / 3] = N;
        EXPECT_TRUE(check_IDs(ids, 4));
        ids[at] = 4;
        EXPECT_FALSE(check_IDs(ids, 4)) << at;
        matrix m(10, n / 10, 3u);
        EXPECT_TRUE(check_IDs(m, EL_TETRA10, 4));
        m(at % 10, at / 10) = N;
        EXPECT_TRUE(check_IDs(m, 4));
        EXPECT_FALSE(check_IDs(m, EL_TETRA10, 4)) << at;
        m(at % 10, at / 10) = 4;
        EXPECT_FALSE(check_IDs(m, 4)) << at;
    }
    // nods = 0: only NULL_INDEX passes, and only where NULL_INDEX may stand.
    EXPECT_TRUE(check_IDs(list{N, N}, 0));
    EXPECT_FALSE(check_IDs(list{N, 0}, 0));
    EXPECT_TRUE(check_IDs(matrix(1, 2, {N, N}), 0));
    EXPECT_FALSE(check_IDs(matrix(1, 2, {N, 0}), 0));
    EXPECT_FALSE(check_IDs(matrix(1, 1, {N}), EL_NODE, 0));
    EXPECT_TRUE(check_IDs(matrix(1, 1, {N - 1}), EL_NODE, N));
    EXPECT_FALSE(check_IDs(matrix(1, 1, {N}), EL_NODE, N));
}

TEST(CheckIDs, UntypedMatrixWalksColumns) {
    EXPECT_TRUE(check_IDs(matrix(), 0));
    EXPECT_TRUE(check_IDs(matrix(3, 0), 0));
    EXPECT_TRUE(check_IDs(matrix(0, 3), 0));
    EXPECT_TRUE(check_IDs(matrix(2, 2, {0, 1, N, 2}), 3));
    EXPECT_FALSE(check_IDs(matrix(2, 2, {0, 1, N, 3}), 3));
    EXPECT_TRUE(check_IDs(matrix(1, 2, {N - 1, 4}), N));
    // The hidden row of a strided view is never read.
    const matrix view = strided(2, 3, {0, 1, 2, 0, 1, 2}, 1000);
    EXPECT_TRUE(check_IDs(view, 3));
    EXPECT_FALSE(check_IDs(view, 2));
}

TEST(CheckIDs, TypedMatrixEmptyAndPlainKinds) {
    for (element_type FE : {EL_NONE, EL_TRIA3, EL_FACE_ANY, EL_SOLID_ANY, static_cast<element_type>(30)}) {
        EXPECT_TRUE(check_IDs(matrix(), FE, 0));
        EXPECT_TRUE(check_IDs(matrix(5, 0), FE, 0));
        EXPECT_TRUE(check_IDs(matrix(0, 5), FE, 0));
    }
    EXPECT_FALSE(check_IDs(matrix(1, 1, {0}), EL_NONE, 10));
    EXPECT_FALSE(check_IDs(matrix(1, 1, {0}), static_cast<element_type>(30), 10));
    EXPECT_TRUE(check_IDs(matrix(1, 2, {0, 1}), EL_NODE, 2));
    // Row count must be nbr_nodes.
    EXPECT_TRUE(check_IDs(matrix(3, 1, {0, 1, 2}), EL_TRIA3, 3));
    EXPECT_FALSE(check_IDs(matrix(4, 1, {0, 1, 2, 3}), EL_TRIA3, 4));
    EXPECT_FALSE(check_IDs(matrix(3, 1, {0, 1, 2}), EL_QUAD4, 4));
    EXPECT_TRUE(check_IDs(matrix(10, 1, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), EL_TETRA10, 10));
    // NULL_INDEX never passes for a plain kind, even with nods = NULL_INDEX.
    EXPECT_FALSE(check_IDs(matrix(3, 1, {0, 1, N}), EL_TRIA3, 3));
    EXPECT_FALSE(check_IDs(matrix(3, 1, {0, 1, N}), EL_TRIA3, N));
    EXPECT_FALSE(check_IDs(matrix(2, 1, {0, N}), EL_EDGE_ANY, 3));
    EXPECT_TRUE(check_IDs(matrix(2, 2, {0, 1, 1, 2}), EL_EDGE_ANY, 3));
    EXPECT_FALSE(check_IDs(matrix(3, 2, {0, 1, 2, 0, 1, 3}), EL_TRIA3, 3));
    // Strided view: the hidden row (NULL_INDEX) is not read.
    EXPECT_TRUE(check_IDs(strided(3, 2, {0, 1, 2, 2, 1, 3}, N), EL_TRIA3, 4));
}

TEST(CheckIDs, MixedFaces) {
    // Three rows: all triangles, checked as EL_TRIA3.
    EXPECT_TRUE(check_IDs(matrix(3, 1, {0, 1, 2}), EL_FACE_ANY, 3));
    EXPECT_FALSE(check_IDs(matrix(3, 1, {0, 1, N}), EL_FACE_ANY, 3));
    // Four rows: NULL_INDEX only in row 3.
    EXPECT_TRUE(check_IDs(matrix(4, 2, {0, 1, 2, N, 0, 2, 3, 1}), EL_FACE_ANY, 4));
    for (std::size_t r = 0; r < 3; ++r) {
        matrix m(4, 1, {0, 1, 2, 3});
        m(r, 0) = N;
        EXPECT_FALSE(check_IDs(m, EL_FACE_ANY, 4)) << "NULL_INDEX in row " << r;
    }
    EXPECT_FALSE(check_IDs(matrix(4, 1, {0, 1, 2, 4}), EL_FACE_ANY, 4));
    EXPECT_FALSE(check_IDs(matrix(4, 1, {0, 1, 4, N}), EL_FACE_ANY, 4));
    // Other row counts.
    EXPECT_FALSE(check_IDs(matrix(2, 1, {0, 1}), EL_FACE_ANY, 4));
    EXPECT_FALSE(check_IDs(matrix(5, 1, {0, 1, 2, 3, 0}), EL_FACE_ANY, 4));
    // Strided: 4 rows out of 5, the hidden row out of range.
    EXPECT_TRUE(check_IDs(strided(4, 2, {0, 1, 2, N, 3, 2, 1, 0}, 99), EL_FACE_ANY, 4));
}

TEST(CheckIDs, MixedSolidsTailPatterns) {
    // 4, 5, 6 rows: all tetrahedra, pyramids, wedges.
    EXPECT_TRUE(check_IDs(matrix(4, 1, {0, 1, 2, 3}), EL_SOLID_ANY, 4));
    EXPECT_TRUE(check_IDs(matrix(5, 1, {0, 1, 2, 3, 4}), EL_SOLID_ANY, 5));
    EXPECT_TRUE(check_IDs(matrix(6, 1, {0, 1, 2, 3, 4, 5}), EL_SOLID_ANY, 6));
    EXPECT_FALSE(check_IDs(matrix(4, 1, {0, 1, 2, N}), EL_SOLID_ANY, 4));
    EXPECT_FALSE(check_IDs(matrix(6, 1, {0, 1, 2, 3, 4, N}), EL_SOLID_ANY, 6));
    EXPECT_FALSE(check_IDs(matrix(5, 1, {0, 1, 2, 3, 5}), EL_SOLID_ANY, 5));
    for (std::size_t rows : {1u, 2u, 3u, 7u, 9u}) {
        const matrix m(rows, 1, 0u);
        EXPECT_FALSE(check_IDs(m, EL_SOLID_ANY, 10)) << rows << " rows";
    }

    // Eight rows: hexahedron, then the tails of wedge, pyramid, tetrahedron.
    struct pattern {
        std::vector<unsigned> rows;
        bool valid;
    };
    const pattern patterns[] = {
        {{0, 1, 2, 3, 4, 5, 6, 7}, true},   // hexahedron
        {{0, 1, 2, 3, 4, 5, N, N}, true},   // wedge
        {{0, 1, 2, 3, 4, N, N, N}, true},   // pyramid
        {{0, 1, 2, 3, N, N, N, N}, true},   // tetrahedron
        {{0, 1, 2, 3, 4, 5, 6, N}, false},  // NULL_INDEX only in row 7
        {{0, 1, 2, 3, N, 5, N, N}, false},  // a node after the tail began
        {{0, 1, 2, 3, 4, N, 6, N}, false},
        {{0, 1, 2, 3, N, N, N, 7}, false},
        {{0, 1, 2, N, N, N, N, N}, false},  // a tetrahedron needs rows 0-3
        {{N, 1, 2, 3, 4, 5, 6, 7}, false},
        {{0, 1, 2, 3, 4, 5, 8, 7}, false},  // out of range
        {{0, 1, 2, 3, 8, N, N, N}, false},
        {{0, 1, 2, 8, N, N, N, N}, false},
    };
    for (const pattern& p : patterns) {
        matrix m(8, 2, 0u);
        for (std::size_t i = 0; i < 8; ++i) {
            m(i, 0) = static_cast<unsigned>(i);  // a valid hexahedron first
            m(i, 1) = p.rows[i];
        }
        EXPECT_EQ(check_IDs(m, EL_SOLID_ANY, 8), p.valid)
            << p.rows[3] << " " << p.rows[4] << " " << p.rows[5] << " " << p.rows[6] << " " << p.rows[7];
        // The same column behind a strided view.
        matrix parent(9, 1, 1000u);
        for (std::size_t i = 0; i < 8; ++i) parent(i, 0) = p.rows[i];
        EXPECT_EQ(check_IDs(parent.sub_matrix(0, 0, 8, 1), EL_SOLID_ANY, 8), p.valid);
    }
}

// ---------------------------------------------------------------------------
// max_ID

TEST(MaxID, ListForm) {
    EXPECT_EQ(max_ID(list()), N);
    EXPECT_EQ(max_ID(list{N}), 0u);
    EXPECT_EQ(max_ID(list{N, N}), 0u);
    EXPECT_EQ(max_ID(list{3, N, 7, 2}), 7u);
    EXPECT_EQ(max_ID(list{N - 1, N}), N - 1);
    const list all{1, 2, 90};
    EXPECT_EQ(max_ID(all.sub_vector(0, 2)), 2u);
}

TEST(MaxID, MatrixFormAndItsAsymmetry) {
    // ld = rows: read as one list, so an empty matrix gives NULL_INDEX.
    EXPECT_EQ(max_ID(matrix()), N);
    EXPECT_EQ(max_ID(matrix(3, 0)), N);
    EXPECT_EQ(max_ID(matrix(2, 2, {4, N, 1, 9})), 9u);
    EXPECT_EQ(max_ID(matrix(2, 1, {N, N})), 0u);
    // ld != rows: columns are walked, so an empty view gives 0.
    const matrix parent(3, 3, {1, 2, 100, 3, 4, 200, 5, 6, 300});
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 3)), 6u);
    EXPECT_EQ(max_ID(parent.sub_matrix(1, 1, 2, 2)), 300u);
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 2, 0)), 0u);
    EXPECT_EQ(max_ID(parent.sub_matrix(0, 0, 0, 3)), 0u);
    EXPECT_EQ(max_ID(strided(2, 1, {N, N}, 50)), 0u);
}

// ---------------------------------------------------------------------------
// shift_indices, change_indices

TEST(ShiftIndices, ListSkipsNullIndex) {
    list a{0, 5, N};
    EXPECT_EQ(shift_indices(a, 3), 0);
    EXPECT_EQ(values_of(a), (std::vector<unsigned>{3, 8, N}));
    EXPECT_EQ(shift_indices(a, -3), 0);
    EXPECT_EQ(values_of(a), (std::vector<unsigned>{0, 5, N}));
    // Two's-complement wrap-around.
    EXPECT_EQ(shift_indices(a, -1), 0);
    EXPECT_EQ(values_of(a), (std::vector<unsigned>{N, 4, N}));
    list empty;
    EXPECT_EQ(shift_indices(empty, 5), 0);
}

TEST(ShiftIndices, MatrixSkipsNullIndexOnlyForMixedKinds) {
    matrix tria(3, 1, {N, 1, 2});
    EXPECT_EQ(shift_indices(tria, 1, EL_TRIA3), 0);
    EXPECT_EQ(tria, matrix(3, 1, {0, 2, 3}));  // NULL_INDEX wrapped to 0

    matrix faces(4, 2, {0, 1, 2, N, 3, 4, 5, 6});
    EXPECT_EQ(shift_indices(faces, 10, EL_FACE_ANY), 0);
    EXPECT_EQ(faces, matrix(4, 2, {10, 11, 12, N, 13, 14, 15, 16}));

    matrix quads(4, 1, {0, 1, 2, N});
    EXPECT_EQ(shift_indices(quads, 10, EL_QUAD4), 0);
    EXPECT_EQ(quads, matrix(4, 1, {10, 11, 12, 9}));

    matrix solids(8, 1, {0, 1, 2, 3, N, N, N, N});
    EXPECT_EQ(shift_indices(solids, 2, EL_SOLID_ANY), 0);
    EXPECT_EQ(solids, matrix(8, 1, {2, 3, 4, 5, N, N, N, N}));

    matrix same(3, 1, {N, 1, 2});
    EXPECT_EQ(shift_indices(same, 0, EL_TRIA3), 0);
    EXPECT_EQ(same, matrix(3, 1, {N, 1, 2}));

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
    EXPECT_EQ(values_of(a), (std::vector<unsigned>{10, N, 5, N, 11}));
    change_indices(a, list());
    EXPECT_EQ(values_of(a), (std::vector<unsigned>{10, N, 5, N, 11}));

    matrix parent(3, 2, {0, 1, 2, 1, 3, 0});
    matrix view = parent.sub_matrix(0, 0, 2, 2);
    change_indices(view, new_ids);
    EXPECT_EQ(parent, matrix(3, 2, {10, 11, 2, 11, 3, 0}));
    matrix empty;
    change_indices(empty, new_ids);
    EXPECT_TRUE(empty.empty());
}

// ---------------------------------------------------------------------------
// permutation

TEST(Permutation, ScattersAndKeepsUnnamedPositions) {
    list v{10, 20, 30, 40};
    EXPECT_EQ(permutation(v, list{2, 0, 1}), 0);
    EXPECT_EQ(values_of(v), (std::vector<unsigned>{20, 30, 10, 40}));

    // Two entries naming position 2: the later wins; position 1 keeps its value.
    list w{10, 20, 30};
    EXPECT_EQ(permutation(w, list{2, 2, 0}), 0);
    EXPECT_EQ(values_of(w), (std::vector<unsigned>{30, 20, 20}));

    // Entries beyond the values, and out-of-range targets, are ignored.
    dense1D<double> d{1.5, 2.5};
    EXPECT_EQ(permutation(d, list{1, 0, 5, 7}), 0);
    EXPECT_EQ(values_of(d), (std::vector<double>{2.5, 1.5}));
    EXPECT_EQ(permutation(d, list{9, N}), 0);
    EXPECT_EQ(values_of(d), (std::vector<double>{2.5, 1.5}));

    list empty;
    EXPECT_EQ(permutation(empty, list{0, 1}), 0);
    EXPECT_TRUE(empty.empty());

    // The values may be the permutation itself: the scatter reads the old values.
    list self{1, 2, 0};
    EXPECT_EQ(permutation(self, self), 0);
    EXPECT_EQ(values_of(self), (std::vector<unsigned>{0, 1, 2}));
}

TEST(Permutation, CopyFailureLeavesValuesUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    list v;
    const list perm{1, 2, 0};
    int status = 1;
    const auto failures = for_each_allocation_failure(
        [&] { v = list{10, 20, 30}; }, [&] { return permutation(v, perm); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(values_of(v), (std::vector<unsigned>{10, 20, 30}));
        },
        status);
    EXPECT_EQ(failures, 2u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(v), (std::vector<unsigned>{30, 10, 20}));

    dense1D<double> d;
    for_each_allocation_failure(
        [&] { d = dense1D<double>{1., 2.}; }, [&] { return permutation(d, perm); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(values_of(d), (std::vector<double>{1., 2.}));
        },
        status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(d), (std::vector<double>{1., 1.}));  // position 0 is named by no entry
}

// ---------------------------------------------------------------------------
// get_sorted_order

TEST(SortedOrder, WorkedExample) {
    list order{7, 7, 7, 7, 7, 7};
    list first{7};
    EXPECT_EQ(get_sorted_order(list{2, N, 0, 2}, order, first), 0);
    EXPECT_EQ(values_of(order), (std::vector<unsigned>{2, 0, 3}));
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0, 1, 1, 3}));

    EXPECT_EQ(get_sorted_order(list{1, 0, 1, 0, 1}, order, first), 0);
    EXPECT_EQ(values_of(order), (std::vector<unsigned>{1, 3, 0, 2, 4}));
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0, 2, 5}));
}

TEST(SortedOrder, EmptyAndAllNullInputs) {
    list order{5, 5};
    list first{5, 5, 5};
    EXPECT_EQ(get_sorted_order(list(), order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0}));

    // max_ID of a list of NULL_INDEX is 0, so such a list sorts to nothing: the
    // status -1 (largest index NULL_INDEX) cannot be reached through max_ID.
    EXPECT_EQ(get_sorted_order(list{N, N}, order, first), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0, 0}));
}

TEST(SortedOrder, MatchesAStableSortOfPositions) {
    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        const unsigned n = 1 + rng() % 300;
        const unsigned range = 1 + rng() % 50;
        list ids(n);
        for (unsigned i = 0; i < n; ++i) ids[i] = rng() % 8 == 0 ? N : rng() % range;

        std::vector<unsigned> expected_order;
        for (unsigned i = 0; i < n; ++i)
            if (ids[i] != N) expected_order.push_back(i);
        std::stable_sort(expected_order.begin(), expected_order.end(),
                         [&](unsigned a, unsigned b) { return ids[a] < ids[b]; });
        const unsigned M = max_ID(ids);
        std::vector<unsigned> expected_first(M + 2, 0);
        for (unsigned i = 0; i < n; ++i)
            if (ids[i] != N)
                for (unsigned v = ids[i] + 1; v <= M + 1; ++v) ++expected_first[v];

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
    EXPECT_EQ(values_of(order), (std::vector<unsigned>{1, 3, 2, 0}));
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0, 2, 3, 4}));

    // first is a view of ids and must grow past it.
    list ids2{3, 3, 0};
    list first2 = ids2.sub_vector(0, 1);
    list order2;
    EXPECT_EQ(get_sorted_order(ids2, order2, first2), 0);
    EXPECT_EQ(values_of(order2), (std::vector<unsigned>{2, 0, 1}));
    EXPECT_EQ(values_of(first2), (std::vector<unsigned>{0, 1, 1, 1, 3}));
}

TEST(SortedOrder, AllocationFailureEmptiesBothOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const list ids{2, N, 0, 2};
    list order, first;
    int status = 1;
    const auto failures = for_each_allocation_failure(
        [&] {
            order = list{9, 9};
            first = list{9};
        },
        [&] { return get_sorted_order(ids, order, first); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(order.size(), 0u);
            EXPECT_EQ(first.size(), 0u);
        },
        status);
    EXPECT_GE(failures, 2u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(order), (std::vector<unsigned>{2, 0, 3}));
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0, 1, 1, 3}));

    // Empty input: first must hold one entry.
    for_each_allocation_failure(
        [&] { first.clear_hard(); }, [&] { return get_sorted_order(list(), order, first); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(first.size(), 0u);
        },
        status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(first), (std::vector<unsigned>{0}));
}

// ---------------------------------------------------------------------------
// inc_bounding_box

using box2 = vector_fixed<double, 2>;
using box3 = vector_fixed<double, 3>;
constexpr double inf = std::numeric_limits<double>::infinity();

TEST(BoundingBox, AllNodesWidensTheCallersBox) {
    const dense2D<double> pos(2, 3, {1., 5., -2., 0.5, 3., 7.});
    box2 lo{inf, inf}, hi{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos, lo, hi), 0);
    EXPECT_EQ(lo[0], -2.);
    EXPECT_EQ(lo[1], 0.5);
    EXPECT_EQ(hi[0], 3.);
    EXPECT_EQ(hi[1], 7.);

    // Never reset: a larger box stays as it is.
    box2 big_lo{-10., -10.}, big_hi{10., 10.};
    EXPECT_EQ(inc_bounding_box(pos, big_lo, big_hi), 0);
    EXPECT_EQ(big_lo[0], -10.);
    EXPECT_EQ(big_hi[1], 10.);

    // Wrong dimension: -1 and the box unchanged.
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 l2{0., 0.}, h2{0., 0.};
    EXPECT_EQ(inc_bounding_box(pos3, l2, h2), -1);
    EXPECT_EQ(l2[0], 0.);
    EXPECT_EQ(h2[1], 0.);
    box3 l3{inf, inf, inf}, h3{-inf, -inf, -inf};
    EXPECT_EQ(inc_bounding_box(pos, l3, h3), -1);
    EXPECT_EQ(inc_bounding_box(pos3, l3, h3), 0);
    EXPECT_EQ(h3[2], 3.);

    // Strided coordinates: the hidden third row is not a coordinate.
    const dense2D<double> parent(3, 2, {1., 2., 100., 3., 4., -100.});
    box2 sl{inf, inf}, sh{-inf, -inf};
    EXPECT_EQ(inc_bounding_box(parent.sub_matrix(0, 0, 2, 2), sl, sh), 0);
    EXPECT_EQ(sl[0], 1.);
    EXPECT_EQ(sh[1], 4.);
}

TEST(BoundingBox, NaNRules) {
    // A NaN in min is replaced by the first coordinate; max never takes a NaN
    // and a NaN max stays NaN.
    const dense2D<double> pos(2, 2, {3., 4., 1., 5.});
    const double nan = std::nan("");
    box2 lo{nan, nan}, hi{nan, -inf};
    EXPECT_EQ(inc_bounding_box(pos, lo, hi), 0);
    EXPECT_EQ(lo[0], 1.);
    EXPECT_EQ(lo[1], 4.);
    EXPECT_TRUE(std::isnan(hi[0]));
    EXPECT_EQ(hi[1], 5.);

    // A NaN coordinate replaces min, and the next node then replaces the NaN.
    const dense2D<double> with_nan(2, 3, {1., 1., nan, -1., 2., 0.5});
    box2 l{0., 0.}, h{0., 0.};
    EXPECT_EQ(inc_bounding_box(with_nan, l, h), 0);
    EXPECT_EQ(l[0], 2.);
    EXPECT_EQ(l[1], -1.);
    EXPECT_EQ(h[0], 2.);
    EXPECT_EQ(h[1], 1.);
}

TEST(BoundingBox, NodeListStatusesInOrder) {
    const dense2D<double> pos(2, 3, {0., 0., 4., 1., -1., 2.});
    const dense2D<double> pos3(3, 1, {1., 2., 3.});
    box2 lo{inf, inf}, hi{-inf, -inf};
    // An empty list succeeds before anything is checked.
    EXPECT_EQ(inc_bounding_box(pos3, list(), lo, hi), 0);
    EXPECT_EQ(lo[0], inf);
    // Dimension before range.
    EXPECT_EQ(inc_bounding_box(pos3, list{7}, lo, hi), -1);
    // Out of range: -2 before anything changes, even behind valid entries.
    EXPECT_EQ(inc_bounding_box(pos, list{1, 3}, lo, hi), -2);
    EXPECT_EQ(lo[0], inf);
    EXPECT_EQ(hi[0], -inf);
    // Only the listed nodes; NULL_INDEX entries are skipped.
    EXPECT_EQ(inc_bounding_box(pos, list{2, N, 1}, lo, hi), 0);
    EXPECT_EQ(lo[0], -1.);
    EXPECT_EQ(lo[1], 1.);
    EXPECT_EQ(hi[0], 4.);
    EXPECT_EQ(hi[1], 2.);
}

TEST(BoundingBox, ConnectivityForm) {
    const dense2D<double> pos(3, 4, {0., 0., 0., 1., 2., 3., -1., 5., 0., 9., 9., 9.});
    box3 lo{inf, inf, inf}, hi{-inf, -inf, -inf};
    // Node 3 only appears in the hidden row of the strided view.
    const matrix connect = strided(2, 2, {0, 1, N, 2}, 3);
    EXPECT_EQ(inc_bounding_box(pos, connect, lo, hi), 0);
    EXPECT_EQ(lo[0], -1.);
    EXPECT_EQ(lo[2], 0.);
    EXPECT_EQ(hi[0], 1.);
    EXPECT_EQ(hi[1], 5.);
    EXPECT_EQ(hi[2], 3.);

    box2 l2{inf, inf}, h2{-inf, -inf};
    // No nodes: the node-list form succeeds at once, whatever the dimension.
    EXPECT_EQ(inc_bounding_box(pos, matrix(3, 0), l2, h2), 0);
    EXPECT_EQ(inc_bounding_box(pos, matrix(1, 1, {N}), l2, h2), 0);
    EXPECT_EQ(inc_bounding_box(pos, matrix(1, 1, {0}), l2, h2), -1);
    EXPECT_EQ(inc_bounding_box(pos, matrix(2, 1, {0, 4}), lo, hi), -2);
    EXPECT_EQ(l2[0], inf);
}

TEST(BoundingBox, ConnectivityFormUnderAllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    // Node j at (j, -j).  The node list grows several times; the extreme nodes
    // come first, where the list is created and first grown, so that a node
    // skipped there would show in the box.
    const unsigned n = 300;
    dense2D<double> pos(2, n);
    matrix connect(1, n);
    for (unsigned j = 0; j < n; ++j) {
        pos(0, j) = j;
        pos(1, j) = -static_cast<double>(j);
        connect(0, j) = j;
    }
    connect(0, 0) = n - 1;
    connect(0, 1) = 0;
    connect(0, n - 1) = 1;
    box2 lo, hi;
    int status = 1;
    for_each_allocation_failure(
        [&] {
            lo = box2{inf, inf};
            hi = box2{-inf, -inf};
        },
        [&] { return inc_bounding_box(pos, connect, lo, hi); },
        [&](int r) {
            // Either the failure is reported, or the box is complete.
            if (r == 0) {
                EXPECT_EQ(hi[0], n - 1.);
                EXPECT_EQ(lo[1], 1. - n);
            } else {
                EXPECT_EQ(r, -199);
            }
        },
        status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lo[0], 0.);
    EXPECT_EQ(hi[0], n - 1.);
}

}  // namespace
