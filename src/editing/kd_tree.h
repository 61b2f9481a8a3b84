// Internal: the k-d tree behind node_detector and merge.
//
// One slot per inserted node.  The tree is the one that inserting the nodes one by
// one in a shuffled order builds (MT19937 seeded with 1): a node goes to the upper
// side of a slot when its coordinate on the slot's axis is greater or equal, to
// the lower side otherwise, and the axis cycles with the depth.  Building over an
// empty tree is done in bulk (a stable partition per level that yields exactly
// the tree of the one-by-one insertion) and lays the slots out in pre-order, lower
// side first, which is also the order of the box walk; later insertions link new
// slots one by one.  Each slot carries a copy of its node's coordinates so that a
// search never leaves the slot array.
//
// Nearest-node queries of the node detector also use a bucket tree (balanced,
// median splits, a few points per leaf) over the same nodes to find the smallest
// distance quickly; the documented order of the tree above then settles which
// node is the answer (see kd_tree::closest).  The documented search is kept as
// closest_documented, for the cases the fast route cannot vouch for.
//
// Every member that allocates throws std::bad_alloc unless it says otherwise;
// callers catch it.
#ifndef NODARA_SRC_EDITING_KD_TREE_H
#define NODARA_SRC_EDITING_KD_TREE_H

#include "arrays/memory.h"

#include <zq5/arrays.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

namespace zq5 {
namespace nodara {
namespace detail {

using zq5::detail::vec;

/// Squared Euclidean distance between two points of N coordinates.
template <unsigned N>
inline double squared_distance(const double* a, const double* b) {
    double d2 = 0.0;
    for (unsigned k = 0; k < N; ++k) {
        const double d = a[k] - b[k];
        d2 += d * d;
    }
    return d2;
}

template <unsigned N>
struct kd_slot {
    double x[N];
    unsigned node;
    unsigned lo;  // lower child slot or NULL_INDEX
    unsigned hi;  // upper child slot or NULL_INDEX
};

/// Positions 0 .. n-1 shuffled as the documented insertion does: for i = 1 .. n-1,
/// j = r mod (i + 1) with r the next MT19937 (seed 1) output; entries i and j swap.
inline void seeded_shuffle(unsigned* p, std::size_t n) {
    std::mt19937 gen(1u);  // 32-bit Mersenne Twister, seed 1
    for (std::size_t i = 1; i < n; ++i) {
        const std::uint32_t r = static_cast<std::uint32_t>(gen());
        // r mod (i + 1); 32-bit division whenever i + 1 fits, which is always the
        // case for node lists of 32-bit indices.
        const std::size_t j = (i < 0xFFFFFFFFu) ? static_cast<std::size_t>(r % static_cast<std::uint32_t>(i + 1))
                                                : static_cast<std::size_t>(r % (static_cast<std::uint64_t>(i) + 1));
        if (j != i) {
            const unsigned t = p[i];
            p[i] = p[j];
            p[j] = t;
        }
    }
}

/// A small stack that lives on the call stack and moves to the heap only for
/// unusually deep trees.
template <class T>
class search_stack {
public:
    search_stack() = default;
    search_stack(const search_stack&) = delete;
    search_stack& operator=(const search_stack&) = delete;
    void push(const T& v) {
        if (heap_.empty() && n_ < kLocal) {
            local_[n_++] = v;
            return;
        }
        if (heap_.empty()) heap_.assign(local_, local_ + n_);
        heap_.push_back(v);
        ++n_;
    }
    bool empty() const { return n_ == 0; }
    T pop() {
        --n_;
        if (heap_.empty()) return local_[n_];
        T v = heap_.back();
        heap_.pop_back();
        return v;
    }

private:
    static constexpr std::size_t kLocal = 96;
    T local_[kLocal];
    std::size_t n_ = 0;
    vec<T> heap_;
};

/// A balanced k-d tree with buckets over the finite nodes of a search tree, used
/// only to find the smallest squared distance to a point and the slots at that
/// distance.  Its own layout never shows in any answer.
template <unsigned N>
class bucket_tree {
public:
    bool empty() const { return pts_.empty(); }
    std::size_t size() const { return pts_.size(); }

