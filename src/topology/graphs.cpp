// Node graph, node-to-element incidence and ancestors.
//
// Both compressed relations are built with counting passes into arrays sized
// exactly beforehand.  A connectivity is read as groups of nodes: a whole column
// (simplices, EL_NONE, the incidence) or one edge of the column's kind (the other
// kinds of the node graph).  Group g of column e is numbered e * G + k, G the most
// groups a column of the type has, so groups in increasing number are columns in
// order and, within a column, its edges in the library's edge order.
#include <zq5/nodara/topology.h>

#include "arrays/memory.h"
#include "core/shapes.h"
#include "topology/local.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>

namespace zq5 {
namespace nodara {

namespace {

using detail::shape;
using detail::work_array;

// How the columns of a type split into groups of nodes.
struct grouping {
    element_type type = EL_NONE;
    bool whole_column = true;  // one group per column: every row
    unsigned per_column = 1;   // G
};

bool make_grouping(element_type type, grouping& g) noexcept {
    g.type = type;
    switch (type) {
        case EL_NONE:
        case EL_EDGE2:
        case EL_TRIA3:
        case EL_TETRA4: g.whole_column = true; g.per_column = 1; return true;
        case EL_QUAD4:
        case EL_PYRAMID5:
        case EL_WEDGE6:
        case EL_HEXA8: g.whole_column = false; g.per_column = detail::linear_shape(type)->nbr_edges; return true;
        // Mixed kinds: room for the widest member's edges.
        case EL_FACE_ANY: g.whole_column = false; g.per_column = detail::quad4_shape.nbr_edges; return true;
        case EL_SOLID_ANY: g.whole_column = false; g.per_column = detail::hexa8_shape.nbr_edges; return true;
        default: return false;
    }
}

// The groups of column `col`, in order: calls visit(k, nodes, count).  An
// EL_SOLID_ANY tetrahedron is one group of its four nodes; a column of EL_SOLID_ANY
// whose node 3 is NULL_INDEX has no valid kind and gives no group.
template <class Visit>
void column_groups(const grouping& g, const unsigned* col, std::size_t rows, Visit&& visit) {
    if (g.whole_column) {
        visit(0u, col, rows);
        return;
    }
    if (g.type == EL_SOLID_ANY) {
        if (col[3] == NULL_INDEX) return;
        if (detail::solid_kind(col) == EL_TETRA4) {
            visit(0u, col, std::size_t(4));
            return;
        }
    }
    const shape* s = detail::linear_shape(detail::column_kind(g.type, col));
    for (unsigned k = 0; k < s->nbr_edges; ++k) {
        const unsigned pair[2] = {col[s->edges[k][0]], col[s->edges[k][1]]};
        visit(k, pair, std::size_t(2));
    }
}

// Nodes of group number `id`.
template <class Id, class Visit>
void group_nodes(const grouping& g, const dense2D<unsigned>& c, Id id, Visit&& visit) {
    const std::size_t e = static_cast<std::size_t>(id / g.per_column);
    const unsigned k = static_cast<unsigned>(id % g.per_column);
    const unsigned* col = c.col(e);
    if (g.whole_column) {
        visit(col, c.rows());
        return;
    }
    if (g.type == EL_SOLID_ANY && detail::solid_kind(col) == EL_TETRA4) {
        visit(col, std::size_t(4));
        return;
    }
    const shape* s = detail::linear_shape(detail::column_kind(g.type, col));
    const unsigned pair[2] = {col[s->edges[k][0]], col[s->edges[k][1]]};
    visit(pair, std::size_t(2));
}

template <class Id>
int node_graph_impl(const dense2D<unsigned>& c, const grouping& g, dense1D<unsigned>& offsets,
                    dense1D<unsigned>& graph) {
    const std::size_t E = c.cols(), rows = c.rows();
    // Node -> groups.
    std::uint64_t top = 0;
    for (std::size_t e = 0; e < E; ++e)
        column_groups(g, c.col(e), rows, [&](unsigned, const unsigned* n, std::size_t k) {
            for (std::size_t i = 0; i < k; ++i)
                if (n[i] != NULL_INDEX && n[i] >= top) top = std::uint64_t(n[i]) + 1;
        });
    const std::size_t N = static_cast<std::size_t>(top);
    work_array<std::size_t> start(N + 1);
    std::fill(start.data(), start.data() + N + 1, std::size_t(0));
    for (std::size_t e = 0; e < E; ++e)
        column_groups(g, c.col(e), rows, [&](unsigned, const unsigned* n, std::size_t k) {
            for (std::size_t i = 0; i < k; ++i)
                if (n[i] != NULL_INDEX) ++start[n[i] + 1];
        });
    for (std::size_t i = 0; i < N; ++i) start[i + 1] += start[i];
    work_array<Id> list(start[N]);
    {
        work_array<std::size_t> cursor(N);
        std::copy(start.data(), start.data() + N, cursor.data());
        for (std::size_t e = 0; e < E; ++e)
            column_groups(g, c.col(e), rows, [&](unsigned k, const unsigned* n, std::size_t cnt) {
                const Id id = static_cast<Id>(e) * g.per_column + k;
                for (std::size_t i = 0; i < cnt; ++i)
                    if (n[i] != NULL_INDEX) list[cursor[n[i]]++] = id;
            });
    }

    // Two passes with the same visiting order: count, then fill.
    work_array<unsigned> marker(N);
    if (!offsets.resize(N + 1)) return -199;
    std::uint64_t total = 0;
    for (int pass = 0; pass < 2; ++pass) {
        std::fill(marker.data(), marker.data() + N, NULL_INDEX);
        unsigned* out = pass ? graph.data() : nullptr;
        std::size_t pos = 0;
        if (pass == 0) offsets[0] = 0;
        for (std::size_t i = 0; i < N; ++i) {
            const unsigned self = static_cast<unsigned>(i);
            marker[i] = self;
            for (std::size_t q = start[i]; q < start[i + 1]; ++q)
                group_nodes(g, c, list[q], [&](const unsigned* n, std::size_t k) {
                    for (std::size_t t = 0; t < k; ++t) {
                        const unsigned v = n[t];
                        if (v == NULL_INDEX || marker[v] == self) continue;
                        marker[v] = self;
                        if (out) out[pos] = v;
                        ++pos;
                    }
                });
            if (pass == 0) {
                if (pos > NULL_INDEX) return -199;  // offsets are 32-bit
                offsets[i + 1] = static_cast<unsigned>(pos);
            }
        }
        if (pass == 0) {
            total = pos;
            if (!graph.resize(static_cast<std::size_t>(total))) return -199;
        }
    }
    return 0;
}

}  // namespace

int get_node_graph(const dense2D<unsigned>& connectM, dense1D<unsigned>& offsets, dense1D<unsigned>& graph,
                   element_type FE_type) noexcept {
    offsets.resize(0);
    graph.resize(0);
    if (connectM.entries() == 0) return 0;
    if (FE_type != EL_NONE && connectM.rows() != nbr_nodes(FE_type)) return -2;
    grouping g;
    if (!make_grouping(FE_type, g)) return -5;
    int status = -199;
    try {
        const std::uint64_t ids = std::uint64_t(connectM.cols()) * g.per_column;
        status = ids <= NULL_INDEX ? node_graph_impl<std::uint32_t>(connectM, g, offsets, graph)
                                   : node_graph_impl<std::uint64_t>(connectM, g, offsets, graph);
    } catch (const std::bad_alloc&) {
        status = -199;
    }
    if (status != 0) {
        offsets.resize(0);
        graph.resize(0);
    }
    return status;
}

int get_connected_elements(const dense2D<unsigned>& connectM, dense1D<unsigned>& offsets,
                           dense1D<unsigned>& elements) noexcept {
    offsets.resize(0);
    elements.resize(0);
    if (connectM.entries() == 0) return 0;
    const std::size_t E = connectM.cols(), rows = connectM.rows();
    std::uint64_t top = 0, total = 0;
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        for (std::size_t i = 0; i < rows; ++i)
            if (col[i] != NULL_INDEX) {
                ++total;
                if (col[i] >= top) top = std::uint64_t(col[i]) + 1;
            }
    }
    const std::size_t N = static_cast<std::size_t>(top);
    if (total > NULL_INDEX || E > NULL_INDEX || !offsets.resize(N + 1, 0u) ||
        !elements.resize(static_cast<std::size_t>(total))) {
        offsets.resize(0);
        elements.resize(0);
        return -199;
    }
    unsigned* off = offsets.data();
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        for (std::size_t i = 0; i < rows; ++i)
            if (col[i] != NULL_INDEX) ++off[col[i] + 1];
    }
    for (std::size_t i = 0; i < N; ++i) off[i + 1] += off[i];
    // Fill with offsets[v] as the cursor of node v, then shift the cursors back.
    unsigned* out = elements.data();
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        for (std::size_t i = 0; i < rows; ++i)
            if (col[i] != NULL_INDEX) out[off[col[i]]++] = static_cast<unsigned>(e);
    }
    for (std::size_t i = N; i > 0; --i) off[i] = off[i - 1];
    off[0] = 0;
    return 0;
}

int get_ancestors(const dense2D<unsigned>& connectM, dense1D<unsigned>& ancestors) noexcept {
    if (connectM.entries() == 0) return 0;
    if (ancestors.empty()) {
        const unsigned n = max_ID(connectM) + 1u;
        if (!ancestors.resize(n, NULL_INDEX)) return -199;
    }
    const std::size_t size = ancestors.size(), E = connectM.cols(), rows = connectM.rows();
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        for (std::size_t i = 0; i < rows; ++i)
            if (col[i] < size) ancestors[col[i]] = static_cast<unsigned>(e);
    }
    return 0;
}

}  // namespace nodara
}  // namespace zq5
