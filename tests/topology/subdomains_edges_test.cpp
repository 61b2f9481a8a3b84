// get_subdomains, get_colors_boundaries, copy_edges and sort_elfes.
#include "topology/helpers.h"

#include "common/meshes.h"

#include <gtest/gtest.h>

#include <functional>

using namespace topo_test;
namespace nt = nodara_test;

namespace {

TEST(GetSubdomains, BreadthFirstFromTheLowestElement) {
    dense1D<unsigned> order{9, 9}, offsets{9};
    ASSERT_EQ(get_subdomains(M(2, {3, X, 4, X, X, X, 0, 4, 1, 3}), order, offsets), 0);
    EXPECT_EQ(values(order), (uv{0, 3, 4, 1, 2}));
    EXPECT_EQ(values(offsets), (uv{0, 4, 5}));
    ASSERT_EQ(get_subdomains(dense2D<unsigned>(3, 2, X), order, offsets), 0);  // two separate triangles
    EXPECT_EQ(values(order), (uv{0, 1}));
    EXPECT_EQ(values(offsets), (uv{0, 1, 2}));
    ASSERT_EQ(get_subdomains(dense2D<unsigned>(), order, offsets), 0);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(values(offsets), (uv{0}));
}

TEST(GetSubdomains, ReorderingMakesPiecesContiguousAndRenumbersNeighbours) {
    // Two pairs of triangles, interleaved: (0, 2) and (1, 3).
    dense2D<unsigned> c = M(3, {0, 1, 2, 10, 11, 12, 1, 0, 3, 11, 10, 13}), nb;
    dense1D<unsigned> offsets{5};
    ASSERT_EQ(get_neighbors(c, EL_TRIA3, false, nb), 0);
    ASSERT_EQ(get_subdomains(c, nb, offsets), 0);
    EXPECT_EQ(values(offsets), (uv{0, 2, 4}));
    EXPECT_EQ(c, M(3, {0, 1, 2, 1, 0, 3, 10, 11, 12, 11, 10, 13}));
    EXPECT_EQ(nb, M(3, {X, X, 1, X, X, 0, X, X, 3, X, X, 2}));
    dense2D<unsigned> nb1(3, 1, X);
    EXPECT_EQ(get_subdomains(c, nb1, offsets), -2);  // column counts differ: nothing changed
    EXPECT_EQ(values(offsets), (uv{0, 2, 4}));
}

// get_colors_boundaries on quad_mesh(3, 1): (0,1,5,4), (1,2,6,5), (2,3,7,6).

const nt::mesh strip = nt::quad_mesh(3, 1);
const dense2D<unsigned> strip_nb = M(4, {X, 1, X, X, X, 2, X, 0, X, X, X, 1});
const dense1D<unsigned> strip_colors{0, 0, 1};

TEST(GetColorsBoundaries, InterfacesOnceOrTwiceAndTheSkinAlways) {
    dense2D<unsigned> b, both = M(2, {8, 8});
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, false, b), 0);
    EXPECT_EQ(flat(b), (uv{0, 1, 5, 4, 4, 0, 1, 2, 2, 6, 6, 5, 2, 3, 3, 7, 7, 6}));
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, both), 0);
    EXPECT_EQ(flat(both), (uv{8, 8, 0, 1, 5, 4, 4, 0, 1, 2, 2, 6, 6, 5, 2, 3, 3, 7, 7, 6, 6, 2}));
}

TEST(GetColorsBoundariesStatus, ChecksInOrder) {
    dense2D<unsigned> b, wrong = M(3, {0, 0, 0});
    auto colors = [&](const dense2D<unsigned>& c, const dense2D<unsigned>& nb, const dense1D<unsigned>& col,
                      element_type t, dense2D<unsigned>& out) {
        return get_colors_boundaries(c, nb, col, t, false, out);
    };
    EXPECT_EQ(colors(dense2D<unsigned>(), strip_nb, strip_colors, EL_QUAD4, b), 0);
    EXPECT_EQ(colors(strip.connect, strip_nb, strip_colors, EL_TRIA3, b), -1);
    EXPECT_EQ(colors(strip.connect, dense2D<unsigned>(4, 3, 3u), strip_colors, EL_QUAD4, b), -2);
    EXPECT_EQ(colors(strip.connect, strip_nb, dense1D<unsigned>{0, 0}, EL_QUAD4, b), -3);
    EXPECT_EQ(colors(strip.connect, strip_nb, strip_colors, EL_QUAD4, wrong), -5);
    // An unsupported type whose row count matches reaches the type test.
    EXPECT_EQ(colors(seq(8), dense2D<unsigned>(4, 1, X), dense1D<unsigned>{0}, EL_QUAD8, b), -4);
    EXPECT_EQ(b.entries(), 0u);
}

