// Bad input: random connectivities, neighbour matrices and types go through every
// function; each call ends in a documented status and reads nothing out of bounds.
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

TEST(Robustness, EveryFunctionOnRandomInputEndsInADocumentedStatus) {
    std::mt19937 g(2024);
    std::uniform_int_distribution<int> type_of(0, 22), rows_of(0, 9), cols_of(0, 6), coin(0, 1);
    const auto in = [](int status, std::set<int> allowed) { return allowed.count(status) > 0; };
    for (int round = 0; round < 1500; ++round) {
        const element_type t = static_cast<element_type>(type_of(g));
        const std::size_t rows = coin(g) ? nbr_nodes(t) : static_cast<std::size_t>(rows_of(g));
        const std::size_t cols = static_cast<std::size_t>(cols_of(g));
        const dense2D<unsigned> c = garbage(g, rows, cols, coin(g) ? 12u : 400u);
        const std::size_t F = coin(g) ? nbr_boundaries(detail::substitute_by_rows(t, rows)) : rows_of(g);
        const dense2D<unsigned> nb = garbage(g, F, coin(g) ? cols : cols_of(g), static_cast<unsigned>(cols) + 1);
        const dense2D<unsigned> sides = garbage(g, detail::boundary_rows(t), cols_of(g), 14);
        SCOPED_TRACE(::testing::Message() << "round " << round << " type " << t << " rows " << rows);
        dense2D<unsigned> out, b, e, c2, nb2;
        dense1D<unsigned> o1, o2, anc, ids, bounds, colors(cols, 0u);
        unsigned nbounds = 0;
        for (std::size_t k = 0; k < cols; ++k) colors[k] = static_cast<unsigned>(coin(g));
        EXPECT_TRUE(in(get_neighbors(c, t, coin(g) != 0, out), {0, -1, -2}));
        EXPECT_TRUE(in(get_node_graph(c, o1, o2, t), {0, -2, -5}));
        EXPECT_EQ(get_connected_elements(c, o1, o2), 0);
        EXPECT_EQ(get_ancestors(c, anc), 0);
        EXPECT_TRUE(in(get_element_boundaries(c, t, b), {0, -1, -2}));
        EXPECT_TRUE(in(get_mesh_boundaries(c, nb, t, b), {0, -1, -2, -3, -4}));
        EXPECT_TRUE(in(get_mesh_bounding_elements(c, nb, t, ids, nbounds), {0, -1, -2}));
        EXPECT_TRUE(in(get_elements_on_boundaries(sides, c, nb, anc, t, bounds, nbounds), {0, -1, -2, -3, -4, -5}));
        EXPECT_TRUE(bounds.empty() || bounds.size() == sides.cols());
        EXPECT_TRUE(in(get_colors_boundaries(c, nb, colors, t, coin(g) != 0, b), {0, -1, -2, -3, -4, -5}));
        EXPECT_TRUE(in(copy_edges(c, t, e), {0, -1, -3}));
        EXPECT_EQ(get_subdomains(nb, o1, o2), 0);
        c2.copy(c);
        nb2.copy(nb);
        EXPECT_TRUE(in(get_subdomains(c2, nb2, o2), {0, -2}));
        c2.copy(c);
        nb2.copy(nb);
        EXPECT_TRUE(in(sort_elfes(c2, nb2, o1, o2, ids), {0, -1}));
    }
}

}  // namespace
