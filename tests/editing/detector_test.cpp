#include "editing/helpers.h"
#include "editing/reference.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_test;

namespace {

// The documented tree in the detector's dimension.
struct oracle {
    unsigned dim;
    nodara_ref::tree<2> t2;
    nodara_ref::tree<3> t3;
    oracle(const dense2D<double>& pos, unsigned d) : dim(d), t2(pos), t3(pos) {}
    unsigned insert(const std::vector<unsigned>& l) { return dim == 2 ? t2.insert(l) : t3.insert(l); }
    std::size_t size() const { return dim == 2 ? t2.slots.size() : t3.slots.size(); }
    unsigned closest(const double* P, unsigned x = NIL) const { return dim == 2 ? t2.closest(P, x) : t3.closest(P, x); }
    std::vector<unsigned> box(const double* l, const double* h) const { return dim == 2 ? t2.box(l, h) : t3.box(l, h); }
};

unsigned closest(const node_detector& d, unsigned dim, const double* P) {
    return dim == 2 ? d.find_closest(V2{P[0], P[1]}) : d.find_closest(V3{P[0], P[1], P[2]});
}

double d2_to(const dense2D<double>& pos, unsigned v, const double* P) {
    double s = 0.0;
    for (unsigned k = 0; k < pos.rows(); ++k) s += (P[k] - pos(k, v)) * (P[k] - pos(k, v));
    return s;
}

TEST(DetectorBuild, StatusesAndTheEmptyDetector) {
    dense2D<double> pos(2, 4, {0., 0., 1., 0., 0., 1., 1., 1.}), pos4(4, 4, 0.0);
    node_detector d(pos), fresh;
    EXPECT_EQ(d.size(), 4u);
    // Failed checks of the list forms keep the previous tree.
    EXPECT_EQ(d.reinit(pos4, list_of({0})), -1);
    EXPECT_EQ(d.reinit(pos, list_of({0, 4})), -2);
    dense2D<unsigned> m[1] = {dense2D<unsigned>(2, 1, {0, 1})};
    EXPECT_EQ(d.reinit(pos, m + 1, m), -3);
    EXPECT_EQ(d.size(), 4u);
    EXPECT_EQ(d.find_closest(V2{0.9, 0.9}), 3u);
    EXPECT_EQ(d.reinit(pos, list_of({1, NIL, 1})), 0);
    EXPECT_EQ(d.size(), 2u);  // the repeat keeps a freed slot
    EXPECT_EQ(d.reinit(pos, m[0]), 0);
    EXPECT_EQ(d.size(), 2u);
    // reinit(pos) clears first, even when it fails.
    EXPECT_EQ(d.reinit(pos4), -1);
    for (node_detector* e : {&d, &fresh}) {
        dense1D<unsigned> found = list_of({42});
        EXPECT_EQ(e->size(), 0u);
        EXPECT_EQ(e->find_closest(V2{0., 0.}), NIL);
        EXPECT_EQ(e->find_closest(V3{0., 0., 0.}), NIL);
        EXPECT_EQ(e->find_closest(0u), NIL);
        e->find_in_box(V2{-1., -1.}, V2{1., 1.}, found);
        EXPECT_EQ(vec_of(found), (uvec{42}));
        EXPECT_EQ(e->insert(list_of({0, 1})), 0u);
    }
}

TEST(DetectorBuild, RepeatedNodeIsCountedOnceAndItsSlotReused) {
    dense2D<double> pos(2, 5, {0., 0., 1., 0., 2., 0., 3., 0., 4., 0.});
    node_detector d(pos, list_of({0, 1}));
    EXPECT_EQ(d.insert(list_of({1})), 0u);
    EXPECT_EQ(d.size(), 3u);
    EXPECT_EQ(d.insert(list_of({2})), 1u);
    EXPECT_EQ(d.size(), 3u);
    EXPECT_EQ(d.insert(list_of({3, 9, NIL, 4})), 2u);
    EXPECT_EQ(d.size(), 5u);
    EXPECT_EQ(d.insert(dense2D<unsigned>(2, 1, {4, 0})), 0u);
}

TEST(DetectorBuild, CopiesAreDeepAndIndependent) {
    dense2D<double> pos(3, 3, {0., 0., 0., 1., 0., 0., 2., 0., 0.});
    node_detector a(pos, list_of({0, 1}));
    node_detector b(a), c, empty;
    a.clear();
    c = b;
    EXPECT_EQ(c.insert(list_of({2})), 1u);
    EXPECT_EQ(b.find_closest(V3{1.9, 0., 0.}), 1u);
    EXPECT_EQ(c.find_closest(V3{1.9, 0., 0.}), 2u);
    c = c;
    EXPECT_EQ(c.size(), 3u);
    c = empty;
    EXPECT_EQ(c.size(), 0u);
}

// Bulk loads, batches (repeats, indices out of range) and copies answer as the documented
// tree (same node among ties, same box walk order) and as brute force.
TEST(DetectorQueries, MatchTheDocumentedTreeAndBruteForce) {
    for (unsigned c = 0; c < 16; ++c) {
        const unsigned dim = 2 + c / 8, n = 300, seed = c % 4 + 1;
        const bool grid = c / 4 % 2;
        SCOPED_TRACE(testing::Message() << "dim " << dim << " grid " << grid << " seed " << seed);
        const dense2D<double> pos = random_cloud(dim, n, grid, seed);
        std::mt19937_64 gen(seed);
        oracle ref(pos, dim);
        node_detector d;
        std::vector<bool> in(n, seed == 1);
        if (seed == 1) {
            ASSERT_EQ(d.reinit(pos), 0);
            ref.insert(iota(n));
        } else {
            ASSERT_EQ(d.reinit(pos, dense1D<unsigned>()), 0);
            for (unsigned batch : {100u, 30u, 200u}) {
                std::vector<unsigned> l;
                for (unsigned i = 0; i < batch; ++i) l.push_back(static_cast<unsigned>(gen() % (n + 20)));
                for (unsigned v : l)
                    if (v < n) in[v] = true;
                EXPECT_EQ(d.insert(list_of(l)), ref.insert(l));
            }
        }
        EXPECT_EQ(d.size(), ref.size());
        auto brute = [&](const double* P, unsigned ex) {
            double best = DBL_MAX;
            for (unsigned v = 0; v < n; ++v)
                if (in[v] && v != ex) best = std::min(best, d2_to(pos, v, P));
            return best;
        };
        const node_detector copy(d);
        std::uniform_real_distribution<double> u(-1.5, 7.5);
        for (int q = 0; q < 300; ++q) {
            double P[3] = {u(gen), u(gen), dim == 3 ? u(gen) : 0.0}, lo[3], hi[3];
            if (grid && q % 3)  // on grid nodes, or half way between: ties
                for (double& p : P) p = std::floor(p * (q % 3)) / (q % 3);
            const unsigned got = closest(d, dim, P);
            ASSERT_NE(got, NIL);
            EXPECT_EQ(d2_to(pos, got, P), brute(P, NIL));
            EXPECT_EQ(got, ref.closest(P));
            EXPECT_EQ(closest(copy, dim, P), got);
            for (unsigned k = 0; k < 3; ++k) {  // a point box every third query
                lo[k] = P[k] - (q % 3 ? u(gen) / 2 : 0.0);
                hi[k] = P[k] + (q % 3 ? u(gen) / 2 : 0.0);
            }
            dense1D<unsigned> found = list_of({7777});
            if (dim == 2)
                d.find_in_box(V2{lo[0], lo[1]}, V2{hi[0], hi[1]}, found);
            else
                d.find_in_box(V3{lo[0], lo[1], lo[2]}, V3{hi[0], hi[1], hi[2]}, found);
            std::vector<unsigned> got_box = vec_of(found), inside;
            ASSERT_EQ(got_box.front(), 7777u);  // appended to, not cleared
            got_box.erase(got_box.begin());
            EXPECT_EQ(got_box, ref.box(lo, hi));
            for (unsigned v = 0; v < n; ++v) {
                bool yes = in[v];
                for (unsigned k = 0; k < dim; ++k) yes = yes && lo[k] <= pos(k, v) && pos(k, v) <= hi[k];
                if (yes) inside.push_back(v);
            }
            std::sort(got_box.begin(), got_box.end());
            EXPECT_EQ(got_box, inside);
        }
        for (unsigned v = 0; v < n; v += 3) {  // v need not be in the tree
            const double P[3] = {pos(0, v), pos(1, v), dim == 3 ? pos(2, v) : 0.0};
            const unsigned got = d.find_closest(v);
            ASSERT_NE(got, v);
            EXPECT_EQ(d2_to(pos, got, P), brute(P, v));
            EXPECT_EQ(got, ref.closest(P, v));
        }
    }
}

TEST(DetectorQueries, EdgeCases) {
    dense2D<double> pos(2, 4, {1., 1., 1., 1., 1., 1., 5., 5.});
    node_detector lone(pos, list_of({3}));
    EXPECT_EQ(lone.find_closest(3u), NIL);
    EXPECT_EQ(lone.find_closest(0u), 3u);
    EXPECT_EQ(lone.find_closest(4u), NIL);
    // 2-D queries on a 3-D tree are taken at z = 0; 3-D queries on a 2-D tree ignore z.
    dense2D<double> pos3(3, 3, {0., 0., 0., 1., 1., 0., 1., 1., 1.});
    node_detector d3(pos3);
    dense1D<unsigned> found;
    d3.find_in_box(V2{-5., -5.}, V2{5., 5.}, found);
    uvec got = vec_of(found);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (uvec{0, 1}));
    EXPECT_EQ(d3.find_closest(V2{1., 1.}), 1u);
    dense2D<double> pos2(2, 2, {0., 0., 3., 3.});
    node_detector d2(pos2);
    EXPECT_EQ(d2.find_closest(V3{2.9, 2.9, -100.}), 1u);
    found = dense1D<unsigned>();
    d2.find_in_box(V3{2., 2., 50.}, V3{4., 4., 60.}, found);
    EXPECT_EQ(vec_of(found), (uvec{1}));
    // 3000 coincident nodes make a chain as deep as the node count.
    dense2D<double> chain(2, 3001, 1.0);
    chain(0, 3000) = 2.0;
    node_detector deep(chain);
    EXPECT_EQ(deep.size(), 3001u);
    EXPECT_EQ(deep.find_closest(V2{2.1, 1.}), 3000u);
    found = dense1D<unsigned>();
    deep.find_in_box(V2{0., 0.}, V2{1.5, 1.5}, found);
    EXPECT_EQ(found.size(), 3000u);
}

