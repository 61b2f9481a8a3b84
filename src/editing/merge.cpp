// merge: the node-list engine, its connectivity and snapping forms, and the
// collapse of short element edges (modes 1 and 2).
//
// The engine's passes only need, for each node v of L1, the target candidates u
// (u != v, rank[u] < rank[v], squared distance <= tol^2) in the order in which
// the k-d tree's box walk meets them.  Those lists do not change from pass to
// pass (only the survivor status of the candidates does), so they are gathered
// once:
//   - with tol = 0 only coincident nodes interact, and the box walk meets
//     coincident nodes in the order they were inserted (each later one lies on
//     the upper side of every earlier one).  Grouping the targets by exact
//     coordinates then gives every answer without any tree: the winner for v is
//     the surviving lower-ranked member of v's group inserted last.  A NaN
//     coordinate in the tree can hide nodes from the walk, so such input takes
//     the tree route;
//   - otherwise the tree is built (in bulk, equal to the one-by-one insertion)
//     and walked once per node; passes then scan the stored lists.
#include "editing/kd_tree.h"
#include "editing/lists.h"

#include <zq5/nodara/editing.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <new>

namespace zq5 {
namespace nodara {
namespace {

using detail::kd_tree;
using detail::vec;

struct record {
    double d2;
    unsigned v;
    unsigned best;
};

inline double coord(const dense2D<double>& pos, unsigned v, unsigned k) { return pos.col(v)[k]; }

template <unsigned N>
inline double dist2(const double* a, const double* b) {
    double d2 = 0.0;
    for (unsigned k = 0; k < N; ++k) {
        const double d = a[k] - b[k];
        d2 += d * d;
    }
    return d2;
}

// ---------------------------------------------------------------------------
// Candidate providers.  best(i, ids, best, d2) answers for the i-th node of L1.

// tol = 0, no NaN among the targets: groups of coincident targets.
template <unsigned N>
class coincident_groups {
public:
    coincident_groups(const dense2D<double>& pos, const vec<unsigned>& L1, const vec<unsigned>& L2, bool same,
                      const vec<unsigned>& rank, const vec<unsigned>& ins_of_rank)
        : L2_(L2), ins_(ins_of_rank) {
        const std::size_t n2 = L2.size();
        // Open-addressing table: coordinates -> group.
        std::size_t cap = 16;
        while (cap < 2 * n2) cap *= 2;
        vec<unsigned> table(cap, NULL_INDEX);  // holds a representative rank
        vec<unsigned> group_of_rank(n2, NULL_INDEX);
        vec<unsigned> group_rep;               // representative rank per group
        vec<unsigned> group_size;
        const std::size_t mask = cap - 1;
        auto key_of = [&pos](unsigned v, double* k) {
            const double* c = pos.col(v);
            bool finite = true;
            for (unsigned d = 0; d < N; ++d) {
                k[d] = c[d] + 0.0;  // -0.0 becomes +0.0
                if (!std::isfinite(k[d])) finite = false;
            }
            return finite;
        };
        auto hash_of = [](const double* k) {
            std::uint64_t h = 0x9E3779B97F4A7C15ull;
            for (unsigned d = 0; d < N; ++d) {
                std::uint64_t b;
                std::memcpy(&b, &k[d], sizeof b);
                h ^= b + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
                h *= 0xFF51AFD7ED558CCDull;
                h ^= h >> 33;
            }
            return static_cast<std::size_t>(h);
        };
        auto find = [&](const double* k, bool insert, unsigned r) -> unsigned {
            std::size_t s = hash_of(k) & mask;
            for (;;) {
                const unsigned rep = table[s];
                if (rep == NULL_INDEX) {
                    if (!insert) return NULL_INDEX;
                    table[s] = r;
                    group_of_rank[r] = static_cast<unsigned>(group_rep.size());
                    group_rep.push_back(r);
                    group_size.push_back(0);
                    return group_of_rank[r];
                }
                const double* c = pos.col(L2[rep]);
                bool eq = true;
                for (unsigned d = 0; d < N; ++d)
                    if (!(c[d] == k[d])) {
                        eq = false;
                        break;
                    }
                if (eq) return group_of_rank[rep];
                s = (s + 1) & mask;
            }
        };
        double k[N];
        for (std::size_t r = 0; r < n2; ++r) {
            if (!key_of(L2[r], k)) continue;
            const unsigned g = find(k, true, static_cast<unsigned>(r));
            group_of_rank[r] = g;
            ++group_size[g];
        }
        const std::size_t G = group_rep.size();
        start_.assign(G + 1, 0);
        for (std::size_t g = 0; g < G; ++g) start_[g + 1] = start_[g] + group_size[g];
        members_.resize(start_[G]);
        vec<unsigned> index_in_group(n2, NULL_INDEX);
        for (std::size_t g = 0; g < G; ++g) group_size[g] = 0;
        for (std::size_t r = 0; r < n2; ++r) {
            const unsigned g = group_of_rank[r];
            if (g == NULL_INDEX) continue;
            index_in_group[r] = group_size[g];
            members_[start_[g] + group_size[g]++] = static_cast<unsigned>(r);
        }
        // Where each node of L1 reads its answer: the prefix of its group before it
        // (all of the group when it is not a target).
        slot_.assign(L1.size(), NULL_INDEX);
        for (std::size_t i = 0; i < L1.size(); ++i) {
            const unsigned v = L1[i];
            const unsigned r = same ? static_cast<unsigned>(i) : rank[v];
            unsigned g, idx;
            if (r != NULL_INDEX) {
                g = group_of_rank[r];
                if (g == NULL_INDEX) continue;
                idx = index_in_group[r];
            } else {
                if (!key_of(v, k)) continue;
                g = find(k, false, 0);
                if (g == NULL_INDEX) continue;
                idx = group_size[g];
            }
            slot_[i] = static_cast<unsigned>(start_[g] + g + idx);
        }
        prefix_.resize(members_.size() + G);
    }