    /// Builds over the slots [0, count) of `slots` whose coordinates are finite.
    void build(const kd_slot<N>* slots, std::size_t count) {
        clear();
        vec<point>& pts = pts_;
        pts.reserve(count);
        for (std::size_t k = 0; k < count; ++k) {
            bool finite = slots[k].node != NULL_INDEX;
            for (unsigned c = 0; c < N && finite; ++c) finite = std::isfinite(slots[k].x[c]);
            if (!finite) continue;
            point p;
            for (unsigned c = 0; c < N; ++c) p.x[c] = slots[k].x[c];
            p.slot = static_cast<unsigned>(k);
            pts.push_back(p);
        }
        const std::size_t n = pts.size();
        if (n == 0) return;
        nodes_.reserve(2 * (n / kLeaf) + 2);
        // Each range carries the box of its region (the points' box at the root,
        // then cut at each split): the widest side of it chooses the split axis.
        struct item {
            std::size_t begin, end;
            unsigned node;
            double lo[N], hi[N];
        };
        vec<item> work;
        nodes_.push_back(node_t());
        {
            item root;
            root.begin = 0;
            root.end = n;
            root.node = 0;
            for (unsigned c = 0; c < N; ++c) root.lo[c] = root.hi[c] = pts[0].x[c];
            for (std::size_t i = 1; i < n; ++i)
                for (unsigned c = 0; c < N; ++c) {
                    const double x = pts[i].x[c];
                    root.lo[c] = x < root.lo[c] ? x : root.lo[c];
                    root.hi[c] = x > root.hi[c] ? x : root.hi[c];
                }
            work.push_back(root);
        }
        while (!work.empty()) {
            const item it = work.back();
            work.pop_back();
            if (it.end - it.begin <= kLeaf) {
                nodes_[it.node].axis = kLeafMark;
                nodes_[it.node].a = static_cast<unsigned>(it.begin);
                nodes_[it.node].b = static_cast<unsigned>(it.end);
                continue;
            }
            // Split the widest side of the region at the median.
            unsigned axis = 0;
            for (unsigned c = 1; c < N; ++c)
                if (it.hi[c] - it.lo[c] > it.hi[axis] - it.lo[axis]) axis = c;
            // First try the middle of the region (one pass); when that leaves
            // fewer than an eighth of the points on one side, the median.
            const auto first = pts.begin() + static_cast<std::ptrdiff_t>(it.begin);
            const auto last = pts.begin() + static_cast<std::ptrdiff_t>(it.end);
            const std::size_t count = it.end - it.begin;
            double split = 0.5 * (it.lo[axis] + it.hi[axis]);
            std::size_t mid = it.begin;
            bool balanced = false;
            if (std::isfinite(split)) {
                const auto m = std::partition(first, last, [axis, split](const point& p) { return p.x[axis] < split; });
                mid = it.begin + static_cast<std::size_t>(m - first);
                balanced = mid - it.begin >= count / 8 && it.end - mid >= count / 8 && mid > it.begin && mid < it.end;
            }
            if (!balanced) {
                mid = it.begin + count / 2;
                std::nth_element(first, pts.begin() + static_cast<std::ptrdiff_t>(mid), last,
                                 [axis](const point& p, const point& q) { return p.x[axis] < q.x[axis]; });
                split = pts[mid].x[axis];
            }
            node_t& nd = nodes_[it.node];
            nd.axis = axis;
            nd.split = split;  // left: x <= split, right: x >= split
            const unsigned left = static_cast<unsigned>(nodes_.size());
            nodes_.push_back(node_t());
            nodes_.push_back(node_t());
            nodes_[it.node].a = left;
            nodes_[it.node].b = left + 1;
            item right = it, leftit = it;
            right.begin = mid;
            right.node = left + 1;
            right.lo[axis] = nodes_[it.node].split;
            leftit.end = mid;
            leftit.node = left;
            leftit.hi[axis] = nodes_[it.node].split;
            work.push_back(right);
            work.push_back(leftit);
        }
    }

    void clear() {
        nodes_.clear();
        pts_.clear();
    }

