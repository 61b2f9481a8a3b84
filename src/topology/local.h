// Internal helpers shared by the topology sources: local boundaries of a column,
// uninitialised work arrays and the growth rule of appended boundary matrices.
// Every shape fact comes from core/shapes.h.
#ifndef NODARA_SRC_TOPOLOGY_LOCAL_H
#define NODARA_SRC_TOPOLOGY_LOCAL_H

#include <zq5/nodara/core.h>

#include "arrays/memory.h"
#include "core/shapes.h"

#include <cstddef>

namespace zq5 {
namespace nodara {
namespace detail {

/// Shape of one column of a matrix of kind `type` (already substituted by rows):
/// the column's own kind for the mixed kinds, the type's shape otherwise; nullptr
/// for a kind without linear shape.
inline const shape* column_shape(element_type type, const unsigned* column) noexcept {
    return linear_shape(column_kind(type, column));
}

/// The first checks of a connectivity of a linear kind, in this order: its indices
/// for `type` (the kind substituted by rows; -1), a kind the boundary functions
/// process (-2), as many rows as the kind has nodes (-1).  0 when all pass.
inline int check_linear_connectivity(const dense2D<unsigned>& connectM, element_type type) noexcept {
    if (!check_IDs(connectM, type, NULL_INDEX)) return -1;
    if (!is_processed_linear(type)) return -2;
    if (connectM.rows() != nbr_nodes(type)) return -1;
    return 0;
}

/// Writes the nodes of local boundary `b` of `column` into out[0 .. b.size - 1] and
/// NULL_INDEX into the slots up to `slots`; returns b.size.
inline unsigned boundary_nodes(const local_boundary& b, const unsigned* column, unsigned* out,
                               unsigned slots) noexcept {
    unsigned i = 0;
    for (; i < b.size; ++i) out[i] = column[b.nodes[i]];
    for (; i < slots; ++i) out[i] = NULL_INDEX;
    return b.size;
}

/// An uninitialised array drawn from the library's allocator (throws std::bad_alloc
/// on failure, like the standard containers over raw_allocator).
template <class T>
class work_array {
public:
    work_array() noexcept = default;
    explicit work_array(std::size_t n) : n_(n) {
        if (n) p_ = zq5::detail::raw_allocator<T>().allocate(n);
    }
    work_array(const work_array&) = delete;
    work_array& operator=(const work_array&) = delete;
    ~work_array() {
        if (p_) zq5::detail::raw_allocator<T>().deallocate(p_, n_);
    }
    T* data() noexcept { return p_; }
    std::size_t size() const noexcept { return n_; }
    T& operator[](std::size_t i) noexcept { return p_[i]; }
    const T& operator[](std::size_t i) const noexcept { return p_[i]; }

private:
    T* p_ = nullptr;
    std::size_t n_ = 0;
};

/// Makes an appendable boundary matrix of `rows` rows out of `m`: a matrix without
/// entries becomes rows x 0.  The caller has checked that a matrix with entries
/// has `rows` rows.
inline void prepare_appended(dense2D<unsigned>& m, std::size_t rows) noexcept {
    if (m.entries() == 0) m.resize(rows, 0);
}

/// Appends one column of m.rows() values with the growth rule of boundary
/// matrices: when the column count equals the capacity in columns, room for
/// max(2 x columns, 4) columns is reserved first.  False when that fails.
inline bool append_column(dense2D<unsigned>& m, const unsigned* values) noexcept {
    const std::size_t rows = m.rows(), cols = m.cols(), ld = m.ld() ? m.ld() : rows;
    const std::size_t cap = m.capacity();
    const std::size_t cap_cols = rows == 0 ? cols + 1 : (cap >= rows ? (cap - rows) / ld + 1 : 0);
    if (cols >= cap_cols && !m.reserve(rows, cols * 2 > 4 ? cols * 2 : 4)) return false;
    if (!m.resize(rows, cols + 1)) return false;
    if (rows == 0) return true;
    unsigned* c = m.col(cols);
    for (std::size_t i = 0; i < rows; ++i) c[i] = values[i];
    return true;
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_TOPOLOGY_LOCAL_H
