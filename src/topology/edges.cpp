// Distinct edges of one or several connectivities.
//
// Every edge (a, b), a <= b, is packed as the 64-bit value a * 2^32 + b, so the
// lexicographic order of pairs is the order of the packed values.  The pairs of a
// matrix are collected, sorted and made unique; over a range, each matrix's list is
// merged into the distinct edges gathered so far.
#include <zq5/nodara/topology.h>

#include "arrays/memory.h"
#include "core/shapes.h"
#include "topology/local.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>

namespace zq5 {
namespace nodara {

namespace {

using detail::shape;
using pair_list = zq5::detail::vec<std::uint64_t>;

inline std::uint64_t pack(unsigned a, unsigned b) noexcept {
    return a <= b ? (std::uint64_t(a) << 32) | b : (std::uint64_t(b) << 32) | a;
}

// Appends the edges of a checked connectivity of kind FE (substitution by rows
// applied here) to `pairs`, then sorts them and removes repeats.
void collect_edges(const dense2D<unsigned>& c, element_type FE, pair_list& pairs) {
    const element_type kind = detail::edge_kind(detail::substitute_by_rows(FE, c.rows()));
    if (kind == EL_NONE) return;
    const std::size_t E = c.cols();
    const bool mixed = kind == EL_FACE_ANY || kind == EL_SOLID_ANY;
    const shape* fixed = detail::linear_shape(kind);
    std::size_t count = 0;
    if (mixed) {
        for (std::size_t e = 0; e < E; ++e) count += detail::column_shape(kind, c.col(e))->nbr_edges;
    } else {
        count = E * fixed->nbr_edges;
    }
    pairs.reserve(pairs.size() + count);
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = c.col(e);
        const shape* s = mixed ? detail::column_shape(kind, col) : fixed;
        for (unsigned k = 0; k < s->nbr_edges; ++k) pairs.push_back(pack(col[s->edges[k][0]], col[s->edges[k][1]]));
    }
}

void sort_unique(pair_list& pairs) {
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
}

// Appends the packed edges to `edges` (2 rows) at once: room for them all is
// reserved first, so a failure leaves edges unchanged.
int append_edges(const pair_list& pairs, dense2D<unsigned>& edges) noexcept {
    if (edges.entries() == 0) edges.resize(2, 0);
    const std::size_t old = edges.cols();
    if (pairs.empty()) return 0;
    if (!edges.reserve(2, old + pairs.size()) || !edges.resize(2, old + pairs.size())) {
        edges.resize(2, old);
        return -199;
    }
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        unsigned* c = edges.col(old + k);
        c[0] = static_cast<unsigned>(pairs[k] >> 32);
        c[1] = static_cast<unsigned>(pairs[k] & 0xFFFFFFFFu);
    }
    return 0;
}

bool valid_type(int t) noexcept { return t >= 0 && t <= 22; }

}  // namespace

int copy_edges(const dense2D<unsigned>& connectM, element_type FE_type, dense2D<unsigned>& edges) noexcept {
    if (connectM.entries() == 0) return 0;
    if (!check_IDs(connectM, FE_type, NULL_INDEX)) return -1;
    if (edges.entries() > 0 && edges.rows() != 2) return -3;
    try {
        pair_list pairs;
        collect_edges(connectM, FE_type, pairs);
        sort_unique(pairs);
        return append_edges(pairs, edges);
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
        pair_list all, one, merged;
        for (std::size_t i = 0; i < count; ++i) {
            const dense2D<unsigned>& m = connectM_begin[i];
            if (m.entries() == 0) continue;
            one.clear();
            collect_edges(m, static_cast<element_type>(FE_types[i]), one);
            sort_unique(one);
            if (one.empty()) continue;
            merged.clear();
            merged.reserve(all.size() + one.size());
            std::set_union(all.begin(), all.end(), one.begin(), one.end(), std::back_inserter(merged));
            all.swap(merged);
        }
        return append_edges(all, edges);
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

}  // namespace nodara
}  // namespace zq5