    /// Lowers dstar to the smallest squared distance from P to a point whose slot
    /// holds another node than `exclude`, and calls tie(slot) for every point at
    /// the final dstar (after a call reset() when dstar decreases).  Distances are
    /// computed as dist2 does; pruning uses bounds that never exceed a computed
    /// distance, and keeps points at exactly dstar.
    template <class Dist, class Reset, class Tie>
    void nearest(const double* P, const kd_slot<N>* slots, unsigned exclude, double& dstar, Dist dist,
                 Reset reset, Tie tie) const {
        if (nodes_.empty()) return;
        struct frame {
            unsigned node;
            double gap[N];
        };
        search_stack<frame> stack;
        frame f;
        f.node = 0;
        for (unsigned c = 0; c < N; ++c) f.gap[c] = 0.0;
        stack.push(f);
        while (!stack.empty()) {
            f = stack.pop();
            if (sum_squares(f.gap) > dstar) continue;
            const node_t& nd = nodes_[f.node];
            if (nd.axis == kLeafMark) {
                for (unsigned i = nd.a; i < nd.b; ++i) {
                    const double d2 = dist(P, pts_[i].x);
                    if (!(d2 <= dstar)) continue;
                    const unsigned slot = pts_[i].slot;
                    if (slots[slot].node == exclude) continue;
                    if (d2 < dstar) {
                        dstar = d2;
                        reset();
                    }
                    if (d2 < std::numeric_limits<double>::max()) tie(slot);
                }
                continue;
            }
            const unsigned a = nd.axis;
            frame left = f, right = f;
            left.node = nd.a;
            right.node = nd.b;
            const double old = f.gap[a];
            // Left points have x[a] <= split, right points x[a] >= split.
            left.gap[a] = (P[a] > nd.split) ? std::max(old, P[a] - nd.split) : old;
            right.gap[a] = (P[a] < nd.split) ? std::max(old, nd.split - P[a]) : old;
            if (P[a] < nd.split) {
                stack.push(right);
                stack.push(left);
            } else {
                stack.push(left);
                stack.push(right);
            }
        }
    }

private:
    struct point {
        double x[N];
        unsigned slot;
    };
    static constexpr unsigned kLeaf = 8;
    static constexpr unsigned kLeafMark = 0xFFFFFFFFu;
    struct node_t {
        double split = 0.0;
        unsigned axis = kLeafMark;
        unsigned a = 0;  // left child, or first point of a leaf
        unsigned b = 0;  // right child, or end of a leaf
    };
    static double sum_squares(const double* g) {
        double d2 = 0.0;
        for (unsigned k = 0; k < N; ++k) d2 += g[k] * g[k];
        return d2;
    }

    vec<node_t> nodes_;
    vec<point> pts_;  // leaves contiguous
};

template <unsigned N>
class kd_tree {
public:
    explicit kd_tree(const dense2D<double>* coords) : coords_(coords) {}

    const dense2D<double>* coords() const { return coords_; }
    std::size_t slot_count() const { return slots_.size(); }
    const kd_slot<N>* slots() const { return slots_.data(); }
    bool has_nodes() const { return linked_ != 0; }

    void reserve(std::size_t n) {
        slots_.reserve(n);
        marks_.reserve((n + 31) / 32);
    }

    /// Inserts the listed nodes in the seeded shuffled order.  Returns the number
    /// of nodes added.  Throws std::bad_alloc only before anything is changed;
    /// later failures skip the nodes that find no slot.
    /// With `strict`, a failure while building an empty tree leaves it empty and
    /// propagates instead of falling back to a partial insertion.
    unsigned insert(const unsigned* list, std::size_t n, bool strict = false) {
        if (n == 0) return 0;
        vec<unsigned> order(list, list + n);
        seeded_shuffle(order.data(), n);
        if (linked_ == 0 && free_.empty() && slots_.empty()) {
            if (strict) {
                strict_ = true;
                try {
                    const unsigned added = bulk_insert(order);
                    strict_ = false;
                    return added;
                } catch (const std::bad_alloc&) {
                    strict_ = false;
                    aux_.clear();
                    aux_valid_ = false;
                    throw;
                }
            }
            try {
                return bulk_insert(order);
            } catch (const std::bad_alloc&) {
                // fall back to the one-by-one insertion, which skips the nodes
                // it cannot find room for
            }
        }
        return insert_one_by_one(order);
    }

    /// Same as insert, but the list is known to hold distinct valid nodes and is
    /// already in insertion order (used by merge).
    void build_ordered(vec<unsigned>& order) { bulk_insert(order); }

    /// Keep a bucket tree for faster nearest-node queries (the node detector).
    void enable_fast_nearest() { want_aux_ = true; }

