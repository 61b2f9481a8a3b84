#include "common/fault_injection.h"
#include "common/meshes.h"
#include "editing/helpers.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <vector>

using namespace zq5::nodara;
using nodara_test::list_of;
using nodara_test::vec_of;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;

namespace {

constexpr unsigned NIL = zq5::NULL_INDEX;

// ---------------------------------------------------------------------------
// remove_degenerated

TEST(RemoveDegenerated, DropsRepeatsKeepsOrder) {
    dense2D<unsigned> m(3, 4, {0, 1, 2, 4, 4, 7, 3, 5, 6, 7, 8, 7});
    dense1D<unsigned> ids = list_of({9});
    EXPECT_EQ(remove_degenerated(m, ids, false), 2);
    EXPECT_EQ(vec_of(m), (std::vector<unsigned>{0, 1, 2, 3, 5, 6}));
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, NIL, 1, NIL}));
    EXPECT_EQ(remove_degenerated(m, false), 0);
}

TEST(RemoveDegenerated, FillerRowsCountOnlyWhenAsked) {
    dense2D<unsigned> face(4, 2, {1, 2, 3, NIL, 1, 1, 3, NIL});
    EXPECT_EQ(remove_degenerated(face, true), 1);  // a single NULL_INDEX is no repeat
    EXPECT_EQ(vec_of(face), (std::vector<unsigned>{1, 2, 3, NIL}));
    dense2D<unsigned> solid(8, 1, {0, 1, 2, 3, NIL, NIL, NIL, NIL});
    EXPECT_EQ(remove_degenerated(solid, false), 0);
    EXPECT_EQ(remove_degenerated(solid, true), 1);
    EXPECT_EQ(solid.cols(), 0u);
    EXPECT_EQ(solid.rows(), 8u);
}

TEST(RemoveDegenerated, ViewsAndWideColumns) {
    // A sub-matrix view (ld > rows) is compacted column by column.
    dense2D<unsigned> big(4, 3, {0, 1, 9, 9, 2, 2, 9, 9, 3, 4, 9, 9});
    dense2D<unsigned> view = big.sub_matrix(0, 0, 2, 3);
    EXPECT_EQ(remove_degenerated(view, false), 1);
    EXPECT_EQ(view.cols(), 2u);
    EXPECT_EQ(vec_of(view), (std::vector<unsigned>{0, 1, 3, 4}));
    // More rows than the scratch on the stack.
    dense2D<unsigned> wide(100, 2);
    for (unsigned i = 0; i < 100; ++i) wide(i, 0) = wide(i, 1) = i;
    wide(99, 1) = 0;
    EXPECT_EQ(remove_degenerated(wide, false), 1);
    EXPECT_EQ(wide.cols(), 1u);
}

TEST(RemoveDegenerated, AllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    dense2D<unsigned> src(100, 3, 5), m;
    for (unsigned j = 0; j < 3; ++j)
        for (unsigned i = 0; i < 100; ++i) src(i, j) = i + j;
    src(50, 1) = 52;  // repeats row 51
    dense1D<unsigned> ids;
    int result = 0;
    nodara_test::for_each_allocation_failure(
        [&] { ASSERT_TRUE(m.copy(src)); }, [&] { return remove_degenerated(m, ids, false); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(vec_of(m), vec_of(src));
        },
        result);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, NIL, 1}));
}

// ---------------------------------------------------------------------------
// simplify

TEST(Simplify, StatusesInOrder) {
    dense2D<double> pos(2, 4, 0.0);
    dense2D<unsigned> m[2] = {dense2D<unsigned>(2, 1, {0, 3}), dense2D<unsigned>(1, 1, {7})};
    dense1D<unsigned> ids = list_of({1});
    EXPECT_EQ(simplify(pos, m + 1, m, ids, 0), -3);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(simplify(pos, m, m, ids, 0), 0);
    EXPECT_EQ(simplify(pos, m, m + 2, ids, 0), -2);
    EXPECT_EQ(pos.cols(), 4u);
    EXPECT_EQ(simplify(pos, m[0], ids, 4), 0);  // n_hard covers every node
    EXPECT_TRUE(ids.empty());
    dense2D<double> empty;
    dense2D<unsigned> none;
    EXPECT_EQ(simplify(empty, none, ids, 0), 0);
}

TEST(Simplify, RemovesUnusedNodesAndRenumbers) {
    dense2D<double> pos(2, 6, {0., 0., 1., 1., 2., 2., 3., 3., 4., 4., 5., 5.});
    dense2D<unsigned> m(3, 2, {5, 3, NIL, 3, 5, 1});
    dense1D<unsigned> ids;
    EXPECT_EQ(simplify(pos, m, ids, 1), 2);  // nodes 2 and 4 go; node 0 is kept (hard)
    EXPECT_EQ(vec_of(ids), (std::vector<unsigned>{0, 1, NIL, 2, NIL, 3}));
    EXPECT_EQ(vec_of(m), (std::vector<unsigned>{3, 2, NIL, 2, 3, 1}));
    EXPECT_EQ(vec_of(pos), (std::vector<double>{0., 0., 1., 1., 3., 3., 5., 5.}));
    // Two matrices: a node used by either stays.
    dense2D<double> p2(1, 4, {0., 1., 2., 3.});
    dense2D<unsigned> a(1, 1, {3}), b(1, 1, {1});
    EXPECT_EQ(simplify(p2, a, b, 0), 2);
    EXPECT_EQ(vec_of(a), (std::vector<unsigned>{1}));
    EXPECT_EQ(vec_of(b), (std::vector<unsigned>{0}));
    EXPECT_EQ(vec_of(p2), (std::vector<double>{1., 3.}));
}

