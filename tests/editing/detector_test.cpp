#include "common/fault_injection.h"
#include "editing/helpers.h"
#include "editing/reference.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <limits>
#include <random>
#include <vector>

using namespace zq5::nodara;
using nodara_test::list_of;
using nodara_test::random_cloud;
using nodara_test::vec_of;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;

namespace {

double d2_to(const dense2D<double>& pos, unsigned v, const double* P, unsigned dim) {
    double s = 0.0;
    for (unsigned k = 0; k < dim; ++k) {
        const double d = P[k] - (k < pos.rows() ? pos(k, v) : 0.0);
        s += d * d;
    }
    return s;
}

// ---------------------------------------------------------------------------
// Building.

TEST(DetectorBuild, EmptyDetectorAnswersNothing) {
    node_detector d;
    dense1D<unsigned> found = list_of({42});
    EXPECT_EQ(d.size(), 0u);
    EXPECT_EQ(d.find_closest(vector_fixed<double, 2>{0., 0.}), zq5::NULL_INDEX);
    EXPECT_EQ(d.find_closest(vector_fixed<double, 3>{0., 0., 0.}), zq5::NULL_INDEX);
    EXPECT_EQ(d.find_closest(0u), zq5::NULL_INDEX);
    d.find_in_box(vector_fixed<double, 2>{-1., -1.}, vector_fixed<double, 2>{1., 1.}, found);
    EXPECT_EQ(vec_of(found), (std::vector<unsigned>{42}));
    EXPECT_EQ(d.insert(list_of({0, 1})), 0u);
}

TEST(DetectorBuild, ReinitStatuses) {
    dense2D<double> pos(2, 4, {0., 0., 1., 0., 0., 1., 1., 1.}), pos4(4, 4, 0.0);
    node_detector d(pos);
    EXPECT_EQ(d.size(), 4u);
    // Failed checks of the list forms keep the previous tree.
    EXPECT_EQ(d.reinit(pos4, list_of({0})), -1);
    EXPECT_EQ(d.reinit(pos, list_of({0, 4})), -2);
    dense2D<unsigned> m[1] = {dense2D<unsigned>(2, 1, {0, 1})};
    EXPECT_EQ(d.reinit(pos, m + 1, m), -3);
    EXPECT_EQ(d.size(), 4u);
    EXPECT_EQ(d.find_closest(vector_fixed<double, 2>{0.9, 0.9}), 3u);
    EXPECT_EQ(d.reinit(pos, list_of({1, zq5::NULL_INDEX, 1})), 0);
    EXPECT_EQ(d.size(), 2u);  // the repeat keeps a freed slot
    EXPECT_EQ(d.reinit(pos, m[0]), 0);
    EXPECT_EQ(d.size(), 2u);
    // reinit(pos) clears first, even when it fails.
    EXPECT_EQ(d.reinit(pos4), -1);
    EXPECT_EQ(d.size(), 0u);
    EXPECT_EQ(d.find_closest(0u), zq5::NULL_INDEX);
}

TEST(DetectorBuild, RepeatedNodeIsCountedOnceAndItsSlotReused) {
    dense2D<double> pos(2, 5, {0., 0., 1., 0., 2., 0., 3., 0., 4., 0.});
    node_detector d(pos, list_of({0, 1}));
    EXPECT_EQ(d.size(), 2u);
    EXPECT_EQ(d.insert(list_of({1})), 0u);
    EXPECT_EQ(d.size(), 3u);
    EXPECT_EQ(d.insert(list_of({2})), 1u);
    EXPECT_EQ(d.size(), 3u);
    EXPECT_EQ(d.insert(list_of({3, 9, zq5::NULL_INDEX, 4})), 2u);
    EXPECT_EQ(d.size(), 5u);
    dense2D<unsigned> m(2, 1, {4, 0});
    EXPECT_EQ(d.insert(m), 0u);
}

TEST(DetectorBuild, SizeMatchesTheOneByOneInsertion) {
    const dense2D<double> pos = random_cloud(3, 80, true, 2);
    std::mt19937 gen(4);
    for (int trial = 0; trial < 20; ++trial) {
        std::vector<unsigned> list;
        for (int i = 0; i < 60; ++i) list.push_back(gen() % 90);  // repeats and out of range
        nodara_ref::tree<3> ref(pos);
        const unsigned added = ref.insert(list);
        node_detector d;
        ASSERT_EQ(d.reinit(pos, dense1D<unsigned>()), 0);
        EXPECT_EQ(d.insert(list_of(list)), added);
        EXPECT_EQ(d.size(), ref.slots.size());
    }
}

TEST(DetectorBuild, CopiesAreDeepAndIndependent) {
    dense2D<double> pos(3, 3, {0., 0., 0., 1., 0., 0., 2., 0., 0.});
    node_detector a(pos, list_of({0, 1}));
    node_detector b(a);
    a.clear();
    EXPECT_EQ(b.size(), 2u);
    EXPECT_EQ(b.find_closest(vector_fixed<double, 3>{1.9, 0., 0.}), 1u);
    node_detector c;
    c = b;
    EXPECT_EQ(c.insert(list_of({2})), 1u);
    EXPECT_EQ(b.find_closest(vector_fixed<double, 3>{1.9, 0., 0.}), 1u);
    EXPECT_EQ(c.find_closest(vector_fixed<double, 3>{1.9, 0., 0.}), 2u);
    c = c;
    EXPECT_EQ(c.size(), 3u);
    node_detector empty;
    c = empty;  // assigning an empty detector leaves the target empty
    EXPECT_EQ(c.size(), 0u);
    EXPECT_EQ(c.find_closest(0u), zq5::NULL_INDEX);
}

// ---------------------------------------------------------------------------
// Queries against brute force and against the documented tree.

TEST(DetectorQueries, FindClosestMatchesBruteForceAndTieOrder) {
    for (unsigned dim : {2u, 3u})
        for (bool grid : {true, false})
            for (std::uint64_t seed = 1; seed <= 4; ++seed) {
                SCOPED_TRACE(testing::Message() << "dim " << dim << " grid " << grid << " seed " << seed);
                const unsigned n = 300;
                const dense2D<double> pos = random_cloud(dim, n, grid, seed);
                node_detector d(pos);
                std::vector<unsigned> all(n);
                for (unsigned i = 0; i < n; ++i) all[i] = i;
                nodara_ref::tree<3> ref3(pos);
                nodara_ref::tree<2> ref2(pos);
                if (dim == 3)
                    ref3.insert(all);
                else
                    ref2.insert(all);
                std::mt19937_64 gen(seed);
                std::uniform_real_distribution<double> u(-1.5, 7.5);
                for (int q = 0; q < 400; ++q) {
                    double P[3] = {u(gen), u(gen), dim == 3 ? u(gen) : 0.0};
                    if (grid && q % 2) {
                        for (double& p : P) p = std::floor(p);
                        if (dim == 2) P[2] = 0.0;
                    }
                    const unsigned got = dim == 3 ? d.find_closest(vector_fixed<double, 3>{P[0], P[1], P[2]})
                                                  : d.find_closest(vector_fixed<double, 2>{P[0], P[1]});
                    double best = DBL_MAX;
                    for (unsigned v = 0; v < n; ++v) best = std::min(best, d2_to(pos, v, P, dim));
                    ASSERT_NE(got, zq5::NULL_INDEX);
                    EXPECT_EQ(d2_to(pos, got, P, dim), best);
                    EXPECT_EQ(got, dim == 3 ? ref3.closest(P) : ref2.closest(P));
                }
                for (unsigned v = 0; v < n; v += 3) {
                    const unsigned got = d.find_closest(v);
                    double P[3] = {pos(0, v), pos(1, v), dim == 3 ? pos(2, v) : 0.0};
                    double best = DBL_MAX;
                    for (unsigned w = 0; w < n; ++w)
                        if (w != v) best = std::min(best, d2_to(pos, w, P, dim));
                    ASSERT_NE(got, v);
                    EXPECT_EQ(d2_to(pos, got, P, dim), best);
                    EXPECT_EQ(got, dim == 3 ? ref3.closest(P, v) : ref2.closest(P, v));
                }
            }
}

TEST(DetectorQueries, IncrementalInsertionsMatchTheDocumentedTree) {
    // A bulk build followed by one-by-one insertions of small and large batches.
    for (unsigned dim : {2u, 3u}) {
        SCOPED_TRACE(dim);
        const unsigned n = 400;
        const dense2D<double> pos = random_cloud(dim, n, true, 21);
        std::vector<unsigned> first, second, third;
        for (unsigned i = 0; i < n; ++i) (i < 100 ? first : (i < 130 ? second : third)).push_back(i);
        second.push_back(5);  // already present
        node_detector d(pos, list_of(first));
        EXPECT_EQ(d.insert(list_of(second)), 30u);
        EXPECT_EQ(d.insert(list_of(third)), 270u);
        nodara_ref::tree<2> ref2(pos);
        nodara_ref::tree<3> ref3(pos);
        for (const auto* l : {&first, &second, &third}) {
            if (dim == 2)
                ref2.insert(*l);
            else
                ref3.insert(*l);
        }
        EXPECT_EQ(d.size(), dim == 2 ? ref2.slots.size() : ref3.slots.size());
        node_detector copy(d);
        std::mt19937_64 gen(3);
        std::uniform_real_distribution<double> u(-1.0, 7.0);
        for (int q = 0; q < 300; ++q) {
            double P[3] = {std::floor(u(gen) * 2) / 2, std::floor(u(gen) * 2) / 2, dim == 3 ? u(gen) : 0.0};
            const unsigned want = dim == 2 ? ref2.closest(P) : ref3.closest(P);
            const unsigned got = dim == 2 ? d.find_closest(vector_fixed<double, 2>{P[0], P[1]})
                                          : d.find_closest(vector_fixed<double, 3>{P[0], P[1], P[2]});
            EXPECT_EQ(got, want);
            EXPECT_EQ(dim == 2 ? copy.find_closest(vector_fixed<double, 2>{P[0], P[1]})
                               : copy.find_closest(vector_fixed<double, 3>{P[0], P[1], P[2]}),
                      want);
        }
        for (unsigned v = 0; v < n; v += 7) {
            const double P[3] = {pos(0, v), pos(1, v), dim == 3 ? pos(2, v) : 0.0};
            EXPECT_EQ(d.find_closest(v), dim == 2 ? ref2.closest(P, v) : ref3.closest(P, v));
        }
    }
}

TEST(DetectorQueries, FindInBoxMatchesBruteForceInWalkOrder) {
    for (unsigned dim : {2u, 3u})
        for (bool grid : {true, false})
            for (std::uint64_t seed = 1; seed <= 3; ++seed) {
                SCOPED_TRACE(testing::Message() << "dim " << dim << " grid " << grid << " seed " << seed);
                const unsigned n = 250;
                const dense2D<double> pos = random_cloud(dim, n, grid, seed + 10);
                std::vector<unsigned> list;
                for (unsigned i = 0; i < n; i += 1 + (i % 3)) list.push_back(i);
                node_detector d(pos, list_of(list));
                nodara_ref::tree<2> ref2(pos);
                nodara_ref::tree<3> ref3(pos);
                if (dim == 3)
                    ref3.insert(list);
                else
                    ref2.insert(list);
                std::mt19937_64 gen(seed);
                std::uniform_real_distribution<double> u(-1.5, 7.5);
                for (int q = 0; q < 200; ++q) {
                    double lo[3], hi[3];
                    for (unsigned k = 0; k < 3; ++k) {
                        lo[k] = u(gen);
                        hi[k] = lo[k] + (q % 3 == 0 ? 0.0 : 2.0 * u(gen));
                        if (grid) {
                            lo[k] = std::floor(lo[k]);
                            hi[k] = std::floor(hi[k]);
                        }
                    }
                    dense1D<unsigned> found = list_of({7777});
                    if (dim == 3)
                        d.find_in_box(vector_fixed<double, 3>{lo[0], lo[1], lo[2]},
                                      vector_fixed<double, 3>{hi[0], hi[1], hi[2]}, found);
                    else
                        d.find_in_box(vector_fixed<double, 2>{lo[0], lo[1]}, vector_fixed<double, 2>{hi[0], hi[1]},
                                      found);
                    std::vector<unsigned> got = vec_of(found);
                    ASSERT_FALSE(got.empty());
                    EXPECT_EQ(got.front(), 7777u);  // appended, not cleared
                    got.erase(got.begin());
                    EXPECT_EQ(got, dim == 3 ? ref3.box(lo, hi) : ref2.box(lo, hi));
                    std::vector<unsigned> brute;
                    for (unsigned v : list) {
                        bool in = true;
                        for (unsigned k = 0; k < dim; ++k)
                            if (!(lo[k] <= pos(k, v) && pos(k, v) <= hi[k])) in = false;
                        if (in) brute.push_back(v);
                    }
                    std::sort(got.begin(), got.end());
                    EXPECT_EQ(got, brute);
                }
            }
}

TEST(DetectorQueries, CoincidentNodesAnswerDeterministically) {
    dense2D<double> pos(2, 4, {1., 1., 1., 1., 1., 1., 5., 5.});
    node_detector a(pos), b(pos);
    const unsigned first = a.find_closest(vector_fixed<double, 2>{1., 1.});
    EXPECT_LT(first, 3u);
    EXPECT_EQ(b.find_closest(vector_fixed<double, 2>{1., 1.}), first);
    nodara_ref::tree<2> ref(pos);
    ref.insert({0, 1, 2, 3});
    const double P[2] = {1., 1.};
    EXPECT_EQ(first, ref.closest(P));
    // The node itself is never its own nearest; a lone node has none.
    const unsigned other = a.find_closest(first);
    EXPECT_LT(other, 3u);
    EXPECT_NE(other, first);
    node_detector lone(pos, list_of({3}));
    EXPECT_EQ(lone.find_closest(3u), zq5::NULL_INDEX);
    EXPECT_EQ(lone.find_closest(0u), 3u);  // node 0 is not in the detector
    EXPECT_EQ(lone.find_closest(4u), zq5::NULL_INDEX);
}

TEST(DetectorQueries, MixedDimensions) {
    dense2D<double> pos3(3, 3, {0., 0., 0., 1., 1., 0., 1., 1., 1.});
    node_detector d3(pos3);
    dense1D<unsigned> found;
    d3.find_in_box(vector_fixed<double, 2>{-5., -5.}, vector_fixed<double, 2>{5., 5.}, found);
    std::vector<unsigned> got = vec_of(found);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<unsigned>{0, 1}));  // z exactly 0 only
    EXPECT_EQ(d3.find_closest(vector_fixed<double, 2>{1., 1.}), 1u);
    dense2D<double> pos2(2, 2, {0., 0., 3., 3.});
    node_detector d2(pos2);
    EXPECT_EQ(d2.find_closest(vector_fixed<double, 3>{2.9, 2.9, -100.}), 1u);
    found = dense1D<unsigned>();
    d2.find_in_box(vector_fixed<double, 3>{2., 2., 50.}, vector_fixed<double, 3>{4., 4., 60.}, found);
    EXPECT_EQ(vec_of(found), (std::vector<unsigned>{1}));
}

