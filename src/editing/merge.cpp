// merge: the node-list engine, its connectivity and snapping forms, and the
// collapse of short element edges (modes 1 and 2).
//
// A pass of the engine needs, for each node v of L1, its candidates u (u != v,
// rank[u] < rank[v], squared distance <= tol^2) in the order in which the box
// walk of the k-d tree meets them; only the order of candidates at equal
// distance can change a result.  The candidates do not change from pass to pass
// (only which of them still survive), so they are gathered once, by the first
// route that applies:
//   1. tol = 0 (no NaN among the targets): only coincident nodes interact, and
//      the box walk meets coincident nodes in insertion order (each later one
//      lies on the upper side of every earlier one).  Targets are grouped by
//      exact coordinates; a pass visits only the groups changed by the previous
//      one, and the winner for v is the surviving lower-ranked member of its
//      group inserted last.  No tree is built;
//   2. tol > 0, L1 = L2, finite coordinates, and no group of coincident nodes
//      within tol of another (a triangle soup with a small tolerance): the same
//      as route 1, checked with a grid of cells;
//   3. tol > 0, finite coordinates: candidates from a grid of cells, each cell
//      listing its targets in insertion order.  This agrees with the walk as
//      long as candidates at equal distance coincide; when two do not, route 4;
//   4. otherwise: the k-d tree is built (in bulk, equal to the one-by-one
//      insertion) and walked once per node.
// The tests compare every route with a plain transcription of the documented
// passes.
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

// ---------------------------------------------------------------------------
// A uniform grid of cells over a list of points (finite coordinates), each cell
// holding its points in list order.  Cells are at least 2 tol wide, and as wide
// as the mean spacing of the points when that is larger, so that most boxes of
// half-width tol lie in a single cell and the cell table stays small.
template <unsigned N>
class cell_grid {
public:
    /// False when the coordinates do not suit integer cell indices.
    bool build(const dense2D<double>& pos, const unsigned* nodes, std::size_t n, double tol) {
        cs_ = 2.0 * tol;
        double lo[N], hi[N];
        for (unsigned k = 0; k < N; ++k) {
            lo[k] = std::numeric_limits<double>::infinity();
            hi[k] = -lo[k];
        }
        for (std::size_t i = 0; i < n; ++i) {
            const double* x = pos.col(nodes[i]);
            for (unsigned k = 0; k < N; ++k) {
                lo[k] = std::min(lo[k], x[k]);
                hi[k] = std::max(hi[k], x[k]);
            }
        }
        double volume = 1.0;
        unsigned dims = 0;
        for (unsigned k = 0; k < N; ++k)
            if (hi[k] - lo[k] > 0.0 && std::isfinite(hi[k] - lo[k])) {
                volume *= hi[k] - lo[k];
                ++dims;
            }
        if (dims > 0 && volume > 0.0 && std::isfinite(volume) && n > 0) {
            const double spacing = std::pow(volume / static_cast<double>(n), 1.0 / dims);
            if (spacing > cs_) cs_ = spacing;
        }
        const double limit = 4503599627370496.0;  // 2^52
        for (unsigned k = 0; k < N; ++k)
            if (n > 0 && !(std::fabs(lo[k] / cs_) < limit - 4 && std::fabs(hi[k] / cs_) < limit - 4)) return false;
        table_.assign(1024, entry());
        cells_ = 0;
        vec<unsigned> cell_of_point(n);
        vec<unsigned> count;
        for (std::size_t i = 0; i < n; ++i) {
            const double* x = pos.col(nodes[i]);
            key_t key;
            for (unsigned d = 0; d < N; ++d) key.k[d] = cell_of(x[d]);
            const unsigned id = find(key, true);
            if (id == count.size()) count.push_back(0);
            ++count[id];
            cell_of_point[i] = id;
        }
        start_.assign(cells_ + 1, 0);
        for (std::size_t i = 0; i < cells_; ++i) start_[i + 1] = start_[i] + count[i];
        index_.resize(n);
        x_.resize(n * N);
        for (std::size_t i = 0; i < cells_; ++i) count[i] = 0;
        for (std::size_t i = 0; i < n; ++i) {
            const unsigned id = cell_of_point[i];
            const std::size_t at = start_[id] + count[id]++;
            index_[at] = static_cast<unsigned>(i);
            const double* x = pos.col(nodes[i]);
            for (unsigned d = 0; d < N; ++d) x_[at * N + d] = x[d];
        }
        return true;
    }

