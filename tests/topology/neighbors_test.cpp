// get_neighbors: statuses, the documented face matching, non-manifold sides,
// mixed kinds, invariants on structured meshes and a brute-force oracle.
#include "topology/helpers.h"

#include "common/fault_injection.h"
#include "common/meshes.h"

#include <gtest/gtest.h>

#include <random>

using namespace topo_test;

namespace {

// ---------------------------------------------------------------------------
// Statuses, in the order the checks run.

TEST(GetNeighborsStatus, EmptyConnectivitySucceedsWithEmptyOutput) {
    dense2D<unsigned> nb(2, 2, 7u);
    dense2D<unsigned> none;
    EXPECT_EQ(get_neighbors(none, EL_TRIA3, false, nb), 0);
    EXPECT_EQ(nb.entries(), 0u);
    dense2D<unsigned> no_columns;
    no_columns.resize(3, 0);
    EXPECT_EQ(get_neighbors(no_columns, EL_TRIA6, false, nb), 0);  // type not even looked at
}

TEST(GetNeighborsStatus, CheckIdsFailureIsMinusOneBeforeTheTypeTest) {
    dense2D<unsigned> nb(1, 1, 7u);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(3, 1, {0, X, 2}), EL_TRIA3, false, nb), -1);
    EXPECT_EQ(nb.entries(), 0u);  // emptied at entry
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(4, 1, {0, 1, 2, 3}), EL_TRIA3, false, nb), -1);  // wrong rows
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(1, 1, {0}), EL_NONE, false, nb), -1);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, X}), EL_TRIA6, false, nb), -1);
    // A mixed solid with a hole in its padding.
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(8, 1, {0, 1, 2, 3, X, 5, X, X}), EL_SOLID_ANY, false, nb), -1);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(7, 1, {0, 1, 2, 3, 4, 5, 6}), EL_SOLID_ANY, false, nb), -1);
}

TEST(GetNeighborsStatus, UnsupportedTypesAreMinusTwo) {
    dense2D<unsigned> nb;
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, 5}), EL_TRIA6, false, nb), -2);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(2, 1, {0, 1}), EL_EDGE_ANY, false, nb), -2);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(3, 1, {0, 1, 2}), EL_EDGE3, false, nb), -2);
    EXPECT_EQ(get_neighbors(dense2D<unsigned>(1, 1, {0}), EL_NODE, false, nb), -2);
    dense2D<unsigned> hexa20(20, 1);
    for (unsigned i = 0; i < 20; ++i) hexa20(i, 0) = i;
    EXPECT_EQ(get_neighbors(hexa20, EL_HEXA20, true, nb), -2);
    EXPECT_EQ(nb.entries(), 0u);
}

TEST(GetNeighborsStatus, AllocationFailureIsMinus199WithEmptyOutput) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::tetra_mesh(2, 1, 1);
    const dense2D<unsigned> expected = oracle_neighbors(m.connect, EL_TETRA4, false);
    dense2D<unsigned> nb;
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        [&] { nb = dense2D<unsigned>(); },
        [&] { return get_neighbors(m.connect, EL_TETRA4, false, nb); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(nb.entries(), 0u);
        },
        result);
    EXPECT_GE(runs, 2u);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(nb, expected);
}

// ---------------------------------------------------------------------------
// Worked examples.

TEST(GetNeighbors, TwoTrianglesShareTheSideOppositeTheirThirdNode) {
    // (a, b, c) = (0, 1, 2) and (b, a, d) = (1, 0, 3): side 2 of both.
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(3, 2, {0, 1, 2, 1, 0, 3}), EL_TRIA3, false, nb), 0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, X, 1, X, X, 0}));
    // The same side in the same direction also matches (orientation is ignored).
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(3, 2, {0, 1, 2, 3, 0, 1}), EL_TRIA3, false, nb), 0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, X, 1, 0, X, X}));
}

TEST(GetNeighbors, ThreeTrianglesOnOneSideDependOnTheFlag) {
    const dense2D<unsigned> c(3, 3, {0, 1, 2, 1, 0, 3, 0, 1, 4});
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(c, EL_TRIA3, true, nb), 0);
    // The later two point to the first, the first to the last.
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, X, 2, X, X, 0, X, X, 0}));
    ASSERT_EQ(get_neighbors(c, EL_TRIA3, false, nb), 0);
    EXPECT_EQ(flat(nb), std::vector<unsigned>(9, X));
}

