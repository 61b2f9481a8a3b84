#include "editing/helpers.h"
#include "editing/reference.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <random>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_test;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

struct example {
    const char* what;
    unsigned dim;
    std::vector<double> pos;
    uvec l1, l2;  // l1 empty: the snap forms; l2 empty: the one-list form
    double tol;
    int count;
    uvec ids;
};

const example kExamples[] = {
    {"non-transitive: 2's neighbour is gone", 2, {0., 0., .6, 0., 1.2, 0.}, {0, 1, 2}, {}, 1.0, 1, {0, 0, 2}},
    {"earlier in the list survives", 2, {0, 0, 1, 0, 9, 0, 3, 0, 4, 0, 9, 0}, {5, 2}, {}, 0.0, 1, {0, 1, 5, 3, 4, 5}},
    {"all coincident, listed backwards", 2, {0., 0., 0., 0., 0., 0.}, {2, 1, 0}, {}, 0.0, 2, {2, 2, 2}},
    {"nearest earlier survivor, compressed", 2, {0., 0., .5, 0., .3, 0.}, {0, 1, 2}, {}, 0.6, 2, {0, 0, 0}},
    {"a non-target merges onto any target", 2, {0., 0., 0., 0., 5., 5.}, {0}, {1, 2}, 0.0, 1, {1, 1, 2}},
    {"tol 0: -0 is 0, 1e-300 is not", 3, {0, 0, 0, 1e-300, 0, 0, 0, 0, 0, -0., 0, -0.}, {}, {}, 0.0, 2, {0, 1, 0, 0}},
    {"snap takes the survivor's coordinates", 2, {0., 0., .1, 0., 5., 5.}, {}, {}, 0.2, 1, {0, 0, 2}},
    // Pass 1 merges the middle nodes (+2); pass 2 the third ones, counting all four again.
    {"count over passes", 2, {0, 0, .3, 0, .75, 0, 10, 0, 10.3, 0, 10.75, 0}, {}, {}, 0.8, 6, {0, 0, 0, 3, 3, 3}},
};

TEST(MergeExamples, NodeListAndSnapForms) {
    for (const example& e : kExamples) {
        SCOPED_TRACE(e.what);
        dense2D<double> pos(e.dim, e.pos.size() / e.dim);
        for (std::size_t i = 0; i < e.pos.size(); ++i) pos(i % e.dim, i / e.dim) = e.pos[i];
        dense1D<unsigned> ids;
        if (!e.l1.empty()) {
            EXPECT_EQ(e.l2.empty() ? merge(pos, list_of(e.l1), ids, e.tol)
                                   : merge(pos, list_of(e.l1), list_of(e.l2), ids, e.tol),
                      e.count);
            EXPECT_EQ(vec_of(ids), e.ids);
            continue;
        }
        dense2D<double> snapped, snapped10, want;
        ASSERT_TRUE(snapped.copy(pos) && snapped10.copy(pos) && want.copy(pos));
        for (std::size_t i = 0; i < e.ids.size(); ++i)
            for (unsigned k = 0; k < e.dim; ++k) want(k, i) = pos(k, e.ids[i]);
        EXPECT_EQ(merge(snapped, ids, e.tol), e.count);
        EXPECT_EQ(vec_of(ids), e.ids);
        EXPECT_EQ(merge(snapped10, e.tol), e.count);
        EXPECT_EQ(vec_of(snapped), vec_of(want));  // same size, survivors' coordinates
        EXPECT_EQ(vec_of(snapped10), vec_of(want));
    }
}