    void begin_pass(const unsigned* ids) {
        const std::size_t G = start_.size() - 1;
        for (std::size_t g = 0; g < G; ++g) {
            const std::size_t b = start_[g], e = start_[g + 1];
            unsigned best = NULL_INDEX, best_ins = 0;
            unsigned* out = prefix_.data() + b + g;
            for (std::size_t t = b; t < e; ++t) {
                out[t - b] = best;
                const unsigned r = members_[t];
                const unsigned u = L2_[r];
                if (ids[u] == u && (best == NULL_INDEX || ins_[r] > best_ins)) {
                    best = u;
                    best_ins = ins_[r];
                }
            }
            out[e - b] = best;
        }
    }

    bool best(std::size_t i, unsigned v, const unsigned* ids, unsigned& best, double& d2) const {
        (void)v;
        const unsigned s = slot_[i];
        if (s == NULL_INDEX) return false;
        const unsigned u = prefix_[s];
        if (u == NULL_INDEX) return false;
        best = u;
        d2 = 0.0;
        (void)ids;
        return true;
    }

private:
    const vec<unsigned>& L2_;
    const vec<unsigned>& ins_;
    vec<std::size_t> start_;
    vec<unsigned> members_;
    vec<unsigned> slot_;
    vec<unsigned> prefix_;
};

// Any tolerance: the candidate lists gathered from one box walk per node.
template <unsigned N>
class walked_lists {
public:
    walked_lists(const dense2D<double>& pos, const vec<unsigned>& L1, const vec<unsigned>& rank,
                 vec<unsigned>& insertion, double tol)
        : tree_(&pos), tol2_(tol * tol) {
        tree_.build_ordered(insertion);
        start_.reserve(L1.size() + 1);
        start_.push_back(0);
        for (std::size_t i = 0; i < L1.size(); ++i) {
            const unsigned v = L1[i];
            double x[N], lo[N], hi[N];
            for (unsigned k = 0; k < N; ++k) {
                x[k] = coord(pos, v, k);
                lo[k] = x[k] - tol;
                hi[k] = x[k] + tol;
            }
            const unsigned rv = rank[v];
            tree_.box(lo, hi, [&](unsigned u, unsigned slot) {
                if (u == v || !(rank[u] < rv)) return;
                const double d2 = dist2<N>(x, tree_.slots()[slot].x);
                if (!(d2 <= tol2_)) return;
                cand_.push_back(u);
                d2_.push_back(d2);
            });
            start_.push_back(cand_.size());
        }
    }

    void begin_pass(const unsigned*) {}