    /// Calls f(i, coordinates) for every point i (its position in the list) with
    /// lo <= x <= hi on every axis, cell by cell.  False (nothing called for the
    /// remaining cells) when f returns false.
    template <class F>
    bool box(const double* lo, const double* hi, F&& f) const {
        std::int64_t a[N], b[N];
        key_t key;
        for (unsigned k = 0; k < N; ++k) {
            a[k] = cell_of(lo[k]);
            b[k] = cell_of(hi[k]);
            key.k[k] = a[k];
        }
        for (;;) {
            const unsigned id = find(key);
            if (id != NULL_INDEX)
                for (std::size_t t = start_[id]; t < start_[id + 1]; ++t) {
                    const double* y = &x_[t * N];
                    bool in = true;
                    for (unsigned d = 0; d < N; ++d)
                        if (!(lo[d] <= y[d] && y[d] <= hi[d])) in = false;
                    if (in && !f(index_[t], y)) return false;
                }
            unsigned d = 0;
            while (d < N && key.k[d] == b[d]) {
                key.k[d] = a[d];
                ++d;
            }
            if (d == N) return true;
            ++key.k[d];
        }
    }

    /// Number of cells a box of half-width tol around x touches (at most 2^N when
    /// the box is no wider than a cell).
    std::uint64_t cells_touched(const double* lo, const double* hi) const {
        std::uint64_t c = 1;
        for (unsigned k = 0; k < N; ++k) c *= static_cast<std::uint64_t>(cell_of(hi[k]) - cell_of(lo[k]) + 1);
        return c;
    }

private:
    struct key_t {
        std::int64_t k[N];
    };
    struct entry {
        key_t key{};
        unsigned id = NULL_INDEX;
    };

    std::int64_t cell_of(double x) const { return static_cast<std::int64_t>(std::floor(x / cs_)); }

    static std::size_t hash_of(const key_t& key) {
        std::uint64_t h = 0;
        for (unsigned d = 0; d < N; ++d) {
            h = (h ^ static_cast<std::uint64_t>(key.k[d])) * 0x9E3779B97F4A7C15ull;
            h ^= h >> 29;
        }
        return static_cast<std::size_t>(h ^ (h >> 32));
    }
    static bool same_key(const key_t& a, const key_t& b) {
        for (unsigned d = 0; d < N; ++d)
            if (a.k[d] != b.k[d]) return false;
        return true;
    }
    unsigned find(const key_t& key) const {
        const std::size_t mask = table_.size() - 1;
        std::size_t s = hash_of(key) & mask;
        for (;;) {
            const entry& e = table_[s];
            if (e.id == NULL_INDEX) return NULL_INDEX;
            if (same_key(e.key, key)) return e.id;
            s = (s + 1) & mask;
        }
    }
    unsigned find(const key_t& key, bool) {
        std::size_t mask = table_.size() - 1;
        std::size_t s = hash_of(key) & mask;
        for (;;) {
            entry& e = table_[s];
            if (e.id == NULL_INDEX) {
                e.key = key;
                e.id = static_cast<unsigned>(cells_++);
                const unsigned id = e.id;
                if (2 * cells_ > table_.size()) grow();
                return id;
            }
            if (same_key(e.key, key)) return e.id;
            s = (s + 1) & mask;
        }
    }
    void grow() {
        vec<entry> bigger(table_.size() * 2);
        const std::size_t m = bigger.size() - 1;
        for (const entry& e : table_) {
            if (e.id == NULL_INDEX) continue;
            std::size_t s = hash_of(e.key) & m;
            while (bigger[s].id != NULL_INDEX) s = (s + 1) & m;
            bigger[s] = e;
        }
        table_.swap(bigger);
    }

    double cs_ = 1.0;
    std::size_t cells_ = 0;
    vec<entry> table_;
    vec<std::size_t> start_;
    vec<unsigned> index_;
    vec<double> x_;
};

