// Element neighbours across shared boundaries.
//
// The face table.  Every local boundary (face) is hashed into one of B buckets,
// B the smallest power of two at least max(1, floor(0.67 x F x E)); the key of a
// face with nodes n_1 .. n_k is ((n_1 ^ 0x811C9DC5) + ... + (n_k ^ 0x811C9DC5)) x
// 16777619 masked with B - 1 (a triangular face in four slots counts NULL_INDEX in
// its empty slot).  A chain holds the faces of one bucket in insertion order
// (elements in column order, local boundaries in order); a face is consumed by
// overwriting its identifier with all bits set.  The table is sized once for all
// faces and never rehashed.
//
// Layout.  A chain is stored as one contiguous run of entries, and the runs follow
// each other in bucket order, so walking a chain never leaves the cache lines it is
// on.  The runs are laid out by a stable two-level distribution: the faces go first
// to the partition of their bucket's high bits (a few thousand sequential write
// streams), then each partition, small enough to stay in cache, is distributed by
// the low bits into its buckets.  Each entry keeps the face's nodes in a canonical
// order next to its identifier, so the match test reads no connectivity:
//   - end node: the node;
//   - side: (smaller, larger);
//   - triangle: its three nodes ascending (+ NULL_INDEX in a fourth slot);
//   - quadrangle: rotated to start at the first occurrence of its smallest node,
//     (m, a, x, b) is kept as (m, x, min(a, b), max(a, b)).
// Two faces match exactly when their canonical nodes are equal, which is the
// documented rule: sides equal in either direction; triangles with the same
// smallest node and the same other two in either orientation; quadrangles with
// the same smallest node, the same opposite node and the same two others in either
// orientation; a triangle never equals a quadrangle.
//
// Matching walks the buckets in order: the first unconsumed entry A of a chain is
// compared with the later ones, the matches M are consumed, and the neighbours are
// set by the documented rule (with keep_nonmanifold every M points to A and A to the
// last M; without it only a single match pairs).  Long chains (many distinct faces
// with one key) are first sorted by (canonical nodes, identifier) so that the work
// stays O(n log n); the classes and their order of members, hence the result, are
// the same.
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

using detail::local_boundary;
using detail::shape;
using detail::work_array;

constexpr std::uint32_t fnv_basis = 0x811C9DC5u;
constexpr std::uint32_t fnv_prime = 16777619u;

// Face entry with K canonical node slots; elem = local = NULL_INDEX once consumed.
template <int K>
struct face_entry {
    std::uint32_t n[K];
    std::uint32_t elem;
    std::uint32_t local;
};

template <int K>
inline bool same_nodes(const face_entry<K>& a, const face_entry<K>& b) noexcept {
    for (int i = 0; i < K; ++i)
        if (a.n[i] != b.n[i]) return false;
    return true;
}

template <int K>
inline bool before(const face_entry<K>& a, const face_entry<K>& b) noexcept {
    for (int i = 0; i < K; ++i)
        if (a.n[i] != b.n[i]) return a.n[i] < b.n[i];
    if (a.elem != b.elem) return a.elem < b.elem;
    return a.local < b.local;
}

inline void order2(std::uint32_t& a, std::uint32_t& b) noexcept {
    if (b < a) {
        const std::uint32_t t = a;
        a = b;
        b = t;
    }
}

// The order-independent bucket key of k nodes (the low 32 bits of the 64-bit
// computation, which is all the mask keeps).
template <int K>
inline std::uint32_t face_key(const std::uint32_t* n) noexcept {
    std::uint32_t s = 0;
    for (int i = 0; i < K; ++i) s += n[i] ^ fnv_basis;
    return s * fnv_prime;
}

// Canonical order of the K slots of a face (see the file comment).
template <int K>
inline void canonical(std::uint32_t* n) noexcept {
    if (K == 2) {
        order2(n[0], n[1]);
    } else if (K == 3 || (K == 4 && n[3] == NULL_INDEX)) {
        order2(n[0], n[1]);
        order2(n[1], n[2]);
        order2(n[0], n[1]);
    } else if (K == 4) {
        int p = 0;
        for (int i = 1; i < 4; ++i)
            if (n[i] < n[p]) p = i;
        const std::uint32_t m = n[p], a = n[(p + 1) & 3], x = n[(p + 2) & 3], b = n[(p + 3) & 3];
        n[0] = m;
        n[1] = x;
        n[2] = a < b ? a : b;
        n[3] = a < b ? b : a;
    }
}

