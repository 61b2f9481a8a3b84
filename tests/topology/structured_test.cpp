// Invariants on structured meshes of every kind, tying the topology functions to
// each other and to counts known from the geometry.
#include "topology/helpers.h"

#include "common/meshes.h"

#include <gtest/gtest.h>

using namespace topo_test;
namespace nt = nodara_test;

namespace {

TEST(StructuredMeshes, Invariants) {
    const unsigned nx = 3, ny = 2, nz = 2;
    const std::size_t quads = 2 * (nx * ny + ny * nz + nx * nz);
    std::size_t mixed_top = 0;  // wedge columns have two triangles on top
    for (unsigned j = 0; j < ny; ++j)
        for (unsigned i = 0; i < nx; ++i) mixed_top += (i + j) % 3 == 1 ? 2 : 1;
    // skin: open sides; euler: alternating count of vertices, edges, (faces,) elements
    const struct { nt::mesh m; int dim; std::size_t skin; long euler; } cases[] = {
        {nt::hexa_mesh(nx, ny, nz), 3, quads, 1},
        {nt::tetra_mesh(nx, ny, nz), 3, 2 * quads, 1},
        {nt::wedge_mesh(nx, ny, nz), 3, 4 * nx * ny + 2 * (nx * nz + ny * nz), 1},
        {nt::pyramid_mesh(nx, ny, nz), 3, quads, 1},
        {nt::mixed_solid_mesh(nx, ny, nz), 3, 2 * mixed_top + 2 * (nx * nz + ny * nz), 1},
        {nt::quad_mesh(4, 3), 2, 14, 1},
        {nt::tria_mesh(4, 3), 2, 14, 1},
        {nt::mixed_face_mesh(4, 3), 2, 14, 1},
        {nt::cube_surface(3), 2, 0, 2},
        {nt::edge_mesh(5), 1, 2, 1},
    };
    for (const auto& k : cases) {
        const dense2D<unsigned>& c = k.m.connect;
        const element_type t = k.m.type;
        const unsigned C = static_cast<unsigned>(c.cols());
        SCOPED_TRACE(::testing::Message() << "type " << t << " elements " << C);

        // Neighbours: the same with either flag on a manifold mesh, and as the mixed type.
        const derived d = derive(c, t);
        dense2D<unsigned> kept, as_mixed;
        ASSERT_EQ(get_neighbors(c, t, true, kept), 0);
        EXPECT_EQ(kept, d.nb);
        if (k.dim > 1) {
            ASSERT_EQ(get_neighbors(c, k.dim == 3 ? EL_SOLID_ANY : EL_FACE_ANY, false, as_mixed), 0);
            EXPECT_EQ(as_mixed, d.nb);
        }

        // The skin: one column per open side, found back from its nodes; with a single
        // colour it is also the colour boundary.
        EXPECT_EQ(d.skin.cols(), k.skin);
        EXPECT_EQ(d.ids.size(), k.skin);
        dense1D<unsigned> bounds;
        unsigned G = 0;
        if (k.skin > 0) {
            ASSERT_EQ(get_elements_on_boundaries(d.skin, c, d.nb, d.anc, t, bounds, G), 0);
            EXPECT_EQ(G, d.F);
            EXPECT_EQ(bounds, d.ids);
        }
        dense2D<unsigned> one;
        ASSERT_EQ(get_colors_boundaries(c, d.nb, dense1D<unsigned>(C, 3u), t, true, one), 0);
        EXPECT_EQ(one, d.skin);

        // Edges: the node graph joins exactly the listed pairs; Euler's formula holds.
        dense1D<unsigned> off, g;
        dense2D<unsigned> edges, all_faces;
        ASSERT_EQ(get_node_graph(c, off, g, t), 0);
        ASSERT_EQ(copy_edges(c, t, edges), 0);
        EXPECT_EQ(g.size(), 2 * edges.cols());  // sum of valences
        const auto listed = pairs(edges);
        for (unsigned i = 0; i + 1 < off.size(); ++i)
            for (unsigned p = off[i]; p < off[i + 1]; ++p)
                EXPECT_TRUE(listed.count({std::min(i, g[p]), std::max(i, g[p])})) << i << "-" << g[p];
        ASSERT_EQ(get_element_boundaries(c, t, all_faces), 0);
        const long V = static_cast<long>(k.m.pos.cols()), E = static_cast<long>(edges.cols());
        const long F = static_cast<long>((all_faces.cols() + d.ids.size()) / 2);  // inner ones twice
        EXPECT_EQ(k.dim == 3 ? V - E + F - C : k.dim == 2 ? V - E + C : V - C, k.euler);

        // Subdomains: one piece; two copies side by side are two.
        dense1D<unsigned> order, offsets;
        ASSERT_EQ(get_subdomains(d.nb, order, offsets), 0);
        EXPECT_EQ(values(offsets), (uv{0, C}));
        dense2D<unsigned> nb2;
        ASSERT_EQ(get_neighbors(twice(c, 100000), t, false, nb2), 0);
        ASSERT_EQ(get_subdomains(nb2, order, offsets), 0);
        EXPECT_EQ(values(offsets), (uv{0, C, 2 * C}));
    }
}

}  // namespace