    bool best(std::size_t i, unsigned v, const unsigned* ids, unsigned& best, double& bd) const {
        bool found = false;
        best = ids[v];
        bd = tol2_;
        for (std::size_t t = start_[i]; t < start_[i + 1]; ++t) {
            const unsigned u = cand_[t];
            if (ids[u] == u && d2_[t] <= bd) {
                best = u;
                bd = d2_[t];
                found = true;
            }
        }
        return found;
    }

private:
    kd_tree<N> tree_;
    double tol2_;
    vec<std::size_t> start_;
    vec<unsigned> cand_;
    vec<double> d2_;
};

// Follows every node of L1 to its final survivor; returns how many of them are
// mapped elsewhere.
std::size_t compress(const vec<unsigned>& L1, unsigned* ids) {
    std::size_t mapped = 0;
    for (unsigned v : L1) {
        unsigned f = v;
        while (ids[f] != f) f = ids[f];
        unsigned w = v;
        while (ids[w] != f && w != f) {
            const unsigned next = ids[w];
            ids[w] = f;
            w = next;
        }
        if (ids[v] != v) ++mapped;
    }
    return mapped;
}

template <class Provider>
long long run_passes(Provider& provider, const vec<unsigned>& L1, unsigned* ids) {
    long long result = 0;
    vec<record> records;
    for (;;) {
        provider.begin_pass(ids);
        records.clear();
        for (std::size_t i = 0; i < L1.size(); ++i) {
            const unsigned v = L1[i];
            unsigned best;
            double d2;
            if (!provider.best(i, v, ids, best, d2)) continue;
            if (best != ids[v]) records.push_back(record{d2, v, best});
        }
        std::sort(records.begin(), records.end(), [](const record& a, const record& b) {
            if (a.d2 != b.d2) return a.d2 < b.d2;
            if (a.v != b.v) return a.v < b.v;
            return a.best < b.best;
        });
        std::size_t applied = 0;
        for (const record& r : records)
            if (ids[r.best] == r.best) {
                ids[r.v] = r.best;
                ++applied;
            }
        if (applied == 0) break;
        if (applied == 1) {
            result += 1;
            continue;
        }
        result += static_cast<long long>(compress(L1, ids));
    }
    return result;
}

bool has_nan(const dense2D<double>& pos, const vec<unsigned>& nodes) {
    const std::size_t rows = pos.rows();
    for (unsigned v : nodes) {
        const double* c = pos.col(v);
        for (std::size_t k = 0; k < rows; ++k)
            if (std::isnan(c[k])) return true;
    }
    return false;
}

template <unsigned N>
long long engine_n(const dense2D<double>& pos, const vec<unsigned>& L1, const vec<unsigned>& L2, bool same,
                   unsigned* ids, double tol) {
    const std::size_t n2 = L2.size();
    vec<unsigned> rank(pos.cols(), NULL_INDEX);
    for (std::size_t r = 0; r < n2; ++r) rank[L2[r]] = static_cast<unsigned>(r);
    vec<unsigned> order(n2);
    for (std::size_t p = 0; p < n2; ++p) order[p] = static_cast<unsigned>(p);
    detail::seeded_shuffle(order.data(), n2);
    if (tol == 0.0 && !has_nan(pos, L2)) {
        vec<unsigned> ins_of_rank(n2);
        for (std::size_t p = 0; p < n2; ++p) ins_of_rank[order[p]] = static_cast<unsigned>(p);
        order = vec<unsigned>();
        coincident_groups<N> provider(pos, L1, L2, same, rank, ins_of_rank);
        return run_passes(provider, L1, ids);
    }
    for (std::size_t p = 0; p < n2; ++p) order[p] = L2[order[p]];
    walked_lists<N> provider(pos, L1, rank, order, tol);
    order = vec<unsigned>();
    return run_passes(provider, L1, ids);
}

int clamp_result(long long r) { return r > INT_MAX ? INT_MAX : static_cast<int>(r); }

// The node-list engine after its checks: L1, L2 distinct valid nodes.  new_ids is
// overwritten with the identity, then merged.  Returns the merge count or -199.
int engine(const dense2D<double>& pos, const vec<unsigned>& L1, const vec<unsigned>& L2, bool same,
           dense1D<unsigned>& new_ids, double tol) {
    if (L1.empty() || L2.empty()) return 0;
    const std::size_t cols = pos.cols();
    if (!new_ids.resize(cols)) return -199;
    unsigned* ids = new_ids.data();
    for (std::size_t i = 0; i < cols; ++i) ids[i] = static_cast<unsigned>(i);
    try {
        const long long r = pos.rows() == 2 ? engine_n<2>(pos, L1, L2, same, ids, tol)
                                            : engine_n<3>(pos, L1, L2, same, ids, tol);
        return clamp_result(r);
    } catch (const std::bad_alloc&) {
        new_ids.resize(0);
        return -199;
    }
}

bool bad_rows(const dense2D<double>& pos) { return pos.rows() != 2 && pos.rows() != 3; }

// ---------------------------------------------------------------------------
// Modes 1 and 2.

struct edge_record {
    double d2;
    unsigned a;
    unsigned b;
};

void renumber(const dense2D<unsigned>* first, const dense2D<unsigned>* last, const dense1D<unsigned>& new_ids) {
    for (const dense2D<unsigned>* m = first; m < last; ++m) {
        dense2D<unsigned> view(*m);  // shares the caller's storage
        change_indices(view, new_ids);
    }
}

template <unsigned N>
long long collapse_n(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                     vec<unsigned>& list, dense1D<unsigned>& new_ids, double tol, unsigned mode) {
    unsigned* ids = new_ids.data();
    const std::size_t cols = pos.cols();
    kd_tree<N> tree(&pos);
    {
        vec<unsigned> order(list.size());
        for (std::size_t p = 0; p < order.size(); ++p) order[p] = static_cast<unsigned>(p);
        detail::seeded_shuffle(order.data(), order.size());
        for (std::size_t p = 0; p < order.size(); ++p) order[p] = list[order[p]];
        tree.build_ordered(order);
    }
    const double tol2 = tol * tol;
    long long result = 0;
    vec<edge_record> records;
    vec<unsigned> work(cols);
    for (;;) {
        records.clear();
        for (const dense2D<unsigned>* m = first; m < last; ++m) {
            const std::size_t rows = m->rows();
            for (std::size_t j = 0; j < m->cols(); ++j) {
                const unsigned* c = m->col(j);
                for (std::size_t e = 0; e < rows; ++e) {
                    const unsigned a = c[e];
                    if (a == NULL_INDEX || a >= cols) continue;
                    double x[N], lo[N], hi[N];
                    for (unsigned k = 0; k < N; ++k) {
                        x[k] = coord(pos, a, k);
                        lo[k] = x[k] - tol;
                        hi[k] = x[k] + tol;
                    }
                    tree.box(lo, hi, [&](unsigned b, unsigned slot) {
                        if (b == a) return;
                        bool in_column = false;
                        for (std::size_t t = 0; t < rows; ++t)
                            if (c[t] == b) {
                                in_column = true;
                                break;
                            }
                        if (!in_column) return;
                        const double d2 = dist2<N>(x, tree.slots()[slot].x);
                        if (d2 <= tol2) records.push_back(edge_record{d2, a, b});
                    });
                }
            }
        }
        std::stable_sort(records.begin(), records.end(), [](const edge_record& p, const edge_record& q) {
            if (p.d2 != q.d2) return p.d2 < q.d2;
            return p.a < q.a;
        });
        for (std::size_t i = 0; i < cols; ++i) work[i] = static_cast<unsigned>(i);
        std::size_t count = 0;
        for (const edge_record& r : records)
            if (work[r.a] == r.a && work[r.b] == r.b) {
                ids[r.b] = r.a;
                work[r.b] = r.a;
                ++count;
            }
        if (count == 0) break;
        compress(list, ids);
        renumber(first, last, new_ids);
        result += static_cast<long long>(count);
        if (mode == 1) break;
    }
    return result;
}

// Forms 3 and 4 after new_ids was cleared: the range form's checks and work.
int merge_range(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                dense1D<unsigned>& new_ids, double tol, unsigned mode) {
    new_ids.resize(0);
    if (pos.cols() == 0 || first == last) return 0;
    if (bad_rows(pos)) return -1;
    if (last < first) return -3;
    if (!(tol >= 0.0)) return -5;
    if (mode > 2) return -6;
    try {
        const std::size_t cols = pos.cols();
        if (!new_ids.resize(cols)) return -199;
        for (std::size_t i = 0; i < cols; ++i) new_ids[i] = static_cast<unsigned>(i);
        vec<unsigned> list;
        detail::unique_nodes(first, last, static_cast<unsigned>(cols), list);
        if (mode == 0) {
            new_ids.resize(0);
            const int r = engine(pos, list, list, true, new_ids, tol);
            if (r > 0) renumber(first, last, new_ids);
            return r;
        }
        if (list.empty()) return 0;
        const long long r = pos.rows() == 2 ? collapse_n<2>(pos, first, last, list, new_ids, tol, mode)
                                            : collapse_n<3>(pos, first, last, list, new_ids, tol, mode);
        return clamp_result(r);
    } catch (const std::bad_alloc&) {
        new_ids.resize(0);
        return -199;
    }
}

int raise_codes(int r) { return (r <= -3 && r != -199) ? r + 1 : r; }

}  // namespace

// ---------------------------------------------------------------------------

int merge(const dense2D<double>& pos, const dense1D<unsigned>& nodes1, const dense1D<unsigned>& nodes2,
          dense1D<unsigned>& new_ids, double tol) noexcept {
    new_ids.resize(0);
    if (pos.cols() == 0) return 0;
    if (bad_rows(pos)) return -1;
    const unsigned cols = static_cast<unsigned>(pos.cols());
    if (!check_IDs(nodes1, cols)) return -2;
    if (!check_IDs(nodes2, cols)) return -3;
    if (!(tol >= 0.0)) return -4;
    try {
        vec<unsigned> L1, L2;
        detail::unique_nodes(nodes1, cols, L1);
        const bool same = nodes1 == nodes2;
        if (!same) detail::unique_nodes(nodes2, cols, L2);
        return engine(pos, L1, same ? L1 : L2, same, new_ids, tol);
    } catch (const std::bad_alloc&) {
        new_ids.resize(0);
        return -199;
    }
}

int merge(const dense2D<double>& pos, const dense1D<unsigned>& nodes, dense1D<unsigned>& new_ids,
          double tol) noexcept {
    const int r = merge(pos, nodes, nodes, new_ids, tol);
    return r == -4 ? -3 : r;
}

int merge(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
          dense1D<unsigned>& new_ids, double tol, unsigned mode) noexcept {
    return merge_range(pos, first, last, new_ids, tol, mode);
}

int merge(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last, double tol,
          unsigned mode) noexcept {
    dense1D<unsigned> new_ids;
    return merge_range(pos, first, last, new_ids, tol, mode);
}

int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids, double tol,
          unsigned mode) noexcept {
    return raise_codes(merge_range(pos, &connectM, &connectM + 1, new_ids, tol, mode));
}

int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM, double tol, unsigned mode) noexcept {
    dense1D<unsigned> new_ids;
    return raise_codes(merge_range(pos, &connectM, &connectM + 1, new_ids, tol, mode));
}

