// Test oracle: a straightforward transcription of the documented k-d tree and
// merge passes (one slot per insertion, recursion as described, a box query per
// node per pass).  The library's faster versions must give exactly the same
// answers: same node, same tie order, same new_ids, same merge count.
#ifndef NODARA_TESTS_EDITING_REFERENCE_H
#define NODARA_TESTS_EDITING_REFERENCE_H

#include <zq5/nodara.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

namespace nodara_ref {

using zq5::dense1D;
using zq5::dense2D;
constexpr unsigned NIL = zq5::NULL_INDEX;

template <unsigned N>
struct tree {
    const dense2D<double>* pos = nullptr;
    std::vector<std::array<unsigned, 3>> slots;  // node, lower, upper
    std::vector<std::size_t> free_stack;
    std::vector<bool> marks;

    explicit tree(const dense2D<double>& p) : pos(&p) {}

    double x(unsigned v, unsigned k) const { return k < pos->rows() ? (*pos)(k, v) : 0.0; }

    unsigned insert(std::vector<unsigned> s) {
        std::mt19937 gen(1);
        for (std::size_t i = 1; i < s.size(); ++i) {
            const std::uint64_t r = gen();
            const std::size_t j = static_cast<std::size_t>(r % (i + 1));
            if (j != i) std::swap(s[i], s[j]);
        }
        unsigned added = 0;
        for (unsigned v : s) {
            if (v >= pos->cols()) continue;
            std::size_t ns = SIZE_MAX;
            while (!free_stack.empty()) {
                const std::size_t f = free_stack.back();
                free_stack.pop_back();
                if (f < slots.size()) {
                    marks[f] = false;
                    ns = f;
                    break;
                }
            }
            if (ns == SIZE_MAX) {
                slots.push_back({NIL, NIL, NIL});
                marks.push_back(false);
                ns = slots.size() - 1;
            }
            slots[ns] = {v, NIL, NIL};
            if (ns == 0) {
                ++added;
                continue;
            }
            std::size_t k = 0;
            unsigned a = 0;
            bool present = false;
            for (;;) {
                const unsigned u = slots[k][0];
                if (u == v) {
                    present = true;
                    break;
                }
                const int side = x(v, a) >= x(u, a) ? 2 : 1;
                a = (a + 1) % N;
                if (slots[k][side] == NIL) {
                    slots[k][side] = static_cast<unsigned>(ns);
                    break;
                }
                k = slots[k][side];
            }
            if (present) {
                if (!marks[ns]) {
                    free_stack.push_back(ns);
                    marks[ns] = true;
                }
            } else {
                ++added;
            }
        }
        return added;
    }

    // find_closest
    mutable unsigned best_ = NIL;
    mutable double bestd2_ = DBL_MAX;
    mutable double r_ = 0.0;
    mutable bool has_r_ = false;

    double d2(const double* P, unsigned u) const {
        double s = 0.0;
        for (unsigned k = 0; k < N; ++k) {
            const double d = P[k] - x(u, k);
            s += d * d;
        }
        return s;
    }

    void search(std::size_t s, unsigned a, const double* P, unsigned exclude) const {
        for (;;) {
            if (r_ == 0.0 && best_ != NIL) return;
            const unsigned u = slots[s][0];
            const double delta = x(u, a) - P[a];
            bool test = true;
            if (has_r_)
                for (unsigned k = 0; k < N; ++k)
                    if (!(P[k] - r_ <= x(u, k) && x(u, k) <= P[k] + r_)) test = false;
            if (test && u != exclude) {
                const double d = d2(P, u);
                if (d < bestd2_) {
                    best_ = u;
                    bestd2_ = d;
                    r_ = std::sqrt(d);
                    has_r_ = true;
                }
            }
            const unsigned na = (a + 1) % N;
            if (slots[s][2] != NIL && (!has_r_ || delta <= r_)) search(slots[s][2], na, P, exclude);
            if (slots[s][1] != NIL && (!has_r_ || -delta <= r_)) {
                s = slots[s][1];
                a = na;
            } else {
                return;
            }
        }
    }

