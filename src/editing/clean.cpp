// remove_degenerated, simplify, clip.
#include "editing/lists.h"

#include <zq5/nodara/editing.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace zq5 {
namespace nodara {
namespace {

using detail::vec;

// True when the column uses a node twice (a repeated NULL_INDEX counts only with
// null_repeats).  `scratch` has room for `rows` entries.
bool degenerate(const unsigned* c, std::size_t rows, bool null_repeats, unsigned* scratch) {
    std::memcpy(scratch, c, rows * sizeof(unsigned));
    std::sort(scratch, scratch + rows);
    for (std::size_t i = 1; i < rows; ++i)
        if (scratch[i] == scratch[i - 1] && (scratch[i] != NULL_INDEX || null_repeats)) return true;
    return false;
}

// Compacts connectM; writes the new position of each column to `map` when given.
int remove_core(dense2D<unsigned>& connectM, unsigned* map, bool null_repeats) {
    const std::size_t rows = connectM.rows(), cols = connectM.cols();
    if (rows == 0 && map)
        for (std::size_t j = 0; j < cols; ++j) map[j] = static_cast<unsigned>(j);
    if (rows * cols == 0) return 0;
    unsigned local[64];
    vec<unsigned> heap;
    unsigned* scratch = local;
    if (rows > 64) {
        try {
            heap.resize(rows);
        } catch (const std::bad_alloc&) {
            return -199;
        }
        scratch = heap.data();
    }
    std::size_t kept = 0;
    for (std::size_t j = 0; j < cols; ++j) {
        const unsigned* c = connectM.col(j);
        if (degenerate(c, rows, null_repeats, scratch)) {
            if (map) map[j] = NULL_INDEX;
            continue;
        }
        if (kept != j) std::memmove(connectM.col(kept), c, rows * sizeof(unsigned));
        if (map) map[j] = static_cast<unsigned>(kept);
        ++kept;
    }
    connectM.resize(rows, kept);  // same row count: never allocates
    return static_cast<int>(cols - kept);
}

}  // namespace

int remove_degenerated(dense2D<unsigned>& connectM, bool null_repeats) noexcept {
    return remove_core(connectM, nullptr, null_repeats);
}

int remove_degenerated(dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids, bool null_repeats) noexcept {
    new_ids.resize(0);
    if (!new_ids.resize(connectM.cols(), NULL_INDEX)) return -199;
    if (connectM.rows() > 64) {
        // The scratch column is allocated inside; keep new_ids consistent on failure.
        const int r = remove_core(connectM, new_ids.data(), null_repeats);
        if (r == -199) new_ids.resize(0);
        return r;
    }
    return remove_core(connectM, new_ids.data(), null_repeats);
}

// ---------------------------------------------------------------------------

int simplify(dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
             dense1D<unsigned>& new_ids, unsigned n_hard) noexcept {
    new_ids.resize(0);
    if (first > last) return -3;
    if (first == last) return 0;
    const std::size_t cols = pos.cols();
    for (const dense2D<unsigned>* m = first; m < last; ++m)
        if (!check_IDs(*m, static_cast<unsigned>(cols))) return -2;
    if (pos.empty() || n_hard >= cols) return 0;
    vec<std::uint64_t> used;
    try {
        used.assign((cols + 63) / 64, 0);
    } catch (const std::bad_alloc&) {
        return -199;
    }
    if (!new_ids.resize(cols)) return -199;
    for (const dense2D<unsigned>* m = first; m < last; ++m)
        for (std::size_t j = 0; j < m->cols(); ++j) {
            const unsigned* c = m->col(j);
            for (std::size_t i = 0; i < m->rows(); ++i)
                if (c[i] != NULL_INDEX) used[c[i] >> 6] |= std::uint64_t(1) << (c[i] & 63);
        }
    const std::size_t rows = pos.rows();
    for (std::size_t i = 0; i < n_hard; ++i) new_ids[i] = static_cast<unsigned>(i);
    std::size_t k = n_hard;
    for (std::size_t i = n_hard; i < cols; ++i) {
        if (!((used[i >> 6] >> (i & 63)) & 1u)) {
            new_ids[i] = NULL_INDEX;
            continue;
        }
        if (i > k) {
            const double* src = pos.col(i);
            double* dst = pos.col(k);
            for (std::size_t r = 0; r < rows; ++r) dst[r] = src[r];
        }
        new_ids[i] = static_cast<unsigned>(k);
        ++k;
    }
    pos.resize(rows, k);  // same row count: never allocates
    if (k < cols)
        for (const dense2D<unsigned>* m = first; m < last; ++m) {
            dense2D<unsigned> view(*m);  // shares the caller's storage
            change_indices(view, new_ids);
        }
    return static_cast<int>(cols - k);
}

int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids,
             unsigned n_hard) noexcept {
    return simplify(pos, &connectM, &connectM + 1, new_ids, n_hard);
}

int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM, unsigned n_hard) noexcept {
    dense1D<unsigned> new_ids;
    return simplify(pos, &connectM, &connectM + 1, new_ids, n_hard);
}

int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2,
             unsigned n_hard) noexcept {
    const dense2D<unsigned> both[2] = {connectM1, connectM2};  // views of the caller's storage
    dense1D<unsigned> new_ids;
    return simplify(pos, both, both + 2, new_ids, n_hard);
}

// ---------------------------------------------------------------------------

int clip(const dense2D<double>& pos, const dense2D<unsigned>& connectM, const vector_fixed<double, 3>& P,
         const vector_fixed<double, 3>& normal, dense2D<unsigned>& connectM_out) noexcept {
    if (connectM.empty()) return 0;
    if (!check_IDs(connectM, static_cast<unsigned>(pos.cols()))) return -2;
    const double nn = std::sqrt(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2]);
    if (nn < 1e-12) return -4;
    const std::size_t rows = connectM.rows();
    if (!connectM_out.empty() && connectM_out.rows() != rows) return -5;
    const std::size_t dim = pos.rows() < 3 ? pos.rows() : 3;
    auto positive = [&](unsigned v) {
        const double* x = pos.col(v);
        double s = 0.0;
        for (std::size_t k = 0; k < dim; ++k) s += (x[k] - P[k]) * normal[k];
        return s > 0.0;
    };
    try {
        vec<unsigned> kept;
        for (std::size_t j = 0; j < connectM.cols(); ++j) {
            const unsigned* c = connectM.col(j);
            bool keep = true;
            for (std::size_t i = 0; i < rows && c[i] != NULL_INDEX; ++i)
                if (!positive(c[i])) {
                    keep = false;
                    break;
                }
            if (keep) kept.push_back(static_cast<unsigned>(j));
        }
        if (kept.empty()) return 0;
        const std::size_t old = connectM_out.empty() ? 0 : connectM_out.cols();
        if (connectM_out.empty()) {
            dense2D<unsigned> fresh;
            if (!fresh.resize(rows, kept.size())) return -199;
            connectM_out = fresh;
        } else if (!connectM_out.resize(rows, old + kept.size())) {
            return -199;
        }
        for (std::size_t t = 0; t < kept.size(); ++t)
            std::memcpy(connectM_out.col(old + t), connectM.col(kept[t]), rows * sizeof(unsigned));
        return 0;
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

}  // namespace nodara
}  // namespace zq5
