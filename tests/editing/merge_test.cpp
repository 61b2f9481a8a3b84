#include "common/fault_injection.h"
#include "common/meshes.h"
#include "editing/helpers.h"
#include "editing/reference.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace zq5::nodara;
using nodara_test::list_of;
using nodara_test::random_cloud;
using nodara_test::random_connectivity;
using nodara_test::vec_of;
using zq5::dense1D;
using zq5::dense2D;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

dense1D<unsigned> junk_ids() { return list_of({7, 7, 7}); }

// ---------------------------------------------------------------------------
// Worked examples.

TEST(MergeExamples, NonTransitiveChain) {
    // x = 0, 0.6, 1.2, tol 1: node 1 merges onto node 0; node 2's only neighbour
    // within tol (node 1) is gone, node 0 is 1.2 away.
    dense2D<double> pos(2, 3, {0., 0., 0.6, 0., 1.2, 0.});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, list_of({0, 1, 2}), ids, 1.0), 1);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 0, 2}));
}

TEST(MergeExamples, EarlierInTheTargetListSurvives) {
    dense2D<double> pos(2, 6, 0.0);
    for (unsigned j = 0; j < 6; ++j) pos(0, j) = j;
    pos(0, 2) = pos(0, 5) = 9.0;  // nodes 2 and 5 coincide
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, list_of({5, 2}), ids, 0.0), 1);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 1, 5, 3, 4, 5}));
}

TEST(MergeExamples, ZeroToleranceMergesOnlyCoincidentNodes) {
    dense2D<double> pos(3, 4, {0., 0., 0., 1e-300, 0., 0., 0., 0., 0., -0., 0., -0.});
    dense1D<unsigned> ids;
    // Nodes 0, 2, 3 coincide (-0 equals 0); node 1 is 1e-300 away.
    EXPECT_EQ(merge(pos, ids, 0.0), 2);
    EXPECT_EQ(ids[1], 1u);
    EXPECT_EQ(ids[2], 0u);
    EXPECT_EQ(ids[3], 0u);
}

TEST(MergeExamples, NearestEarlierSurvivorWins) {
    dense2D<double> pos(2, 3, {0., 0., 0.5, 0., 0.3, 0.});
    dense1D<unsigned> ids;
    // Node 2 proposes node 1 (0.2 away) before node 1 merges onto node 0; both
    // apply in order of distance, and compression points node 2 at node 0.
    EXPECT_EQ(merge(pos, list_of({0, 1, 2}), ids, 0.6), 2);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 0, 0}));
}

TEST(MergeExamples, CountAccumulatesOverPasses) {
    // Two far apart clusters of x = 0, 0.3, 0.75 with tol 0.8.  Pass 1 merges
    // the middle nodes (2 records: +2); the third nodes are blocked because their
    // nearest target merged first.  Pass 2 merges them onto the first nodes and,
    // applying two records, adds every merged node of the list again (+4).
    dense2D<double> pos(2, 6, {0., 0., .3, 0., .75, 0., 10., 0., 10.3, 0., 10.75, 0.});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, ids, 0.8), 6);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 0, 0, 3, 3, 3}));
}

TEST(MergeExamples, NodeOutsideTheTargetsMergesOntoAnyTarget) {
    dense2D<double> pos(2, 3, {0., 0., 0., 0., 5., 5.});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, list_of({0}), list_of({1, 2}), ids, 0.0), 1);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{1, 1, 2}));
}

TEST(MergeExamples, SnapKeepsColumnsAndCopiesSurvivorCoordinates) {
    dense2D<double> pos(2, 3, {0., 0., 0.1, 0., 5., 5.});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, ids, 0.2), 1);
    EXPECT_EQ(pos.cols(), 3u);
    EXPECT_EQ(vec_of(pos), (std::vector<double>{0., 0., 0., 0., 5., 5.}));
    dense2D<double> pos2(2, 3, {0., 0., 0.1, 0., 5., 5.});
    EXPECT_EQ(merge(pos2, 0.2), 1);
    EXPECT_EQ(pos2(0, 1), 0.0);
}

TEST(MergeExamples, ConnectivityIsRenumbered) {
    // Two triangles sharing an edge, given with duplicated nodes.
    dense2D<double> pos(2, 6, {0., 0., 1., 0., 0., 1., 1., 0., 1., 1., 0., 1.});
    dense2D<unsigned> tri(3, 2, {0, 1, 2, 3, 4, 5});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, tri, ids, 0.0, 0), 2);
    EXPECT_EQ(vec_of(tri), (std::vector<unsigned>{0, 1, 2, 1, 4, 2}));
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 1, 2, 1, 4, 2}));
}

