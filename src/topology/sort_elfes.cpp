// Grouping of the columns of a mixed connectivity by node count.
//
// The columns are ranked by (rows - node count, column) with a stable counting sort
// on the first member, then moved into place by swaps that follow where each input
// column currently sits.  All work storage is taken before the first column moves,
// so a failure leaves the matrices as they were.
#include <zq5/nodara/topology.h>

#include "arrays/memory.h"

#include <cstddef>
#include <new>

namespace zq5 {
namespace nodara {

namespace {

// Node count of a column: entries before its first NULL_INDEX.
std::size_t node_count(const unsigned* column, std::size_t rows) noexcept {
    std::size_t k = 0;
    while (k < rows && column[k] != NULL_INDEX) ++k;
    return k;
}

void swap_columns(dense2D<unsigned>& m, std::size_t p, std::size_t q) noexcept {
    unsigned* a = m.col(p);
    unsigned* b = m.col(q);
    for (std::size_t i = 0, r = m.rows(); i < r; ++i) {
        const unsigned t = a[i];
        a[i] = b[i];
        b[i] = t;
    }
}

int sort_elfes_impl(dense2D<unsigned>& connectM, dense2D<unsigned>* other, dense1D<unsigned>& group_nodes,
                    dense1D<unsigned>& group_ends, dense1D<unsigned>& new_positions) {
    const std::size_t C = connectM.cols();
    const std::size_t rows = connectM.rows();
    const bool with_other = other != nullptr && other->entries() > 0;
    if (with_other && other->cols() != C) return -1;

    group_nodes.resize(0);
    group_ends.resize(0);
    new_positions.resize(0);

    auto fail = [&]() {
        group_nodes.resize(0);
        group_ends.resize(0);
        new_positions.resize(0);
        return -199;
    };

    // Node counts, and the ranking by (rows - k, column) through a counting sort.
    zq5::detail::vec<unsigned> count(C);          // node count per input column
    zq5::detail::vec<std::size_t> first(rows + 2, 0);
    for (std::size_t e = 0; e < C; ++e) {
        const std::size_t k = rows ? node_count(connectM.col(e), rows) : 0;
        count[e] = static_cast<unsigned>(k);
        if (k) ++first[rows - k + 1];
    }
    for (std::size_t d = 1; d < first.size(); ++d) first[d] += first[d - 1];
    const std::size_t K = first[rows + 1];
    zq5::detail::vec<std::size_t> sorted(K);  // sorted position -> input column
    for (std::size_t e = 0; e < C; ++e)
        if (count[e]) sorted[first[rows - count[e]]++] = e;

    // Where each input column sits now, and which input column each position holds.
    zq5::detail::vec<std::size_t> where(C), holds(C);
    for (std::size_t e = 0; e < C; ++e) where[e] = holds[e] = e;

    // Outputs: a group per distinct node count at most (rows + 1 values suffice).
    if (!new_positions.reserve(C) || !group_nodes.reserve(rows + 1) || !group_ends.reserve(rows + 1)) return fail();

    // Nothing can fail from here on.
    for (std::size_t p = 0; p < K; ++p) {
        const std::size_t e = sorted[p];
        const std::size_t q = where[e];
        if (q == p) continue;
        swap_columns(connectM, p, q);
        if (with_other) swap_columns(*other, p, q);
        const std::size_t moved = holds[p];
        holds[p] = e;
        holds[q] = moved;
        where[e] = p;
        where[moved] = q;
    }

    new_positions.resize(C);
    for (std::size_t e = 0; e < C; ++e)
        new_positions[e] = where[e] < K ? static_cast<unsigned>(where[e]) : NULL_INDEX;

    if (K == 0) {
        group_nodes.push_back(0);
        group_ends.push_back(0);
    } else {
        for (std::size_t p = 1; p < K; ++p)
            if (count[holds[p]] != count[holds[p - 1]]) {
                group_nodes.push_back(count[holds[p - 1]]);
                group_ends.push_back(static_cast<unsigned>(p));
            }
        group_nodes.push_back(count[holds[K - 1]]);
        group_ends.push_back(static_cast<unsigned>(K));
    }

    connectM.resize(rows, K);
    if (with_other) {
        other->resize(other->rows(), K);
        for (std::size_t j = 0; j < K; ++j) {
            unsigned* c = other->col(j);
            for (std::size_t i = 0, r = other->rows(); i < r; ++i)
                if (c[i] < C) c[i] = new_positions[c[i]];
        }
    }
    return 0;
}

}  // namespace

int sort_elfes(dense2D<unsigned>& connectM, dense2D<unsigned>& other, dense1D<unsigned>& group_nodes,
               dense1D<unsigned>& group_ends, dense1D<unsigned>& new_positions) noexcept {
    try {
        return sort_elfes_impl(connectM, &other, group_nodes, group_ends, new_positions);
    } catch (const std::bad_alloc&) {
        group_nodes.resize(0);
        group_ends.resize(0);
        new_positions.resize(0);
        return -199;
    }
}

int sort_elfes(dense2D<unsigned>& connectM, dense1D<unsigned>& group_nodes, dense1D<unsigned>& group_ends,
               dense1D<unsigned>& new_positions) noexcept {
    try {
        return sort_elfes_impl(connectM, nullptr, group_nodes, group_ends, new_positions);
    } catch (const std::bad_alloc&) {
        group_nodes.resize(0);
        group_ends.resize(0);
        new_positions.resize(0);
        return -199;
    }
}

}  // namespace nodara
}  // namespace zq5
