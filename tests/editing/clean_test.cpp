#include "editing/helpers.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <vector>

using namespace zq5::nodara;
using namespace nodara_test;

namespace {

TEST(RemoveDegenerated, DropsRepeatsKeepsOrder) {
    dense2D<unsigned> m(3, 4, {0, 1, 2, 4, 4, 7, 3, 5, 6, 7, 8, 7});
    dense1D<unsigned> ids = list_of({9});
    EXPECT_EQ(remove_degenerated(m, ids, false), 2);
    EXPECT_EQ(vec_of(m), (uvec{0, 1, 2, 3, 5, 6}));
    EXPECT_EQ(vec_of(ids), (uvec{0, NIL, 1, NIL}));
    EXPECT_EQ(remove_degenerated(m, false), 0);
    // Filler rows: one NULL_INDEX is no repeat; several count only when asked.
    dense2D<unsigned> face(4, 2, {1, 2, 3, NIL, 1, 1, 3, NIL}), solid(8, 1, {0, 1, 2, 3, NIL, NIL, NIL, NIL});
    EXPECT_EQ(remove_degenerated(face, true), 1);
    EXPECT_EQ(vec_of(face), (uvec{1, 2, 3, NIL}));
    EXPECT_EQ(remove_degenerated(solid, false), 0);
    EXPECT_EQ(remove_degenerated(solid, true), 1);
    EXPECT_EQ(solid.cols(), 0u);
    EXPECT_EQ(solid.rows(), 8u);
}

TEST(RemoveDegenerated, ViewsAndWideColumns) {
    dense2D<unsigned> big(4, 3, {0, 1, 9, 9, 2, 2, 9, 9, 3, 4, 9, 9});
    dense2D<unsigned> view = big.sub_matrix(0, 0, 2, 3);  // ld > rows
    EXPECT_EQ(remove_degenerated(view, false), 1);
    EXPECT_EQ(vec_of(view), (uvec{0, 1, 3, 4}));
    dense2D<unsigned> wide(100, 2);
    for (unsigned i = 0; i < 100; ++i) wide(i, 0) = wide(i, 1) = i;
    wide(99, 1) = 0;
    EXPECT_EQ(remove_degenerated(wide, false), 1);
    EXPECT_EQ(wide.cols(), 1u);
}

TEST(Simplify, StatusesInOrder) {
    dense2D<double> pos(2, 4, 0.0), empty;
    dense2D<unsigned> m[2] = {dense2D<unsigned>(2, 1, {0, 3}), dense2D<unsigned>(1, 1, {7})}, none;
    dense1D<unsigned> ids = list_of({1});
    EXPECT_EQ(simplify(pos, m + 1, m, ids, 0), -3);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(simplify(pos, m, m, ids, 0), 0);
    EXPECT_EQ(simplify(pos, m, m + 2, ids, 0), -2);
    EXPECT_EQ(simplify(empty, none, ids, 0), 0);
    EXPECT_EQ(simplify(pos, m[0], ids, 4), 0);  // n_hard covers every node
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(pos.cols(), 4u);
}

TEST(Simplify, RemovesUnusedNodesAndRenumbers) {
    dense2D<double> pos(2, 6, {0., 0., 1., 1., 2., 2., 3., 3., 4., 4., 5., 5.}), p2(1, 4, {0., 1., 2., 3.});
    dense2D<unsigned> m(3, 2, {5, 3, NIL, 3, 5, 1}), a(1, 1, {3}), b(1, 1, {1});
    dense1D<unsigned> ids;
    EXPECT_EQ(simplify(pos, m, ids, 1), 2);  // nodes 2 and 4 go; node 0 is kept (hard)
    EXPECT_EQ(vec_of(ids), (uvec{0, 1, NIL, 2, NIL, 3}));
    EXPECT_EQ(vec_of(m), (uvec{3, 2, NIL, 2, 3, 1}));
    EXPECT_EQ(vec_of(pos), (dvec{0., 0., 1., 1., 3., 3., 5., 5.}));
    // Two matrices: a node used by either stays.
    EXPECT_EQ(simplify(p2, a, b, 0), 2);
    EXPECT_EQ(vec_of(a), (uvec{1}));
    EXPECT_EQ(vec_of(b), (uvec{0}));
    EXPECT_EQ(vec_of(p2), (dvec{1., 3.}));
}

TEST(Clip, StatusesInOrder) {
    dense2D<double> pos(3, 2, 0.0);
    dense2D<unsigned> m(2, 1, {0, 1}), bad(2, 1, {0, 5}), out(3, 1, {0, 0, 0}), none;
    EXPECT_EQ(clip(pos, none, V3{}, V3{}, out), 0);
    EXPECT_EQ(clip(pos, bad, V3{}, V3{}, out), -2);
    EXPECT_EQ(clip(pos, m, V3{}, V3{1e-13, 0., 0.}, out), -4);
    EXPECT_EQ(clip(pos, m, V3{}, V3{0., 0., 1.}, out), -5);
    EXPECT_EQ(out.cols(), 1u);
}

TEST(Clip, KeepsElementsStrictlyOnThePositiveSide) {
    const mesh q = quad_mesh(4, 1);  // x from 0 to 4: only the last cell is strictly beyond x = 2
    dense2D<unsigned> out(4, 1, {9, 9, 9, 9}), kept;
    EXPECT_EQ(clip(q.pos, q.connect, V3{2., 0., 0.}, V3{1., 0., 0.}, out), 0);
    EXPECT_EQ(vec_of(out), (uvec{9, 9, 9, 9, q.connect(0, 3), q.connect(1, 3), q.connect(2, 3), q.connect(3, 3)}));
    // Mixed faces: only the nodes before NULL_INDEX count; the output may be the input.
    dense2D<double> pos(2, 4, {1., 0., 2., 0., 1., 1., -1., 0.});
    dense2D<unsigned> faces(4, 2, {0, 1, 2, NIL, 0, 1, 3, NIL});
    EXPECT_EQ(clip(pos, faces, V3{}, V3{1., 0., 0.}, kept), 0);
    EXPECT_EQ(vec_of(kept), (uvec{0, 1, 2, NIL}));
    EXPECT_EQ(clip(pos, faces, V3{}, V3{1., 0., 0.}, faces), 0);
    EXPECT_EQ(vec_of(faces), (uvec{0, 1, 2, NIL, 0, 1, 3, NIL, 0, 1, 2, NIL}));
}

TEST(CleanFaults, AllocationFailureLeavesTheInputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    dense2D<unsigned> src(100, 3, 5), m, out;
    for (unsigned j = 0; j < 3; ++j)
        for (unsigned i = 0; i < 100; ++i) src(i, j) = i + j;
    src(50, 1) = 52;  // repeats row 51
    dense1D<unsigned> ids;
    int r = expect_failures_report([&] { ASSERT_TRUE(m.copy(src)); }, [&] { return remove_degenerated(m, ids, false); },
                                   [&] { EXPECT_EQ(vec_of(m), vec_of(src)); });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(vec_of(ids), (uvec{0, NIL, 1}));
    const dense2D<double> base(2, 5, 1.0);
    const dense2D<unsigned> two(1, 2, {4, 1});
    dense2D<double> pos;
    r = expect_failures_report([&] { ASSERT_TRUE(pos.copy(base) && m.copy(two)); },
                               [&] { return simplify(pos, m, ids, 0); },
                               [&] { EXPECT_TRUE(pos.cols() == 5 && vec_of(m) == vec_of(two)); });
    EXPECT_EQ(r, 3);
    EXPECT_EQ(vec_of(m), (uvec{1, 0}));
    const mesh t = tria_mesh(3, 3);
    auto fresh = [&] { out = dense2D<unsigned>(3, 1, {0, 0, 0}); };
    auto cut = [&] { return clip(t.pos, t.connect, V3{0.5, 0., 0.}, V3{1., 0., 0.}, out); };
    r = expect_failures_report(fresh, cut, [&] { EXPECT_EQ(out.cols(), 1u); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out.cols(), 13u);  // the column already there + 2 x 3 cells x 2 triangles
}

}  // namespace