TEST(MergeExamples, ShortElementEdgesCollapse) {
    // A quadrangle whose nodes 1 and 2 are 0.01 apart, and a separate node 4 as
    // close to node 0 but in no common element: only the element edge collapses.
    dense2D<double> pos(2, 5, {0., 0., 1., 0., 1., 0.01, 0., 1., 0., 0.01});
    dense2D<unsigned> quad(4, 1, {0, 1, 2, 3});
    dense2D<unsigned> other(1, 1, {4});
    dense2D<unsigned> both[2] = {quad, other};
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, both, both + 2, ids, 0.1, 1), 1);
    EXPECT_EQ(vec_of(quad), (std::vector<unsigned>{0, 1, 1, 3}));
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 1, 1, 3, 4}));
}

TEST(MergeExamples, ModeTwoRepeatsUntilNothingCollapses) {
    // A segment chain 0-1-2 with 0.05 spacing inside one 3-node element: each pass
    // a node is mapped only when both ends are still unmapped.
    dense2D<double> pos(2, 3, {0., 0., 0.05, 0., 0.1, 0.});
    dense2D<unsigned> e1(3, 1, {0, 1, 2});
    dense2D<unsigned> e2(3, 1, {0, 1, 2});
    dense1D<unsigned> ids;
    const int one = merge(pos, e1, ids, 0.06, 1);
    std::vector<dense2D<unsigned>> ref1{dense2D<unsigned>(3, 1, {0, 1, 2})};
    const auto r1 = nodara_ref::collapse_n<2>(pos, ref1, 0.06, 1);
    EXPECT_EQ(one, r1.count);
    EXPECT_EQ(vec_of(e1), vec_of(ref1[0]));
    const int two = merge(pos, e2, 0.06, 2);
    std::vector<dense2D<unsigned>> ref2{dense2D<unsigned>(3, 1, {0, 1, 2})};
    const auto r2 = nodara_ref::collapse_n<2>(pos, ref2, 0.06, 2);
    EXPECT_EQ(two, r2.count);
    EXPECT_EQ(vec_of(e2), vec_of(ref2[0]));
    EXPECT_GE(two, one);
}

// ---------------------------------------------------------------------------
// Statuses, form by form, in the order the checks run.

TEST(MergeStatus, NodeListForm) {
    dense2D<double> pos(2, 3, 0.0), pos4(4, 3, 0.0), none(2, 0);
    dense1D<unsigned> ok = list_of({0, 1, zq5::NULL_INDEX}), bad = list_of({0, 3});
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(none, bad, bad, ids, -1.0), 0);
    EXPECT_TRUE(ids.empty());
    ids = junk_ids();
    EXPECT_EQ(merge(pos4, bad, bad, ids, -1.0), -1);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos, bad, bad, ids, -1.0), -2);
    EXPECT_EQ(merge(pos, ok, bad, ids, -1.0), -3);
    EXPECT_EQ(merge(pos, ok, ok, ids, -1.0), -4);
    EXPECT_EQ(merge(pos, ok, ok, ids, kNaN), -4);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos, dense1D<unsigned>(), ok, ids, 0.0), 0);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos, ok, ok, ids, 0.0), 1);  // nodes 0 and 1 coincide
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 0, 2}));
}

TEST(MergeStatus, SingleListForm) {
    dense2D<double> pos(2, 3, 0.0), pos1(1, 3, 0.0);
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(pos1, list_of({0}), ids, 0.0), -1);
    EXPECT_EQ(merge(pos, list_of({5}), ids, 0.0), -2);
    EXPECT_EQ(merge(pos, list_of({0}), ids, -0.5), -3);
    EXPECT_EQ(merge(pos, list_of({0}), ids, kNaN), -3);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos, list_of({2, 1, 0}), ids, 0.0), 2);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{2, 2, 2}));
}