    // ------------------------------------------------------------------ queries
    /// Nearest node to P (N coordinates), never `exclude`: the answer of the
    /// documented greedy descent and bounded search, found faster.
    ///
    /// The documented search ends with the first node, in its visiting order, at
    /// the smallest squared distance d* among the nodes it tests, and it tests
    /// every node at d* that it meets before its best reaches d*, unless rounding
    /// fools one of its tests.  So: find d* and the nodes at d* with the bucket
    /// tree; when one of them lies on the greedy path the shallowest of them is the
    /// answer (the greedy descent keeps it and nothing is strictly nearer);
    /// otherwise the answer is the first of them in the bounded search's order
    /// (slot, upper subtree, lower subtree), after checking, with the smallest
    /// radius the search can have before meeting it (sqrt d*; every test only
    /// gets looser with a larger radius), that each documented test on the way to
    /// it and on it passes.  When a check fails, or the bucket tree is not there,
    /// the documented search itself runs.
    unsigned closest(const double* P, unsigned exclude) const {
        if (slots_.empty() || linked_ == 0) return NULL_INDEX;
        // A NaN coordinate in the tree hides the lower side of its slot from the
        // bounded search: only the documented search can tell what it reaches.
        if (!aux_valid_ || has_nan_) return closest_documented(P, exclude);
        for (unsigned c = 0; c < N; ++c)
            if (!std::isfinite(P[c])) return closest_documented(P, exclude);
        const kd_slot<N>* s = slots_.data();
        constexpr unsigned kTies = 16;
        unsigned ties[kTies];
        unsigned nties = 0;
        bool overflow = false;
        double dstar = std::numeric_limits<double>::max();
        auto reset = [&]() {
            nties = 0;
            overflow = false;
        };
        auto tie = [&](unsigned slot) {
            if (nties < kTies)
                ties[nties++] = slot;
            else
                overflow = true;
        };
        aux_.nearest(P, s, exclude, dstar, [](const double* p, const double* x) { return dist2(p, x); }, reset, tie);
        for (unsigned slot : extra_) {
            if (s[slot].node == exclude) continue;
            const double d2 = dist2(P, s[slot].x);
            if (!(d2 <= dstar)) continue;
            if (d2 < dstar) {
                dstar = d2;
                reset();
            }
            if (d2 < std::numeric_limits<double>::max()) tie(slot);
        }
        if (overflow) return closest_documented(P, exclude);
        if (nties == 0) return NULL_INDEX;  // no node can become the best
        const double r0 = std::sqrt(dstar);
        // A single node at d* is the answer both when it lies on the greedy path
        // and when the bounded search surely tests it (checked below).
        if (nties == 1 && passes_tests(P, s[ties[0]].x, r0)) return s[ties[0]].node;
        constexpr unsigned kDepth = 128;
        unsigned best_path[kDepth], path[kDepth];
        unsigned best_len = 0, greedy_len = 0, greedy_slot = NULL_INDEX;
        for (unsigned t = 0; t < nties; ++t) {
            unsigned len = 0;
            if (!root_path(ties[t], path, kDepth, len)) return closest_documented(P, exclude);
            // On the greedy path when P takes the same side at every step.
            bool on_greedy = true;
            for (unsigned i = 0; i + 1 < len && on_greedy; ++i) {
                const kd_slot<N>& sl = s[path[i]];
                const unsigned a = i % N;
                on_greedy = path[i + 1] == ((P[a] >= sl.x[a]) ? sl.hi : sl.lo);
            }
            if (on_greedy && (greedy_slot == NULL_INDEX || len < greedy_len)) {
                greedy_slot = ties[t];
                greedy_len = len;
            }
            // First in the bounded search's order: at the first slot where the
            // paths part, the upper side comes first; an ancestor comes first.
            bool earlier = t == 0;
            if (!earlier) {
                unsigned i = 0;
                while (i < len && i < best_len && path[i] == best_path[i]) ++i;
                if (i == len)
                    earlier = true;
                else if (i == best_len)
                    earlier = false;
                else
                    earlier = path[i] == s[path[i - 1]].hi;
            }
            if (earlier) {
                for (unsigned i = 0; i < len; ++i) best_path[i] = path[i];
                best_len = len;
            }
        }
        if (greedy_slot != NULL_INDEX) return s[greedy_slot].node;
        const kd_slot<N>& w = s[best_path[best_len - 1]];
        if (!passes_tests(P, w.x, r0)) return closest_documented(P, exclude);
        return w.node;
    }