TEST(CopyEdges, LexicographicDistinctEdgesAppended) {
    dense2D<unsigned> e, more = M(2, {0, 1}), mixed, range, none;
    ASSERT_EQ(copy_edges(M(3, {0, 1, 2, 1, 0, 3}), EL_TRIA3, e), 0);
    EXPECT_EQ(flat(e), (uv{0, 1, 0, 2, 0, 3, 1, 2, 1, 3}));
    ASSERT_EQ(copy_edges(M(2, {4, 0}), EL_EDGE2, more), 0);  // not compared with what is there
    EXPECT_EQ(flat(more), (uv{0, 1, 0, 4}));
    ASSERT_EQ(copy_edges(M(4, {0, 1, 2, X, 0, 2, 3, 4}), EL_FACE_ANY, mixed), 0);
    EXPECT_EQ(flat(mixed), (uv{0, 1, 0, 2, 0, 4, 1, 2, 2, 3, 3, 4}));
    // The range form lists an edge shared by two matrices once.
    const dense2D<unsigned> m[2] = {seq(3), M(4, {2, 1, 3, 4})};
    ASSERT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3, EL_QUAD4}, range), 0);
    EXPECT_EQ(flat(range), (uv{0, 1, 0, 2, 1, 2, 1, 3, 2, 4, 3, 4}));
    ASSERT_EQ(copy_edges(m, m, dense1D<int>(), none), 0);
    EXPECT_EQ(none.cols(), 0u);
}

TEST(CopyEdges, CornerEdgesOfQuadraticKindsAndNoneForSerendipitySolids) {
    const struct { element_type t; unsigned rows; std::size_t edges; } cases[] = {
        {EL_EDGE3, 3, 1},     {EL_TRIA6, 6, 3},      {EL_QUAD9, 9, 4},     {EL_TETRA10, 10, 6},  {EL_PYRAMID14, 14, 8},
        {EL_WEDGE18, 18, 9},  {EL_HEXA27, 27, 12},   {EL_PYRAMID13, 13, 0}, {EL_WEDGE15, 15, 0}, {EL_HEXA20, 20, 0},
        {EL_EDGE_ANY, 2, 0},  {EL_FACE_ANY, 3, 3},   {EL_SOLID_ANY, 5, 8}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.t);
        dense2D<unsigned> e;
        ASSERT_EQ(copy_edges(seq(k.rows), k.t, e), 0);
        EXPECT_EQ(e.cols(), k.edges);
        for (std::size_t j = 0; j < e.cols(); ++j) EXPECT_LT(e(1, j), nbr_base_nodes(k.t));
    }
}

TEST(CopyEdges, LargeNodeIndicesGiveTheSameList) {
    const nt::mesh m = nt::mixed_solid_mesh(2, 2, 1);
    dense2D<unsigned> shifted, near, far;
    ASSERT_TRUE(shifted.copy(m.connect));
    shift_indices(shifted, 2000000000, EL_SOLID_ANY);
    ASSERT_EQ(copy_edges(m.connect, EL_SOLID_ANY, near), 0);
    ASSERT_EQ(copy_edges(shifted, EL_SOLID_ANY, far), 0);
    shift_indices(near, 2000000000, EL_NONE);
    EXPECT_EQ(far, near);
}

TEST(CopyEdgesStatus, ChecksInOrder) {
    dense2D<unsigned> e, wrong = M(3, {0, 0, 0});
    const dense2D<unsigned> tri = seq(3), m[2] = {tri, M(3, {0, X, 2})};
    EXPECT_EQ(copy_edges(dense2D<unsigned>(), EL_NONE, e), 0);
    EXPECT_EQ(copy_edges(m[1], EL_TRIA3, e), -1);
    EXPECT_EQ(copy_edges(tri, EL_QUAD4, e), -1);
    EXPECT_EQ(copy_edges(tri, EL_TRIA3, wrong), -3);
    EXPECT_EQ(copy_edges(m + 1, m, dense1D<int>{}, e), -2);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3}, e), -3);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3, EL_TRIA3}, wrong), -4);
    EXPECT_EQ(copy_edges(m, m + 2, dense1D<int>{EL_TRIA3, EL_TRIA3}, e), -1);
    EXPECT_EQ(copy_edges(m, m + 1, dense1D<int>{99}, e), -1);
    EXPECT_EQ(e.entries(), 0u);
}

// Columns: 0 triangle, 1 quadrangle, 2 empty, 3 triangle, 4 quadrangle.
dense2D<unsigned> mixed_faces() { return M(4, {0, 1, 2, X, 1, 2, 3, 4, X, X, X, X, 5, 6, 7, X, 7, 8, 9, 10}); }

TEST(SortElfes, GroupsByDecreasingNodeCountKeepingColumnOrder) {
    dense2D<unsigned> c = mixed_faces(), with_other = mixed_faces();
    dense2D<unsigned> other = M(2, {1, X, 0, 4, 3, 3, 2, 1, 0, 9});  // names other columns
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(flat(c), (uv{1, 2, 3, 4, 7, 8, 9, 10, 0, 1, 2, X, 5, 6, 7, X}));
    EXPECT_EQ(values(nodes), (uv{4, 3}));
    EXPECT_EQ(values(ends), (uv{2, 4}));
    EXPECT_EQ(values(pos), (uv{2, 0, X, 3, 1}));
    // The companion follows: input columns 1, 4, 0, 3, renumbered through the new
    // positions; 9 (not a column) is kept.
    ASSERT_EQ(sort_elfes(with_other, other, nodes, ends, pos), 0);
    EXPECT_EQ(with_other, c);
    EXPECT_EQ(flat(other), (uv{2, 1, 2, 9, 0, X, X, 0}));
}