TEST(MergeStatus, RangeForms) {
    dense2D<double> pos(2, 3, 0.0), pos4(4, 3, 0.0), none(2, 0);
    dense2D<unsigned> m[2] = {dense2D<unsigned>(2, 1, {0, 1}), dense2D<unsigned>(2, 1, {1, 2})};
    const std::vector<unsigned> before0 = vec_of(m[0]), before1 = vec_of(m[1]);
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(none, m, m + 2, ids, -1.0, 9), 0);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos4, m, m, ids, -1.0, 9), 0);  // empty range
    EXPECT_EQ(merge(pos4, m + 2, m, ids, -1.0, 9), -1);
    EXPECT_EQ(merge(pos, m + 2, m, ids, -1.0, 9), -3);
    EXPECT_EQ(merge(pos, m, m + 2, ids, -1.0, 9), -5);
    EXPECT_EQ(merge(pos, m, m + 2, ids, kNaN, 0), -5);
    EXPECT_EQ(merge(pos, m, m + 2, ids, 0.0, 3), -6);
    EXPECT_EQ(merge(pos, m, m + 2, -1.0, 0), -5);
    EXPECT_EQ(merge(pos, m, m + 2, 0.0, 3), -6);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(vec_of(m[0]), before0);
    EXPECT_EQ(vec_of(m[1]), before1);
    EXPECT_EQ(merge(pos, m, m + 2, 0.0, 0), 2);
    EXPECT_EQ(vec_of(m[0]), (std::vector<unsigned>{0, 0}));
    EXPECT_EQ(vec_of(m[1]), (std::vector<unsigned>{0, 0}));
}

TEST(MergeStatus, OneAndTwoMatrixFormsRaiseCodes) {
    dense2D<double> pos(2, 3, 0.0), pos4(4, 3, 0.0);
    dense2D<unsigned> a(2, 1, {0, 1}), b(2, 1, {1, 2});
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(pos4, a, ids, -1.0, 9), -1);
    EXPECT_EQ(merge(pos, a, ids, -1.0, 9), -4);
    EXPECT_EQ(merge(pos, a, ids, kNaN, 9), -4);
    EXPECT_EQ(merge(pos, a, ids, 0.0, 3), -5);
    EXPECT_EQ(merge(pos, a, -1.0, 0), -4);
    EXPECT_EQ(merge(pos, a, 0.0, 7), -5);
    EXPECT_EQ(merge(pos4, a, b, ids, 0.0, 0), -1);
    EXPECT_EQ(merge(pos, a, b, ids, -2.0, 0), -4);
    EXPECT_EQ(merge(pos, a, b, ids, 0.0, 3), -5);
    EXPECT_EQ(merge(pos, a, b, -2.0, 0), -4);
    EXPECT_EQ(merge(pos, a, b, 0.0, 3), -5);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(vec_of(a), (std::vector<unsigned>{0, 1}));
    EXPECT_EQ(merge(pos, a, b, ids, 0.0, 0), 2);
    EXPECT_EQ(vec_of(a), (std::vector<unsigned>{0, 0}));
    EXPECT_EQ(vec_of(b), (std::vector<unsigned>{0, 0}));
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 0, 0}));
}

TEST(MergeStatus, EmptyConnectivities) {
    dense2D<double> pos(2, 3, 0.0);
    dense2D<unsigned> empty;
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(pos, empty, ids, 0.0, 0), 0);
    EXPECT_TRUE(ids.empty());  // mode 0: no nodes, nothing to merge
    EXPECT_EQ(merge(pos, empty, ids, 0.0, 2), 0);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 1, 2}));  // modes 1, 2: the identity
}

TEST(MergeStatus, SnapForms) {
    dense2D<double> none(3, 0), pos1(1, 2, 0.0), pos(2, 2, 0.0);
    dense1D<unsigned> ids = junk_ids();
    EXPECT_EQ(merge(none, ids, -1.0), 0);
    EXPECT_EQ(merge(pos1, ids, -1.0), -1);
    EXPECT_EQ(merge(pos, ids, -1.0), -3);
    EXPECT_EQ(merge(pos, ids, kNaN), -3);
    EXPECT_EQ(merge(pos, -1.0), -3);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(pos, ids, 0.0), 1);
}

// ---------------------------------------------------------------------------
// Equality with the documented algorithm on random clouds.

struct cloud_case {
    unsigned dim;
    bool grid;
    double tol;
    double step = 1.0;
};

