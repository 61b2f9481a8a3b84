#include <zq5/nodara/core.h>

#include "arrays/memory.h"
#include "core/index_hash.h"

#include <algorithm>
#include <new>

namespace zq5 {
namespace nodara {

namespace {

using zq5::detail::vec;

// True when an entry v of [p, p + n) has v - lo < width (unsigned arithmetic), that
// is lo <= v < lo + width.  Scanned in blocks without early exit inside a block, so
// that the compiler can vectorise; the answer is the same as a plain scan.
bool any_in(const unsigned* p, std::size_t n, unsigned lo, unsigned width) noexcept {
    constexpr std::size_t block = 512;
    for (std::size_t i = 0; i < n; i += block) {
        const std::size_t end = std::min(n, i + block);
        unsigned hit = 0;
        for (std::size_t k = i; k < end; ++k) hit |= static_cast<unsigned>(p[k] - lo < width);
        if (hit) return true;
    }
    return false;
}

// Entries at or above nods (NULL_INDEX included, or not).
bool any_at_or_above(const unsigned* p, std::size_t n, unsigned nods, bool null_passes) noexcept {
    const unsigned width = null_passes ? NULL_INDEX - nods : 0u - nods;  // 0 - nods: up to 2^32 - 1
    if (nods == 0) return null_passes ? any_in(p, n, 0, NULL_INDEX) : n != 0;
    return any_in(p, n, nods, width);
}

// Every entry of the matrix view is below nods (or NULL_INDEX when null_passes);
// one run when ld = rows, else column by column.
bool all_below(const dense2D<unsigned>& m, unsigned nods, bool null_passes) noexcept {
    if (m.empty()) return true;
    if (m.ld() == m.rows()) return !any_at_or_above(m.data(), m.entries(), nods, null_passes);
    for (std::size_t j = 0; j < m.cols(); ++j)
        if (any_at_or_above(m.col(j), m.rows(), nods, null_passes)) return false;
    return true;
}

bool check_face_any(const dense2D<unsigned>& m, unsigned nods) noexcept {
    for (std::size_t j = 0; j < m.cols(); ++j) {
        const unsigned* c = m.col(j);
        if (c[0] >= nods || c[1] >= nods || c[2] >= nods) return false;
        if (c[3] >= nods && c[3] != NULL_INDEX) return false;
    }
    return true;
}

bool check_solid_any(const dense2D<unsigned>& m, unsigned nods) noexcept {
    for (std::size_t j = 0; j < m.cols(); ++j) {
        const unsigned* c = m.col(j);
        if (c[0] >= nods || c[1] >= nods || c[2] >= nods || c[3] >= nods) return false;
        std::size_t i = 4;
        while (i < 8 && c[i] != NULL_INDEX) {
            if (c[i] >= nods) return false;
            ++i;
        }
        if (i == 7) return false;  // NULL_INDEX only in row 7
        for (; i < 8; ++i)
            if (c[i] != NULL_INDEX) return false;
    }
    return true;
}

// Largest entry that is not NULL_INDEX over [p, p + n), starting from `start`.
unsigned max_of(const unsigned* p, std::size_t n, unsigned start) noexcept {
    unsigned m = start;
    for (std::size_t i = 0; i < n; ++i)
        if (p[i] != NULL_INDEX && p[i] > m) m = p[i];
    return m;
}

// Calls f(pointer, count) on the contiguous runs of the matrix view: the whole
// matrix at once when ld = rows, else column by column.
template <class F>
void for_each_run(const dense2D<unsigned>& a, F&& f) {
    if (a.empty()) return;
    if (a.ld() == a.rows()) {
        f(a.data(), a.entries());
        return;
    }
    for (std::size_t j = 0; j < a.cols(); ++j) f(a.col(j), a.rows());
}

unsigned max_over(const dense2D<unsigned>* first, const dense2D<unsigned>* last) noexcept {
    unsigned m = 0;
    for (const dense2D<unsigned>* a = first; a != last; ++a)
        for_each_run(*a, [&](const unsigned* p, std::size_t n) { m = max_of(p, n, m); });
    return m;
}

std::size_t entries_over(const dense2D<unsigned>* first, const dense2D<unsigned>* last) noexcept {
    std::size_t n = 0;
    for (const dense2D<unsigned>* a = first; a != last; ++a) n += a->entries();
    return n;
}

template <class X, class Y>
bool share_buffer(const X& a, const Y& b) noexcept {
    return a.buffer() && a.buffer().get() == b.buffer().get();
}

// The engine of unique_indices: appends to `out` the entries of the matrices of
// [first, last), column by column, that are not NULL_INDEX, not in `excluded` and
// not met before.  Returns 0, or -199 when the set of seen indices cannot grow
// (out is then back to its size on entry).  `complete` is cleared when an append
// could not grow `out` (that entry is skipped).  `out` may share its buffer with
// the inputs: the entries are then collected apart and appended at the end.
int unique_engine(dense1D<unsigned>& out, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                  const dense1D<unsigned>& excluded, bool& complete) noexcept {
    complete = true;
    for (const dense2D<unsigned>* a = first; a != last; ++a) {
        if (!share_buffer(*a, out)) continue;
        dense1D<unsigned> apart;
        const int status = unique_engine(apart, first, last, excluded, complete);
        if (status != 0) return status;
        out.reserve(out.size() + apart.size(), 1);
        for (unsigned v : apart)
            if (!out.push_back(v)) complete = false;
        return 0;
    }
    const std::size_t size_on_entry = out.size();
    try {
        const unsigned largest = std::max(max_over(first, last), max_of(excluded.data(), excluded.size(), 0));
        detail::index_set seen(largest, entries_over(first, last) + excluded.size());
        for (unsigned v : excluded)
            if (v != NULL_INDEX) seen.insert(v);
        for (const dense2D<unsigned>* a = first; a != last; ++a)
            for_each_run(*a, [&](const unsigned* p, std::size_t n) {
                for (std::size_t i = 0; i < n; ++i) {
                    const unsigned v = p[i];
                    if (v != NULL_INDEX && seen.insert(v) && !out.push_back(v)) complete = false;
                }
            });
        return 0;
    } catch (const std::bad_alloc&) {
        out.resize(size_on_entry);
        return -199;
    }
}

template <std::size_t N>
void widen(const double* x, vector_fixed<double, N>& min, vector_fixed<double, N>& max) noexcept {
    for (std::size_t k = 0; k < N; ++k) {
        if (!(x[k] >= min[k])) min[k] = x[k];
        if (x[k] > max[k]) max[k] = x[k];
    }
}

template <std::size_t N>
int box_all(const dense2D<double>& pos, vector_fixed<double, N>& min, vector_fixed<double, N>& max) noexcept {
    if (pos.rows() != N) return -1;
    for (std::size_t j = 0; j < pos.cols(); ++j) widen(pos.col(j), min, max);
    return 0;
}

template <std::size_t N>
int box_list(const dense2D<double>& pos, const dense1D<unsigned>& nodes, vector_fixed<double, N>& min,
             vector_fixed<double, N>& max) noexcept {
    if (nodes.empty()) return 0;
    if (pos.rows() != N) return -1;
    if (pos.cols() < NULL_INDEX) {
        for (unsigned v : nodes)
            if (v != NULL_INDEX && v >= pos.cols()) return -2;
    }
    for (unsigned v : nodes)
        if (v != NULL_INDEX) widen(pos.col(v), min, max);
    return 0;
}

template <std::size_t N>
int box_connect(const dense2D<double>& pos, const dense2D<unsigned>& connectM, vector_fixed<double, N>& min,
                vector_fixed<double, N>& max) noexcept {
    // Unlike unique_indices, a node that could not be appended is a failure here:
    // the box would silently miss it.
    dense1D<unsigned> nodes;
    bool complete = true;
    const int status = unique_engine(nodes, &connectM, &connectM + 1, dense1D<unsigned>(), complete);
    if (status < 0) return status;
    if (!complete) return -199;
    return box_list(pos, nodes, min, max);
}

template <class T>
int scatter(dense1D<T>& values, const dense1D<unsigned>& perm) noexcept {
    const std::size_t n = values.size();
    if (n == 0) return 0;
    dense1D<T> tmp;
    if (!tmp.copy(values)) return -199;
    const std::size_t m = std::min(n, perm.size());
    for (std::size_t i = 0; i < m; ++i) {
        const unsigned p = perm[i];
        if (p < n && p != i) tmp[p] = values[i];
    }
    std::copy(tmp.begin(), tmp.end(), values.begin());
    return 0;
}

// Rotates c[0..n) cyclically so that its first largest entry comes first.
void rotate_largest_first(unsigned* c, std::size_t n) noexcept {
    std::rotate(c, std::max_element(c, c + n), c + n);
}

}  // namespace

// ---------------------------------------------------------------------------

bool check_IDs(const dense1D<unsigned>& ids, unsigned nods) noexcept {
    if (ids.empty() || nods == NULL_INDEX) return true;
    return !any_at_or_above(ids.data(), ids.size(), nods, true);
}

bool check_IDs(const dense2D<unsigned>& connectM, unsigned nods) noexcept {
    if (connectM.empty() || nods == NULL_INDEX) return true;
    return all_below(connectM, nods, true);
}

bool check_IDs(const dense2D<unsigned>& connectM, element_type FE, unsigned nods) noexcept {
    if (connectM.empty()) return true;
    const std::size_t rows = connectM.rows();
    if (FE == EL_FACE_ANY) {
        if (rows == 3) FE = EL_TRIA3;
        else if (rows == 4) return check_face_any(connectM, nods);
        else return false;
    } else if (FE == EL_SOLID_ANY) {
        if (rows == 4) FE = EL_TETRA4;
        else if (rows == 5) FE = EL_PYRAMID5;
        else if (rows == 6) FE = EL_WEDGE6;
        else if (rows == 8) return check_solid_any(connectM, nods);
        else return false;
    }
    if (rows != nbr_nodes(FE)) return false;
    return all_below(connectM, nods, false);
}

unsigned max_ID(const dense1D<unsigned>& ids) noexcept {
    if (ids.empty()) return NULL_INDEX;
    return max_of(ids.data(), ids.size(), 0);
}

unsigned max_ID(const dense2D<unsigned>& connectM) noexcept {
    if (connectM.ld() == connectM.rows()) {
        if (connectM.empty()) return NULL_INDEX;
        return max_of(connectM.data(), connectM.entries(), 0);
    }
    unsigned m = 0;
    if (connectM.rows() == 0) return m;
    for (std::size_t j = 0; j < connectM.cols(); ++j) m = max_of(connectM.col(j), connectM.rows(), m);
    return m;
}

int shift_indices(dense1D<unsigned>& ids, int shift) noexcept {
    if (shift == 0) return 0;
    const unsigned s = static_cast<unsigned>(shift);
    for (unsigned& v : ids)
        if (v != NULL_INDEX) v += s;
    return 0;
}

int shift_indices(dense2D<unsigned>& connectM, int shift, element_type FE) noexcept {
    if (shift == 0 || connectM.empty()) return 0;
    const unsigned s = static_cast<unsigned>(shift);
    const bool skip_null = FE == EL_FACE_ANY || FE == EL_SOLID_ANY;
    for (std::size_t j = 0; j < connectM.cols(); ++j) {
        unsigned* c = connectM.col(j);
        for (std::size_t i = 0; i < connectM.rows(); ++i)
            if (!skip_null || c[i] != NULL_INDEX) c[i] += s;
    }
    return 0;
}

void change_indices(dense1D<unsigned>& ids, const dense1D<unsigned>& new_ids) noexcept {
    const std::size_t n = new_ids.size();
    if (n == 0) return;
    const unsigned* map = new_ids.data();
    for (unsigned& v : ids)
        if (v < n) v = map[v];
}

void change_indices(dense2D<unsigned>& connectM, const dense1D<unsigned>& new_ids) noexcept {
    const std::size_t n = new_ids.size();
    if (n == 0 || connectM.empty()) return;
    const unsigned* map = new_ids.data();
    for (std::size_t j = 0; j < connectM.cols(); ++j) {
        unsigned* c = connectM.col(j);
        for (std::size_t i = 0; i < connectM.rows(); ++i)
            if (c[i] < n) c[i] = map[c[i]];
    }
}

int permutation(dense1D<unsigned>& values, const dense1D<unsigned>& perm) noexcept { return scatter(values, perm); }
int permutation(dense1D<double>& values, const dense1D<unsigned>& perm) noexcept { return scatter(values, perm); }

namespace {

// get_sorted_order on outputs that share no storage with the input or each other.
int sorted_order(const dense1D<unsigned>& ids, dense1D<unsigned>& order, dense1D<unsigned>& first) noexcept {
    if (ids.empty()) {
        if (!first.push_back(0)) return -199;
        return 0;
    }
    const unsigned M = max_ID(ids);
    if (M == NULL_INDEX) return -1;
    const std::size_t nfirst = static_cast<std::size_t>(M) + 3;
    if (!order.resize(ids.size()) || !first.resize(nfirst, 0u)) {
        order.resize(0);
        first.resize(0);
        return -199;
    }
    const unsigned* in = ids.data();
    unsigned* f = first.data();
    const std::size_t n = ids.size();
    for (std::size_t i = 0; i < n; ++i)
        if (in[i] != NULL_INDEX) ++f[static_cast<std::size_t>(in[i]) + 2];
    for (std::size_t v = 3; v <= static_cast<std::size_t>(M) + 1; ++v) f[v] += f[v - 1];
    unsigned* o = order.data();
    for (std::size_t i = 0; i < n; ++i)
        if (in[i] != NULL_INDEX) o[f[static_cast<std::size_t>(in[i]) + 1]++] = static_cast<unsigned>(i);
    first.resize(nfirst - 1);
    order.resize(f[static_cast<std::size_t>(M) + 1]);
    return 0;
}

}  // namespace

int get_sorted_order(const dense1D<unsigned>& ids, dense1D<unsigned>& order, dense1D<unsigned>& first) noexcept {
    order.resize(0);
    first.resize(0);
    if (!share_buffer(ids, order) && !share_buffer(ids, first) && !share_buffer(order, first))
        return sorted_order(ids, order, first);
    // Shared storage: sort a private copy into private outputs, then copy back.
    dense1D<unsigned> input, o, f;
    if (!input.copy(ids)) return -199;
    const int status = sorted_order(input, o, f);
    if (status != 0) return status;
    if (!order.resize(o.size()) || !first.resize(f.size())) {
        order.resize(0);
        first.resize(0);
        return -199;
    }
    std::copy(o.begin(), o.end(), order.begin());
    std::copy(f.begin(), f.end(), first.begin());
    return 0;
}

int get_IDs(const dense1D<unsigned>& A, const dense1D<unsigned>& B, dense1D<unsigned>& posA,
            dense1D<unsigned>& posB) noexcept {
    posA.resize(0);
    posB.resize(0);
    if (!posA.resize(B.size(), NULL_INDEX) || !posB.resize(A.size(), NULL_INDEX)) return 0;
    if (A.empty() || B.empty()) return 0;
    try {
        const unsigned largest = std::max(max_ID(A), max_ID(B));
        const std::size_t slots = static_cast<std::size_t>(largest) + 1;
        if (slots <= 4 * (A.size() + B.size()) + 4096) {
            // Dense indices: a direct table from value to its first position in A
            // (at most 16 bytes per entry of A and B).
            vec<unsigned> where(static_cast<std::size_t>(largest) + 1, NULL_INDEX);
            for (std::size_t p = A.size(); p-- > 0;)
                if (A[p] != NULL_INDEX) where[A[p]] = static_cast<unsigned>(p);
            for (std::size_t j = B.size(); j-- > 0;) {
                const unsigned v = B[j];
                if (v == NULL_INDEX || v > largest) continue;
                const unsigned p = where[v];
                if (p == NULL_INDEX) continue;
                posA[j] = p;
                posB[p] = static_cast<unsigned>(j);
            }
            return 0;
        }
        detail::index_table first_pos;
        first_pos.reserve(A.size());
        for (std::size_t p = 0; p < A.size(); ++p)
            if (A[p] != NULL_INDEX && first_pos.find(A[p]) == NULL_INDEX)
                first_pos.insert(A[p], static_cast<unsigned>(p));
        for (std::size_t j = B.size(); j-- > 0;) {
            if (B[j] == NULL_INDEX) continue;
            const unsigned e = first_pos.find(B[j]);
            if (e == NULL_INDEX) continue;
            const unsigned p = first_pos.value(e);
            posA[j] = p;
            posB[p] = static_cast<unsigned>(j);
        }
    } catch (const std::bad_alloc&) {
        // A failure here is not reported; the matches found so far stay.
    }
    return 0;
}

int get_IDs(const dense2D<unsigned>& A, const dense2D<unsigned>& B, dense1D<unsigned>& posA,
            dense1D<unsigned>& posB, bool strict) noexcept {
    posA.resize(0);
    posB.resize(0);
    if (!posA.resize(B.cols(), NULL_INDEX) || !posB.resize(A.cols(), NULL_INDEX)) return -199;
    if (A.empty() || B.empty()) return 0;
    if (A.rows() != B.rows()) return -2;
    const std::size_t rows = A.rows();
    try {
        detail::index_table columns;
        columns.reserve(A.cols());
        for (std::size_t j = 0; j < A.cols(); ++j)
            columns.insert(detail::column_key(A.col(j), rows), static_cast<unsigned>(j));
        if (columns.size() < A.cols()) return -199;
        vec<unsigned> b(rows), a(rows);
        for (std::size_t c = B.cols(); c-- > 0;) {
            const unsigned* bc = B.col(c);
            std::copy(bc, bc + rows, b.begin());
            if (!strict) rotate_largest_first(b.data(), rows);
            unsigned answer = NULL_INDEX;
            for (unsigned e = columns.find(detail::column_key(bc, rows)); e != NULL_INDEX; e = columns.next(e)) {
                const unsigned j = columns.value(e);
                const unsigned* aj = A.col(j);
                std::copy(aj, aj + rows, a.begin());
                if (!strict && rows >= 2) rotate_largest_first(a.data(), rows);
                bool match = std::equal(a.begin(), a.end(), b.begin());
                if (!match && !strict && rows != 1) {
                    std::reverse(a.begin() + 1, a.end());
                    match = std::equal(a.begin(), a.end(), b.begin());
                }
                if (match) {
                    if (static_cast<unsigned>(c) < posB[j]) posB[j] = static_cast<unsigned>(c);
                    if (j < answer) answer = j;
                }
            }
            if (answer != NULL_INDEX) posA[c] = answer;
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

int unique_indices(dense1D<unsigned>& out, const dense1D<unsigned>& ids, dense1D<unsigned> excluded) noexcept {
    out.reserve(out.size() + ids.size(), 1);
    // The list as a one-row matrix over the same storage.
    const dense2D<unsigned> row(ids.buffer(), ids.offset(), 1, ids.size(), 1);
    bool complete = true;
    return unique_engine(out, &row, &row + 1, excluded, complete);
}

int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>& connectM, dense1D<unsigned> excluded) noexcept {
    return unique_indices(out, &connectM, &connectM + 1, excluded);
}

int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                   dense1D<unsigned> excluded) noexcept {
    if (first > last) return -3;
    if (first == last) return 0;
    bool complete = true;
    return unique_engine(out, first, last, excluded, complete);
}

int count_unique_indices(const dense2D<unsigned>& connectM) noexcept {
    return count_unique_indices(&connectM, &connectM + 1);
}

int count_unique_indices(const dense2D<unsigned>* first, const dense2D<unsigned>* last) noexcept {
    if (first > last) return -2;
    if (first == last) return 0;
    try {
        detail::index_set seen(max_over(first, last), entries_over(first, last));
        int count = 0;
        for (const dense2D<unsigned>* a = first; a != last; ++a)
            for_each_run(*a, [&](const unsigned* p, std::size_t n) {
                for (std::size_t i = 0; i < n; ++i)
                    if (p[i] != NULL_INDEX && seen.insert(p[i])) ++count;
            });
        return count;
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

int inc_bounding_box(const dense2D<double>& pos, vector_fixed<double, 2>& min, vector_fixed<double, 2>& max) noexcept {
    return box_all(pos, min, max);
}
int inc_bounding_box(const dense2D<double>& pos, vector_fixed<double, 3>& min, vector_fixed<double, 3>& max) noexcept {
    return box_all(pos, min, max);
}
int inc_bounding_box(const dense2D<double>& pos, const dense1D<unsigned>& nodes, vector_fixed<double, 2>& min,
                     vector_fixed<double, 2>& max) noexcept {
    return box_list(pos, nodes, min, max);
}
int inc_bounding_box(const dense2D<double>& pos, const dense1D<unsigned>& nodes, vector_fixed<double, 3>& min,
                     vector_fixed<double, 3>& max) noexcept {
    return box_list(pos, nodes, min, max);
}
int inc_bounding_box(const dense2D<double>& pos, const dense2D<unsigned>& connectM, vector_fixed<double, 2>& min,
                     vector_fixed<double, 2>& max) noexcept {
    return box_connect(pos, connectM, min, max);
}
int inc_bounding_box(const dense2D<double>& pos, const dense2D<unsigned>& connectM, vector_fixed<double, 3>& min,
                     vector_fixed<double, 3>& max) noexcept {
    return box_connect(pos, connectM, min, max);
}

}  // namespace nodara
}  // namespace zq5