TEST(DetectorQueries, NonFiniteInputTerminates) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    dense2D<double> pos = random_cloud(3, 100, true, 9);
    for (unsigned j = 0; j < 100; j += 5) pos(j % 3, j) = nan;
    node_detector d(pos);
    oracle ref(pos, 3);
    ref.insert(iota(100));
    for (unsigned v = 0; v < 100; ++v) {
        const double P[3] = {pos(0, v), pos(1, v), pos(2, v)};
        EXPECT_EQ(d.find_closest(v), ref.closest(P, v));
    }
    const double P[3] = {nan, nan, nan};
    EXPECT_EQ(d.find_closest(V3{nan, nan, nan}), ref.closest(P));
}

TEST(DetectorFaults, ReinitAndCopyReportOrLeaveEmpty) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> pos = random_cloud(3, 40, false, 1);
    node_detector d, c;
    const int status =
        expect_failures_report([&] { d.clear(); }, [&] { return d.reinit(pos); }, [&] { EXPECT_EQ(d.size(), 0u); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(d.size(), 40u);
    // A copy under failure is either whole or empty.
    unsigned copied = 0;
    for_each_allocation_failure([&] { c.clear(); }, [&] { return (c = d).size(); },
                                [&](unsigned s) { EXPECT_EQ(s, 0u); }, copied);
    EXPECT_EQ(copied, 40u);
}

TEST(DetectorFaults, InsertAndBoxQueryUnderFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> pos = random_cloud(2, 120, true, 4);
    const std::vector<unsigned> all = iota(120);
    const dense1D<unsigned> rest = list_of(std::vector<unsigned>(all.begin() + 20, all.end()));
    node_detector d;
    unsigned added = 0;  // whatever went in stays searchable
    for_each_allocation_failure(
        [&] { ASSERT_EQ(d.reinit(pos, list_of(std::vector<unsigned>(all.begin(), all.begin() + 20))), 0); },
        [&] { return d.insert(rest); },
        [&](unsigned r) {
            EXPECT_LE(r, 100u);
            EXPECT_LT(d.find_closest(V2{3., 3.}), 120u);
        },
        added);
    EXPECT_EQ(added, 100u);
    dense1D<unsigned> found;
    std::size_t count = 0;  // a box query appends at most what is there
    for_each_allocation_failure([&] { found = dense1D<unsigned>(); },
                                [&] {
                                    d.find_in_box(V2{0., 0.}, V2{6., 6.}, found);
                                    return found.size();
                                },
                                [&](std::size_t k) { EXPECT_LT(k, 120u); }, count);
    EXPECT_EQ(count, 120u);
}

}  // namespace