int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2,
          dense1D<unsigned>& new_ids, double tol, unsigned mode) noexcept {
    const dense2D<unsigned> both[2] = {connectM1, connectM2};  // views of the caller's storage
    return raise_codes(merge_range(pos, both, both + 2, new_ids, tol, mode));
}

int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2, double tol,
          unsigned mode) noexcept {
    dense1D<unsigned> new_ids;
    return merge(pos, connectM1, connectM2, new_ids, tol, mode);
}

int merge(dense2D<double>& pos, dense1D<unsigned>& new_ids, double tol) noexcept {
    new_ids.resize(0);
    if (pos.cols() == 0) return 0;
    if (bad_rows(pos)) return -1;
    if (!(tol >= 0.0)) return -3;
    int r;
    try {
        vec<unsigned> all(pos.cols());
        for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<unsigned>(i);
        r = engine(pos, all, all, true, new_ids, tol);
    } catch (const std::bad_alloc&) {
        new_ids.resize(0);
        return -199;
    }
    if (r <= 0) return r;
    const std::size_t rows = pos.rows();
    for (std::size_t i = 0; i < new_ids.size(); ++i) {
        const unsigned t = new_ids[i];
        if (t == i) continue;
        const double* src = pos.col(t);
        double* dst = pos.col(i);
        for (std::size_t k = 0; k < rows; ++k) dst[k] = src[k];
    }
    return r;
}

int merge(dense2D<double>& pos, double tol) noexcept {
    dense1D<unsigned> new_ids;
    return merge(pos, new_ids, tol);
}

}  // namespace nodara
}  // namespace zq5