TEST(DetectorQueries, NonFiniteInputTerminates) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    dense2D<double> pos = random_cloud(3, 100, true, 9);
    for (unsigned j = 0; j < 100; j += 5) pos(j % 3, j) = nan;
    node_detector d(pos);
    nodara_ref::tree<3> ref(pos);
    std::vector<unsigned> all(100);
    for (unsigned i = 0; i < 100; ++i) all[i] = i;
    ref.insert(all);
    for (unsigned v = 0; v < 100; ++v) {
        const double P[3] = {pos(0, v), pos(1, v), pos(2, v)};
        EXPECT_EQ(d.find_closest(v), ref.closest(P, v));
    }
    EXPECT_EQ(d.find_closest(vector_fixed<double, 3>{nan, nan, nan}), ref.closest(std::vector<double>(3, nan).data()));
}

TEST(DetectorQueries, DeepChainOfCoincidentNodes) {
    // 3000 identical nodes make a chain as deep as the node count.
    dense2D<double> pos(2, 3001, 1.0);
    pos(0, 3000) = 2.0;
    node_detector d(pos);
    EXPECT_EQ(d.size(), 3001u);
    EXPECT_EQ(d.find_closest(vector_fixed<double, 2>{2.1, 1.}), 3000u);
    dense1D<unsigned> found;
    d.find_in_box(vector_fixed<double, 2>{0., 0.}, vector_fixed<double, 2>{1.5, 1.5}, found);
    EXPECT_EQ(found.size(), 3000u);
}