    /// True when the bounded search, with any radius r >= r0, passes every test on
    /// its way to a node at x and tests it.  Its own test is the box
    /// [P - r, P + r].  At an ancestor on axis a the search goes on toward x when
    /// the plane's rounded distance to P is at most r; that distance never exceeds
    /// |fl(P[a] - x[a])| (x lies beyond the plane and rounding is monotone), so it
    /// suffices that every |fl(P[c] - x[c])| is at most r0.  All tests only get
    /// looser as r grows.
    static bool passes_tests(const double* P, const double* x, double r0) {
        for (unsigned c = 0; c < N; ++c) {
            if (!(std::fabs(P[c] - x[c]) <= r0)) return false;
            if (!(P[c] - r0 <= x[c] && x[c] <= P[c] + r0)) return false;
        }
        return true;
    }

    /// The documented search, step by step (with sound skips only).
    unsigned closest_documented(const double* P, unsigned exclude) const {
        if (slots_.empty() || linked_ == 0) return NULL_INDEX;
        const kd_slot<N>* s = slots_.data();
        unsigned best = NULL_INDEX;
        double bestd2 = std::numeric_limits<double>::max();
        // Greedy descent along P's path.  Its first slots are remembered: the
        // bounded search below meets them again and they cannot improve on a best
        // that is already at least as near.
        constexpr unsigned kPath = 64;
        unsigned path[kPath];
        unsigned plen = 0;
        unsigned k = 0;
        unsigned a = 0;
        while (k != NULL_INDEX) {
            const kd_slot<N>& sl = s[k];
            if (plen < kPath) path[plen++] = k;
            const double d2 = dist2(P, sl.x);
            if (sl.node != exclude && d2 < bestd2) {
                best = sl.node;
                bestd2 = d2;
                if (d2 == 0.0) break;
            }
            k = (P[a] >= sl.x[a]) ? sl.hi : sl.lo;
            a = (a + 1 == N) ? 0 : a + 1;
        }
        // Bounded search from the root, in the documented order.  Besides the
        // documented tests, a subtree is skipped when a lower bound of the squared
        // distance of every node in it is not below the best one, which cannot
        // change the answer: a node replaces the best only when strictly nearer.
        // The bound sums the squared gaps between P and the subtree's region along
        // each axis; each gap is a rounded difference no larger than the node's own
        // rounded coordinate difference, so the bound never exceeds a node's
        // computed squared distance (rounding is monotone).  NaN gaps never skip.
        bool has_r = best != NULL_INDEX;
        double r = has_r ? std::sqrt(bestd2) : 0.0;
        double blo[N], bhi[N];  // the documented test box [P - r, P + r]
        for (unsigned c = 0; c < N; ++c) {
            blo[c] = P[c] - r;
            bhi[c] = P[c] + r;
        }
        struct frame {
            unsigned slot;
            unsigned axis;
            unsigned depth;
            double delta;
            double gap[N];
        };
        search_stack<frame> stack;
        k = 0;
        a = 0;
        unsigned depth = 0;
        double gap[N];
        for (unsigned c = 0; c < N; ++c) gap[c] = 0.0;
        for (;;) {
            bool go_on = false;
            if (!(r == 0.0 && best != NULL_INDEX)) {
                const kd_slot<N>& sl = s[k];
                const double xa = sl.x[a];
                const double delta = xa - P[a];
                if (!(depth < plen && path[depth] == k)) {
                    bool test = true;
                    if (has_r)
                        for (unsigned c = 0; c < N; ++c)
                            if (!(blo[c] <= sl.x[c] && sl.x[c] <= bhi[c])) {
                                test = false;
                                break;
                            }
                    if (test && sl.node != exclude) {
                        const double d2 = dist2(P, sl.x);
                        if (d2 < bestd2) {
                            best = sl.node;
                            bestd2 = d2;
                            r = std::sqrt(d2);
                            has_r = true;
                            for (unsigned c = 0; c < N; ++c) {
                                blo[c] = P[c] - r;
                                bhi[c] = P[c] + r;
                            }
                        }
                    }
                }
                const unsigned na = (a + 1 == N) ? 0 : a + 1;
                // Regions of the two children: the upper one has x[a] >= xa, the
                // lower one x[a] < xa.
                const double old = gap[a];
                const double lo_gap = (P[a] >= xa) ? std::max(old, P[a] - xa) : old;
                bool up = false;
                if (sl.hi != NULL_INDEX && (!has_r || delta <= r)) {
                    gap[a] = (P[a] < xa) ? std::max(old, xa - P[a]) : old;
                    up = !(dist2(gap) >= bestd2);
                }
                if (up) {
                    if (sl.lo != NULL_INDEX) {
                        frame f;
                        f.slot = sl.lo;
                        f.axis = na;
                        f.depth = depth + 1;
                        f.delta = delta;
                        for (unsigned c = 0; c < N; ++c) f.gap[c] = gap[c];
                        f.gap[a] = lo_gap;
                        stack.push(f);
                    }
                    k = sl.hi;
                    a = na;
                    ++depth;
                    go_on = true;
                } else if (sl.lo != NULL_INDEX && (!has_r || -delta <= r)) {
                    gap[a] = lo_gap;
                    if (!(dist2(gap) >= bestd2)) {
                        k = sl.lo;
                        a = na;
                        ++depth;
                        go_on = true;
                    }
                }
            }
            while (!go_on) {
                if (stack.empty()) return best;
                const frame f = stack.pop();
                if (r == 0.0 && best != NULL_INDEX) continue;
                if ((!has_r || -f.delta <= r) && !(dist2(f.gap) >= bestd2)) {
                    k = f.slot;
                    a = f.axis;
                    depth = f.depth;
                    for (unsigned c = 0; c < N; ++c) gap[c] = f.gap[c];
                    go_on = true;
                }
            }
        }
    }

