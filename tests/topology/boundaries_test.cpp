// Boundary extraction: element boundaries, mesh skin, face identifiers and the
// faces under a boundary mesh.
#include "topology/helpers.h"

#include "common/fault_injection.h"
#include "common/meshes.h"

#include <gtest/gtest.h>

using namespace topo_test;

namespace {

const dense2D<unsigned> two_triangles(3, 2, {0, 1, 2, 1, 0, 3});
const dense2D<unsigned> two_triangles_nb(3, 2, {X, X, 1, X, X, 0});

// ---------------------------------------------------------------------------
// The local numbering, one element of each kind (nodes 10.. to tell them from
// local numbers).

TEST(GetElementBoundaries, LocalNumberingOfEveryKind) {
    dense2D<unsigned> b;
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(2, 1, {10, 11}), EL_EDGE2, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{11, 10}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(3, 1, {10, 11, 12}), EL_TRIA3, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{11, 12, 12, 10, 10, 11}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(4, 1, {10, 11, 12, 13}), EL_QUAD4, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{10, 11, 11, 12, 12, 13, 13, 10}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(4, 1, {10, 11, 12, 13}), EL_TETRA4, b), 0);
    ASSERT_EQ(b.rows(), 3u);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{11, 12, 13, 12, 10, 13, 11, 13, 10, 12, 11, 10}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(5, 1, {10, 11, 12, 13, 14}), EL_PYRAMID5, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{10, 14, 11, X, 11, 14, 12, X, 12, 14, 13, X, 13, 14, 10, X,
                                              10, 11, 12, 13}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(6, 1, {10, 11, 12, 13, 14, 15}), EL_WEDGE6, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{10, 11, 12, X, 13, 15, 14, X, 12, 11, 14, 15, 10, 12, 15, 13,
                                              11, 10, 13, 14}));
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(8, 1, {10, 11, 12, 13, 14, 15, 16, 17}), EL_HEXA8, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{10, 13, 17, 14, 11, 15, 16, 12, 10, 14, 15, 11, 13, 12, 16, 17,
                                              10, 11, 12, 13, 14, 17, 16, 15}));
}

TEST(GetElementBoundaries, MixedColumnsGiveTheirOwnKindsBoundaries) {
    dense2D<unsigned> b;
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(4, 2, {10, 11, 12, X, 20, 21, 22, 23}), EL_FACE_ANY, b), 0);
    ASSERT_EQ(b.rows(), 2u);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{11, 12, 12, 10, 10, 11, 20, 21, 21, 22, 22, 23, 23, 20}));
    b = dense2D<unsigned>();
    const dense2D<unsigned> solids(8, 2, {10, 11, 12, 13, X, X, X, X, 20, 21, 22, 23, 24, X, X, X});
    ASSERT_EQ(get_element_boundaries(solids, EL_SOLID_ANY, b), 0);
    ASSERT_EQ(b.rows(), 4u);
    EXPECT_EQ(b.cols(), 9u);
    EXPECT_EQ(column(b, 0), (std::vector<unsigned>{11, 12, 13, X}));
    EXPECT_EQ(column(b, 8), (std::vector<unsigned>{20, 21, 22, 23}));
    // Fewer rows: the uniform kind (3 rows of EL_FACE_ANY are triangles).
    b = dense2D<unsigned>();
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(3, 1, {10, 11, 12}), EL_FACE_ANY, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{11, 12, 12, 10, 10, 11}));
}

TEST(GetElementBoundaries, AppendsBehindExistingColumnsWithTheGrowthRule) {
    dense2D<unsigned> b(2, 10, 9u);
    ASSERT_EQ(b.capacity(), 20u);
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(3, 1, {10, 11, 12}), EL_TRIA3, b), 0);
    ASSERT_EQ(b.cols(), 13u);
    EXPECT_EQ(column(b, 9), (std::vector<unsigned>{9, 9}));
    EXPECT_EQ(column(b, 10), (std::vector<unsigned>{11, 12}));
    EXPECT_EQ(column(b, 12), (std::vector<unsigned>{10, 11}));
    EXPECT_EQ(b.capacity(), 40u);  // full at 10 columns: room for 20
    dense2D<unsigned> fresh;
    ASSERT_EQ(get_element_boundaries(dense2D<unsigned>(3, 1, {10, 11, 12}), EL_TRIA3, fresh), 0);
    EXPECT_EQ(fresh.capacity(), 8u);  // 4 columns at first
}