    unsigned closest(const double* P, unsigned exclude = NIL) const {
        if (slots.empty()) return NIL;
        best_ = NIL;
        bestd2_ = DBL_MAX;
        std::size_t s = 0;
        unsigned a = 0;
        while (s != NIL) {
            const unsigned u = slots[s][0];
            const double d = d2(P, u);
            if (u != exclude && d < bestd2_) {
                best_ = u;
                bestd2_ = d;
                if (d == 0.0) break;
            }
            s = P[a] >= x(u, a) ? slots[s][2] : slots[s][1];
            a = (a + 1) % N;
        }
        has_r_ = best_ != NIL;
        r_ = has_r_ ? std::sqrt(bestd2_) : 0.0;
        search(0, 0, P, exclude);
        return best_;
    }

    void box_walk(std::size_t s, unsigned a, const double* lo, const double* hi, std::vector<unsigned>& out) const {
        while (s != NIL) {
            const unsigned u = slots[s][0];
            const double xa = x(u, a);
            if (lo[a] <= xa && xa <= hi[a]) {
                bool in = true;
                for (unsigned k = 0; k < N; ++k)
                    if (!(lo[k] <= x(u, k) && x(u, k) <= hi[k])) in = false;
                if (in) out.push_back(u);
            }
            const unsigned na = (a + 1) % N;
            if ((xa >= lo[a] || xa > hi[a]) && slots[s][1] != NIL) box_walk(slots[s][1], na, lo, hi, out);
            if (xa > hi[a]) return;
            s = slots[s][2];
            a = na;
        }
    }

