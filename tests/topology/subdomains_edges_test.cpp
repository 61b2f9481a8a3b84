// get_subdomains, get_colors_boundaries and copy_edges.
#include "topology/helpers.h"

#include "common/fault_injection.h"
#include "common/meshes.h"

#include <gtest/gtest.h>

#include <set>

using namespace topo_test;

namespace {

// Two copies of a mesh side by side (node indices of the second shifted).
dense2D<unsigned> twice(const dense2D<unsigned>& c, unsigned shift) {
    dense2D<unsigned> out(c.rows(), 2 * c.cols());
    for (std::size_t e = 0; e < c.cols(); ++e)
        for (std::size_t i = 0; i < c.rows(); ++i) {
            out(i, e) = c(i, e);
            out(i, c.cols() + e) = c(i, e) == X ? X : c(i, e) + shift;
        }
    return out;
}

// ---------------------------------------------------------------------------
// get_subdomains

TEST(GetSubdomains, BreadthFirstFromTheLowestElement) {
    const dense2D<unsigned> nb(2, 5, {3, X, 4, X, X, X, 0, 4, 1, 3});
    dense1D<unsigned> order{9, 9}, offsets{9};
    ASSERT_EQ(get_subdomains(nb, order, offsets), 0);
    EXPECT_EQ(values(order), (std::vector<unsigned>{0, 3, 4, 1, 2}));
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, 4, 5}));
}

TEST(GetSubdomains, SeparateTrianglesOneConnectedMeshAndNoElement) {
    dense1D<unsigned> order, offsets;
    ASSERT_EQ(get_subdomains(dense2D<unsigned>(3, 2, X), order, offsets), 0);
    EXPECT_EQ(values(order), (std::vector<unsigned>{0, 1}));
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, 1, 2}));
    const nodara_test::mesh m = nodara_test::tetra_mesh(2, 2, 2);
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(m.connect, EL_TETRA4, false, nb), 0);
    ASSERT_EQ(get_subdomains(nb, order, offsets), 0);
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, 48}));
    ASSERT_EQ(get_subdomains(dense2D<unsigned>(), order, offsets), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0}));
}

TEST(GetSubdomains, OnePerConnectedPieceOfEveryKind) {
    const nodara_test::mesh meshes[] = {nodara_test::hexa_mesh(2, 1, 1), nodara_test::mixed_solid_mesh(3, 1, 1),
                                        nodara_test::mixed_face_mesh(3, 2), nodara_test::edge_mesh(3)};
    for (const auto& m : meshes) {
        const dense2D<unsigned> c = twice(m.connect, 1000);
        dense2D<unsigned> nb;
        ASSERT_EQ(get_neighbors(c, m.type, false, nb), 0);
        dense1D<unsigned> order, offsets;
        ASSERT_EQ(get_subdomains(nb, order, offsets), 0);
        const unsigned E = static_cast<unsigned>(m.connect.cols());
        EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, E, 2 * E}));
        for (unsigned k = 0; k < E; ++k) EXPECT_LT(order[k], E);
    }
}

TEST(GetSubdomains, ReorderingMakesPiecesContiguousAndKeepsNeighboursConsistent) {
    // Interleave the columns of two separate pieces.
    const nodara_test::mesh m = nodara_test::tria_mesh(2, 1);
    const dense2D<unsigned> two = twice(m.connect, 100);
    dense2D<unsigned> c(3, two.cols());
    const unsigned E = static_cast<unsigned>(m.connect.cols());
    for (unsigned k = 0; k < E; ++k)
        for (unsigned i = 0; i < 3; ++i) {
            c(i, 2 * k) = two(i, k);
            c(i, 2 * k + 1) = two(i, E + k);
        }
    dense2D<unsigned> nb;
    ASSERT_EQ(get_neighbors(c, EL_TRIA3, false, nb), 0);
    dense1D<unsigned> offsets;
    ASSERT_EQ(get_subdomains(c, nb, offsets), 0);
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, E, 2 * E}));
    for (unsigned k = 0; k < E; ++k) {
        EXPECT_LT(c(0, k), 100u);
        EXPECT_GE(c(0, E + k), 100u);
    }
    dense2D<unsigned> again;
    ASSERT_EQ(get_neighbors(c, EL_TRIA3, false, again), 0);
    EXPECT_EQ(again, nb);
}

