// The split of mixed connectivities by node count (VTK and MEDIT writers).
#include "io/mixed.h"

#include <zq5/nodara/topology.h>

#include <new>

namespace zq5 {
namespace nodara {
namespace detail {

namespace {

// The homogeneous kind of a group of k nodes of a mixed matrix, EL_NONE if none.
element_type group_kind(element_type mixed, unsigned k) noexcept {
    if (mixed == EL_SOLID_ANY) {
        switch (k) {
            case 8: return EL_HEXA8;
            case 6: return EL_WEDGE6;
            case 5: return EL_PYRAMID5;
            case 4: return EL_TETRA4;
            default: return EL_NONE;
        }
    }
    switch (k) {
        case 4: return EL_QUAD4;
        case 3: return EL_TRIA3;
        default: return EL_NONE;
    }
}

}  // namespace

int split_mixed_connectivities(const dense2D<unsigned>* begin, const dense2D<unsigned>* end,
                               const dense1D<int>& FE_types, homogeneous_connectivities& out) noexcept {
    try {
        std::size_t i = 0;
        for (const dense2D<unsigned>* m = begin; m < end; ++m, ++i) {
            if (m->entries() == 0) continue;
            const element_type type = to_element_type(i < FE_types.size() ? FE_types[i] : EL_NONE);
            if (type != EL_FACE_ANY && type != EL_SOLID_ANY) {
                out.matrices.push_back(*m);
                out.types.push_back(type);
                out.sources.push_back(i);
                continue;
            }
            dense2D<unsigned> sorted;
            if (!sorted.copy(*m)) return -199;
            dense1D<unsigned> group_nodes, group_ends, new_positions;
            if (sort_elfes(sorted, group_nodes, group_ends, new_positions) < 0) return -199;
            // sort_elfes skips appends that cannot grow: a short description means
            // that storage ran out.
            if (group_nodes.size() != group_ends.size() || group_ends.empty() ||
                group_ends[group_ends.size() - 1] != sorted.cols())
                return -199;
            std::size_t start = 0;
            for (std::size_t g = 0; g < group_nodes.size(); ++g) {
                const std::size_t stop = group_ends[g];
                const unsigned k = group_nodes[g];
                const element_type kind = group_kind(type, k);
                if (kind != EL_NONE && stop > start && k <= sorted.rows()) {
                    out.matrices.push_back(sorted.sub_matrix(0, start, k, stop - start));
                    out.types.push_back(kind);
                    out.sources.push_back(i);
                }
                start = stop;
            }
        }
    } catch (const std::bad_alloc&) {
        return -199;
    }
    return 0;
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5
