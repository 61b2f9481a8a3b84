// get_node_graph, get_connected_elements, get_ancestors.
#include "topology/helpers.h"

#include "common/fault_injection.h"
#include "common/meshes.h"

#include <gtest/gtest.h>

#include <set>

using namespace topo_test;

namespace {

std::vector<unsigned> neighbours_of(const dense1D<unsigned>& offsets, const dense1D<unsigned>& graph, unsigned i) {
    return std::vector<unsigned>(graph.begin() + offsets[i], graph.begin() + offsets[i + 1]);
}

// ---------------------------------------------------------------------------
// get_node_graph

TEST(GetNodeGraphStatus, ChecksInOrder) {
    dense1D<unsigned> off{1, 2}, g{3};
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(), off, g, EL_TRIA6), 0);  // empty: type not looked at
    EXPECT_TRUE(off.empty() && g.empty());
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(3, 1, {0, 1, 2}), off, g, EL_QUAD4), -2);
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(4, 1, {0, 1, 2, 3}), off, g, EL_SOLID_ANY), -2);  // no substitution
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(3, 1, {0, 1, 2}), off, g, EL_FACE_ANY), -2);
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, 5}), off, g, EL_TRIA6), -5);
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(2, 1, {0, 1}), off, g, EL_EDGE_ANY), -5);
    EXPECT_EQ(get_node_graph(dense2D<unsigned>(1, 1, {0}), off, g, EL_NODE), -5);
    EXPECT_TRUE(off.empty() && g.empty());
}

TEST(GetNodeGraph, QuadrangleJoinsSidesOnlyAndNoneJoinsEverything) {
    const dense2D<unsigned> q(4, 1, {0, 1, 2, 3});
    dense1D<unsigned> off, g;
    ASSERT_EQ(get_node_graph(q, off, g, EL_QUAD4), 0);
    EXPECT_EQ(values(off), (std::vector<unsigned>{0, 2, 4, 6, 8}));
    // First meeting: sides (0,1), (1,2), (2,3), (3,0).
    EXPECT_EQ(values(g), (std::vector<unsigned>{1, 3, 0, 2, 1, 3, 2, 0}));
    ASSERT_EQ(get_node_graph(q, off, g, EL_NONE), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (std::vector<unsigned>{1, 2, 3}));
    EXPECT_EQ(neighbours_of(off, g, 2), (std::vector<unsigned>{0, 1, 3}));
}

TEST(GetNodeGraph, UnusedNodesGetEmptyRanges) {
    dense1D<unsigned> off, g;
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(2, 1, {0, 5}), off, g, EL_EDGE2), 0);
    EXPECT_EQ(values(off), (std::vector<unsigned>{0, 1, 1, 1, 1, 1, 2}));
    EXPECT_EQ(values(g), (std::vector<unsigned>{5, 0}));
    // EL_NONE skips NULL_INDEX entries and reads any row count.
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(3, 2, {2, X, 0, X, X, X}), off, g, EL_NONE), 0);
    EXPECT_EQ(values(off), (std::vector<unsigned>{0, 1, 1, 2}));
    EXPECT_EQ(values(g), (std::vector<unsigned>{2, 0}));
}