// Calls visit(e, j, nodes) for every face of every column, in insertion order.
// nodes holds K slots (a triangle of a K = 4 type has NULL_INDEX in slot 3).
template <int K, class Visit>
void for_each_face(const dense2D<unsigned>& connectM, element_type type, Visit&& visit) {
    const std::size_t E = connectM.cols();
    const bool mixed = type == EL_FACE_ANY || type == EL_SOLID_ANY;
    const shape* fixed = detail::linear_shape(type);
    std::uint32_t n[4];
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        const shape* s = mixed ? detail::column_shape(type, col) : fixed;
        for (unsigned j = 0; j < s->nbr_boundaries; ++j) {
            detail::boundary_nodes(s->boundaries[j], col, n, K);
            visit(static_cast<std::uint32_t>(e), j, n);
        }
    }
}

struct table_plan {
    std::uint32_t mask = 0;  // B - 1
    unsigned low_bits = 0;   // buckets per partition: 2^low_bits
    std::size_t parts = 1;
};

table_plan plan_table(std::size_t faces) {
    const double wanted = 0.67 * static_cast<double>(faces);
    std::uint64_t v = wanted < 1.0 ? 1u : static_cast<std::uint64_t>(wanted);
    if (v > (std::uint64_t(1) << 31)) v = std::uint64_t(1) << 31;  // bucket count saturates at 2^31
    std::uint32_t x = static_cast<std::uint32_t>(v - 1);
    x |= x >> 1;
    x |= x >> 2;
    x |= x >> 4;
    x |= x >> 8;
    x |= x >> 16;
    const std::uint64_t B = std::uint64_t(x) + 1;
    unsigned bits = 0;
    while ((std::uint64_t(1) << bits) < B) ++bits;
    table_plan p;
    p.mask = static_cast<std::uint32_t>(B - 1);
    p.low_bits = bits < 12 ? bits : 12;
    p.parts = std::size_t(1) << (bits - p.low_bits);
    return p;
}

// Neighbour setting for one match class given in insertion order.
struct linker {
    unsigned* nb;
    std::size_t ld;
    bool keep;
    unsigned& at(std::uint32_t e, std::uint32_t j) const noexcept { return nb[std::size_t(e) * ld + j]; }
};

template <int K>
inline void consume(face_entry<K>& f) noexcept {
    f.elem = NULL_INDEX;
    f.local = NULL_INDEX;
}

template <int K>
inline bool consumed(const face_entry<K>& f) noexcept {
    return f.elem == NULL_INDEX;  // element indices are below NULL_INDEX
}

// One chain, short: the documented scan with consumed marks.
template <int K>
void match_chain_scan(face_entry<K>* c, std::size_t len, const linker& L) noexcept {
    for (std::size_t a = 0; a < len; ++a) {
        if (consumed(c[a])) continue;
        const std::uint32_t ea = c[a].elem, ja = c[a].local;
        std::size_t matches = 0;
        std::uint32_t em = 0, jm = 0;
        for (std::size_t m = a + 1; m < len; ++m) {
            if (consumed(c[m]) || !same_nodes(c[a], c[m])) continue;
            ++matches;
            if (L.keep) {
                L.at(c[m].elem, c[m].local) = ea;
                L.at(ea, ja) = c[m].elem;
            } else if (matches == 1) {
                em = c[m].elem;
                jm = c[m].local;
            }
            consume(c[m]);
        }
        if (!L.keep && matches == 1) {
            L.at(em, jm) = ea;
            L.at(ea, ja) = em;
        }
        consume(c[a]);
    }
}

// One chain, long: sorted by (canonical nodes, identifier), classes are runs.
template <int K>
void match_chain_sorted(face_entry<K>* c, std::size_t len, const linker& L) {
    std::sort(c, c + len, [](const face_entry<K>& x, const face_entry<K>& y) { return before(x, y); });
    std::size_t s = 0;
    while (s < len) {
        std::size_t t = s + 1;
        while (t < len && same_nodes(c[s], c[t])) ++t;
        const std::uint32_t ea = c[s].elem, ja = c[s].local;
        if (t - s == 2 || (L.keep && t - s > 2)) {
            for (std::size_t m = s + 1; m < t; ++m) {
                L.at(c[m].elem, c[m].local) = ea;
                L.at(ea, ja) = c[m].elem;
            }
        }
        for (std::size_t m = s; m < t; ++m) consume(c[m]);
        s = t;
    }
}

constexpr std::size_t long_chain = 32;

