// get_neighbors, get_node_graph, get_connected_elements and get_ancestors.
#include "topology/helpers.h"

#include "common/meshes.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace topo_test;
namespace nt = nodara_test;

namespace {

uv neighbours_of(const dense1D<unsigned>& offsets, const dense1D<unsigned>& graph, unsigned i) {
    return uv(graph.begin() + offsets[i], graph.begin() + offsets[i + 1]);
}

TEST(GetNeighbors, StatusesInCheckOrder) {
    dense2D<unsigned> nb(2, 2, 7u), no_columns;
    no_columns.resize(3, 0);
    EXPECT_EQ(get_neighbors(no_columns, EL_TRIA6, false, nb), 0);  // empty: the type is not looked at
    EXPECT_EQ(nb.entries(), 0u);
    const struct { dense2D<unsigned> c; element_type t; int status; } cases[] = {
        {M(3, {0, X, 2}), EL_TRIA3, -1},         {seq(4), EL_TRIA3, -1},  // wrong rows
        {M(6, {0, 1, 2, 3, 4, X}), EL_TRIA6, -1},  // ids are checked before the type
        {M(8, {0, 1, 2, 3, X, 5, X, X}), EL_SOLID_ANY, -1},  // a hole in the padding
        {seq(6), EL_TRIA6, -2},                  {seq(2), EL_EDGE_ANY, -2},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << k.t << " rows " << k.c.rows());
        nb = dense2D<unsigned>(1, 1, 7u);
        EXPECT_EQ(get_neighbors(k.c, k.t, true, nb), k.status);
        EXPECT_EQ(nb.entries(), 0u);  // emptied at entry
    }
}