TEST(GetNodeGraph, NeighboursComeInOrderOfFirstMeeting) {
    // Triangles (4, 2, 0) and (0, 3, 1): node 0 meets 4, 2 in the first, 3, 1 in the second.
    dense1D<unsigned> off, g;
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(3, 2, {4, 2, 0, 0, 3, 1}), off, g, EL_TRIA3), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (std::vector<unsigned>{4, 2, 3, 1}));
    // A triangle of EL_FACE_ANY is walked by its sides (1,2), (2,0), (0,1).
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(4, 1, {4, 2, 0, X}), off, g, EL_FACE_ANY), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (std::vector<unsigned>{2, 4}));
    EXPECT_EQ(neighbours_of(off, g, 2), (std::vector<unsigned>{0, 4}));
    // Wedge edges (0,3), (1,4), (2,5), (1,2), (2,0), (0,1), (4,5), (5,3), (3,4).
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, 5}), off, g, EL_WEDGE6), 0);
    EXPECT_EQ(neighbours_of(off, g, 0), (std::vector<unsigned>{3, 2, 1}));
    EXPECT_EQ(neighbours_of(off, g, 5), (std::vector<unsigned>{2, 4, 3}));
    // Pyramid edges (0,4), (1,4), (2,4), (3,4), (0,1), (1,2), (2,3), (3,0).
    ASSERT_EQ(get_node_graph(dense2D<unsigned>(5, 1, {0, 1, 2, 3, 4}), off, g, EL_PYRAMID5), 0);
    EXPECT_EQ(neighbours_of(off, g, 4), (std::vector<unsigned>{0, 1, 2, 3}));
    EXPECT_EQ(neighbours_of(off, g, 0), (std::vector<unsigned>{4, 1, 3}));
}

TEST(GetNodeGraph, MixedSolidsUseEachColumnsEdges) {
    // A tetrahedron (a simplex: all joined) and a hexahedron in one matrix.
    const dense2D<unsigned> c(8, 2, {0, 1, 2, 3, X, X, X, X, 10, 11, 12, 13, 14, 15, 16, 17});
    dense1D<unsigned> off, g;
    ASSERT_EQ(get_node_graph(c, off, g, EL_SOLID_ANY), 0);
    EXPECT_EQ(neighbours_of(off, g, 2), (std::vector<unsigned>{0, 1, 3}));
    EXPECT_EQ(neighbours_of(off, g, 10), (std::vector<unsigned>{11, 13, 14}));
    EXPECT_EQ(neighbours_of(off, g, 16), (std::vector<unsigned>{15, 17, 12}));
    EXPECT_TRUE(neighbours_of(off, g, 5).empty());
    ASSERT_EQ(off.size(), 19u);
}

TEST(GetNodeGraphInvariants, GraphEdgesAreTheEdgeListOnStructuredMeshes) {
    const nodara_test::mesh meshes[] = {nodara_test::quad_mesh(3, 2),       nodara_test::tria_mesh(3, 2),
                                        nodara_test::mixed_face_mesh(3, 3), nodara_test::tetra_mesh(2, 2, 2),
                                        nodara_test::hexa_mesh(2, 2, 1),     nodara_test::wedge_mesh(2, 1, 2),
                                        nodara_test::pyramid_mesh(2, 1, 1),  nodara_test::mixed_solid_mesh(3, 2, 1),
                                        nodara_test::edge_mesh(4)};
    for (const auto& m : meshes) {
        SCOPED_TRACE(static_cast<int>(m.type));
        dense1D<unsigned> off, g;
        ASSERT_EQ(get_node_graph(m.connect, off, g, m.type), 0);
        dense2D<unsigned> edges;
        ASSERT_EQ(copy_edges(m.connect, m.type, edges), 0);
        // Sum of valences = 2 x edges, and every graph pair is an edge.
        EXPECT_EQ(g.size(), 2 * edges.cols());
        std::set<std::pair<unsigned, unsigned>> listed;
        for (std::size_t k = 0; k < edges.cols(); ++k) listed.insert({edges(0, k), edges(1, k)});
        for (unsigned i = 0; i + 1 < off.size(); ++i)
            for (unsigned n : neighbours_of(off, g, i)) {
                EXPECT_NE(n, i);
                EXPECT_TRUE(listed.count({std::min(i, n), std::max(i, n)})) << i << "-" << n;
            }
    }
}