TEST(GetNeighbors, FourTetrahedraOnOneFace) {
    // Face (0, 1, 2) held by four tetrahedra, as face 3, 3, 0, 3.
    const dense2D<unsigned> c(4, 4, {0, 1, 2, 3, 2, 1, 0, 4, 5, 0, 2, 1, 1, 0, 2, 6});
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(c, EL_TETRA4, true, nb), 0);
    EXPECT_EQ(nb(3, 0), 3u);
    EXPECT_EQ(nb(3, 1), 0u);
    EXPECT_EQ(nb(0, 2), 0u);
    EXPECT_EQ(nb(3, 3), 0u);
    ASSERT_EQ(get_neighbors(c, EL_TETRA4, false, nb), 0);
    EXPECT_EQ(flat(nb), std::vector<unsigned>(16, X));
}

TEST(GetNeighbors, EdgesMeetAtTheirEnds) {
    const nodara_test::mesh m = nodara_test::edge_mesh(3);
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(m.connect, EL_EDGE2, false, nb), 0);
    // Boundary j is the end opposite node j.
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{1, X, 2, 0, X, 1}));
}

TEST(GetNeighbors, QuadrangleSidesStartAtTheirNode) {
    // (0, 1, 4, 3) and (1, 2, 5, 4): side 1 of the first, side 3 of the second.
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(4, 2, {0, 1, 4, 3, 1, 2, 5, 4}), EL_QUAD4, false, nb), 0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, 1, X, X, X, X, X, 0}));
}

TEST(GetNeighbors, WedgesGluedByATriangleAndByAQuadrangle) {
    dense2D<unsigned> nb;
    // Top triangle (3, 5, 4) of the first is the bottom (3, 4, 5) of the second.
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(6, 2, {0, 1, 2, 3, 4, 5, 3, 4, 5, 6, 7, 8}), EL_WEDGE6, false, nb),
              0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, 1, X, X, X, 0, X, X, X, X}));
    // Quadrangle 3 (0, 2, 5, 3) of the first is quadrangle 4 (1, 0, 3, 4) of the second.
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(6, 2, {0, 1, 2, 3, 4, 5, 2, 0, 9, 5, 3, 10}), EL_WEDGE6, false, nb),
              0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, X, X, 1, X, X, X, X, X, 0}));
    // Same four nodes in another cyclic order (a diagonal swapped): no match.
    ASSERT_EQ(get_neighbors(dense2D<unsigned>(6, 2, {0, 1, 2, 3, 4, 5, 2, 0, 9, 3, 5, 10}), EL_WEDGE6, false, nb),
              0);
    EXPECT_EQ(flat(nb), std::vector<unsigned>(10, X));
}

TEST(GetNeighbors, MixedSolidsMatchTrianglesWithTrianglesOnly) {
    // 0 wedge; 1 tetrahedron whose face (5, 4, 1) lies inside the wedge's quadrangle
    // (2, 1, 4, 5); 2 hexahedron on quadrangle (0, 2, 5, 3); 3 pyramid on quadrangle
    // (1, 0, 3, 4); 4 tetrahedron on triangle (0, 1, 2).
    const dense2D<unsigned> c(8, 5, {0,  1,  2,  3,  4,  5,  X,  X,  //
                                     1,  4,  5,  9,  X,  X,  X,  X,  //
                                     0,  3,  5,  2,  10, 11, 12, 13, //
                                     1,  0,  3,  4,  20, X,  X,  X,  //
                                     2,  1,  0,  30, X,  X,  X,  X});
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(c, EL_SOLID_ANY, false, nb), 0);
    ASSERT_EQ(nb.rows(), 6u);
    EXPECT_EQ(column(nb, 0), (std::vector<unsigned>{4, X, X, 2, 3, X}));
    EXPECT_EQ(column(nb, 1), std::vector<unsigned>(6, X));
    EXPECT_EQ(column(nb, 2), (std::vector<unsigned>{X, X, X, X, 0, X}));
    EXPECT_EQ(column(nb, 3), (std::vector<unsigned>{X, X, X, X, 0, X}));
    EXPECT_EQ(column(nb, 4), (std::vector<unsigned>{X, X, X, 0, X, X}));
}

