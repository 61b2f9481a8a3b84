// get_element_boundaries, get_mesh_boundaries, get_mesh_bounding_elements, get_elements_on_boundaries.
#include "topology/helpers.h"

#include "common/meshes.h"

#include <gtest/gtest.h>

using namespace topo_test;
namespace nt = nodara_test;

namespace {

const dense2D<unsigned> two_tri = M(3, {0, 1, 2, 1, 0, 3});
const dense2D<unsigned> two_tri_nb = M(3, {X, X, 1, X, X, 0});

TEST(GetElementBoundaries, LocalNumberingOfEveryKind) {
    // Nodes 10.. to tell them from local numbers; mixed types go by column, or by rows.
    const struct { element_type t; dense2D<unsigned> c; uv expected; } cases[] = {
        {EL_EDGE2, seq(2, 10), {11, 10}},
        {EL_TRIA3, seq(3, 10), {11, 12, 12, 10, 10, 11}},
        {EL_QUAD4, seq(4, 10), {10, 11, 11, 12, 12, 13, 13, 10}},
        {EL_TETRA4, seq(4, 10), {11, 12, 13, 12, 10, 13, 11, 13, 10, 12, 11, 10}},
        {EL_PYRAMID5, seq(5, 10), {10, 14, 11, X, 11, 14, 12, X, 12, 14, 13, X, 13, 14, 10, X, 10, 11, 12, 13}},
        {EL_WEDGE6, seq(6, 10), {10, 11, 12, X, 13, 15, 14, X, 12, 11, 14, 15, 10, 12, 15, 13, 11, 10, 13, 14}},
        {EL_HEXA8, seq(8, 10),
         {10, 13, 17, 14, 11, 15, 16, 12, 10, 14, 15, 11, 13, 12, 16, 17, 10, 11, 12, 13, 14, 17, 16, 15}},
        {EL_FACE_ANY, M(4, {10, 11, 12, X, 20, 21, 22, 23}), {11, 12, 12, 10, 10, 11, 20, 21, 21, 22, 22, 23, 23, 20}},
        {EL_FACE_ANY, seq(3, 10), {11, 12, 12, 10, 10, 11}},
        {EL_SOLID_ANY, M(8, {10, 11, 12, 13, X, X, X, X, 20, 21, 22, 23, 24, X, X, X}),
         {11, 12, 13, X, 12, 10, 13, X, 11, 13, 10, X, 12, 11, 10, X,  //
          20, 24, 21, X, 21, 24, 22, X, 22, 24, 23, X, 23, 24, 20, X, 20, 21, 22, 23}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << k.t << " rows " << k.c.rows());
        dense2D<unsigned> b;
        ASSERT_EQ(get_element_boundaries(k.c, k.t, b), 0);
        EXPECT_EQ(flat(b), k.expected);
    }
}

TEST(GetElementBoundaries, AppendsBehindExistingColumnsWithTheGrowthRule) {
    dense2D<unsigned> b(2, 10, 9u), fresh;
    ASSERT_EQ(get_element_boundaries(seq(3, 10), EL_TRIA3, b), 0);
    ASSERT_EQ(b.cols(), 13u);
    EXPECT_EQ(flat(b.sub_matrix(0, 9, 2, 4)), (uv{9, 9, 11, 12, 12, 10, 10, 11}));
    EXPECT_EQ(b.capacity(), 40u);  // full at 10 columns: room for 20
    ASSERT_EQ(get_element_boundaries(seq(3, 10), EL_TRIA3, fresh), 0);
    EXPECT_EQ(fresh.capacity(), 8u);  // 4 columns at first
}

TEST(GetElementBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b = M(2, {7, 7});
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(), EL_NONE, b), 0);
    EXPECT_EQ(get_element_boundaries(M(3, {0, X, 2}), EL_TRIA3, b), -1);
    EXPECT_EQ(get_element_boundaries(seq(4), EL_TRIA3, b), -1);
    EXPECT_EQ(get_element_boundaries(seq(6), EL_TRIA6, b), -2);
    EXPECT_EQ(get_element_boundaries(seq(4), EL_TETRA4, b), -2);  // 2-row output
    EXPECT_EQ(b, M(2, {7, 7}));
}

TEST(GetMeshBoundaries, DocumentedExamples) {
    dense2D<unsigned> b;
    dense1D<unsigned> ids{100}, anc, bounds{77};
    unsigned F = 99;
    ASSERT_EQ(get_mesh_boundaries(two_tri, two_tri_nb, EL_TRIA3, b), 0);
    EXPECT_EQ(flat(b), (uv{1, 2, 2, 0, 0, 3, 3, 1}));
    ASSERT_EQ(get_mesh_bounding_elements(two_tri, two_tri_nb, EL_TRIA3, ids, F), 0);
    EXPECT_EQ(F, 3u);
    EXPECT_EQ(values(ids), (uv{100, 0, 1, 3, 4}));  // appended
    // (0, 1) is side 2 of triangle 0 although triangle 1, met first, holds it reversed;
    // (3, 0) is only found reversed, (2, 3) not at all.
    ASSERT_EQ(get_ancestors(two_tri, anc), 0);
    ASSERT_EQ(get_elements_on_boundaries(M(2, {1, 0, 0, 1, 3, 0, 2, 3}), two_tri, two_tri_nb, anc, EL_TRIA3, bounds, F),
              0);
    EXPECT_EQ(values(bounds), (uv{5, 2, 3, X}));
    // Row 3 of a triangle column of EL_FACE_ANY is never a boundary.
    const derived d = derive(M(4, {0, 1, 2, X, 1, 0, 3, 4}), EL_FACE_ANY);
    EXPECT_EQ(flat(d.skin), (uv{1, 2, 2, 0, 0, 3, 3, 4, 4, 1}));
    EXPECT_EQ(d.F, 4u);
    EXPECT_EQ(values(d.ids), (uv{0, 1, 5, 6, 7}));
}