TEST(GetNodeGraph, AllocationFailureClearsBothOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::hexa_mesh(2, 1, 1);
    dense1D<unsigned> off, g;
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        [&] {
            off = dense1D<unsigned>();
            g = dense1D<unsigned>();
        },
        [&] { return get_node_graph(m.connect, off, g, EL_HEXA8); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_TRUE(off.empty());
            EXPECT_TRUE(g.empty());
        },
        result);
    EXPECT_GE(runs, 3u);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(off.size(), 13u);
}

// ---------------------------------------------------------------------------
// get_connected_elements and get_ancestors

TEST(GetConnectedElements, ColumnsHoldingEachNodeAscending) {
    // Columns (2, 0), (X, 2), (2, 2): node 2 in every column, twice in the last.
    dense1D<unsigned> off{9}, el{9};
    ASSERT_EQ(get_connected_elements(dense2D<unsigned>(2, 3, {2, 0, X, 2, 2, 2}), off, el), 0);
    EXPECT_EQ(values(off), (std::vector<unsigned>{0, 1, 1, 5}));
    EXPECT_EQ(values(el), (std::vector<unsigned>{0, 0, 1, 2, 2}));
    ASSERT_EQ(get_connected_elements(dense2D<unsigned>(), off, el), 0);
    EXPECT_TRUE(off.empty() && el.empty());
}

TEST(GetConnectedElements, AgreesWithTheConnectivityOnAMesh) {
    const nodara_test::mesh m = nodara_test::wedge_mesh(2, 2, 1);
    dense1D<unsigned> off, el;
    ASSERT_EQ(get_connected_elements(m.connect, off, el), 0);
    ASSERT_EQ(el.size(), m.connect.entries());
    for (unsigned n = 0; n + 1 < off.size(); ++n)
        for (unsigned k = off[n]; k < off[n + 1]; ++k) {
            if (k > off[n]) {
                EXPECT_LT(el[k - 1], el[k]);
            }
            const unsigned* c = m.connect.col(el[k]);
            EXPECT_NE(std::find(c, c + 6, n), c + 6);
        }
}

TEST(GetConnectedElements, AllocationFailureClearsBothOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::tria_mesh(2, 2);
    dense1D<unsigned> off, el;
    int result = 1;
    nodara_test::for_each_allocation_failure(
        [&] {
            off = dense1D<unsigned>();
            el = dense1D<unsigned>();
        },
        [&] { return get_connected_elements(m.connect, off, el); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_TRUE(off.empty() && el.empty());
        },
        result);
    EXPECT_EQ(result, 0);
}

TEST(GetAncestors, LastColumnWinsAndPresizedArraysKeepTheirValues) {
    // Node 4 in columns 2 and 7.
    dense2D<unsigned> c(2, 8, {0, 1, 1, 2, 4, 3, 3, 0, 5, 6, 6, 5, 0, 1, 4, 2});
    dense1D<unsigned> a;
    ASSERT_EQ(get_ancestors(c, a), 0);
    EXPECT_EQ(values(a), (std::vector<unsigned>{6, 6, 7, 3, 7, 5, 5}));
    dense1D<unsigned> pre(9, 42u);
    ASSERT_EQ(get_ancestors(dense2D<unsigned>(2, 2, {1, X, 20, 3}), pre), 0);
    EXPECT_EQ(values(pre), (std::vector<unsigned>{42, 0, 42, 1, 42, 42, 42, 42, 42}));
    dense1D<unsigned> untouched{5, 5};
    ASSERT_EQ(get_ancestors(dense2D<unsigned>(), untouched), 0);
    EXPECT_EQ(values(untouched), (std::vector<unsigned>{5, 5}));
}

TEST(GetAncestors, AllocationFailureIsMinus199) {
    NODARA_REQUIRE_FAULT_INJECTION();
    dense1D<unsigned> a;
    const dense2D<unsigned> c(1, 1, {3});
    nodara_test::scoped_allocation_failure fail(1);
    EXPECT_EQ(get_ancestors(c, a), -199);
    EXPECT_TRUE(fail.fired());
    EXPECT_TRUE(a.empty());
}

}  // namespace