TEST(GetElementBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b(2, 1, {7, 7});
    const dense2D<unsigned> before(2, 1, {7, 7});
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(), EL_NONE, b), 0);
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(3, 1, {0, X, 2}), EL_TRIA3, b), -1);
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(4, 1, {0, 1, 2, 3}), EL_TRIA3, b), -1);
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, 5}), EL_TRIA6, b), -2);
    EXPECT_EQ(get_element_boundaries(dense2D<unsigned>(4, 1, {0, 1, 2, 3}), EL_TETRA4, b), -2);  // 2-row output
    EXPECT_EQ(b, before);
}

TEST(GetElementBoundaries, AllocationFailureKeepsTheColumnsAppendedSoFar) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::quad_mesh(3, 2);
    dense2D<unsigned> expected(2, 3, {5, 5, 5, 5, 5, 5});
    ASSERT_EQ(get_element_boundaries(m.connect, EL_QUAD4, expected), 0);
    dense2D<unsigned> b;
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        [&] { b = dense2D<unsigned>(2, 3, {5, 5, 5, 5, 5, 5}); },
        [&] { return get_element_boundaries(m.connect, EL_QUAD4, b); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            ASSERT_GE(b.cols(), 3u);
            EXPECT_EQ(b, expected.sub_matrix(0, 0, 2, b.cols()));
        },
        result);
    EXPECT_GE(runs, 2u);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(b, expected);
}

// ---------------------------------------------------------------------------
// get_mesh_boundaries and get_mesh_bounding_elements

TEST(GetMeshBoundaries, TwoTrianglesGiveTheirFourOpenSides) {
    dense2D<unsigned> b;
    ASSERT_EQ(get_mesh_boundaries(two_triangles, two_triangles_nb, EL_TRIA3, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{1, 2, 2, 0, 0, 3, 3, 1}));
    dense1D<unsigned> ids{100};
    unsigned F = 99;
    ASSERT_EQ(get_mesh_bounding_elements(two_triangles, two_triangles_nb, EL_TRIA3, ids, F), 0);
    EXPECT_EQ(F, 3u);
    EXPECT_EQ(values(ids), (std::vector<unsigned>{100, 0, 1, 3, 4}));  // appended
}

TEST(GetMeshBoundaries, TriangleColumnsOfMixedFacesHaveThreeSides) {
    // Row 3 of the neighbour matrix of a triangle column is never a boundary.
    const dense2D<unsigned> c(4, 2, {0, 1, 2, X, 1, 0, 3, 4});
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(c, EL_FACE_ANY, false, nb), 0);
    dense2D<unsigned> b;
    ASSERT_EQ(get_mesh_boundaries(c, nb, EL_FACE_ANY, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{1, 2, 2, 0, 0, 3, 3, 4, 4, 1}));
    dense1D<unsigned> ids;
    unsigned F = 0;
    ASSERT_EQ(get_mesh_bounding_elements(c, nb, EL_FACE_ANY, ids, F), 0);
    EXPECT_EQ(F, 4u);
    EXPECT_EQ(values(ids), (std::vector<unsigned>{0, 1, 5, 6, 7}));
}

TEST(GetMeshBoundaries, SkinOfStructuredBoxes) {
    struct box {
        nodara_test::mesh m;
        std::size_t faces;
    };
    const box boxes[] = {{nodara_test::hexa_mesh(2, 2, 1), 16},
                         {nodara_test::tetra_mesh(2, 2, 1), 32},
                         {nodara_test::wedge_mesh(2, 2, 1), 24},
                         {nodara_test::pyramid_mesh(2, 2, 1), 16},
                         {nodara_test::mixed_solid_mesh(3, 1, 1), 16}};
    for (const box& bx : boxes) {
        SCOPED_TRACE(static_cast<int>(bx.m.type));
        dense2D<unsigned> nb, skin;
        ASSERT_EQ(get_neighbors(bx.m.connect, bx.m.type, false, nb), 0);
        ASSERT_EQ(get_mesh_boundaries(bx.m.connect, nb, bx.m.type, skin), 0);
        EXPECT_EQ(skin.cols(), bx.faces);
        // The skin is closed: as a face mesh, every side has a neighbour.
        const element_type face_type = skin.rows() == 3 ? EL_TRIA3 : EL_FACE_ANY;
        dense2D<unsigned> skin_nb;
        ASSERT_EQ(get_neighbors(skin, face_type, false, skin_nb), 0);
        for (std::size_t e = 0; e < skin.cols(); ++e)
            for (unsigned j = 0; j < (skin.rows() == 3 || skin(3, e) == X ? 3u : 4u); ++j) EXPECT_NE(skin_nb(j, e), X);
    }
}