TEST(GetNeighbors, WorkedExamples) {
    const dense2D<unsigned> three_on_a_side = M(3, {0, 1, 2, 1, 0, 3, 0, 1, 4});
    // 0 wedge; 1 tetrahedron whose face (5, 4, 1) lies inside the wedge's quadrangle
    // (2, 1, 4, 5); 2 hexahedron, 3 pyramid on the other quadrangles; 4 tetrahedron on (0, 1, 2).
    const dense2D<unsigned> mixed = M(8, {0, 1, 2, 3, 4, 5, X, X,  1, 4, 5, 9, X, X, X, X,  0, 3, 5, 2, 10, 11, 12, 13,
                                          1, 0, 3, 4, 20, X, X, X,  2, 1, 0, 30, X, X, X, X});
    const struct { const char* what; dense2D<unsigned> c; element_type t; bool keep; uv expected; } cases[] = {
        {"side 2 of both, reversed", M(3, {0, 1, 2, 1, 0, 3}), EL_TRIA3, false, {X, X, 1, X, X, 0}},
        {"three kept: later ones to the first, first to the last", three_on_a_side, EL_TRIA3, true,
         {X, X, 2, X, X, 0, X, X, 0}},
        {"three not kept", three_on_a_side, EL_TRIA3, false, uv(9, X)},
        {"edge boundary j is the end opposite node j", M(2, {0, 1, 1, 2, 2, 3}), EL_EDGE2, false, {1, X, 2, 0, X, 1}},
        {"quadrangle side j starts at node j", M(4, {0, 1, 4, 3, 1, 2, 5, 4}), EL_QUAD4, false,
         {X, 1, X, X, X, X, X, 0}},
        {"wedges: top (3, 5, 4) on bottom (3, 4, 5)", M(6, {0, 1, 2, 3, 4, 5, 3, 4, 5, 6, 7, 8}), EL_WEDGE6, false,
         {X, 1, X, X, X, 0, X, X, X, X}},
        {"mixed solids: triangles only match triangles", mixed, EL_SOLID_ANY, false,
         {4, X, X, 2, 3, X, X, X, X, X, X, X, X, X, X, X, 0, X, X, X, X, X, 0, X, X, X, X, 0, X, X}},
        {"columns read through the leading dimension", M(5, {0, 1, 2, 77, 77, 1, 0, 3, 77, 77}).sub_matrix(0, 0, 3, 2),
         EL_TRIA3, false, {X, X, 1, X, X, 0}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        dense2D<unsigned> nb;
        ASSERT_EQ(get_neighbors(k.c, k.t, k.keep, nb), 0);
        EXPECT_EQ(nb.cols(), k.c.cols());
        EXPECT_EQ(flat(nb), k.expected);
    }
}

// Few nodes give long chains, repeated and degenerate faces, classes of many members.
dense2D<unsigned> random_connectivity(std::mt19937& g, element_type type, unsigned cols, unsigned nodes) {
    std::uniform_int_distribution<unsigned> pick(0, nodes - 1);
    const bool mixed = type == EL_SOLID_ANY || type == EL_FACE_ANY;
    dense2D<unsigned> c(mixed ? (type == EL_SOLID_ANY ? 8 : 4) : nbr_nodes(type), cols, X);
    std::uniform_int_distribution<unsigned> kind(0, type == EL_SOLID_ANY ? 3 : 1);
    static const unsigned solid_sizes[4] = {4, 5, 6, 8};
    for (unsigned e = 0; e < cols; ++e) {
        const unsigned k = !mixed                 ? static_cast<unsigned>(c.rows())
                           : type == EL_SOLID_ANY ? solid_sizes[kind(g)]
                                                  : 3 + kind(g);
        for (unsigned i = 0; i < k; ++i) c(i, e) = pick(g);
    }
    return c;
}

TEST(GetNeighborsOracle, RandomConnectivitiesOfEveryKind) {
    std::mt19937 g(12345);
    for (element_type t : {EL_EDGE2, EL_TRIA3, EL_QUAD4, EL_FACE_ANY, EL_TETRA4, EL_PYRAMID5, EL_WEDGE6, EL_HEXA8,
                           EL_SOLID_ANY})
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

TEST(GetNodeGraph, StatusesInCheckOrder) {
    dense1D<unsigned> off{1, 2}, g{3};
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(), off, g, EL_TRIA6), 0);  // empty: the type is not looked at
    EXPECT_TRUE(off.empty() && g.empty());
    EXPECT_EQ(get_node_graph(seq(3), off, g, EL_QUAD4), -2);
    EXPECT_EQ(get_node_graph(seq(4), off, g, EL_SOLID_ANY), -2);  // no substitution by rows
    EXPECT_EQ(get_node_graph(seq(6), off, g, EL_TRIA6), -5);
}

TEST(GetNodeGraph, NeighboursInOrderOfFirstMeetingAlongTheKindsEdges) {
    dense1D<unsigned> off, g;
    ASSERT_EQ(get_node_graph(seq(4), off, g, EL_QUAD4), 0);  // sides only
    EXPECT_EQ(values(off), (uv{0, 2, 4, 6, 8}));
    EXPECT_EQ(values(g), (uv{1, 3, 0, 2, 1, 3, 2, 0}));
    ASSERT_EQ(get_node_graph(seq(4), off, g, EL_NONE), 0);  // everything
    EXPECT_EQ(neighbours_of(off, g, 2), (uv{0, 1, 3}));
    ASSERT_EQ(get_node_graph(M(2, {0, 5}), off, g, EL_EDGE2), 0);  // unused nodes get empty ranges
    EXPECT_EQ(values(off), (uv{0, 1, 1, 1, 1, 1, 2}));
    EXPECT_EQ(values(g), (uv{5, 0}));
    ASSERT_EQ(get_node_graph(M(3, {2, X, 0, X, X, X}), off, g, EL_NONE), 0);  // any rows, NULL_INDEX skipped
    EXPECT_EQ(values(off), (uv{0, 1, 1, 2}));
    EXPECT_EQ(values(g), (uv{2, 0}));
    ASSERT_EQ(get_node_graph(M(3, {4, 2, 0, 0, 3, 1}), off, g, EL_TRIA3), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (uv{4, 2, 3, 1}));
    ASSERT_EQ(get_node_graph(M(4, {4, 2, 0, X}), off, g, EL_FACE_ANY), 0);  // sides (1,2), (2,0), (0,1)
    EXPECT_EQ(neighbours_of(off, g, 0), (uv{2, 4}));
    EXPECT_EQ(neighbours_of(off, g, 2), (uv{0, 4}));
    ASSERT_EQ(get_node_graph(seq(6), off, g, EL_WEDGE6), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (uv{3, 2, 1}));
    EXPECT_EQ(neighbours_of(off, g, 5), (uv{2, 4, 3}));
    ASSERT_EQ(get_node_graph(seq(5), off, g, EL_PYRAMID5), 0);
    EXPECT_EQ(neighbours_of(off, g, 4), (uv{0, 1, 2, 3}));
    EXPECT_EQ(neighbours_of(off, g, 0), (uv{4, 1, 3}));
    ASSERT_EQ(get_node_graph(M(8, {0, 1, 2, 3, X, X, X, X, 10, 11, 12, 13, 14, 15, 16, 17}), off, g, EL_SOLID_ANY), 0);
    EXPECT_EQ(neighbours_of(off, g, 2), (uv{0, 1, 3}));
    EXPECT_EQ(neighbours_of(off, g, 16), (uv{15, 17, 12}));
}

