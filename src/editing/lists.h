// Internal: node lists of the editing family.
#ifndef NODARA_SRC_EDITING_LISTS_H
#define NODARA_SRC_EDITING_LISTS_H

#include "arrays/memory.h"

#include <zq5/arrays.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_set>

namespace zq5 {
namespace nodara {
namespace detail {

using zq5::detail::raw_allocator;
using zq5::detail::vec;

/// Appends to `out` the distinct entries of the matrices of [first, last) (columns
/// walked with the leading dimension) in order of first appearance, leaving out
/// NULL_INDEX and entries not below `limit`.  Throws std::bad_alloc.
/// (unique_indices gives the same list but, by its contract, skips an append it
/// cannot grow room for; the editing operations must report that as -199.)
inline void unique_nodes(const dense2D<unsigned>* first, const dense2D<unsigned>* last, unsigned limit,
                         vec<unsigned>& out) {
    // Calls visit(v) for each entry v kept, in order.
    auto each = [first, last, limit](auto&& visit) {
        for (const dense2D<unsigned>* m = first; m < last; ++m)
            for (std::size_t j = 0; j < m->cols(); ++j) {
                const unsigned* c = m->col(j);
                for (std::size_t i = 0; i < m->rows(); ++i)
                    if (c[i] != NULL_INDEX && c[i] < limit) visit(c[i]);
            }
    };
    std::size_t count = 0;
    unsigned top = 0;
    each([&](unsigned v) {
        ++count;
        if (v > top) top = v;
    });
    if (count == 0) return;
    const std::uint64_t bits = static_cast<std::uint64_t>(top) + 1;
    if (bits <= 64 * static_cast<std::uint64_t>(count) + 4096) {  // dense: a bit per index
        vec<std::uint64_t> seen(static_cast<std::size_t>((bits + 63) / 64), 0);
        each([&](unsigned v) {
            std::uint64_t& w = seen[v >> 6];
            const std::uint64_t b = std::uint64_t(1) << (v & 63);
            if (w & b) return;
            w |= b;
            out.push_back(v);
        });
        return;
    }
    std::unordered_set<unsigned, std::hash<unsigned>, std::equal_to<unsigned>, raw_allocator<unsigned>> seen;
    each([&](unsigned v) {
        if (seen.insert(v).second) out.push_back(v);
    });
}

/// Appends the distinct entries of a list in order of first appearance, leaving
/// out NULL_INDEX and entries not below `limit`.  Throws std::bad_alloc.
inline void unique_nodes(const dense1D<unsigned>& ids, unsigned limit, vec<unsigned>& out) {
    if (ids.empty()) return;
    const dense2D<unsigned> m(ids.buffer(), ids.offset(), ids.size(), 1, ids.size());
    unique_nodes(&m, &m + 1, limit, out);
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_EDITING_LISTS_H
