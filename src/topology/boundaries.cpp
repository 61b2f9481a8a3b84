// Boundaries of elements and meshes, and the element faces under a boundary mesh.
//
// A boundary column holds the nodes of a local boundary in the order of the local
// table, padded with NULL_INDEX up to the boundary-row count of the type (a
// triangular face of a solid in four rows).
#include <zq5/nodara/topology.h>

#include "arrays/memory.h"
#include "core/shapes.h"
#include "topology/local.h"

#include <cstddef>
#include <cstdint>
#include <new>

namespace zq5 {
namespace nodara {

namespace {

using detail::shape;

// Appends local boundary j of column `col` (shape s) to `boundaries`.
bool append_boundary(dense2D<unsigned>& boundaries, const shape& s, unsigned j, const unsigned* col) noexcept {
    unsigned v[4];
    detail::boundary_nodes(s.boundaries[j], col, v, 4);
    return detail::append_column(boundaries, v);
}

// Faces of one kind compared with a boundary column of `rows` rows: true when the
// column holds the face's nodes in the same order (reversed: in reversed order)
// and NULL_INDEX in the rows past them.
bool same_face(const unsigned* column, std::size_t rows, const unsigned* face, unsigned size,
               bool reversed) noexcept {
    if (size > rows) return false;
    for (unsigned i = 0; i < size; ++i)
        if (column[i] != face[reversed ? size - 1 - i : i]) return false;
    for (std::size_t i = size; i < rows; ++i)
        if (column[i] != NULL_INDEX) return false;
    return true;
}

}  // namespace

int get_element_boundaries(const dense2D<unsigned>& connectM, element_type FE_type,
                           dense2D<unsigned>& boundaries) noexcept {
    if (connectM.entries() == 0) return 0;
    const element_type type = detail::substitute_by_rows(FE_type, connectM.rows());
    if (const int status = detail::check_linear_connectivity(connectM, type)) return status;
    const unsigned brows = detail::boundary_rows(type);
    if (boundaries.entries() > 0 && boundaries.rows() != brows) return -2;
    detail::prepare_appended(boundaries, brows);
    for (std::size_t e = 0, E = connectM.cols(); e < E; ++e) {
        const unsigned* col = connectM.col(e);
        const shape* s = detail::column_shape(type, col);
        for (unsigned j = 0; j < s->nbr_boundaries; ++j)
            if (!append_boundary(boundaries, *s, j, col)) return -199;
    }
    return 0;
}

int get_mesh_boundaries(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                        element_type FE_type, dense2D<unsigned>& boundaries) noexcept {
    if (connectM.entries() == 0) return 0;
    const std::size_t r = connectM.rows(), E = connectM.cols();
    const element_type type = detail::substitute_by_rows(FE_type, r);
    if (r != nbr_nodes(type)) return -1;
    if (neighbors.cols() != E || neighbors.rows() != nbr_boundaries(type) ||
        !check_IDs(neighbors, static_cast<unsigned>(E)))
        return -2;
    const unsigned brows = detail::boundary_rows(type);
    if (boundaries.entries() > 0 && boundaries.rows() != brows) return -4;
    if (!detail::is_processed_linear(type)) return -3;
    detail::prepare_appended(boundaries, brows);
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        const unsigned* nb = neighbors.col(e);
        const shape* s = detail::column_shape(type, col);
        for (unsigned j = 0; j < s->nbr_boundaries; ++j)
            if (nb[j] == NULL_INDEX && !append_boundary(boundaries, *s, j, col)) return -199;
    }
    return 0;
}

int get_mesh_bounding_elements(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                               element_type FE_type, dense1D<unsigned>& bounding, unsigned& nbr_bounds) noexcept {
    nbr_bounds = 0;
    if (connectM.entries() == 0) return 0;
    const std::size_t r = connectM.rows(), E = connectM.cols();
    const element_type type = detail::substitute_by_rows(FE_type, r);
    if (!check_IDs(connectM, type, NULL_INDEX)) return -1;
    const unsigned F = nbr_boundaries(type);
    nbr_bounds = F;
    if (!detail::is_processed_linear(type)) return -2;
    if (r != nbr_nodes(type)) return -1;
    if (neighbors.rows() != F || neighbors.cols() != E) return -2;
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* nb = neighbors.col(e);
        const shape* s = detail::column_shape(type, connectM.col(e));
        for (unsigned j = 0; j < s->nbr_boundaries; ++j)
            if (nb[j] == NULL_INDEX && !bounding.push_back(static_cast<unsigned>(e * F + j))) return -199;
    }
    return 0;
}

