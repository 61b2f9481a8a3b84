// Distinct edges of one or several connectivities.
//
// Every edge is taken as (a, b) with a <= b.  When the node indices are not much
// larger than the number of edges, the distinct edges are found with a counting
// pass: the edges are grouped by their first node (one counting sort), each group's
// second nodes are sorted and made unique, and the groups are read in order of
// first node, which is the lexicographic order.  Otherwise (sparse, very large node
// indices) every edge is packed as a * 2^32 + b and the packed values are sorted.
// Both give the same list; over a range of matrices every matrix feeds one pool,
// so an edge of several matrices is listed once.
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

// A matrix and the kind whose corner edges it gives (see detail::edge_kind).
struct edge_source {
    const dense2D<unsigned>* m;
    element_type kind;
};

edge_source make_source(const dense2D<unsigned>& c, element_type FE) noexcept {
    return {&c, detail::edge_kind(detail::substitute_by_rows(FE, c.rows()))};
}

// Calls visit(a, b), a <= b, for every edge of every column.
template <class Visit>
void for_each_edge(const edge_source& src, Visit&& visit) {
    if (src.kind == EL_NONE) return;
    const dense2D<unsigned>& c = *src.m;
    const bool mixed = src.kind == EL_FACE_ANY || src.kind == EL_SOLID_ANY;
    const shape* fixed = detail::linear_shape(src.kind);
    for (std::size_t e = 0, E = c.cols(); e < E; ++e) {
        const unsigned* col = c.col(e);
        const shape* s = mixed ? detail::column_shape(src.kind, col) : fixed;
        for (unsigned k = 0; k < s->nbr_edges; ++k) {
            const unsigned a = col[s->edges[k][0]], b = col[s->edges[k][1]];
            if (a <= b)
                visit(a, b);
            else
                visit(b, a);
        }
    }
}

// Room for `more` columns behind the edges already there; false on failure.
bool grow_edges(dense2D<unsigned>& edges, std::size_t more, std::size_t& old) noexcept {
    if (edges.entries() == 0) edges.resize(2, 0);
    old = edges.cols();
    if (more == 0) return true;
    if (!edges.reserve(2, old + more) || !edges.resize(2, old + more)) {
        edges.resize(2, old);
        return false;
    }
    return true;
}

void sort_small(unsigned* v, std::size_t n) {
    if (n > 24) {
        std::sort(v, v + n);
        return;
    }
    for (std::size_t i = 1; i < n; ++i) {
        const unsigned x = v[i];
        std::size_t j = i;
        for (; j > 0 && v[j - 1] > x; --j) v[j] = v[j - 1];
        v[j] = x;
    }
}

// Counting path: N = largest node + 1, total = number of edges with repeats.
int distinct_by_first_node(const edge_source* src, std::size_t n, std::size_t N, std::size_t total,
                           dense2D<unsigned>& edges) {
    work_array<std::size_t> start(N + 1);
    std::fill(start.data(), start.data() + N + 1, std::size_t(0));
    for (std::size_t i = 0; i < n; ++i) for_each_edge(src[i], [&](unsigned a, unsigned) { ++start[a + 1]; });
    for (std::size_t a = 0; a < N; ++a) start[a + 1] += start[a];
    work_array<unsigned> second(total);
    for (std::size_t i = 0; i < n; ++i)
        for_each_edge(src[i], [&](unsigned a, unsigned b) { second[start[a]++] = b; });
    for (std::size_t a = N; a > 0; --a) start[a] = start[a - 1];
    start[0] = 0;
    // Sort and unique each group in place, packing the groups to the front.
    std::size_t w = 0;
    for (std::size_t a = 0; a < N; ++a) {
        const std::size_t s = start[a], t = start[a + 1];
        start[a] = w;
        if (s == t) continue;
        sort_small(second.data() + s, t - s);
        second[w++] = second[s];
        for (std::size_t k = s + 1; k < t; ++k)
            if (second[k] != second[w - 1]) second[w++] = second[k];
    }
    start[N] = w;
    std::size_t old = 0;
    if (!grow_edges(edges, w, old)) return -199;
    unsigned* out = w ? edges.col(old) : nullptr;
    const std::size_t ld = edges.ld();
    for (std::size_t a = 0; a < N; ++a)
        for (std::size_t k = start[a]; k < start[a + 1]; ++k, out += ld) {
            out[0] = static_cast<unsigned>(a);
            out[1] = second[k];
        }
    return 0;
}

// Sorting path: packed pairs.
int distinct_by_sorting(const edge_source* src, std::size_t n, std::size_t total, dense2D<unsigned>& edges) {
    zq5::detail::vec<std::uint64_t> pairs;
    pairs.reserve(total);
    for (std::size_t i = 0; i < n; ++i)
        for_each_edge(src[i], [&](unsigned a, unsigned b) { pairs.push_back((std::uint64_t(a) << 32) | b); });
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    std::size_t old = 0;
    if (!grow_edges(edges, pairs.size(), old)) return -199;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        unsigned* c = edges.col(old + k);
        c[0] = static_cast<unsigned>(pairs[k] >> 32);
        c[1] = static_cast<unsigned>(pairs[k] & 0xFFFFFFFFu);
    }
    return 0;
}

int distinct_edges(const edge_source* src, std::size_t n, dense2D<unsigned>& edges) {
    std::size_t total = 0;
    std::uint64_t top = 0;
    for (std::size_t i = 0; i < n; ++i)
        for_each_edge(src[i], [&](unsigned, unsigned b) {
            ++total;
            if (b >= top) top = std::uint64_t(b) + 1;
        });
    if (top <= 4 * std::uint64_t(total) + 1024)
        return distinct_by_first_node(src, n, static_cast<std::size_t>(top), total, edges);
    return distinct_by_sorting(src, n, total, edges);
}

bool valid_type(int t) noexcept { return t >= 0 && t <= 22; }

}  // namespace

int copy_edges(const dense2D<unsigned>& connectM, element_type FE_type, dense2D<unsigned>& edges) noexcept {
    if (connectM.entries() == 0) return 0;
    if (!check_IDs(connectM, FE_type, NULL_INDEX)) return -1;
    if (edges.entries() > 0 && edges.rows() != 2) return -3;
    try {
        const edge_source src = make_source(connectM, FE_type);
        return distinct_edges(&src, 1, edges);
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

int copy_edges(const dense2D<unsigned>* connectM_begin, const dense2D<unsigned>* connectM_end,
               const dense1D<int>& FE_types, dense2D<unsigned>& edges) noexcept {
    if (connectM_end < connectM_begin) return -2;
    const std::size_t count = static_cast<std::size_t>(connectM_end - connectM_begin);
    if (count != FE_types.size()) return -3;
    if (edges.entries() > 0 && edges.rows() != 2) return -4;
    for (std::size_t i = 0; i < count; ++i) {
        const dense2D<unsigned>& m = connectM_begin[i];
        if (m.entries() == 0) continue;
        if (!valid_type(FE_types[i]) || !check_IDs(m, static_cast<element_type>(FE_types[i]), NULL_INDEX)) return -1;
    }
    try {
        zq5::detail::vec<edge_source> sources;
        sources.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            if (connectM_begin[i].entries() > 0)
                sources.push_back(make_source(connectM_begin[i], static_cast<element_type>(FE_types[i])));
        return distinct_edges(sources.data(), sources.size(), edges);
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

}  // namespace nodara
}  // namespace zq5