// tol = 0, no NaN among the targets: groups of coincident targets.
//
// Groups never interact (a node only merges onto a node of its own group), so a
// pass runs group by group: a group's records sorted by v and applied are exactly
// its part of the globally sorted records.  A group in which nothing changed in a
// pass makes no record in the next one, so later passes only revisit the groups
// that changed (by a merge, or by the compression of their chains).
template <unsigned N>
class coincident_passes {
public:
    coincident_passes(const dense2D<double>& pos, const vec<unsigned>& L1, const vec<unsigned>& L2, bool same,
                      const vec<unsigned>& rank, const vec<unsigned>& ins_of_rank) {
        const std::size_t n2 = L2.size();
        // Open addressing over (coordinates, group), grown to stay at most half full.
        struct entry {
            double key[N];
            unsigned group;
        };
        vec<entry> table(1024);
        for (entry& e : table) e.group = NULL_INDEX;
        vec<unsigned> group_of_node_rank(n2, NULL_INDEX);
        std::size_t G = 0;
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
            std::uint64_t h = 0;
            for (unsigned d = 0; d < N; ++d) {
                std::uint64_t b;
                std::memcpy(&b, &k[d], sizeof b);
                h = (h ^ b) * 0x9E3779B97F4A7C15ull;
                h ^= h >> 29;
            }
            return static_cast<std::size_t>(h ^ (h >> 32));
        };
        auto grow = [&]() {
            vec<entry> bigger(table.size() * 2);
            for (entry& e : bigger) e.group = NULL_INDEX;
            const std::size_t m = bigger.size() - 1;
            for (const entry& e : table) {
                if (e.group == NULL_INDEX) continue;
                std::size_t s = hash_of(e.key) & m;
                while (bigger[s].group != NULL_INDEX) s = (s + 1) & m;
                bigger[s] = e;
            }
            table.swap(bigger);
        };
        // Finds (or, with `add`, creates) the group of coordinates k.
        auto find = [&](const double* k, bool add, unsigned) -> unsigned {
            const std::size_t mask = table.size() - 1;
            std::size_t s = hash_of(k) & mask;
            for (;;) {
                entry& e = table[s];
                if (e.group == NULL_INDEX) {
                    if (!add) return NULL_INDEX;
                    for (unsigned d = 0; d < N; ++d) e.key[d] = k[d];
                    e.group = static_cast<unsigned>(G);
                    ++G;
                    if (2 * G > table.size()) grow();
                    return static_cast<unsigned>(G - 1);
                }
                bool eq = true;
                for (unsigned d = 0; d < N; ++d)
                    if (!(e.key[d] == k[d])) eq = false;
                if (eq) return e.group;
                s = (s + 1) & mask;
            }
        };
        double k[N];
        vec<unsigned> msize;
        for (std::size_t r = 0; r < n2; ++r) {
            if (!key_of(L2[r], k)) continue;
            const unsigned g = find(k, true, L2[r]);
            group_of_node_rank[r] = g;
            if (g == msize.size()) msize.push_back(0);
            ++msize[g];
        }
        // Members by group, in rank order.
        mstart_.assign(G + 1, 0);
        for (std::size_t g = 0; g < G; ++g) mstart_[g + 1] = mstart_[g] + msize[g];
        mnode_.resize(mstart_[G]);
        mins_.resize(mstart_[G]);
        vec<unsigned> index_in_group(same ? 0 : n2, NULL_INDEX);
        for (std::size_t g = 0; g < G; ++g) msize[g] = 0;
        for (std::size_t r = 0; r < n2; ++r) {
            const unsigned g = group_of_node_rank[r];
            if (g == NULL_INDEX) continue;
            if (!same) index_in_group[r] = msize[g];
            const std::size_t at = mstart_[g] + msize[g]++;
            mnode_[at] = L2[r];
            mins_[at] = ins_of_rank[r];
        }
        // Nodes of L1 by group, with the index of their prefix (the group size when
        // the node is not a target).  When L1 is L2 these are the members.
        same_ = same;
        if (same) return;
        vec<unsigned> l1_group(L1.size(), NULL_INDEX), l1_index(L1.size());
        vec<unsigned> lsize(G, 0);
        for (std::size_t i = 0; i < L1.size(); ++i) {
            const unsigned v = L1[i];
            const unsigned r = same ? static_cast<unsigned>(i) : rank[v];
            unsigned g, idx;
            if (r != NULL_INDEX) {
                g = group_of_node_rank[r];
                if (g == NULL_INDEX) continue;
                idx = index_in_group[r];
            } else {
                if (!key_of(v, k)) continue;
                g = find(k, false, 0);
                if (g == NULL_INDEX) continue;
                idx = static_cast<unsigned>(mstart_[g + 1] - mstart_[g]);
            }
            l1_group[i] = g;
            l1_index[i] = idx;
            ++lsize[g];
        }
        lstart_.assign(G + 1, 0);
        for (std::size_t g = 0; g < G; ++g) lstart_[g + 1] = lstart_[g] + lsize[g];
        lnode_.resize(lstart_[G]);
        lidx_.resize(lstart_[G]);
        for (std::size_t g = 0; g < G; ++g) lsize[g] = 0;
        for (std::size_t i = 0; i < L1.size(); ++i) {
            const unsigned g = l1_group[i];
            if (g == NULL_INDEX) continue;
            const std::size_t at = lstart_[g] + lsize[g]++;
            lnode_[at] = L1[i];
            lidx_[at] = l1_index[i];
        }
    }

    /// With tol > 0 and L1 = L2: true when no box of half-width tol around a group
    /// reaches another group, so that the candidates are the coincident nodes
    /// alone and the passes are those of tol = 0.
    bool isolated(const dense2D<double>& pos, double tol) const {
        const std::size_t G = mstart_.size() - 1;
        vec<unsigned> reps(G);
        for (std::size_t g = 0; g < G; ++g) reps[g] = mnode_[mstart_[g]];
        cell_grid<N> grid;
        if (!grid.build(pos, reps.data(), G, tol)) return false;
        for (std::size_t g = 0; g < G; ++g) {
            const double* x = pos.col(reps[g]);
            double lo[N], hi[N];
            for (unsigned k = 0; k < N; ++k) {
                lo[k] = x[k] - tol;
                hi[k] = x[k] + tol;
            }
            if (grid.cells_touched(lo, hi) > 64) return false;
            bool alone = true;
            grid.box(lo, hi, [&](unsigned other, const double*) {
                if (other == g) return true;
                alone = false;
                return false;
            });
            if (!alone) return false;
        }
        return true;
    }

    long long run(unsigned* ids) {
        const std::size_t G = mstart_.size() - 1;
        vec<unsigned> dirty, next, pending;
        vec<unsigned char> in_next(G, 0), in_pending(G, 0);
        dirty.reserve(G);
        for (std::size_t g = 0; g < G; ++g) {
            const std::size_t members = mstart_[g + 1] - mstart_[g];
            const std::size_t listed = same_ ? members : lstart_[g + 1] - lstart_[g];
            if (listed > 0 && members + listed > (same_ ? 2u : 1u)) dirty.push_back(static_cast<unsigned>(g));
        }
        vec<unsigned> prefix;
        vec<std::pair<unsigned, unsigned>> recs;
        long long result = 0;
        std::size_t mapped = 0;
        while (!dirty.empty()) {
            std::size_t applied = 0;
            next.clear();
            for (unsigned g : dirty) {
                // Winner for each prefix: the surviving member inserted last.
                const std::size_t mb = mstart_[g], me = mstart_[g + 1];
                prefix.resize(me - mb + 1);
                unsigned best = NULL_INDEX, best_ins = 0;
                for (std::size_t t = mb; t < me; ++t) {
                    prefix[t - mb] = best;
                    const unsigned u = mnode_[t];
                    if (ids[u] == u && (best == NULL_INDEX || mins_[t] > best_ins)) {
                        best = u;
                        best_ins = mins_[t];
                    }
                }
                prefix[me - mb] = best;
                recs.clear();
                if (same_) {
                    for (std::size_t t = mb; t < me; ++t) {
                        const unsigned v = mnode_[t];
                        const unsigned u = prefix[t - mb];
                        if (u != NULL_INDEX && u != ids[v]) recs.push_back(std::make_pair(v, u));
                    }
                } else {
                    for (std::size_t t = lstart_[g]; t < lstart_[g + 1]; ++t) {
                        const unsigned v = lnode_[t];
                        const unsigned u = prefix[lidx_[t]];
                        if (u != NULL_INDEX && u != ids[v]) recs.push_back(std::make_pair(v, u));
                    }
                }
                if (recs.empty()) continue;
                if (recs.size() > 1) std::sort(recs.begin(), recs.end());
                bool changed = false;
                for (const auto& r : recs)
                    if (ids[r.second] == r.second) {
                        if (ids[r.first] == r.first) ++mapped;
                        ids[r.first] = r.second;
                        ++applied;
                        changed = true;
                    }
                if (changed) {
                    next.push_back(g);
                    in_next[g] = 1;
                    if (!in_pending[g]) {
                        in_pending[g] = 1;
                        pending.push_back(g);
                    }
                }
            }
            if (applied == 0) break;
            if (applied == 1) {
                result += 1;
            } else {
                // Compress the chains of every group changed since the last
                // compression; each of them is looked at again next pass.
                for (unsigned g : pending) {
                    const std::size_t b = same_ ? mstart_[g] : lstart_[g];
                    const std::size_t e = same_ ? mstart_[g + 1] : lstart_[g + 1];
                    for (std::size_t t = b; t < e; ++t) {
                        const unsigned v = same_ ? mnode_[t] : lnode_[t];
                        unsigned f = v;
                        while (ids[f] != f) f = ids[f];
                        unsigned w = v;
                        while (w != f && ids[w] != f) {
                            const unsigned nx = ids[w];
                            ids[w] = f;
                            w = nx;
                        }
                    }
                    in_pending[g] = 0;
                    if (!in_next[g]) {
                        in_next[g] = 1;
                        next.push_back(g);
                    }
                }
                pending.clear();
                result += static_cast<long long>(mapped);
            }
            for (unsigned g : next) in_next[g] = 0;
            dirty.swap(next);
        }
        return result;
    }