int get_elements_on_boundaries(const dense2D<unsigned>& boundaries, const dense2D<unsigned>& connectM,
                               const dense2D<unsigned>& neighbors, const dense1D<unsigned>& ancestors,
                               element_type FE_type, dense1D<unsigned>& bounds, unsigned& nbr_bounds) noexcept {
    bounds.resize(0);
    nbr_bounds = 0;
    if (connectM.entries() == 0) return 0;
    const std::size_t r = connectM.rows(), E = connectM.cols();
    const element_type type = detail::substitute_by_rows(FE_type, r);
    const unsigned brows = detail::boundary_rows(type);
    const unsigned F = nbr_boundaries(type);
    if (boundaries.rows() != brows) return -1;
    if (r != nbr_nodes(type)) return -2;
    if (neighbors.cols() != E || neighbors.rows() != F || !check_IDs(neighbors, static_cast<unsigned>(E))) return -3;
    if (!check_IDs(ancestors, static_cast<unsigned>(E))) return -4;
    nbr_bounds = F;
    if (!detail::is_processed_linear(type)) return -5;
    const std::size_t B = boundaries.cols();
    if (!bounds.resize(B, NULL_INDEX)) return -199;
    try {
        zq5::detail::vec<unsigned> ball, stack;
        zq5::detail::vec<unsigned char> met(E, 0);
        for (std::size_t b = 0; b < B; ++b) {
            const unsigned* column = boundaries.col(b);
            const unsigned n = column[0];
            if (n >= ancestors.size() || ancestors[n] == NULL_INDEX) continue;

            // The ball of n: depth-first from ancestors[n] across the local
            // boundaries holding n (for a quadrangle the side starting at n is
            // pushed first, then the side ending at it).
            ball.clear();
            stack.clear();
            const unsigned start = ancestors[n];
            stack.push_back(start);
            met[start] = 1;
            int status = 0;
            while (!stack.empty()) {
                const unsigned e = stack.back();
                stack.pop_back();
                const unsigned* col = connectM.col(e);
                const shape* s = detail::column_shape(type, col);
                unsigned local = NULL_INDEX;
                for (unsigned i = 0; i < s->nbr_nodes; ++i)
                    if (col[i] == n) {
                        local = i;
                        break;
                    }
                if (local == NULL_INDEX) {
                    status = e == start ? -4 : -3;
                    break;
                }
                ball.push_back(e);
                const unsigned* nb = neighbors.col(e);
                auto push = [&](unsigned j) {
                    const unsigned m = nb[j];
                    if (m != NULL_INDEX && !met[m]) {
                        met[m] = 1;
                        stack.push_back(m);
                    }
                };
                if (s->kind == EL_QUAD4) {
                    push(local);
                    push((local + 3) % 4);
                } else {
                    for (unsigned j = 0; j < s->nbr_boundaries; ++j) {
                        const auto& lb = s->boundaries[j];
                        for (unsigned i = 0; i < lb.size; ++i)
                            if (lb.nodes[i] == local) {
                                push(j);
                                break;
                            }
                    }
                }
            }
            for (unsigned e : ball) met[e] = 0;
            for (unsigned e : stack) met[e] = 0;
            met[start] = 0;
            if (status != 0) return status;

            unsigned same = NULL_INDEX, reversed = NULL_INDEX;
            for (unsigned e : ball) {
                const unsigned* col = connectM.col(e);
                const shape* s = detail::column_shape(type, col);
                for (unsigned j = 0; j < s->nbr_boundaries && same == NULL_INDEX; ++j) {
                    unsigned face[4];
                    const unsigned size = detail::boundary_nodes(s->boundaries[j], col, face, 4);
                    if (same_face(column, brows, face, size, false))
                        same = static_cast<unsigned>(std::uint64_t(e) * F + j);
                    else if (reversed == NULL_INDEX && same_face(column, brows, face, size, true))
                        reversed = static_cast<unsigned>(std::uint64_t(e) * F + j);
                }
                if (same != NULL_INDEX) break;
            }
            bounds[b] = same != NULL_INDEX ? same : reversed;
        }
    } catch (const std::bad_alloc&) {
        return -199;
    }
    return 0;
}

}  // namespace nodara
}  // namespace zq5