    /// Calls f(node, slot) for every node inside [lo, hi] (bounds included), in the
    /// documented walk order.
    template <class F>
    void box(const double* lo, const double* hi, F&& f) const {
        if (slots_.empty() || linked_ == 0) return;
        const kd_slot<N>* s = slots_.data();
        struct frame {
            unsigned slot;
            unsigned axis;
        };
        search_stack<frame> stack;
        unsigned k = 0, a = 0;
        for (;;) {
            const kd_slot<N>& sl = s[k];
            const double xa = sl.x[a];
            if (lo[a] <= xa && xa <= hi[a]) {
                bool in = true;
                for (unsigned c = 0; c < N; ++c)
                    if (!(lo[c] <= sl.x[c] && sl.x[c] <= hi[c])) {
                        in = false;
                        break;
                    }
                if (in) f(sl.node, k);
            }
            const unsigned na = (a + 1 == N) ? 0 : a + 1;
            const bool upper = !(xa > hi[a]) && sl.hi != NULL_INDEX;
            const bool lower = (xa >= lo[a] || xa > hi[a]) && sl.lo != NULL_INDEX;
            if (lower) {
                if (upper) stack.push(frame{sl.hi, na});
                k = sl.lo;
                a = na;
            } else if (upper) {
                k = sl.hi;
                a = na;
            } else {
                if (stack.empty()) return;
                const frame fr = stack.pop();
                k = fr.slot;
                a = fr.axis;
            }
        }
    }

    /// Deep copy of other's slots, free stack and marks.
    void copy_from(const kd_tree& o) {
        slots_ = o.slots_;
        free_ = o.free_;
        marks_ = o.marks_;
        linked_ = o.linked_;
        coords_ = o.coords_;
        want_aux_ = o.want_aux_;
        has_nan_ = o.has_nan_;
        aux_valid_ = false;
        aux_.clear();
        extra_.clear();
        if (o.aux_valid_) {
            aux_ = o.aux_;
            extra_ = o.extra_;
            aux_valid_ = true;
        }
    }

    void coords_of(unsigned v, double* out) const {
        const double* c = coords_->col(v);
        const std::size_t rows = coords_->rows();
        for (unsigned k = 0; k < N; ++k) out[k] = k < rows ? c[k] : 0.0;
    }

private:
    // The slots from the root to `target` (found by descending with its
    // coordinates, as its insertion did).  False when deeper than `cap` or lost.
    bool root_path(unsigned target, unsigned* path, unsigned cap, unsigned& len) const {
        const kd_slot<N>* s = slots_.data();
        const double* x = s[target].x;
        unsigned k = 0, a = 0;
        len = 0;
        while (k != NULL_INDEX) {
            if (len == cap) return false;
            path[len++] = k;
            if (k == target) return true;
            k = (x[a] >= s[k].x[a]) ? s[k].hi : s[k].lo;
            a = (a + 1 == N) ? 0 : a + 1;
        }
        return false;
    }