TEST(GetNeighbors, MixedMatricesWithFewerRowsAreTheirUniformKind) {
    const nodara_test::mesh tets = nodara_test::tetra_mesh(2, 2, 1);
    const nodara_test::mesh pyrs = nodara_test::pyramid_mesh(1, 1, 2);
    const nodara_test::mesh weds = nodara_test::wedge_mesh(2, 1, 2);
    dense2D<unsigned> a, b;
    ASSERT_EQ(get_neighbors(tets.connect, EL_SOLID_ANY, false, a), 0);
    ASSERT_EQ(get_neighbors(tets.connect, EL_TETRA4, false, b), 0);
    EXPECT_EQ(a, b);
    ASSERT_EQ(get_neighbors(pyrs.connect, EL_SOLID_ANY, false, a), 0);
    ASSERT_EQ(get_neighbors(pyrs.connect, EL_PYRAMID5, false, b), 0);
    EXPECT_EQ(a, b);
    ASSERT_EQ(get_neighbors(weds.connect, EL_SOLID_ANY, false, a), 0);
    ASSERT_EQ(get_neighbors(weds.connect, EL_WEDGE6, false, b), 0);
    EXPECT_EQ(a, b);
    const nodara_test::mesh tris = nodara_test::tria_mesh(2, 2);
    ASSERT_EQ(get_neighbors(tris.connect, EL_FACE_ANY, false, a), 0);
    ASSERT_EQ(get_neighbors(tris.connect, EL_TRIA3, false, b), 0);
    EXPECT_EQ(a, b);
}

TEST(GetNeighbors, TriangleColumnsOfMixedFacesKeepRowThreeEmpty) {
    const nodara_test::mesh m = nodara_test::mixed_face_mesh(3, 2);
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(m.connect, EL_FACE_ANY, false, nb), 0);
    EXPECT_EQ(nb, oracle_neighbors(m.connect, EL_FACE_ANY, false));
    for (std::size_t e = 0; e < m.connect.cols(); ++e)
        if (m.connect(3, e) == X) {
            EXPECT_EQ(nb(3, e), X);
        }
}

TEST(GetNeighbors, ReadsColumnsThroughTheLeadingDimension) {
    // Two triangles stored in the first three rows of a 5-row buffer.
    dense2D<unsigned> big(5, 2, {0, 1, 2, 77, 77, 1, 0, 3, 77, 77});
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(big.sub_matrix(0, 0, 3, 2), EL_TRIA3, false, nb), 0);
    EXPECT_EQ(flat(nb), (std::vector<unsigned>{X, X, 1, X, X, 0}));
}

// ---------------------------------------------------------------------------
// Invariants on structured meshes.

struct box_case {
    const char* name;
    nodara_test::mesh m;
    std::size_t boundary_faces;
};

std::size_t mixed_box_skin(unsigned nx, unsigned ny, unsigned nz) {
    std::size_t top = 0;
    for (unsigned j = 0; j < ny; ++j)
        for (unsigned i = 0; i < nx; ++i) top += (i + j) % 3 == 1 ? 2 : 1;
    return 2 * top + 2 * (nx * nz + ny * nz);
}

std::vector<box_case> boxes() {
    const unsigned nx = 3, ny = 2, nz = 2;
    const std::size_t quads = 2 * (nx * ny + ny * nz + nx * nz);
    return {
        {"hexa", nodara_test::hexa_mesh(nx, ny, nz), quads},
        {"tetra", nodara_test::tetra_mesh(nx, ny, nz), 2 * quads},
        {"wedge", nodara_test::wedge_mesh(nx, ny, nz), 4 * nx * ny + 2 * (nx * nz + ny * nz)},
        {"pyramid", nodara_test::pyramid_mesh(nx, ny, nz), quads},
        {"mixed", nodara_test::mixed_solid_mesh(nx, ny, nz), mixed_box_skin(nx, ny, nz)},
        {"quad", nodara_test::quad_mesh(4, 3), 2 * (4 + 3)},
        {"tria", nodara_test::tria_mesh(4, 3), 2 * (4 + 3)},
        {"mixed faces", nodara_test::mixed_face_mesh(4, 3), 2 * (4 + 3)},
        {"edge", nodara_test::edge_mesh(5), 2},
    };
}