TEST(GetSubdomains, ReorderingStatuses) {
    dense2D<unsigned> c(3, 2, {0, 1, 2, 1, 0, 3}), nb(3, 1, X);
    dense1D<unsigned> offsets{5};
    EXPECT_EQ(get_subdomains(c, nb, offsets), -2);
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{5}));
    EXPECT_EQ(c, dense2D<unsigned>(3, 2, {0, 1, 2, 1, 0, 3}));
}

TEST(GetSubdomains, AllocationFailureLeavesTheMeshUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::quad_mesh(2, 1);
    const dense2D<unsigned> c0 = twice(m.connect, 50);
    dense2D<unsigned> nb0;
    ASSERT_EQ(get_neighbors(c0, EL_QUAD4, false, nb0), 0);
    dense2D<unsigned> c, nb;
    dense1D<unsigned> offsets, order;
    int result = 1;
    nodara_test::for_each_allocation_failure(
        [&] {
            c.copy(c0);
            nb.copy(nb0);
            offsets = dense1D<unsigned>();
        },
        [&] { return get_subdomains(c, nb, offsets); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(c, c0);
            EXPECT_EQ(nb, nb0);
            EXPECT_TRUE(offsets.empty());
        },
        result);
    EXPECT_EQ(result, 0);
    nodara_test::for_each_allocation_failure(
        [&] {
            order = dense1D<unsigned>();
            offsets = dense1D<unsigned>();
        },
        [&] { return get_subdomains(nb0, order, offsets); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_TRUE(order.empty() && offsets.empty());
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(values(offsets), (std::vector<unsigned>{0, 2, 4}));
}

// ---------------------------------------------------------------------------
// get_colors_boundaries

// quad_mesh(3, 1): (0,1,5,4), (1,2,6,5), (2,3,7,6).
const nodara_test::mesh strip = nodara_test::quad_mesh(3, 1);
const dense2D<unsigned> strip_nb(4, 3, {X, 1, X, X, X, 2, X, 0, X, X, X, 1});
const dense1D<unsigned> strip_colors{0, 0, 1};

TEST(GetColorsBoundaries, InterfacesOnceOrTwiceAndTheSkinAlways) {
    dense2D<unsigned> b;
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, false, b), 0);
    EXPECT_EQ(flat(b), (std::vector<unsigned>{0, 1, 5, 4, 4, 0, 1, 2, 2, 6, 6, 5, 2, 3, 3, 7, 7, 6}));
    dense2D<unsigned> both(2, 1, {8, 8});
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, both), 0);
    EXPECT_EQ(flat(both), (std::vector<unsigned>{8, 8, 0, 1, 5, 4, 4, 0, 1, 2, 2, 6, 6, 5, 2, 3, 3, 7, 7, 6, 6, 2}));
}

TEST(GetColorsBoundaries, OneColourGivesTheMeshSkin) {
    const nodara_test::mesh m = nodara_test::mixed_solid_mesh(3, 2, 1);
    dense2D<unsigned> nb, skin, b;
    ASSERT_EQ(get_neighbors(m.connect, EL_SOLID_ANY, false, nb), 0);
    ASSERT_EQ(get_mesh_boundaries(m.connect, nb, EL_SOLID_ANY, skin), 0);
    const dense1D<unsigned> colors(m.connect.cols(), 3u);
    ASSERT_EQ(get_colors_boundaries(m.connect, nb, colors, EL_SOLID_ANY, true, b), 0);
    EXPECT_EQ(b, skin);
}