    static double dist2(const double* g) {
        double d2 = 0.0;
        for (unsigned k = 0; k < N; ++k) d2 += g[k] * g[k];
        return d2;
    }

    static double dist2(const double* P, const double* x) { return squared_distance<N>(P, x); }

    void fill(kd_slot<N>& sl, unsigned v) const {
        coords_of(v, sl.x);
        sl.node = v;
        sl.lo = sl.hi = NULL_INDEX;
    }

    bool marked(std::size_t s) const { return (marks_[s >> 5] >> (s & 31)) & 1u; }
    void set_mark(std::size_t s, bool on) {
        if (on)
            marks_[s >> 5] |= (1u << (s & 31));
        else
            marks_[s >> 5] &= ~(1u << (s & 31));
    }

    // Takes a slot as the documented insertion does; NULL_INDEX when storage cannot
    // grow.
    unsigned take_slot() {
        while (!free_.empty()) {
            const std::uint64_t s = free_.back();
            free_.pop_back();
            if (s < slots_.size()) {
                set_mark(static_cast<std::size_t>(s), false);
                return static_cast<unsigned>(s);
            }
        }
        if (slots_.size() >= NULL_INDEX - 1) return NULL_INDEX;
        try {
            if (slots_.size() == slots_.capacity()) {
                std::size_t want = slots_.size() * 2;
                if (want < 8) want = 8;
                slots_.reserve(want);
            }
            if (marks_.size() * 32 < slots_.size() + 1) marks_.push_back(0u);
            slots_.push_back(kd_slot<N>());
        } catch (const std::bad_alloc&) {
            return NULL_INDEX;
        }
        return static_cast<unsigned>(slots_.size() - 1);
    }

    unsigned insert_one_by_one(const vec<unsigned>& order) {
        const std::size_t cols = coords_->cols();
        unsigned added = 0;
        for (unsigned v : order) {
            if (v >= cols) continue;
            const unsigned ns = take_slot();
            if (ns == NULL_INDEX) continue;
            fill(slots_[ns], v);
            if (linked_ == 0 && ns == 0) {
                ++linked_;
                ++added;
                aux_valid_ = false;  // rebuilt below
                continue;
            }
            // Descend from the root.
            unsigned k = 0, a = 0;
            bool present = false;
            const double* xv = slots_[ns].x;
            for (;;) {
                kd_slot<N>& sl = slots_[k];
                if (sl.node == v) {
                    present = true;
                    break;
                }
                unsigned& link = (xv[a] >= sl.x[a]) ? sl.hi : sl.lo;
                a = (a + 1 == N) ? 0 : a + 1;
                if (link == NULL_INDEX) {
                    link = ns;
                    break;
                }
                k = link;
            }
            if (present) {
                free_slot(ns);
            } else {
                ++linked_;
                ++added;
                for (unsigned c = 0; c < N; ++c)
                    if (std::isnan(slots_[ns].x[c])) has_nan_ = true;
                if (aux_valid_) {
                    try {
                        extra_.push_back(ns);
                    } catch (const std::bad_alloc&) {
                        aux_valid_ = false;
                    }
                }
            }
        }
        if (want_aux_ && (!aux_valid_ || extra_.size() > 64 + aux_.size() / 8)) rebuild_aux();
        return added;
    }

    // Rebuilds the bucket tree over every linked slot; without it (allocation
    // failure) queries take the documented search.
    void rebuild_aux() {
        aux_valid_ = false;
        extra_.clear();
        has_nan_ = false;
        for (const kd_slot<N>& sl : slots_)
            if (sl.node != NULL_INDEX)
                for (unsigned c = 0; c < N; ++c)
                    if (std::isnan(sl.x[c])) has_nan_ = true;
        if (!want_aux_) return;
        try {
            aux_.build(slots_.data(), slots_.size());
            aux_valid_ = true;
        } catch (const std::bad_alloc&) {
            aux_.clear();
            if (strict_) throw;  // a strict build reports every failure
        }
    }

    void free_slot(unsigned ns) {
        slots_[ns].node = NULL_INDEX;  // not linked: no node of the tree
        if (!marked(ns)) {
            try {
                free_.push_back(ns);
            } catch (const std::bad_alloc&) {
                return;  // the slot simply stays unused
            }
            set_mark(ns, true);
        }
    }