TEST(GetNeighborsInvariants, SymmetricAndSkinOfTheRightSizeOnStructuredMeshes) {
    for (const box_case& bc : boxes()) {
        SCOPED_TRACE(bc.name);
        dense2D<unsigned> nb;
        ASSERT_EQ(get_neighbors(bc.m.connect, bc.m.type, false, nb), 0);
        const element_type type = detail::substitute_by_rows(bc.m.type, bc.m.connect.rows());
        std::size_t open = 0;
        for (std::size_t e = 0; e < nb.cols(); ++e) {
            const unsigned faces = detail::linear_shape(detail::column_kind(type, bc.m.connect.col(e)))->nbr_boundaries;
            for (unsigned j = 0; j < nb.rows(); ++j) {
                const unsigned n = nb(j, e);
                if (j >= faces) {
                    EXPECT_EQ(n, X);
                    continue;
                }
                if (n == X) {
                    ++open;
                    continue;
                }
                ASSERT_LT(n, nb.cols());
                unsigned back = 0;
                for (unsigned k = 0; k < nb.rows(); ++k) back += nb(k, n) == e;
                EXPECT_EQ(back, 1u) << "element " << e << " side " << j;
            }
        }
        EXPECT_EQ(open, bc.boundary_faces);
        // With a manifold mesh the flag changes nothing.
        dense2D<unsigned> kept;
        ASSERT_EQ(get_neighbors(bc.m.connect, bc.m.type, true, kept), 0);
        EXPECT_EQ(kept, nb);
        EXPECT_EQ(nb, oracle_neighbors(bc.m.connect, bc.m.type, false));
    }
}

TEST(GetNeighborsInvariants, ClosedSurfaceHasNoOpenSide) {
    const nodara_test::mesh m = nodara_test::cube_surface(4);
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(m.connect, EL_TRIA3, false, nb), 0);
    for (std::size_t e = 0; e < nb.cols(); ++e)
        for (unsigned j = 0; j < 3; ++j) EXPECT_NE(nb(j, e), X);
}

// ---------------------------------------------------------------------------
// Oracle: random connectivities over few nodes give long chains, repeated faces,
// degenerate faces and classes of many members.

dense2D<unsigned> random_connectivity(std::mt19937& g, element_type type, unsigned cols, unsigned nodes) {
    std::uniform_int_distribution<unsigned> pick(0, nodes - 1);
    if (type == EL_SOLID_ANY || type == EL_FACE_ANY) {
        const unsigned rows = type == EL_SOLID_ANY ? 8 : 4;
        dense2D<unsigned> c(rows, cols, X);
        std::uniform_int_distribution<unsigned> kind(0, type == EL_SOLID_ANY ? 3 : 1);
        static const unsigned solid_sizes[4] = {4, 5, 6, 8};
        for (unsigned e = 0; e < cols; ++e) {
            const unsigned k = type == EL_SOLID_ANY ? solid_sizes[kind(g)] : 3 + kind(g);
            for (unsigned i = 0; i < k; ++i) c(i, e) = pick(g);
        }
        return c;
    }
    dense2D<unsigned> c(nbr_nodes(type), cols);
    for (unsigned e = 0; e < cols; ++e)
        for (unsigned i = 0; i < c.rows(); ++i) c(i, e) = pick(g);
    return c;
}

TEST(GetNeighborsOracle, RandomConnectivitiesOfEveryKind) {
    std::mt19937 g(12345);
    const element_type types[] = {EL_EDGE2,  EL_TRIA3,    EL_QUAD4,  EL_FACE_ANY, EL_TETRA4,
                                  EL_PYRAMID5, EL_WEDGE6, EL_HEXA8, EL_SOLID_ANY};
    for (element_type t : types)
        for (unsigned nodes : {4u, 7u, 40u}) {
            SCOPED_TRACE(::testing::Message() << "type " << t << " nodes " << nodes);
            const dense2D<unsigned> c = random_connectivity(g, t, 150, nodes);
            for (bool keep : {false, true}) {
                dense2D<unsigned> nb;
                ASSERT_EQ(get_neighbors(c, t, keep, nb), 0);
                EXPECT_EQ(nb, oracle_neighbors(c, t, keep)) << "keep " << keep;
            }
        }
}

}  // namespace