// Integer grids give many equal distances (ties between distinct nodes) for
// tol >= 1 and only coincident neighbours for tol < 1; random reals give
// coincident repeats and no other ties.
const cloud_case kCases[] = {
    {2, true, 0.0},  {3, true, 0.0},  {2, false, 0.0},  {3, false, 0.0}, {2, true, 0.5},  {3, true, 0.25},
    {2, true, 1.0},  {3, true, 1.0},  {2, true, 1.5},   {3, true, 2.0},  {2, false, 0.05}, {3, false, 0.1},
    {2, false, 1e-9}, {3, false, 0.3},
    // Decimal grids: distances equal on paper differ in the last bits.
    {2, true, 0.1, 0.1}, {3, true, 0.1, 0.1}, {3, true, 0.15, 0.1}, {2, true, 0.3, 0.1},
};

TEST(MergeReference, NodeListFormsMatchTheDocumentedPasses) {
    for (const cloud_case& c : kCases)
        for (std::uint64_t seed = 1; seed <= 6; ++seed) {
            SCOPED_TRACE(testing::Message() << "dim " << c.dim << " grid " << c.grid << " tol " << c.tol << " seed "
                                            << seed);
            const unsigned n = 150 + static_cast<unsigned>(seed) * 20;
            const dense2D<double> pos = random_cloud(c.dim, n, c.grid, seed, c.step);
            // Lists with repeats and NULL_INDEX, in a random order.
            std::mt19937_64 gen(seed * 77);
            std::vector<unsigned> l1, l2;
            for (unsigned i = 0; i < n; ++i) {
                if (gen() % 3) l1.push_back(static_cast<unsigned>(gen() % n));
                if (gen() % 2) l2.push_back(static_cast<unsigned>(gen() % n));
            }
            l1.push_back(zq5::NULL_INDEX);
            dense1D<unsigned> ids;
            const auto ref = nodara_ref::engine(pos, l1, l2, c.tol);
            EXPECT_EQ(merge(pos, list_of(l1), list_of(l2), ids, c.tol), ref.count);
            EXPECT_EQ(vec_of(ids), ref.new_ids);
            const auto ref_same = nodara_ref::engine(pos, l1, l1, c.tol);
            EXPECT_EQ(merge(pos, list_of(l1), ids, c.tol), ref_same.count);
            EXPECT_EQ(vec_of(ids), ref_same.new_ids);
            // Snap form: all nodes in order.
            std::vector<unsigned> all(n);
            for (unsigned i = 0; i < n; ++i) all[i] = i;
            const auto ref_all = nodara_ref::engine(pos, all, all, c.tol);
            dense2D<double> snapped;
            ASSERT_TRUE(snapped.copy(pos));
            EXPECT_EQ(merge(snapped, ids, c.tol), ref_all.count);
            EXPECT_EQ(vec_of(ids), ref_all.new_ids);
            // Merged nodes take the coordinates their entry names, in node order
            // (an entry may name a node merged in a last single-record pass).
            dense2D<double> expected;
            ASSERT_TRUE(expected.copy(pos));
            if (ref_all.count > 0)
                for (unsigned i = 0; i < n; ++i)
                    for (unsigned k = 0; k < c.dim; ++k) expected(k, i) = expected(k, ref_all.new_ids[i]);
            EXPECT_EQ(vec_of(snapped), vec_of(expected));
        }
}

TEST(MergeReference, ConnectivityModesMatchTheDocumentedPasses) {
    for (const cloud_case& c : kCases)
        for (unsigned mode = 0; mode <= 2; ++mode)
            for (std::uint64_t seed = 1; seed <= 3; ++seed) {
                SCOPED_TRACE(testing::Message() << "dim " << c.dim << " grid " << c.grid << " tol " << c.tol
                                                << " mode " << mode << " seed " << seed);
                const unsigned n = 120;
                const dense2D<double> pos = random_cloud(c.dim, n, c.grid, seed + 100, c.step);
                dense2D<unsigned> m1 = random_connectivity(3, 60, n, seed), m2 = random_connectivity(4, 30, n, seed + 9);
                m2(3, 0) = zq5::NULL_INDEX;
                std::vector<dense2D<unsigned>> ref_ms(2);
                ASSERT_TRUE(ref_ms[0].copy(m1));
                ASSERT_TRUE(ref_ms[1].copy(m2));
                nodara_ref::merge_result ref;
                if (mode == 0) {
                    std::vector<const dense2D<unsigned>*> ptrs{&ref_ms[0], &ref_ms[1]};
                    const std::vector<unsigned> list = nodara_ref::unique_list(ptrs);
                    ref = nodara_ref::engine(pos, list, list, c.tol);
                    if (ref.count > 0)
                        for (auto& m : ref_ms)
                            for (std::size_t j = 0; j < m.cols(); ++j)
                                for (std::size_t i = 0; i < m.rows(); ++i)
                                    if (m(i, j) < ref.new_ids.size()) m(i, j) = ref.new_ids[m(i, j)];
                } else {
                    ref = c.dim == 2 ? nodara_ref::collapse_n<2>(pos, ref_ms, c.tol, mode)
                                     : nodara_ref::collapse_n<3>(pos, ref_ms, c.tol, mode);
                }
                dense1D<unsigned> ids;
                EXPECT_EQ(merge(pos, m1, m2, ids, c.tol, mode), ref.count);
                EXPECT_EQ(vec_of(ids), ref.new_ids);
                EXPECT_EQ(vec_of(m1), vec_of(ref_ms[0]));
                EXPECT_EQ(vec_of(m2), vec_of(ref_ms[1]));
            }
}