    // Builds the tree of the one-by-one insertion of `order` into an empty tree.
    // On allocation failure the tree is left empty and std::bad_alloc propagates.
    unsigned bulk_insert(vec<unsigned>& order) {
        try {
            return bulk_insert_impl(order);
        } catch (const std::bad_alloc&) {
            slots_.clear();
            free_.clear();
            marks_.clear();
            linked_ = 0;
            aux_.clear();
            aux_valid_ = false;
            extra_.clear();
            has_nan_ = false;
            throw;
        }
    }

    unsigned bulk_insert_impl(vec<unsigned>& order) {
        const std::size_t cols = coords_->cols();
        // Drop invalid entries and repeats, and count the slots the one-by-one
        // insertion would have allocated (a repeat frees its slot for the next).
        vec<std::uint32_t> seen((cols + 31) / 32, 0u);
        std::size_t kept = 0, slot_count = 0;
        bool free_pending = false;
        for (std::size_t i = 0; i < order.size(); ++i) {
            const unsigned v = order[i];
            if (v >= cols) continue;
            if (free_pending)
                free_pending = false;
            else
                ++slot_count;
            if ((seen[v >> 5] >> (v & 31)) & 1u) {
                free_pending = true;
                continue;
            }
            seen[v >> 5] |= 1u << (v & 31);
            order[kept++] = v;
        }
        order.resize(kept);
        if (kept == 0) {
            // Only slots freed by repeats: nothing linked.
            return 0;
        }
        slots_.reserve(slot_count);
        marks_.assign((slot_count + 31) / 32, 0u);
        slots_.resize(kept);
        // In pre-order the subtree made of a range of the insertion order occupies
        // the slots of the same range: its root (the range's first node) first,
        // then its lower side, then its upper side.  So the slots, filled in
        // insertion order, are partitioned in place, stably, level by level.
        for (std::size_t i = 0; i < kept; ++i) fill(slots_[i], order[i]);
        order = vec<unsigned>();
        vec<kd_slot<N>> tmp(kept);
        struct item {
            std::size_t begin, end;
            unsigned axis;
        };
        vec<item> work;
        work.push_back(item{0, kept, 0u});
        kd_slot<N>* sl0 = slots_.data();
        while (!work.empty()) {
            const item it = work.back();
            work.pop_back();
            kd_slot<N>& sl = sl0[it.begin];
            if (it.end - it.begin == 1) continue;
            const double split = sl.x[it.axis];
            std::size_t nl = 0, nu = 0;
            for (std::size_t i = it.begin + 1; i < it.end; ++i) {
                if (sl0[i].x[it.axis] >= split)
                    tmp[nu++] = sl0[i];
                else
                    sl0[it.begin + 1 + nl++] = sl0[i];
            }
            std::memcpy(static_cast<void*>(sl0 + it.begin + 1 + nl), tmp.data(), nu * sizeof(kd_slot<N>));
            const unsigned na = (it.axis + 1 == N) ? 0 : it.axis + 1;
            const std::size_t lb = it.begin + 1, ub = it.begin + 1 + nl;
            if (nu) {
                sl.hi = static_cast<unsigned>(ub);
                work.push_back(item{ub, it.end, na});
            }
            if (nl) {
                sl.lo = static_cast<unsigned>(lb);
                work.push_back(item{lb, ub, na});
            }
        }
        tmp = vec<kd_slot<N>>();
        linked_ = static_cast<unsigned>(kept);
        rebuild_aux();
        // Slots freed by repeats stay allocated and on the free stack.
        for (std::size_t s = kept; s < slot_count; ++s) {
            slots_.push_back(kd_slot<N>());
            slots_.back().node = NULL_INDEX;
            slots_.back().lo = slots_.back().hi = NULL_INDEX;
            free_.push_back(s);
            set_mark(s, true);
        }
        return static_cast<unsigned>(kept);
    }

    const dense2D<double>* coords_;
    vec<kd_slot<N>> slots_;
    vec<std::uint64_t> free_;
    vec<std::uint32_t> marks_;
    unsigned linked_ = 0;
    // The bucket tree over the nodes linked by the last bulk build, and the slots
    // linked one by one since (searched linearly until the next rebuild).
    bool want_aux_ = false;
    bool aux_valid_ = false;
    bool strict_ = false;
    bool has_nan_ = false;  // some linked slot has a NaN coordinate
    bucket_tree<N> aux_;
    vec<unsigned> extra_;
};

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_EDITING_KD_TREE_H