TEST(MergeExamples, ConnectivityForms) {
    // Mode 0: two triangles sharing an edge, given with duplicated nodes.
    const dense2D<double> pos(2, 6, {0., 0., 1., 0., 0., 1., 1., 0., 1., 1., 0., 1.});
    dense2D<unsigned> tri(3, 2, {0, 1, 2, 3, 4, 5});
    dense1D<unsigned> ids;
    EXPECT_EQ(merge(pos, tri, ids, 0.0, 0), 2);
    EXPECT_EQ(vec_of(tri), (uvec{0, 1, 2, 1, 4, 2}));
    EXPECT_EQ(vec_of(ids), (uvec{0, 1, 2, 1, 4, 2}));
    // Modes 1, 2: a quadrangle with nodes 1 and 2 0.01 apart, and node 4 as close
    // to node 0 but in no common element: only the element edge collapses.
    const dense2D<double> quad_pos(2, 5, {0., 0., 1., 0., 1., 0.01, 0., 1., 0., 0.01});
    dense2D<unsigned> qm[2] = {dense2D<unsigned>(4, 1, {0, 1, 2, 3}), dense2D<unsigned>(1, 1, {4})};
    EXPECT_EQ(merge(quad_pos, qm, qm + 2, ids, 0.1, 1), 1);
    EXPECT_EQ(vec_of(qm[0]), (uvec{0, 1, 1, 3}));
    EXPECT_EQ(vec_of(ids), (uvec{0, 1, 1, 3, 4}));
    // Segments 0-1, 1-2 at x = 0, 0.03, 0.07: pass 1 maps 1 onto 0, which brings
    // 0 and 2 into one element; only mode 2 makes that second pass.
    const dense2D<double> line(2, 3, {0., 0., .03, 0., .07, 0.});
    for (unsigned mode : {1u, 2u}) {
        dense2D<unsigned> a(2, 1, {0, 1}), b(2, 1, {1, 2});
        EXPECT_EQ(merge(line, a, b, ids, 0.08, mode), static_cast<int>(mode));
        EXPECT_EQ(vec_of(ids), mode == 1 ? (uvec{0, 0, 2}) : (uvec{0, 0, 0}));
        EXPECT_EQ(vec_of(b), mode == 1 ? (uvec{0, 2}) : (uvec{0, 0}));
    }
    // An empty matrix: mode 0 has no nodes to merge; modes 1, 2 give the identity.
    const dense2D<double> three(2, 3, 0.0);
    dense2D<unsigned> empty;
    EXPECT_EQ(merge(three, empty, ids, 0.0, 0), 0);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(merge(three, empty, ids, 0.0, 2), 0);
    EXPECT_EQ(vec_of(ids), (uvec{0, 1, 2}));
}