TEST(GetMeshBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b;
    unsigned F = 7;
    dense1D<unsigned> ids;
    EXPECT_EQ(get_mesh_boundaries(dense2D<unsigned>(), dense2D<unsigned>(), EL_NONE, b), 0);
    EXPECT_EQ(get_mesh_boundaries(dense2D<unsigned>(4, 2, {0, 1, 2, 3, 1, 0, 3, 4}), two_triangles_nb, EL_TRIA3, b),
              -1);
    EXPECT_EQ(get_mesh_boundaries(two_triangles, dense2D<unsigned>(3, 1, {X, X, X}), EL_TRIA3, b), -2);
    EXPECT_EQ(get_mesh_boundaries(two_triangles, dense2D<unsigned>(4, 2, X), EL_TRIA3, b), -2);
    EXPECT_EQ(get_mesh_boundaries(two_triangles, dense2D<unsigned>(3, 2, {X, X, 2, X, X, 0}), EL_TRIA3, b), -2);
    dense2D<unsigned> wrong(3, 1, {0, 0, 0});
    EXPECT_EQ(get_mesh_boundaries(two_triangles, two_triangles_nb, EL_TRIA3, wrong), -4);
    const dense2D<unsigned> tria6(6, 1, {0, 1, 2, 3, 4, 5});
    const dense2D<unsigned> nb6(3, 1, X);
    EXPECT_EQ(get_mesh_boundaries(tria6, nb6, EL_TRIA6, wrong), -3);  // 3 rows is right for EL_TRIA6
    EXPECT_EQ(get_mesh_boundaries(tria6, nb6, EL_TRIA6, b), -3);
    EXPECT_EQ(b.entries(), 0u);

    EXPECT_EQ(get_mesh_bounding_elements(dense2D<unsigned>(3, 1, {0, X, 1}), nb6, EL_TRIA3, ids, F), -1);
    EXPECT_EQ(F, 0u);
    EXPECT_EQ(get_mesh_bounding_elements(tria6, nb6, EL_TRIA6, ids, F), -2);
    EXPECT_EQ(F, 3u);  // set before the type test
    EXPECT_EQ(get_mesh_bounding_elements(two_triangles, nb6, EL_TRIA3, ids, F), -2);
    EXPECT_TRUE(ids.empty());
}

TEST(GetMeshBoundingElements, AllocationFailureKeepsTheValuesAppendedSoFar) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::hexa_mesh(3, 1, 1);
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(m.connect, EL_HEXA8, false, nb), 0);
    dense1D<unsigned> expected;
    unsigned F = 0;
    ASSERT_EQ(get_mesh_bounding_elements(m.connect, nb, EL_HEXA8, expected, F), 0);
    dense1D<unsigned> ids;
    int result = 1;
    nodara_test::for_each_allocation_failure(
        [&] { ids = dense1D<unsigned>(); },
        [&] { return get_mesh_bounding_elements(m.connect, nb, EL_HEXA8, ids, F); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(values(ids), std::vector<unsigned>(expected.begin(), expected.begin() + ids.size()));
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ids, expected);
}

// ---------------------------------------------------------------------------
// get_elements_on_boundaries

TEST(GetElementsOnBoundaries, SameOrderWinsOverReversed) {
    dense1D<unsigned> anc;
    ASSERT_EQ(get_ancestors(two_triangles, anc), 0);
    // (1, 0) is side 2 of triangle 1 as listed; (0, 1) is side 2 of triangle 0,
    // although triangle 1 (met first from node 0) holds it reversed.  (3, 0) is only
    // found reversed, (2, 3) not at all.
    const dense2D<unsigned> sides(2, 4, {1, 0, 0, 1, 3, 0, 2, 3});
    dense1D<unsigned> bounds{77};
    unsigned F = 0;
    ASSERT_EQ(get_elements_on_boundaries(sides, two_triangles, two_triangles_nb, anc, EL_TRIA3, bounds, F), 0);
    EXPECT_EQ(F, 3u);
    EXPECT_EQ(values(bounds), (std::vector<unsigned>{5, 2, 3, X}));
}

TEST(GetElementsOnBoundaries, FindsTheSkinOfStructuredMeshes) {
    const nodara_test::mesh meshes[] = {nodara_test::quad_mesh(3, 2), nodara_test::mixed_face_mesh(3, 3),
                                        nodara_test::tetra_mesh(2, 1, 1), nodara_test::mixed_solid_mesh(3, 2, 1),
                                        nodara_test::edge_mesh(3)};
    for (const auto& m : meshes) {
        SCOPED_TRACE(static_cast<int>(m.type));
        dense2D<unsigned> nb, skin;
        dense1D<unsigned> anc, ids, bounds;
        unsigned F = 0, G = 0;
        ASSERT_EQ(get_neighbors(m.connect, m.type, false, nb), 0);
        ASSERT_EQ(get_mesh_boundaries(m.connect, nb, m.type, skin), 0);
        ASSERT_EQ(get_mesh_bounding_elements(m.connect, nb, m.type, ids, F), 0);
        ASSERT_EQ(get_ancestors(m.connect, anc), 0);
        ASSERT_EQ(get_elements_on_boundaries(skin, m.connect, nb, anc, m.type, bounds, G), 0);
        EXPECT_EQ(G, F);
        EXPECT_EQ(bounds, ids);
    }
}