    std::vector<unsigned> box(const double* lo, const double* hi) const {
        std::vector<unsigned> out;
        if (!slots.empty()) box_walk(0, 0, lo, hi, out);
        return out;
    }
};

inline std::vector<unsigned> unique_list(const std::vector<unsigned>& ids) {
    std::vector<unsigned> out;
    std::set<unsigned> seen;
    for (unsigned v : ids)
        if (v != NIL && seen.insert(v).second) out.push_back(v);
    return out;
}

inline std::vector<unsigned> unique_list(const std::vector<const dense2D<unsigned>*>& ms) {
    std::vector<unsigned> all;
    for (const dense2D<unsigned>* m : ms)
        for (std::size_t j = 0; j < m->cols(); ++j)
            for (std::size_t i = 0; i < m->rows(); ++i) all.push_back((*m)(i, j));
    return unique_list(all);
}

struct merge_result {
    int count = 0;
    std::vector<unsigned> new_ids;
};

template <unsigned N>
merge_result engine_n(const dense2D<double>& pos, const std::vector<unsigned>& L1, const std::vector<unsigned>& L2,
                      double tol) {
    merge_result res;
    tree<N> t(pos);
    t.insert(L2);
    std::vector<unsigned>& ids = res.new_ids;
    ids.resize(pos.cols());
    for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<unsigned>(i);
    std::vector<unsigned> rank(pos.cols(), NIL);
    for (std::size_t r = 0; r < L2.size(); ++r) rank[L2[r]] = static_cast<unsigned>(r);
    struct rec {
        double d2;
        unsigned v, best;
    };
    for (;;) {
        std::vector<rec> records;
        for (unsigned v : L1) {
            double lo[N], hi[N], P[N];
            for (unsigned k = 0; k < N; ++k) {
                P[k] = pos(k, v);
                lo[k] = P[k] - tol;
                hi[k] = P[k] + tol;
            }
            unsigned best = ids[v];
            double bestd2 = tol * tol;
            for (unsigned u : t.box(lo, hi)) {
                if (u == v || ids[u] != u) continue;
                const double d = t.d2(P, u);
                if (d <= bestd2 && rank[u] < rank[v]) {
                    best = u;
                    bestd2 = d;
                }
            }
            if (best != ids[v]) records.push_back({bestd2, v, best});
        }
        std::sort(records.begin(), records.end(), [](const rec& a, const rec& b) {
            if (a.d2 != b.d2) return a.d2 < b.d2;
            if (a.v != b.v) return a.v < b.v;
            return a.best < b.best;
        });
        int applied = 0;
        for (const rec& r : records)
            if (ids[r.best] == r.best) {
                ids[r.v] = r.best;
                ++applied;
            }
        if (applied == 0) break;
        if (applied == 1) {
            res.count += 1;
            continue;
        }
        for (unsigned v : L1) {
            unsigned f = v;
            while (ids[f] != f) f = ids[f];
            unsigned w = v;
            while (w != f) {
                const unsigned nx = ids[w];
                ids[w] = f;
                w = nx;
            }
        }
        for (unsigned v : L1)
            if (ids[v] != v) ++res.count;
    }
    return res;
}

/// Form 1 after its checks (lists with NULL_INDEX and repeats allowed).
inline merge_result engine(const dense2D<double>& pos, const std::vector<unsigned>& nodes1,
                           const std::vector<unsigned>& nodes2, double tol) {
    const std::vector<unsigned> L1 = unique_list(nodes1), L2 = unique_list(nodes2);
    if (L1.empty() || L2.empty()) return merge_result();
    return pos.rows() == 2 ? engine_n<2>(pos, L1, L2, tol) : engine_n<3>(pos, L1, L2, tol);
}

/// Modes 1 and 2 over copies of the matrices (renumbered in place in `ms`).
template <unsigned N>
merge_result collapse_n(const dense2D<double>& pos, std::vector<dense2D<unsigned>>& ms, double tol, unsigned mode) {
    merge_result res;
    std::vector<const dense2D<unsigned>*> ptrs;
    for (auto& m : ms) ptrs.push_back(&m);
    const std::vector<unsigned> list = unique_list(ptrs);
    std::vector<unsigned>& ids = res.new_ids;
    ids.resize(pos.cols());
    for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<unsigned>(i);
    if (list.empty()) return res;
    tree<N> t(pos);
    t.insert(list);
    struct rec {
        double d2;
        unsigned a, b;
    };
    for (;;) {
        std::vector<rec> records;
        for (auto& m : ms)
            for (std::size_t j = 0; j < m.cols(); ++j)
                for (std::size_t e = 0; e < m.rows(); ++e) {
                    const unsigned a = m(e, j);
                    if (a == NIL) continue;
                    double P[N], lo[N], hi[N];
                    for (unsigned k = 0; k < N; ++k) {
                        P[k] = pos(k, a);
                        lo[k] = P[k] - tol;
                        hi[k] = P[k] + tol;
                    }
                    for (unsigned b : t.box(lo, hi)) {
                        if (b == a) continue;
                        bool in = false;
                        for (std::size_t i = 0; i < m.rows(); ++i)
                            if (m(i, j) == b) in = true;
                        if (!in) continue;
                        const double d = t.d2(P, b);
                        if (d <= tol * tol) records.push_back({d, a, b});
                    }
                }
        std::stable_sort(records.begin(), records.end(), [](const rec& p, const rec& q) {
            if (p.d2 != q.d2) return p.d2 < q.d2;
            return p.a < q.a;
        });
        std::vector<unsigned> work(pos.cols());
        for (std::size_t i = 0; i < work.size(); ++i) work[i] = static_cast<unsigned>(i);
        int count = 0;
        for (const rec& r : records)
            if (work[r.a] == r.a && work[r.b] == r.b) {
                ids[r.b] = r.a;
                work[r.b] = r.a;
                ++count;
            }
        if (count == 0) break;
        for (unsigned v : list) {
            unsigned f = v;
            while (ids[f] != f) f = ids[f];
            unsigned w = v;
            while (w != f) {
                const unsigned nx = ids[w];
                ids[w] = f;
                w = nx;
            }
        }
        for (auto& m : ms)
            for (std::size_t j = 0; j < m.cols(); ++j)
                for (std::size_t i = 0; i < m.rows(); ++i) {
                    unsigned& v = m(i, j);
                    if (v < ids.size()) v = ids[v];
                }
        res.count += count;
        if (mode == 1) break;
    }
    return res;
}

}  // namespace nodara_ref

#endif  // NODARA_TESTS_EDITING_REFERENCE_H
