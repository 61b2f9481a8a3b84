// Connected subdomains through the neighbour matrix, and boundaries between colours.
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

// Breadth-first walk, subdomain by subdomain; `order` must have room for E values.
int subdomains_impl(const dense2D<unsigned>& neighbors, unsigned* order, dense1D<unsigned>& offsets) {
    const std::size_t E = neighbors.cols(), F = neighbors.rows();
    if (!offsets.push_back(0)) return -199;
    if (E == 0) return 0;
    work_array<std::uint32_t> visited((E + 31) / 32);
    std::fill(visited.data(), visited.data() + visited.size(), 0u);
    auto marked = [&](std::size_t e) { return (visited[e >> 5] >> (e & 31)) & 1u; };
    // A queue of at most one seed plus F pushes per element.
    work_array<unsigned> queue(E * F + 1);
    std::size_t count = 0, seed = 0;
    while (count < E) {
        while (marked(seed)) ++seed;
        std::size_t head = 0, tail = 0;
        queue[tail++] = static_cast<unsigned>(seed);
        while (head < tail) {
            const unsigned e = queue[head++];
            if (marked(e)) continue;
            visited[e >> 5] |= 1u << (e & 31);
            order[count++] = e;
            if (F == 0) continue;
            const unsigned* nb = neighbors.col(e);
            for (std::size_t j = 0; j < F; ++j)
                if (nb[j] < E && !marked(nb[j])) queue[tail++] = nb[j];
        }
        if (!offsets.push_back(static_cast<unsigned>(count))) return -199;
    }
    return 0;
}

}  // namespace

int get_subdomains(const dense2D<unsigned>& neighbors, dense1D<unsigned>& order, dense1D<unsigned>& offsets) noexcept {
    order.resize(0);
    offsets.resize(0);
    const std::size_t E = neighbors.cols();
    int status = -199;
    if (E < NULL_INDEX && order.reserve(E) && order.resize(E)) {
        try {
            status = subdomains_impl(neighbors, order.data(), offsets);
        } catch (const std::bad_alloc&) {
            status = -199;
        }
    }
    if (status != 0) {
        order.resize(0);
        offsets.resize(0);
    }
    return status;
}

int get_subdomains(dense2D<unsigned>& connectM, dense2D<unsigned>& neighbors, dense1D<unsigned>& offsets) noexcept {
    if (connectM.cols() != neighbors.cols()) return -2;
    offsets.resize(0);
    const std::size_t E = neighbors.cols(), R = connectM.rows(), F = neighbors.rows();
    if (E >= NULL_INDEX) return -199;
    try {
        work_array<unsigned> order(E), inv(E), tmp(std::max(R, F) * E);
        const int status = subdomains_impl(neighbors, order.data(), offsets);
        if (status != 0) {
            offsets.resize(0);
            return status;
        }
        for (std::size_t k = 0; k < E; ++k) inv[order[k]] = static_cast<unsigned>(k);
        auto reorder = [&](dense2D<unsigned>& m, std::size_t rows) {
            for (std::size_t k = 0; k < E; ++k) std::copy(m.col(order[k]), m.col(order[k]) + rows, tmp.data() + k * rows);
            for (std::size_t k = 0; k < E; ++k) std::copy(tmp.data() + k * rows, tmp.data() + (k + 1) * rows, m.col(k));
        };
        if (R > 0) reorder(connectM, R);
        if (F > 0) {
            reorder(neighbors, F);
            for (std::size_t k = 0; k < E; ++k) {
                unsigned* c = neighbors.col(k);
                for (std::size_t j = 0; j < F; ++j)
                    if (c[j] < E) c[j] = inv[c[j]];
            }
        }
    } catch (const std::bad_alloc&) {
        offsets.resize(0);
        return -199;
    }
    return 0;
}

int get_colors_boundaries(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                          const dense1D<unsigned>& colors, element_type FE_type, bool both_sides,
                          dense2D<unsigned>& boundaries) noexcept {
    const std::size_t E = connectM.cols();
    if (E == 0) return 0;
    const std::size_t r = connectM.rows();
    const element_type type = detail::substitute_by_rows(FE_type, r);
    if (r != nbr_nodes(type)) return -1;
    if (neighbors.rows() != nbr_boundaries(type) || neighbors.cols() != E ||
        !check_IDs(neighbors, static_cast<unsigned>(E)))
        return -2;
    if (colors.size() != E) return -3;
    const unsigned brows = detail::boundary_rows(type);
    if (boundaries.entries() > 0 && boundaries.rows() != brows) return -5;
    if (!detail::is_processed_linear(type)) return -4;
    detail::prepare_appended(boundaries, brows);
    for (std::size_t e = 0; e < E; ++e) {
        const unsigned* col = connectM.col(e);
        const unsigned* nb = neighbors.col(e);
        const shape* s = detail::column_shape(type, col);
        for (unsigned j = 0; j < s->nbr_boundaries; ++j) {
            const unsigned n = nb[j];
            const bool differs = n == NULL_INDEX || colors[n] != colors[e];
            if (!differs || !(both_sides || n > e)) continue;
            unsigned v[4];
            detail::boundary_nodes(s->boundaries[j], col, v, 4);
            if (!detail::append_column(boundaries, v)) return -199;
        }
    }
    return 0;
}

}  // namespace nodara
}  // namespace zq5