TEST(GetMeshBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b, wrong = M(3, {0, 0, 0});
    const dense2D<unsigned> tria6 = seq(6), nb6(3, 1, X);
    unsigned F = 7;
    dense1D<unsigned> ids;
    EXPECT_EQ(get_mesh_boundaries(dense2D<unsigned>(), dense2D<unsigned>(), EL_NONE, b), 0);
    EXPECT_EQ(get_mesh_boundaries(M(4, {0, 1, 2, 3, 1, 0, 3, 4}), two_tri_nb, EL_TRIA3, b), -1);
    EXPECT_EQ(get_mesh_boundaries(two_tri, M(3, {X, X, X}), EL_TRIA3, b), -2);
    EXPECT_EQ(get_mesh_boundaries(two_tri, M(3, {X, X, 2, X, X, 0}), EL_TRIA3, b), -2);
    EXPECT_EQ(get_mesh_boundaries(two_tri, two_tri_nb, EL_TRIA3, wrong), -4);
    EXPECT_EQ(get_mesh_boundaries(tria6, nb6, EL_TRIA6, wrong), -3);  // 3 rows is right for EL_TRIA6
    EXPECT_EQ(b.entries(), 0u);

    EXPECT_EQ(get_mesh_bounding_elements(M(3, {0, X, 1}), nb6, EL_TRIA3, ids, F), -1);
    EXPECT_EQ(F, 0u);
    EXPECT_EQ(get_mesh_bounding_elements(tria6, nb6, EL_TRIA6, ids, F), -2);
    EXPECT_EQ(F, 3u);  // set before the type test
    EXPECT_EQ(get_mesh_bounding_elements(two_tri, nb6, EL_TRIA3, ids, F), -2);
    EXPECT_TRUE(ids.empty());
}

TEST(GetElementsOnBoundariesStatus, ChecksInOrderAndWalkFailures) {
    dense1D<unsigned> bounds;
    unsigned F = 9;
    auto on = [&](const dense2D<unsigned>& sides, const dense2D<unsigned>& c, const dense2D<unsigned>& nb,
                  const dense1D<unsigned>& anc, element_type t = EL_TRIA3) {
        return get_elements_on_boundaries(sides, c, nb, anc, t, bounds, F);
    };
    const dense2D<unsigned> side = M(2, {0, 1});
    const dense1D<unsigned> anc{1, 1, 0, 1};
    EXPECT_EQ(on(side, dense2D<unsigned>(), two_tri_nb, anc), 0);
    EXPECT_EQ(F, 0u);
    EXPECT_EQ(on(seq(3), two_tri, two_tri_nb, anc), -1);
    EXPECT_EQ(on(side, seq(4), two_tri_nb, anc), -2);
    EXPECT_EQ(on(side, two_tri, M(3, {X, X, 5, X, X, 0}), anc), -3);
    EXPECT_EQ(on(side, two_tri, two_tri_nb, dense1D<unsigned>{0, 2}), -4);
    EXPECT_EQ(F, 0u);
    EXPECT_EQ(on(seq(3), seq(6), dense2D<unsigned>(3, 1, X), dense1D<unsigned>{0}, EL_TRIA6), -5);
    EXPECT_EQ(F, 3u);
    // The walk: node 3 said to be in triangle 0, which does not hold it.
    EXPECT_EQ(on(M(2, {3, 0}), two_tri, two_tri_nb, dense1D<unsigned>{1, 1, 0, 0}), -4);
    // A neighbour across a side holding node 2 that does not hold it.
    EXPECT_EQ(on(M(2, {2, 0}), M(3, {0, 1, 2, 1, 0, 3, 5, 6, 7}), M(3, {2, X, 1, X, X, 0, X, X, X}),
                 dense1D<unsigned>{0, 0, 0, 1, X, 2, 2, 2}),
              -3);
}

TEST(Boundaries, AllocationFailuresKeepWhatWasAppended) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nt::mesh quads = nt::quad_mesh(3, 2), wedges = nt::wedge_mesh(2, 1, 1);
    const derived w = derive(wedges.connect, EL_WEDGE6);
    const dense2D<unsigned> head(2, 3, 5u);
    dense2D<unsigned> b, expected;
    expected.copy(head);
    ASSERT_EQ(get_element_boundaries(quads.connect, EL_QUAD4, expected), 0);
    expect_allocation_failures(
        [&] { b.copy(head); }, [&] { return get_element_boundaries(quads.connect, EL_QUAD4, b); },
        [&] { EXPECT_TRUE(b.cols() >= 3u && b == expected.sub_matrix(0, 0, 2, b.cols())); }, 2);
    EXPECT_EQ(b, expected);
    dense1D<unsigned> ids;
    unsigned F = 0;
    const auto reset = [&] { ids = dense1D<unsigned>(); };
    expect_allocation_failures(
        reset, [&] { return get_mesh_bounding_elements(wedges.connect, w.nb, EL_WEDGE6, ids, F); },
        [&] { EXPECT_EQ(values(ids), uv(w.ids.begin(), w.ids.begin() + ids.size())); });
    EXPECT_EQ(ids, w.ids);
    expect_allocation_failures(
        reset, [&] { return get_elements_on_boundaries(w.skin, wedges.connect, w.nb, w.anc, EL_WEDGE6, ids, F); },
        [] {}, 2);
    EXPECT_EQ(ids, w.ids);
}

}  // namespace