TEST(Simplify, MergeThenCleanRebuildsASoup) {
    // The reader's sequence: merge the soup, drop degenerate triangles, drop nodes.
    const nodara_test::mesh cube = nodara_test::cube_surface(2);
    const std::size_t nt = cube.connect.cols();
    dense2D<double> pos(3, 3 * nt + 1);
    dense2D<unsigned> soup(3, nt + 1);
    for (std::size_t j = 0; j < nt; ++j)
        for (unsigned i = 0; i < 3; ++i) {
            for (unsigned k = 0; k < 3; ++k) pos(k, 3 * j + i) = cube.pos(k, cube.connect(i, j));
            soup(i, j) = static_cast<unsigned>(3 * j + i);
        }
    // One extra degenerate facet: its three corners coincide.
    for (unsigned k = 0; k < 3; ++k) pos(k, 3 * nt) = 0.5;
    soup(0, nt) = soup(1, nt) = soup(2, nt) = static_cast<unsigned>(3 * nt);
    EXPECT_GT(merge(pos, soup, 0.0, 0), 0);
    EXPECT_EQ(remove_degenerated(soup, false), 1);
    EXPECT_EQ(simplify(pos, soup, 0), static_cast<int>(3 * nt + 1 - cube.pos.cols()));
    EXPECT_EQ(pos.cols(), cube.pos.cols());
    EXPECT_EQ(soup.cols(), nt);
    EXPECT_EQ(count_unique_indices(soup), static_cast<int>(cube.pos.cols()));
}

TEST(Simplify, AllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> base(2, 5, 1.0);
    const dense2D<unsigned> src(1, 2, {4, 1});
    dense2D<double> pos;
    dense2D<unsigned> m;
    dense1D<unsigned> ids;
    int result = 0;
    nodara_test::for_each_allocation_failure(
        [&] {
            ASSERT_TRUE(pos.copy(base));
            ASSERT_TRUE(m.copy(src));
        },
        [&] { return simplify(pos, m, ids, 0); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(pos.cols(), 5u);
            EXPECT_EQ(vec_of(m), vec_of(src));
        },
        result);
    EXPECT_EQ(result, 3);
    EXPECT_EQ(vec_of(m), (std::vector<unsigned>{1, 0}));
}

// ---------------------------------------------------------------------------
// clip

TEST(Clip, StatusesInOrder) {
    dense2D<double> pos(3, 2, 0.0);
    dense2D<unsigned> m(2, 1, {0, 1}), bad(2, 1, {0, 5}), out(3, 1, {0, 0, 0}), none;
    const vector_fixed<double, 3> P{}, n{0., 0., 1.}, zero{};
    EXPECT_EQ(clip(pos, none, P, zero, out), 0);
    EXPECT_EQ(clip(pos, bad, P, zero, out), -2);
    EXPECT_EQ(clip(pos, m, P, vector_fixed<double, 3>{1e-13, 0., 0.}, out), -4);
    EXPECT_EQ(clip(pos, m, P, n, out), -5);
    EXPECT_EQ(out.cols(), 1u);
}

TEST(Clip, KeepsElementsStrictlyOnThePositiveSide) {
    const nodara_test::mesh q = nodara_test::quad_mesh(4, 1);  // x from 0 to 4
    dense2D<unsigned> out(4, 1, {9, 9, 9, 9});
    // Plane x = 2: only the cell from x = 3 to 4 lies strictly beyond it.
    EXPECT_EQ(clip(q.pos, q.connect, vector_fixed<double, 3>{2., 0., 0.}, vector_fixed<double, 3>{1., 0., 0.}, out),
              0);
    ASSERT_EQ(out.cols(), 2u);  // appended: element 3 only, after the existing column
    EXPECT_EQ(out(0, 0), 9u);
    for (unsigned r = 0; r < 4; ++r) EXPECT_EQ(out(r, 1), q.connect(r, 3));
    // Mixed faces: only the nodes before NULL_INDEX are tested.
    dense2D<double> pos(2, 4, {1., 0., 2., 0., 1., 1., -1., 0.});
    dense2D<unsigned> faces(4, 2, {0, 1, 2, NIL, 0, 1, 3, NIL});
    dense2D<unsigned> kept;
    EXPECT_EQ(clip(pos, faces, vector_fixed<double, 3>{}, vector_fixed<double, 3>{1., 0., 0.}, kept), 0);
    EXPECT_EQ(vec_of(kept), (std::vector<unsigned>{0, 1, 2, NIL}));
    // The output may be the input itself.
    EXPECT_EQ(clip(pos, faces, vector_fixed<double, 3>{}, vector_fixed<double, 3>{1., 0., 0.}, faces), 0);
    EXPECT_EQ(faces.cols(), 3u);
    EXPECT_EQ(vec_of(faces.sub_matrix(0, 2, 4, 1)), (std::vector<unsigned>{0, 1, 2, NIL}));
}

TEST(Clip, AllocationFailureLeavesTheOutput) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh t = nodara_test::tria_mesh(3, 3);
    dense2D<unsigned> out;
    int result = 0;
    nodara_test::for_each_allocation_failure(
        [&] { out = dense2D<unsigned>(3, 1, {0, 0, 0}); },
        [&] {
            return clip(t.pos, t.connect, vector_fixed<double, 3>{0.5, 0., 0.}, vector_fixed<double, 3>{1., 0., 0.},
                        out);
        },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(out.cols(), 1u);
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out.cols(), 13u);  // the column already there + 2 x 3 cells x 2 triangles
}

}  // namespace