TEST(SortElfes, CompanionWithOtherColumnCountChangesNothing) {
    dense2D<unsigned> c = mixed_faces(), other = M(1, {0, 1, 2, 3}), none;
    dense1D<unsigned> nodes{7}, ends{7}, pos{7};
    EXPECT_EQ(sort_elfes(c, other, nodes, ends, pos), -1);
    EXPECT_EQ(c, mixed_faces());
    EXPECT_EQ(values(nodes), (uv{7}));
    none.resize(0, 3);  // no entries: ignored whatever its shape
    EXPECT_EQ(sort_elfes(c, none, nodes, ends, pos), 0);
    EXPECT_EQ(c.cols(), 4u);
}

TEST(SortElfes, NoKeptColumn) {
    dense2D<unsigned> c(3, 2, X);
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(c.cols(), 0u);
    EXPECT_EQ(values(nodes), (uv{0}));
    EXPECT_EQ(values(ends), (uv{0}));
    EXPECT_EQ(values(pos), (uv{X, X}));
}

TEST(SortElfes, MixedSolidsInASubMatrixView) {
    // 8-row solids: tet, hex, wedge, pyramid, hex, inside a wider buffer (ld 9).
    dense2D<unsigned> big(9, 5, X);
    const unsigned counts[5] = {4, 8, 6, 5, 8};
    for (unsigned e = 0; e < 5; ++e)
        for (unsigned i = 0; i < counts[e]; ++i) big(i, e) = 10 * e + i;
    dense2D<unsigned> c = big.sub_matrix(0, 0, 8, 5);
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(values(pos), (uv{4, 0, 2, 3, 1}));
    EXPECT_EQ(values(nodes), (uv{8, 6, 5, 4}));
    EXPECT_EQ(values(ends), (uv{2, 3, 4, 5}));
    EXPECT_EQ(column(big, 0), (uv{10, 11, 12, 13, 14, 15, 16, 17, X}));  // row 8 is outside the view
    EXPECT_EQ(column(big, 4), (uv{0, 1, 2, 3, X, X, X, X, X}));
}

TEST(SubdomainsEdgesSorting, AllocationFailures) {
    NODARA_REQUIRE_FAULT_INJECTION();
    // Inputs unchanged and outputs empty, except the appended outputs, which keep what
    // was there (copy_edges) or what was appended so far (get_colors_boundaries).
    const dense2D<unsigned> c0 = twice(nt::quad_mesh(2, 1).connect, 50), head = M(2, {7, 8});
    const nt::mesh hexa = nt::hexa_mesh(2, 1, 1), tet = nt::tetra_mesh(1, 1, 1);
    const dense2D<unsigned> ms[2] = {hexa.connect, tet.connect};
    const dense1D<int> types{EL_HEXA8, EL_TETRA4};
    dense2D<unsigned> nb0, c, nb, b, faces, other;
    dense1D<unsigned> offsets, order, nodes, ends, pos;
    ASSERT_EQ(get_neighbors(c0, EL_QUAD4, false, nb0), 0);
    const auto fresh = [&] {
        c.copy(c0);
        nb.copy(nb0);
        b.copy(head);
        faces = mixed_faces();
        other = M(1, {4, 3, 2, 1, 0});
        for (dense1D<unsigned>* v : {&offsets, &order, &nodes, &ends, &pos}) *v = dense1D<unsigned>();
    };
    const auto unchanged = [&] {
        EXPECT_TRUE(c == c0 && nb == nb0 && b == head && faces == mixed_faces() && other == M(1, {4, 3, 2, 1, 0}));
        for (dense1D<unsigned>* v : {&offsets, &order, &nodes, &ends, &pos}) EXPECT_TRUE(v->empty());
    };
    const struct { const char* what; std::function<int()> call; } cases[] = {
        {"get_subdomains, reordering", [&] { return get_subdomains(c, nb, offsets); }},
        {"get_subdomains", [&] { return get_subdomains(nb0, order, offsets); }},
        {"copy_edges", [&] { return copy_edges(hexa.connect, EL_HEXA8, b); }},
        {"copy_edges, range", [&] { return copy_edges(ms, ms + 2, types, b); }},
        {"sort_elfes", [&] { return sort_elfes(faces, other, nodes, ends, pos); }},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        expect_allocation_failures(fresh, k.call, unchanged);
    }

    dense2D<unsigned> expected;
    ASSERT_EQ(get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, expected), 0);
    expect_allocation_failures(
        [&] { b = dense2D<unsigned>(); },
        [&] { return get_colors_boundaries(strip.connect, strip_nb, strip_colors, EL_QUAD4, true, b); },
        [&] { EXPECT_EQ(b, b.cols() ? expected.sub_matrix(0, 0, 2, b.cols()) : b); });
    EXPECT_EQ(b, expected);
}

}  // namespace