TEST(GetElementsOnBoundariesStatus, ChecksInOrderAndWalkFailures) {
    dense1D<unsigned> anc{1, 1, 0, 1}, bounds;
    unsigned F = 9;
    const dense2D<unsigned> sides(2, 1, {0, 1});
    EXPECT_EQ(get_elements_on_boundaries(sides, dense2D<unsigned>(), two_triangles_nb, anc, EL_TRIA3, bounds, F), 0);
    EXPECT_EQ(F, 0u);
    EXPECT_EQ(get_elements_on_boundaries(dense2D<unsigned>(3, 1, {0, 1, 2}), two_triangles, two_triangles_nb, anc,
                                         EL_TRIA3, bounds, F),
              -1);
    dense2D<unsigned> empty_sides;
    EXPECT_EQ(get_elements_on_boundaries(empty_sides, two_triangles, two_triangles_nb, anc, EL_TRIA3, bounds, F), -1);
    EXPECT_EQ(get_elements_on_boundaries(sides, dense2D<unsigned>(4, 1, {0, 1, 2, 3}), two_triangles_nb, anc, EL_TRIA3,
                                         bounds, F),
              -2);
    EXPECT_EQ(get_elements_on_boundaries(sides, two_triangles, dense2D<unsigned>(3, 2, {X, X, 5, X, X, 0}), anc,
                                         EL_TRIA3, bounds, F),
              -3);
    EXPECT_EQ(get_elements_on_boundaries(sides, two_triangles, two_triangles_nb, dense1D<unsigned>{0, 2}, EL_TRIA3,
                                         bounds, F),
              -4);
    EXPECT_EQ(F, 0u);
    const dense2D<unsigned> tria6(6, 1, {0, 1, 2, 3, 4, 5});
    EXPECT_EQ(get_elements_on_boundaries(dense2D<unsigned>(3, 1, {0, 1, 2}), tria6, dense2D<unsigned>(3, 1, X),
                                         dense1D<unsigned>{0}, EL_TRIA6, bounds, F),
              -5);
    EXPECT_EQ(F, 3u);
    // The walk: node 3 said to be in triangle 0, which does not hold it.
    EXPECT_EQ(get_elements_on_boundaries(dense2D<unsigned>(2, 1, {3, 0}), two_triangles, two_triangles_nb,
                                         dense1D<unsigned>{1, 1, 0, 0}, EL_TRIA3, bounds, F),
              -4);
    // A neighbour across a side holding node 2 that does not hold it.
    const dense2D<unsigned> three(3, 3, {0, 1, 2, 1, 0, 3, 5, 6, 7});
    const dense2D<unsigned> bad_nb(3, 3, {2, X, 1, X, X, 0, X, X, X});
    EXPECT_EQ(get_elements_on_boundaries(dense2D<unsigned>(2, 1, {2, 0}), three, bad_nb,
                                         dense1D<unsigned>{0, 0, 0, 1, X, 2, 2, 2}, EL_TRIA3, bounds, F),
              -3);
}

}  // namespace

namespace {

TEST(GetElementsOnBoundaries, AllocationFailureIsMinus199) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::wedge_mesh(2, 1, 1);
    dense2D<unsigned> nb, skin;
    dense1D<unsigned> anc, ids, bounds;
    unsigned F = 0;
    ASSERT_EQ(get_neighbors(m.connect, EL_WEDGE6, false, nb), 0);
    ASSERT_EQ(get_mesh_boundaries(m.connect, nb, EL_WEDGE6, skin), 0);
    ASSERT_EQ(get_mesh_bounding_elements(m.connect, nb, EL_WEDGE6, ids, F), 0);
    ASSERT_EQ(get_ancestors(m.connect, anc), 0);
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        [&] { bounds = dense1D<unsigned>(); },
        [&] { return get_elements_on_boundaries(skin, m.connect, nb, anc, EL_WEDGE6, bounds, F); },
        [&](int r) { EXPECT_EQ(r, -199); },
        result);
    EXPECT_GE(runs, 2u);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(bounds, ids);
}

}  // namespace