TEST(GetColorsBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b;
    EXPECT_EQ(get_colors_boundaries(dense2D<unsigned>(), strip_nb, strip_colors, EL_QUAD4, false, b), 0);
    EXPECT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_TRIA3, false, b), -1);
    EXPECT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_TRIA6, false, b), -1);
    EXPECT_EQ(get_colors_boundaries(strip.connect, dense2D<unsigned>(3, 3, X), strip_colors, EL_QUAD4, false, b), -2);
    EXPECT_EQ(get_colors_boundaries(strip.connect, dense2D<unsigned>(4, 3, 3u), strip_colors, EL_QUAD4, false, b), -2);
    EXPECT_EQ(get_colors_boundaries(strip.connect, strip_nb, dense1D<unsigned>{0, 0}, EL_QUAD4, false, b), -3);
    dense2D<unsigned> wrong(3, 1, {0, 0, 0});
    EXPECT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, false, wrong), -5);
    // An unsupported type whose row count matches reaches the type test.
    const dense2D<unsigned> quad8(8, 1, {0, 1, 2, 3, 4, 5, 6, 7});
    const dense2D<unsigned> nb4(4, 1, X);
    EXPECT_EQ(get_colors_boundaries(quad8, nb4, dense1D<unsigned>{0}, EL_QUAD8, false, b), -4);
    EXPECT_EQ(b.entries(), 0u);
}

TEST(GetColorsBoundaries, AllocationFailureKeepsTheColumnsAppendedSoFar) {
    NODARA_REQUIRE_FAULT_INJECTION();
    dense2D<unsigned> expected;
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, expected), 0);
    dense2D<unsigned> b;
    int result = 1;
    nodara_test::for_each_allocation_failure(
        [&] { b = dense2D<unsigned>(); },
        [&] { return get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, b); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            if (b.cols() > 0) {
                EXPECT_EQ(b, expected.sub_matrix(0, 0, 2, b.cols()));
            }
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(b, expected);
}

// ---------------------------------------------------------------------------
// copy_edges

TEST(CopyEdges, TwoTrianglesInLexicographicOrder) {
    dense2D<unsigned> e;
    ASSERT_EQ(copy_edges(dense2D<unsigned>(3, 2, {0, 1, 2, 1, 0, 3}), EL_TRIA3, e), 0);
    EXPECT_EQ(flat(e), (std::vector<unsigned>{0, 1, 0, 2, 0, 3, 1, 2, 1, 3}));
    // Appended behind what is there, without comparing with it.
    dense2D<unsigned> more(2, 1, {0, 1});
    ASSERT_EQ(copy_edges(dense2D<unsigned>(2, 1, {4, 0}), EL_EDGE2, more), 0);
    EXPECT_EQ(flat(more), (std::vector<unsigned>{0, 1, 0, 4}));
}

TEST(CopyEdges, CornerEdgesOfQuadraticKindsAndNoneForSerendipitySolids) {
    auto count = [](element_type t, unsigned rows) {
        dense2D<unsigned> c(rows, 1);
        for (unsigned i = 0; i < rows; ++i) c(i, 0) = i;
        dense2D<unsigned> e;
        EXPECT_EQ(copy_edges(c, t, e), 0);
        for (std::size_t k = 0; k < e.cols(); ++k) EXPECT_LT(e(1, k), nbr_base_nodes(t));
        return e.cols();
    };
    EXPECT_EQ(count(EL_EDGE3, 3), 1u);
    EXPECT_EQ(count(EL_TRIA6, 6), 3u);
    EXPECT_EQ(count(EL_QUAD8, 8), 4u);
    EXPECT_EQ(count(EL_QUAD9, 9), 4u);
    EXPECT_EQ(count(EL_TETRA10, 10), 6u);
    EXPECT_EQ(count(EL_PYRAMID14, 14), 8u);
    EXPECT_EQ(count(EL_WEDGE18, 18), 9u);
    EXPECT_EQ(count(EL_HEXA27, 27), 12u);
    EXPECT_EQ(count(EL_PYRAMID13, 13), 0u);
    EXPECT_EQ(count(EL_WEDGE15, 15), 0u);
    EXPECT_EQ(count(EL_HEXA20, 20), 0u);
    EXPECT_EQ(count(EL_EDGE_ANY, 2), 0u);
    EXPECT_EQ(count(EL_NODE, 1), 0u);
    // Mixed kinds by rows and by column.
    EXPECT_EQ(count(EL_FACE_ANY, 3), 3u);
    EXPECT_EQ(count(EL_SOLID_ANY, 5), 8u);
    dense2D<unsigned> e;
    ASSERT_EQ(copy_edges(dense2D<unsigned>(4, 2, {0, 1, 2, X, 0, 2, 3, 4}), EL_FACE_ANY, e), 0);
    EXPECT_EQ(flat(e), (std::vector<unsigned>{0, 1, 0, 2, 0, 4, 1, 2, 2, 3, 3, 4}));
}

