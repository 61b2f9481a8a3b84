// Bad input: random connectivities, neighbour matrices and types of every kind go
// through every function; each call ends in one of its documented statuses and,
// in the sanitizer build, reads nothing out of bounds.
#include "topology/helpers.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

using namespace topo_test;

namespace {

dense2D<unsigned> garbage(std::mt19937& g, std::size_t rows, std::size_t cols, unsigned range) {
    dense2D<unsigned> m;
    m.resize(rows, cols);
    std::uniform_int_distribution<unsigned> v(0, range);
    for (std::size_t j = 0; j < cols; ++j)
        for (std::size_t i = 0; i < rows; ++i) m(i, j) = v(g) == range ? X : v(g);
    return m;
}

bool in(int status, std::set<int> allowed) { return allowed.count(status) > 0; }

TEST(Robustness, EveryFunctionOnRandomInputEndsInADocumentedStatus) {
    std::mt19937 g(2024);
    std::uniform_int_distribution<int> type_of(0, 22), rows_of(0, 9), cols_of(0, 6), coin(0, 1);
    for (int round = 0; round < 1500; ++round) {
        const element_type t = static_cast<element_type>(type_of(g));
        const std::size_t rows = coin(g) ? nbr_nodes(t) : static_cast<std::size_t>(rows_of(g));
        const std::size_t cols = static_cast<std::size_t>(cols_of(g));
        const dense2D<unsigned> c = garbage(g, rows, cols, coin(g) ? 12u : 400u);
        const std::size_t F = coin(g) ? nbr_boundaries(detail::substitute_by_rows(t, rows)) : rows_of(g);
        const dense2D<unsigned> nb = garbage(g, F, coin(g) ? cols : cols_of(g), static_cast<unsigned>(cols) + 1);
        SCOPED_TRACE(::testing::Message() << "round " << round << " type " << t << " rows " << rows);

        dense2D<unsigned> out, b, e;
        dense1D<unsigned> o1, o2, anc, ids, bounds;
        unsigned nbounds = 0;
        EXPECT_TRUE(in(get_neighbors(c, t, coin(g) != 0, out), {0, -1, -2}));
        EXPECT_TRUE(in(get_node_graph(c, o1, o2, t), {0, -2, -5}));
        EXPECT_TRUE(in(get_connected_elements(c, o1, o2), {0}));
        EXPECT_TRUE(in(get_ancestors(c, anc), {0}));
        EXPECT_TRUE(in(get_element_boundaries(c, t, b), {0, -1, -2}));
        EXPECT_TRUE(in(get_mesh_boundaries(c, nb, t, b), {0, -1, -2, -3, -4}));
        EXPECT_TRUE(in(get_mesh_bounding_elements(c, nb, t, ids, nbounds), {0, -1, -2}));
        const dense2D<unsigned> sides = garbage(g, detail::boundary_rows(t), cols_of(g), 14);
        EXPECT_TRUE(in(get_elements_on_boundaries(sides, c, nb, anc, t, bounds, nbounds), {0, -1, -2, -3, -4, -5}));
        if (bounds.size() > 0) {
            EXPECT_EQ(bounds.size(), sides.cols());
        }
        dense1D<unsigned> colors(cols, 0u);
        for (std::size_t k = 0; k < cols; ++k) colors[k] = static_cast<unsigned>(coin(g));
        EXPECT_TRUE(in(get_colors_boundaries(c, nb, colors, t, coin(g) != 0, b), {0, -1, -2, -3, -4, -5}));
        EXPECT_TRUE(in(copy_edges(c, t, e), {0, -1, -3}));
        EXPECT_TRUE(in(get_subdomains(nb, o1, o2), {0}));
        dense2D<unsigned> c2, nb2;
        c2.copy(c);
        nb2.copy(nb);
        EXPECT_TRUE(in(get_subdomains(c2, nb2, o2), {0, -2}));
        c2.copy(c);
        nb2.copy(nb);
        EXPECT_TRUE(in(sort_elfes(c2, nb2, o1, o2, ids), {0, -1}));
    }
}

// A neighbour matrix from get_neighbors always passes the boundary functions.
TEST(Robustness, ValidNeighbourMatricesFeedTheBoundaryFunctions) {
    std::mt19937 g(77);
    const element_type types[] = {EL_EDGE2, EL_TRIA3, EL_QUAD4, EL_TETRA4, EL_PYRAMID5, EL_WEDGE6, EL_HEXA8};
    for (int round = 0; round < 200; ++round) {
        const element_type t = types[round % 7];
        const dense2D<unsigned> c = garbage(g, nbr_nodes(t), 1 + round % 9, 9);
        bool has_null = false;
        for (std::size_t j = 0; j < c.cols(); ++j)
            for (std::size_t i = 0; i < c.rows(); ++i) has_null |= c(i, j) == X;
        dense2D<unsigned> nb, skin;
        const int s = get_neighbors(c, t, round % 2 == 0, nb);
        if (has_null) {
            EXPECT_EQ(s, -1);
            continue;
        }
        ASSERT_EQ(s, 0);
        dense1D<unsigned> anc, bounds, ids;
        unsigned F = 0;
        ASSERT_EQ(get_mesh_boundaries(c, nb, t, skin), 0);
        ASSERT_EQ(get_ancestors(c, anc), 0);
        ASSERT_EQ(get_mesh_bounding_elements(c, nb, t, ids, F), 0);
        EXPECT_EQ(ids.size(), skin.cols());
        const int w = get_elements_on_boundaries(skin, c, nb, anc, t, bounds, F);
        EXPECT_TRUE(in(w, {0, -3}));  // degenerate elements may break the walk
    }
}

}  // namespace