TEST(GetConnectedElements, ColumnsHoldingEachNodeAscending) {
    dense1D<unsigned> off{9}, el{9};
    ASSERT_EQ(get_connected_elements(M(2, {2, 0, X, 2, 2, 2}), off, el), 0);  // node 2 twice in the last
    EXPECT_EQ(values(off), (uv{0, 1, 1, 5}));
    EXPECT_EQ(values(el), (uv{0, 0, 1, 2, 2}));
    ASSERT_EQ(get_connected_elements(dense2D<unsigned>(), off, el), 0);
    EXPECT_TRUE(off.empty() && el.empty());
}

TEST(GetAncestors, LastColumnWinsAndPresizedArraysKeepTheirValues) {
    dense1D<unsigned> a, pre(9, 42u), untouched{5, 5};
    ASSERT_EQ(get_ancestors(M(2, {0, 1, 1, 2, 4, 3, 3, 0, 5, 6, 6, 5, 0, 1, 4, 2}), a), 0);  // node 4 in 2 and 7
    EXPECT_EQ(values(a), (uv{6, 6, 7, 3, 7, 5, 5}));
    ASSERT_EQ(get_ancestors(M(2, {1, X, 20, 3}), pre), 0);
    EXPECT_EQ(values(pre), (uv{42, 0, 42, 1, 42, 42, 42, 42, 42}));
    ASSERT_EQ(get_ancestors(dense2D<unsigned>(), untouched), 0);
    EXPECT_EQ(values(untouched), (uv{5, 5}));
}

TEST(Adjacency, AllocationFailures) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nt::mesh tets = nt::tetra_mesh(2, 1, 1), hexa = nt::hexa_mesh(2, 1, 1);
    dense2D<unsigned> nb;
    dense1D<unsigned> off, g;
    const std::function<int()> calls[] = {
        [&] { return get_neighbors(tets.connect, EL_TETRA4, false, nb); },
        [&] { return get_node_graph(hexa.connect, off, g, EL_HEXA8); },
        [&] { return get_connected_elements(hexa.connect, off, g); },
        [&] { return get_ancestors(hexa.connect, g); },
    };
    const auto fresh = [&] {
        nb = dense2D<unsigned>();
        off = dense1D<unsigned>();
        g = dense1D<unsigned>();
    };
    for (const auto& call : calls) {
        expect_allocation_failures(fresh, call, [&] { EXPECT_TRUE(nb.entries() == 0 && off.empty() && g.empty()); });
        if (&call == calls) {
            EXPECT_EQ(nb, oracle_neighbors(tets.connect, EL_TETRA4, false));
        }
    }
    EXPECT_EQ(g.size(), hexa.pos.cols());  // ancestors
}

}  // namespace