TEST(CopyEdges, EulersFormulaOnStructuredMeshes) {
    // V - E + F - C = 1 for a box (F: distinct faces from the neighbour matrix);
    // V - E + F = 1 for a plane grid; 2 for a closed surface.
    const nodara_test::mesh solids[] = {nodara_test::tetra_mesh(3, 2, 2), nodara_test::hexa_mesh(3, 2, 2),
                                        nodara_test::wedge_mesh(3, 2, 2), nodara_test::pyramid_mesh(2, 2, 2),
                                        nodara_test::mixed_solid_mesh(3, 3, 2)};
    for (const auto& m : solids) {
        SCOPED_TRACE(static_cast<int>(m.type));
        dense2D<unsigned> e, nb, all_faces;
        ASSERT_EQ(copy_edges(m.connect, m.type, e), 0);
        ASSERT_EQ(get_neighbors(m.connect, m.type, false, nb), 0);
        ASSERT_EQ(get_element_boundaries(m.connect, m.type, all_faces), 0);
        std::size_t open = 0;
        for (std::size_t k = 0; k < nb.cols(); ++k)
            for (std::size_t j = 0; j < nb.rows(); ++j) open += nb(j, k) == X;
        const std::size_t missing = nb.entries() - all_faces.cols();  // rows a kind does not have
        const std::size_t faces = (all_faces.cols() + open - missing) / 2;
        const long V = static_cast<long>(m.pos.cols());
        EXPECT_EQ(V - static_cast<long>(e.cols()) + static_cast<long>(faces) - static_cast<long>(m.connect.cols()), 1);
    }
    const nodara_test::mesh planes[] = {nodara_test::tria_mesh(4, 3), nodara_test::quad_mesh(4, 3),
                                        nodara_test::mixed_face_mesh(4, 3)};
    for (const auto& m : planes) {
        dense2D<unsigned> e;
        ASSERT_EQ(copy_edges(m.connect, m.type, e), 0);
        EXPECT_EQ(static_cast<long>(m.pos.cols()) - static_cast<long>(e.cols()) + static_cast<long>(m.connect.cols()),
                  1);
    }
    const nodara_test::mesh s = nodara_test::cube_surface(3);
    dense2D<unsigned> e;
    ASSERT_EQ(copy_edges(s.connect, EL_TRIA3, e), 0);
    EXPECT_EQ(static_cast<long>(s.pos.cols()) - static_cast<long>(e.cols()) + static_cast<long>(s.connect.cols()), 2);
}

TEST(CopyEdges, SparseLargeNodeIndicesGiveTheSameList) {
    // Far-apart indices take another path through the library; the list must not
    // depend on it.
    const nodara_test::mesh m = nodara_test::mixed_solid_mesh(2, 2, 1);
    dense2D<unsigned> shifted;
    shifted.copy(m.connect);
    shift_indices(shifted, 2000000000, EL_SOLID_ANY);
    dense2D<unsigned> near, far;
    ASSERT_EQ(copy_edges(m.connect, EL_SOLID_ANY, near), 0);
    ASSERT_EQ(copy_edges(shifted, EL_SOLID_ANY, far), 0);
    ASSERT_EQ(near.cols(), far.cols());
    for (std::size_t k = 0; k < near.cols(); ++k) {
        EXPECT_EQ(far(0, k), near(0, k) + 2000000000u);
        EXPECT_EQ(far(1, k), near(1, k) + 2000000000u);
    }
}