// ---------------------------------------------------------------------------
// Allocation failure.

TEST(DetectorFaults, ReinitReportsAndLeavesTheDetectorEmpty) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> pos = random_cloud(3, 40, false, 1);
    node_detector d;
    int result = 0;
    nodara_test::for_each_allocation_failure(
        [&] { d.clear(); }, [&] { return d.reinit(pos); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(d.size(), 0u);
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(d.size(), 40u);
    // Copy and query under failure: no crash, no leak, either a copy or empty.
    node_detector c;
    unsigned ignored = 0;
    nodara_test::for_each_allocation_failure(
        [&] { c.clear(); },
        [&] {
            c = d;
            return c.size();
        },
        [&](unsigned s) { EXPECT_EQ(s, 0u); }, ignored);
    EXPECT_EQ(ignored, 40u);
}

TEST(DetectorFaults, InsertAndQueriesUnderFailureStayConsistent) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> pos = random_cloud(2, 120, true, 4);
    std::vector<unsigned> first, rest;
    for (unsigned i = 0; i < 120; ++i) (i < 20 ? first : rest).push_back(i);
    node_detector d;
    unsigned added = 0;
    const dense1D<unsigned> rest_list = list_of(rest);
    nodara_test::for_each_allocation_failure(
        [&] { ASSERT_EQ(d.reinit(pos, list_of(first)), 0); }, [&] { return d.insert(rest_list); },
        [&](unsigned r) {
            EXPECT_LE(r, 100u);
            // Whatever went in is searchable: every answer is a real nearest node.
            const unsigned got = d.find_closest(vector_fixed<double, 2>{3., 3.});
            EXPECT_LT(got, 120u);
        },
        added);
    EXPECT_EQ(added, 100u);
    // Into an empty tree the nodes go in bulk; a failure there falls back to the
    // one-by-one insertion.  Queries stay within what went in.
    node_detector e;
    unsigned bulk = 0;
    nodara_test::for_each_allocation_failure(
        [&] { ASSERT_EQ(e.reinit(pos, dense1D<unsigned>()), 0); }, [&] { return e.insert(rest_list); },
        [&](unsigned r) {
            EXPECT_LE(r, 100u);
            EXPECT_LE(e.size(), 100u);
            const unsigned got = e.find_closest(vector_fixed<double, 2>{3., 3.});
            EXPECT_TRUE(got == zq5::NULL_INDEX || (got >= 20u && got < 120u));
        },
        bulk);
    EXPECT_EQ(bulk, 100u);
    nodara_ref::tree<2> ref(pos);
    ref.insert(first);
    ref.insert(rest);
    const double P[2] = {2.5, 3.5};
    EXPECT_EQ(d.find_closest(vector_fixed<double, 2>{2.5, 3.5}), ref.closest(P));
    dense1D<unsigned> found;
    std::size_t count = 0;
    nodara_test::for_each_allocation_failure(
        [&] { found = dense1D<unsigned>(); },
        [&] {
            d.find_in_box(vector_fixed<double, 2>{0., 0.}, vector_fixed<double, 2>{6., 6.}, found);
            return found.size();
        },
        [&](std::size_t n) { EXPECT_LT(n, 120u); }, count);
    EXPECT_EQ(count, 120u);
}

}  // namespace
