// Internal: the split of mixed connectivities into homogeneous ones, shared by the
// writers of formats that hold one element kind per block (VTK, MEDIT).
#ifndef NODARA_SRC_IO_MIXED_H
#define NODARA_SRC_IO_MIXED_H

#include <zq5/nodara/core.h>

#include "arrays/memory.h"

#include <cstddef>

namespace zq5 {
namespace nodara {
namespace detail {

/// Homogeneous connectivities: matrices[i] holds elements of kind types[i] and
/// comes from input matrix sources[i].
struct homogeneous_connectivities {
    zq5::detail::vec<dense2D<unsigned>> matrices;
    zq5::detail::vec<element_type> types;
    zq5::detail::vec<std::size_t> sources;
};

/// Splits the range [begin, end) of connectivities, one kind per matrix in
/// FE_types (the caller checks that both have the same length), into homogeneous
/// matrices appended to `out`, in range order:
///   - an empty matrix (rows x cols = 0) is skipped;
///   - a matrix of any kind but EL_FACE_ANY and EL_SOLID_ANY is passed on whole, as
///     a view of the caller's storage;
///   - a mixed matrix is copied and its columns grouped by decreasing node count
///     with sort_elfes; each group becomes the view of its columns and of its first
///     k rows (k its node count), as EL_HEXA8, EL_WEDGE6, EL_PYRAMID5, EL_TETRA4
///     (k = 8, 6, 5, 4 of EL_SOLID_ANY) or EL_QUAD4, EL_TRIA3 (k = 4, 3 of
///     EL_FACE_ANY); a group of any other count is dropped.
/// A value of FE_types outside 0..22 is passed on as EL_NONE.
/// Status: 0; -199 storage cannot grow (out may hold part of the result).
int split_mixed_connectivities(const dense2D<unsigned>* begin, const dense2D<unsigned>* end,
                               const dense1D<int>& FE_types, homogeneous_connectivities& out) noexcept;

/// FE as an element_type, EL_NONE when outside 0..22.
inline element_type to_element_type(int FE) noexcept {
    return (FE >= EL_NONE && FE <= EL_HEXA27) ? static_cast<element_type>(FE) : EL_NONE;
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_IO_MIXED_H