TEST(CopyEdges, RangeListsSharedEdgesOnce) {
    const dense2D<unsigned> m[2] = {dense2D<unsigned>(3, 1, {0, 1, 2}), dense2D<unsigned>(4, 1, {2, 1, 3, 4})};
    const dense1D<int> types{EL_TRIA3, EL_QUAD4};
    dense2D<unsigned> e;
    ASSERT_EQ(copy_edges(m, m + 2, types, e), 0);
    EXPECT_EQ(flat(e), (std::vector<unsigned>{0, 1, 0, 2, 1, 2, 1, 3, 2, 4, 3, 4}));
    dense2D<unsigned> none;
    ASSERT_EQ(copy_edges(m, m, dense1D<int>(), none), 0);
    EXPECT_EQ(none.cols(), 0u);
}

TEST(CopyEdgesStatus, ChecksInOrder) {
    dense2D<unsigned> e;
    const dense2D<unsigned> tri(3, 1, {0, 1, 2});
    EXPECT_EQ(copy_edges(dense2D<unsigned>(), EL_NONE, e), 0);
    EXPECT_EQ(copy_edges(dense2D<unsigned>(3, 1, {0, X, 2}), EL_TRIA3, e), -1);
    EXPECT_EQ(copy_edges(tri, EL_QUAD4, e), -1);
    dense2D<unsigned> wrong(3, 1, {0, 0, 0});
    EXPECT_EQ(copy_edges(tri, EL_TRIA3, wrong), -3);

    const dense2D<unsigned> m[2] = {tri, dense2D<unsigned>(3, 1, {0, X, 2})};
    EXPECT_EQ(copy_edges(m + 1, m, dense1D<int>{}, e), -2);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3}, e), -3);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3, EL_TRIA3}, wrong), -4);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3, EL_TRIA3}, e), -1);
    EXPECT_EQ(copy_edges(m, m + 1, dense1D<int>{99}, e), -1);
    EXPECT_EQ(copy_edges(m, m + 1, dense1D<int>{-1}, e), -1);
    EXPECT_EQ(e.entries(), 0u);
}

TEST(CopyEdges, AllocationFailureLeavesEdgesUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh a = nodara_test::hexa_mesh(2, 1, 1), b = nodara_test::tetra_mesh(1, 1, 1);
    const dense2D<unsigned> ms[2] = {a.connect, b.connect};
    const dense1D<int> types{EL_HEXA8, EL_TETRA4};
    dense2D<unsigned> e;
    int result = 1;
    for (int form = 0; form < 2; ++form) {
        nodara_test::for_each_allocation_failure(
            [&] { e = dense2D<unsigned>(2, 1, {7, 8}); },
            [&] { return form ? copy_edges(ms, ms + 2, types, e) : copy_edges(a.connect, EL_HEXA8, e); },
            [&](int r) {
                EXPECT_EQ(r, -199);
                EXPECT_EQ(e, dense2D<unsigned>(2, 1, {7, 8}));
            },
            result);
        EXPECT_EQ(result, 0);
    }
    // The union of the two single-matrix lists, behind the column already there.
    dense2D<unsigned> ea, eb;
    ASSERT_EQ(copy_edges(a.connect, EL_HEXA8, ea), 0);
    ASSERT_EQ(copy_edges(b.connect, EL_TETRA4, eb), 0);
    std::set<std::pair<unsigned, unsigned>> both;
    for (std::size_t k = 0; k < ea.cols(); ++k) both.insert({ea(0, k), ea(1, k)});
    for (std::size_t k = 0; k < eb.cols(); ++k) both.insert({eb(0, k), eb(1, k)});
    std::vector<unsigned> expected{7, 8};
    for (const auto& p : both) {
        expected.push_back(p.first);
        expected.push_back(p.second);
    }
    EXPECT_EQ(flat(e), expected);
}

}  // namespace