template <int K>
int neighbors_impl(const dense2D<unsigned>& connectM, element_type type, bool keep, dense2D<unsigned>& neighbors,
                   unsigned F) {
    const std::size_t E = connectM.cols();
    std::size_t faces = 0;
    {
        // Faces actually inserted (mixed columns have fewer than F).
        if (type == EL_FACE_ANY || type == EL_SOLID_ANY) {
            for (std::size_t e = 0; e < E; ++e) faces += detail::column_shape(type, connectM.col(e))->nbr_boundaries;
        } else {
            faces = E * F;
        }
    }
    const table_plan plan = plan_table(E * F);
    const unsigned low = plan.low_bits;

    // Partition sizes.
    work_array<std::size_t> part_start(plan.parts + 1);
    std::fill(part_start.data(), part_start.data() + plan.parts + 1, std::size_t(0));
    for_each_face<K>(connectM, type, [&](std::uint32_t, unsigned, const std::uint32_t* n) {
        ++part_start[((face_key<K>(n) & plan.mask) >> low) + 1];
    });
    std::size_t largest = 0;
    for (std::size_t p = 0; p < plan.parts; ++p) {
        largest = std::max(largest, part_start[p + 1]);
        part_start[p + 1] += part_start[p];
    }

    work_array<face_entry<K>> table(faces);
    work_array<face_entry<K>> scratch(largest);
    work_array<std::size_t> cursor(plan.parts);
    work_array<std::size_t> bucket_start((std::size_t(1) << low) + 1);

    // First level: faces to their partitions, in insertion order.
    std::copy(part_start.data(), part_start.data() + plan.parts, cursor.data());
    for_each_face<K>(connectM, type, [&](std::uint32_t e, unsigned j, const std::uint32_t* n) {
        face_entry<K> f;
        for (int i = 0; i < K; ++i) f.n[i] = n[i];
        canonical<K>(f.n);
        f.elem = e;
        f.local = j;
        const std::size_t p = (face_key<K>(f.n) & plan.mask) >> low;
        table[cursor[p]++] = f;
    });

    const linker L{neighbors.data(), neighbors.ld(), keep};
    const std::uint32_t low_mask = (std::uint32_t(1) << low) - 1;
    const std::size_t nb_buckets = std::size_t(1) << low;
    for (std::size_t p = 0; p < plan.parts; ++p) {
        const std::size_t begin = part_start[p], n = part_start[p + 1] - begin;
        if (n == 0) continue;
        face_entry<K>* part = table.data() + begin;
        if (n == 1) {
            consume(part[0]);
            continue;
        }
        // Second level: the partition's faces to their buckets, stably.
        std::copy(part, part + n, scratch.data());
        std::fill(bucket_start.data(), bucket_start.data() + nb_buckets + 1, std::size_t(0));
        for (std::size_t i = 0; i < n; ++i) ++bucket_start[(face_key<K>(scratch[i].n) & low_mask) + 1];
        for (std::size_t b = 0; b < nb_buckets; ++b) bucket_start[b + 1] += bucket_start[b];
        for (std::size_t i = 0; i < n; ++i) part[bucket_start[face_key<K>(scratch[i].n) & low_mask]++] = scratch[i];
        // bucket_start[b] is now the end of bucket b (the start of b + 1).
        std::size_t s = 0;
        for (std::size_t b = 0; b < nb_buckets; ++b) {
            const std::size_t t = bucket_start[b];
            const std::size_t len = t - s;
            if (len == 1) {
                consume(part[s]);
            } else if (len > long_chain) {
                match_chain_sorted<K>(part + s, len, L);
            } else if (len > 1) {
                match_chain_scan<K>(part + s, len, L);
            }
            s = t;
        }
    }
    return 0;
}

}  // namespace

int get_neighbors(const dense2D<unsigned>& connectM, element_type FE_type, bool keep_nonmanifold,
                  dense2D<unsigned>& neighbors) noexcept {
    neighbors.resize(0, 0);
    if (connectM.entries() == 0) return 0;
    const element_type type = detail::substitute_by_rows(FE_type, connectM.rows());
    // The supported types are the linear kinds of the boundary functions; a face
    // has as many slots as a boundary column of the type has rows.
    if (const int status = detail::check_linear_connectivity(connectM, type)) return status;
    const unsigned F = nbr_boundaries(type);
    const unsigned slots = detail::boundary_rows(type);
    const std::size_t E = connectM.cols();
    if (E >= NULL_INDEX) return -199;  // element indices must fit below NULL_INDEX
    if (!neighbors.resize(F, E, NULL_INDEX)) {
        neighbors.resize(0, 0);
        return -199;
    }
    try {
        switch (slots) {
            case 1: return neighbors_impl<1>(connectM, type, keep_nonmanifold, neighbors, F);
            case 2: return neighbors_impl<2>(connectM, type, keep_nonmanifold, neighbors, F);
            case 3: return neighbors_impl<3>(connectM, type, keep_nonmanifold, neighbors, F);
            default: return neighbors_impl<4>(connectM, type, keep_nonmanifold, neighbors, F);
        }
    } catch (const std::bad_alloc&) {
        neighbors.resize(0, 0);
        return -199;
    }
}

}  // namespace nodara
}  // namespace zq5