private:
    bool same_ = false;
    vec<std::size_t> mstart_, lstart_;
    vec<unsigned> mnode_, mins_, lnode_, lidx_;
};

// Any tolerance: for each node of L1 its candidates with their squared
// distances, in an order that agrees with the box walk wherever the order can
// matter (between candidates at equal distance).
template <unsigned N>
struct candidate_lists {
    double tol2 = 0.0;
    vec<std::size_t> start;
    vec<unsigned> cand;
    vec<double> d2;

    void begin_pass(const unsigned*) {}

    bool best(std::size_t i, unsigned v, const unsigned* ids, unsigned& best, double& bd) const {
        bool found = false;
        best = ids[v];
        bd = tol2;
        for (std::size_t t = start[i]; t < start[i + 1]; ++t) {
            const unsigned u = cand[t];
            if (ids[u] == u && d2[t] <= bd) {
                best = u;
                bd = d2[t];
                found = true;
            }
        }
        return found;
    }
};

// The lists from one walk of the k-d tree per node: exactly the documented order.
template <unsigned N>
void fill_by_walks(candidate_lists<N>& c, const dense2D<double>& pos, const vec<unsigned>& L1,
                   const vec<unsigned>& rank, vec<unsigned>& insertion, double tol) {
    kd_tree<N> tree(&pos);
    tree.build_ordered(insertion);
    c.tol2 = tol * tol;
    c.start.clear();
    c.cand.clear();
    c.d2.clear();
    c.start.reserve(L1.size() + 1);
    c.start.push_back(0);
    for (std::size_t i = 0; i < L1.size(); ++i) {
        const unsigned v = L1[i];
        double x[N], lo[N], hi[N];
        for (unsigned k = 0; k < N; ++k) {
            x[k] = coord(pos, v, k);
            lo[k] = x[k] - tol;
            hi[k] = x[k] + tol;
        }
        const unsigned rv = rank[v];
        tree.box(lo, hi, [&](unsigned u, unsigned slot) {
            if (u == v || !(rank[u] < rv)) return;
            const double d = detail::squared_distance<N>(x, tree.slots()[slot].x);
            if (!(d <= c.tol2)) return;
            c.cand.push_back(u);
            c.d2.push_back(d);
        });
        c.start.push_back(c.cand.size());
    }
}