// The statuses of every form in check order; new_ids emptied, connectivities untouched.
TEST(MergeStatus, InCheckOrder) {
    dense2D<double> pos(2, 3, 0.0), pos4(4, 3, 0.0), pos1(1, 3, 0.0), none(2, 0);
    const dense1D<unsigned> ok = list_of({0, 1, NIL}), bad = list_of({0, 3});
    dense2D<unsigned> m[2] = {dense2D<unsigned>(2, 1, {0, 1}), dense2D<unsigned>(2, 1, {1, 2})};
    dense2D<unsigned>&a = m[0], &b = m[1];
    dense1D<unsigned> ids;
    const struct {
        const char* what;
        std::function<int()> call;
        int status;
        bool takes_ids = true;
    } cases[] = {
        {"1: empty pos", [&] { return merge(none, bad, bad, ids, -1.0); }, 0},
        {"1: rows", [&] { return merge(pos4, bad, bad, ids, -1.0); }, -1},
        {"1: nodes1", [&] { return merge(pos, bad, bad, ids, -1.0); }, -2},
        {"1: nodes2", [&] { return merge(pos, ok, bad, ids, -1.0); }, -3},
        {"1: tol", [&] { return merge(pos, ok, ok, ids, -1.0); }, -4},
        {"1: NaN tol", [&] { return merge(pos, ok, ok, ids, kNaN); }, -4},
        {"1: empty list", [&] { return merge(pos, dense1D<unsigned>(), ok, ids, 0.0); }, 0},
        {"2: nodes", [&] { return merge(pos, list_of({5}), ids, 0.0); }, -2},
        {"2: tol", [&] { return merge(pos, list_of({0}), ids, -0.5); }, -3},
        {"3: empty pos", [&] { return merge(none, m, m + 2, ids, -1.0, 9); }, 0},
        {"3: empty range", [&] { return merge(pos4, m, m, ids, -1.0, 9); }, 0},
        {"3: rows", [&] { return merge(pos4, m + 2, m, ids, -1.0, 9); }, -1},
        {"3: reversed", [&] { return merge(pos, m + 2, m, ids, -1.0, 9); }, -3},
        {"3: tol", [&] { return merge(pos, m, m + 2, ids, -1.0, 9); }, -5},
        {"3: mode", [&] { return merge(pos, m, m + 2, ids, 0.0, 3); }, -6},
        {"4: mode", [&] { return merge(pos, m, m + 2, 0.0, 3); }, -6, false},
        {"5: rows", [&] { return merge(pos4, a, ids, -1.0, 9); }, -1},
        {"5: tol", [&] { return merge(pos, a, ids, -1.0, 9); }, -4},
        {"5: mode", [&] { return merge(pos, a, ids, 0.0, 3); }, -5},
        {"6: mode", [&] { return merge(pos, a, 0.0, 7); }, -5, false},
        {"7: rows", [&] { return merge(pos4, a, b, ids, 0.0, 0); }, -1},
        {"7: tol", [&] { return merge(pos, a, b, ids, -2.0, 0); }, -4},
        {"7: mode", [&] { return merge(pos, a, b, ids, 0.0, 3); }, -5},
        {"8: mode", [&] { return merge(pos, a, b, 0.0, 3); }, -5, false},
        {"9: empty pos", [&] { return merge(none, ids, -1.0); }, 0},
        {"9: rows", [&] { return merge(pos1, ids, -1.0); }, -1},
        {"9: tol", [&] { return merge(pos, ids, -1.0); }, -3},
        {"10: tol", [&] { return merge(pos, -1.0); }, -3, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ids = list_of({7, 7, 7});
        EXPECT_EQ(c.call(), c.status);
        EXPECT_EQ(ids.size(), c.takes_ids ? 0u : 3u);
        EXPECT_EQ(vec_of(a), (uvec{0, 1}));
        EXPECT_EQ(vec_of(b), (uvec{1, 2}));
        EXPECT_EQ(vec_of(pos), std::vector<double>(6, 0.0));
    }
    // Once the checks pass (three coincident nodes), the forms without new_ids.
    EXPECT_EQ(merge(pos, a, b, 0.0, 0), 2);
    EXPECT_EQ(vec_of(a), (uvec{0, 0}));
    EXPECT_EQ(vec_of(b), (uvec{0, 0}));
    dense2D<unsigned> r[2] = {dense2D<unsigned>(2, 1, {2, 1}), dense2D<unsigned>(1, 1, {0})};
    EXPECT_EQ(merge(pos, r, r + 2, 0.0, 0), 2);
    EXPECT_EQ(vec_of(r[0]), (uvec{2, 2}));
    EXPECT_EQ(vec_of(r[1]), (uvec{2}));
}

// Equality with the documented passes on random clouds.  Integer grids: ties for tol >= 1, only coincident nodes below; random reals: no ties
// but coincident repeats; decimal grids: distances equal on paper differ in the last bits.
const struct cloud_case { unsigned dim; bool grid; double tol; double step = 1.0; } kCases[] = {
    {2, true, 0.0},      {3, true, 0.0},       {2, false, 0.0},     {3, false, 0.0}, {2, true, 0.5},
    {3, true, 0.25},     {2, true, 1.0},       {3, true, 1.0},      {2, true, 1.5},  {3, true, 2.0},
    {2, false, 0.05},    {3, false, 0.1},      {2, false, 1e-9},    {3, false, 0.3}, {2, true, 0.1, 0.1},
    {3, true, 0.1, 0.1}, {3, true, 0.15, 0.1}, {2, true, 0.3, 0.1},
};

TEST(MergeReference, NodeListAndSnapForms) {
    for (const cloud_case& c : kCases)
        for (std::uint64_t seed = 1; seed <= 6; ++seed) {
            SCOPED_TRACE(testing::Message()
                         << "dim " << c.dim << " grid " << c.grid << " tol " << c.tol << " seed " << seed);
            const unsigned n = 150 + static_cast<unsigned>(seed) * 20;
            const dense2D<double> pos = random_cloud(c.dim, n, c.grid, seed, c.step);
            std::mt19937_64 gen(seed * 77);
            uvec l1{NIL}, l2;  // repeats and NULL_INDEX, in a random order
            for (unsigned i = 0; i < n; ++i) {
                if (gen() % 3) l1.push_back(static_cast<unsigned>(gen() % n));
                if (gen() % 2) l2.push_back(static_cast<unsigned>(gen() % n));
            }
            dense1D<unsigned> ids;
            const auto ref = nodara_ref::engine(pos, l1, l2, c.tol);
            EXPECT_EQ(merge(pos, list_of(l1), list_of(l2), ids, c.tol), ref.count);
            EXPECT_EQ(vec_of(ids), ref.new_ids);
            const auto ref_same = nodara_ref::engine(pos, l1, l1, c.tol);
            EXPECT_EQ(merge(pos, list_of(l1), ids, c.tol), ref_same.count);
            EXPECT_EQ(vec_of(ids), ref_same.new_ids);
            const auto ref_all = nodara_ref::engine(pos, iota(n), iota(n), c.tol);
            dense2D<double> snapped, want;
            ASSERT_TRUE(snapped.copy(pos) && want.copy(pos));
            EXPECT_EQ(merge(snapped, ids, c.tol), ref_all.count);
            EXPECT_EQ(vec_of(ids), ref_all.new_ids);
            // The coordinates are those of the node the entry names (not always a survivor).
            for (unsigned i = 0; i < n; ++i)
                for (unsigned k = 0; k < c.dim; ++k) want(k, i) = want(k, ref_all.new_ids[i]);
            EXPECT_EQ(vec_of(snapped), vec_of(want));
        }
}

TEST(MergeReference, ConnectivityModes) {
    for (const cloud_case& c : kCases)
        for (unsigned mode = 0; mode <= 2; ++mode)
            for (std::uint64_t seed = 1; seed <= 3; ++seed) {
                SCOPED_TRACE(testing::Message() << "dim " << c.dim << " grid " << c.grid << " tol " << c.tol << " mode "
                                                << mode << " seed " << seed);
                const unsigned n = 120;
                const dense2D<double> pos = random_cloud(c.dim, n, c.grid, seed + 100, c.step);
                dense2D<unsigned> m1 = random_connectivity(3, 60, n, seed);
                dense2D<unsigned> m2 = random_connectivity(4, 30, n, seed + 9);
                m2(3, 0) = NIL;
                std::vector<dense2D<unsigned>> ref_ms(2);
                ASSERT_TRUE(ref_ms[0].copy(m1) && ref_ms[1].copy(m2));
                nodara_ref::merge_result ref;
                if (mode == 0) {
                    const std::vector<const dense2D<unsigned>*> both{&m1, &m2};
                    const uvec list = nodara_ref::unique_list(both);
                    ref = nodara_ref::engine(pos, list, list, c.tol);
                    for (auto& m : ref_ms)
                        for (std::size_t j = 0; j < m.cols(); ++j)
                            for (std::size_t i = 0; i < m.rows(); ++i)
                                if (m(i, j) < ref.new_ids.size()) m(i, j) = ref.new_ids[m(i, j)];
                } else {
                    ref = c.dim == 2 ? nodara_ref::collapse_n<2>(pos, ref_ms, c.tol, mode)
                                     : nodara_ref::collapse_n<3>(pos, ref_ms, c.tol, mode);
                }
                dense1D<unsigned> ids;
                EXPECT_EQ(merge(pos, m1, m2, ids, c.tol, mode), ref.count);
                EXPECT_EQ(vec_of(ids), ref.new_ids);
                EXPECT_EQ(vec_of(m1), vec_of(ref_ms[0]));
                EXPECT_EQ(vec_of(m2), vec_of(ref_ms[1]));
            }
}

TEST(MergeReference, NonFiniteCoordinatesTerminateAndMatch) {
    const double inf = std::numeric_limits<double>::infinity();
    for (double tol : {0.0, 0.5, 1.0})
        for (unsigned dim : {2u, 3u}) {
            SCOPED_TRACE(testing::Message() << "dim " << dim << " tol " << tol);
            dense2D<double> pos = random_cloud(dim, 200, true, 5);
            for (unsigned j = 0; j < 200; j += 7) pos(j % dim, j) = kNaN;
            for (unsigned j = 3; j < 200; j += 11) pos(0, j) = (j % 2) ? inf : -inf;
            const auto ref = nodara_ref::engine(pos, iota(200), iota(200), tol);
            dense1D<unsigned> ids;
            EXPECT_EQ(merge(pos, list_of(iota(200)), ids, tol), ref.count);
            EXPECT_EQ(vec_of(ids), ref.new_ids);
        }
}

TEST(MergeFaults, EveryAllocationFailureReportsAndLeavesInputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const dense2D<double> pos = random_cloud(2, 60, true, 3);
    const dense2D<unsigned> src = random_connectivity(3, 20, 60, 4);
    for (double tol : {0.0, 1.0})
        for (unsigned mode : {0u, 2u}) {
            SCOPED_TRACE(testing::Message() << "tol " << tol << " mode " << mode);
            dense2D<unsigned> m;
            dense1D<unsigned> ids;
            const auto reset = [&] {
                ASSERT_TRUE(m.copy(src));
                ids = list_of({7, 7, 7});
            };
            const auto call = [&] { return merge(pos, m, ids, tol, mode); };
            EXPECT_GT(expect_failures_report(reset, call, [&] {
                EXPECT_TRUE(ids.empty() && (mode != 0 || vec_of(m) == vec_of(src)));
            }), 0);
        }
    const dense2D<double> cloud = random_cloud(2, 50, true, 8);
    dense2D<double> work;
    dense1D<unsigned> ids;
    EXPECT_GT(expect_failures_report([&] { ASSERT_TRUE(work.copy(cloud)); }, [&] { return merge(work, ids, 0.5); },
                                     [&] { EXPECT_EQ(vec_of(work), vec_of(cloud)); }),
              0);
}

}  // namespace