TEST(MergeReference, NonFiniteCoordinatesTerminateAndMatch) {
    for (double tol : {0.0, 0.5, 1.0})
        for (unsigned dim : {2u, 3u}) {
            SCOPED_TRACE(testing::Message() << "dim " << dim << " tol " << tol);
            dense2D<double> pos = random_cloud(dim, 200, true, 5);
            const double inf = std::numeric_limits<double>::infinity();
            for (unsigned j = 0; j < 200; j += 7) pos(j % dim, j) = kNaN;
            for (unsigned j = 3; j < 200; j += 11) pos(0, j) = (j % 2) ? inf : -inf;
            std::vector<unsigned> all(200);
            for (unsigned i = 0; i < 200; ++i) all[i] = i;
            const auto ref = nodara_ref::engine(pos, all, all, tol);
            dense1D<unsigned> ids;
            EXPECT_EQ(merge(pos, list_of(all), ids, tol), ref.count);
            EXPECT_EQ(vec_of(ids), ref.new_ids);
        }
}

TEST(MergeReference, IdempotentOnATriangleSoup) {
    // A cube surface given as a soup: every triangle with its own three nodes.
    const nodara_test::mesh cube = nodara_test::cube_surface(3);
    const std::size_t nt = cube.connect.cols();
    dense2D<double> pos(3, 3 * nt);
    dense2D<unsigned> soup(3, nt);
    for (std::size_t j = 0; j < nt; ++j)
        for (unsigned i = 0; i < 3; ++i) {
            for (unsigned k = 0; k < 3; ++k) pos(k, 3 * j + i) = cube.pos(k, cube.connect(i, j));
            soup(i, j) = static_cast<unsigned>(3 * j + i);
        }
    EXPECT_GT(merge(pos, soup, 0.0, 0), 0);
    EXPECT_EQ(count_unique_indices(soup), static_cast<int>(cube.pos.cols()));
    EXPECT_EQ(merge(pos, soup, 0.0, 0), 0);
    EXPECT_EQ(merge(pos, soup, 1e-9, 0), 0);
}

// ---------------------------------------------------------------------------
// Allocation failure.

TEST(MergeFaults, EveryAllocationFailureReportsAndLeavesInputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (double tol : {0.0, 1.0})
        for (unsigned mode : {0u, 2u}) {
            SCOPED_TRACE(testing::Message() << "tol " << tol << " mode " << mode);
            const dense2D<double> pos = random_cloud(2, 60, true, 3);
            const dense2D<unsigned> src = random_connectivity(3, 20, 60, 4);
            dense2D<unsigned> m;
            dense1D<unsigned> ids;
            int result = 0;
            nodara_test::for_each_allocation_failure(
                [&] {
                    ASSERT_TRUE(m.copy(src));
                    ids = junk_ids();
                },
                [&] { return merge(pos, m, ids, tol, mode); },
                [&](int r) {
                    EXPECT_EQ(r, -199);
                    EXPECT_TRUE(ids.empty());
                    if (mode == 0) {
                        EXPECT_EQ(vec_of(m), vec_of(src));
                    }
                },
                result);
            EXPECT_GT(result, 0);
        }
    dense2D<double> pos = random_cloud(2, 50, true, 8);
    const std::vector<double> before = vec_of(pos);
    dense1D<unsigned> ids;
    int result = 0;
    dense2D<double> work;
    nodara_test::for_each_allocation_failure(
        [&] { ASSERT_TRUE(work.copy(pos)); },
        [&] { return merge(work, ids, 0.5); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(vec_of(work), before);
        },
        result);
    EXPECT_GT(result, 0);
}

}  // namespace