// True when every coordinate of the nodes is finite and stays finite when tol is
// added or subtracted (boxes then never reach a non-finite coordinate).
template <unsigned N>
bool all_usable(const dense2D<double>& pos, const vec<unsigned>& nodes, double tol) {
    for (unsigned v : nodes) {
        const double* x = pos.col(v);
        for (unsigned k = 0; k < N; ++k)
            if (!std::isfinite(x[k]) || !std::isfinite(x[k] - tol) || !std::isfinite(x[k] + tol)) return false;
    }
    return true;
}

// The lists from the cell grid over the targets, taken in insertion order.  The
// box walk meets coincident nodes in insertion order, so this order is the
// walk's wherever candidates at equal distance coincide.  Returns false (the
// caller then walks the tree) when two candidates of a node are at equal distance
// without coinciding, or when the coordinates do not suit the grid.
template <unsigned N>
bool fill_by_cells(candidate_lists<N>& c, const dense2D<double>& pos, const vec<unsigned>& L1,
                   const vec<unsigned>& rank, const vec<unsigned>& insertion, double tol) {
    const double tol2 = tol * tol;
    if (!(tol > 0.0) || !std::isfinite(tol2) || !std::isfinite(2.0 * tol)) return false;
    if (!all_usable<N>(pos, insertion, tol) || !all_usable<N>(pos, L1, tol)) return false;
    cell_grid<N> grid;
    if (!grid.build(pos, insertion.data(), insertion.size(), tol)) return false;
    c.tol2 = tol2;
    c.start.clear();
    c.cand.clear();
    c.d2.clear();
    c.start.reserve(L1.size() + 1);
    c.start.push_back(0);
    vec<const double*> where;  // coordinates of this node's candidates
    for (std::size_t i = 0; i < L1.size(); ++i) {
        const unsigned v = L1[i];
        const unsigned rv = rank[v];
        double x[N], lo[N], hi[N];
        for (unsigned k = 0; k < N; ++k) {
            x[k] = coord(pos, v, k);
            lo[k] = x[k] - tol;
            hi[k] = x[k] + tol;
        }
        if (grid.cells_touched(lo, hi) > 64) return false;
        where.clear();
        grid.box(lo, hi, [&](unsigned p, const double* y) {
            const unsigned u = insertion[p];
            if (u == v || !(rank[u] < rv)) return true;
            const double d2 = detail::squared_distance<N>(x, y);
            if (!(d2 <= tol2)) return true;
            c.cand.push_back(u);
            c.d2.push_back(d2);
            where.push_back(y);
            return true;
        });
        // Equal distances must come from coincident candidates.
        const std::size_t s0 = c.start.back(), s1 = c.cand.size();
        for (std::size_t p = s0; p + 1 < s1; ++p)
            for (std::size_t q = p + 1; q < s1; ++q) {
                if (c.d2[p] != c.d2[q]) continue;
                const double* y = where[p - s0];
                const double* z = where[q - s0];
                for (unsigned d = 0; d < N; ++d)
                    if (!(y[d] == z[d])) return false;
            }
        c.start.push_back(s1);
    }
    return true;
}

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
        const auto before = [](const record& a, const record& b) {
            if (a.d2 != b.d2) return a.d2 < b.d2;
            if (a.v != b.v) return a.v < b.v;
            return a.best < b.best;
        };
        // Records come in the order of L1, often already sorted (tol = 0 and L1
        // ascending).
        if (!std::is_sorted(records.begin(), records.end(), before))
            std::sort(records.begin(), records.end(), before);
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
    // rank[v]: v's position in L2; not needed by the coincident groups when
    // L1 = L2 (the position in L1 is the rank).
    vec<unsigned> rank;
    auto make_rank = [&]() {
        if (!rank.empty()) return;
        rank.assign(pos.cols(), NULL_INDEX);
        for (std::size_t r = 0; r < n2; ++r) rank[L2[r]] = static_cast<unsigned>(r);
    };
    vec<unsigned> order(n2);
    for (std::size_t p = 0; p < n2; ++p) order[p] = static_cast<unsigned>(p);
    detail::seeded_shuffle(order.data(), n2);
    const bool zero = tol == 0.0 && !has_nan(pos, L2);
    const bool isolated_candidate = !zero && same && tol > 0.0 && std::isfinite(tol * tol) && all_usable<N>(pos, L2, tol);
    if (zero || isolated_candidate) {
        if (!same) make_rank();
        vec<unsigned> ins_of_rank(n2);
        for (std::size_t p = 0; p < n2; ++p) ins_of_rank[order[p]] = static_cast<unsigned>(p);
        if (zero) order = vec<unsigned>();
        coincident_passes<N> passes(pos, L1, L2, same, rank, ins_of_rank);
        // With tol > 0 this holds when only coincident nodes lie within tol of one
        // another (a triangle soup with a small tolerance).
        if (zero || passes.isolated(pos, tol)) return passes.run(ids);
    }
    make_rank();
    for (std::size_t p = 0; p < n2; ++p) order[p] = L2[order[p]];
    candidate_lists<N> lists;
    if (!fill_by_cells(lists, pos, L1, rank, order, tol)) fill_by_walks(lists, pos, L1, rank, order, tol);
    order = vec<unsigned>();
    return run_passes(lists, L1, ids);
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
                        const double d2 = detail::squared_distance<N>(x, tree.slots()[slot].x);
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
