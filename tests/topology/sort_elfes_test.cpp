// sort_elfes: grouping of a mixed connectivity by node count.
#include <zq5/nodara.h>

#include "common/fault_injection.h"

#include <gtest/gtest.h>

#include <vector>

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;

namespace {

constexpr unsigned X = zq5::NULL_INDEX;

std::vector<unsigned> values(const dense1D<unsigned>& v) { return v.empty() ? std::vector<unsigned>() : std::vector<unsigned>(v.begin(), v.end()); }

std::vector<unsigned> column(const dense2D<unsigned>& m, std::size_t j) {
    return std::vector<unsigned>(m.col(j), m.col(j) + m.rows());
}

// Columns: 0 triangle, 1 quadrangle, 2 empty, 3 triangle, 4 quadrangle.
dense2D<unsigned> mixed_faces() {
    return dense2D<unsigned>(4, 5, {0, 1, 2, X, 1, 2, 3, 4, X, X, X, X, 5, 6, 7, X, 7, 8, 9, 10});
}

TEST(SortElfes, GroupsByDecreasingNodeCountKeepingColumnOrder) {
    dense2D<unsigned> c = mixed_faces();
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    ASSERT_EQ(c.rows(), 4u);
    ASSERT_EQ(c.cols(), 4u);
    EXPECT_EQ(column(c, 0), (std::vector<unsigned>{1, 2, 3, 4}));
    EXPECT_EQ(column(c, 1), (std::vector<unsigned>{7, 8, 9, 10}));
    EXPECT_EQ(column(c, 2), (std::vector<unsigned>{0, 1, 2, X}));
    EXPECT_EQ(column(c, 3), (std::vector<unsigned>{5, 6, 7, X}));
    EXPECT_EQ(values(nodes), (std::vector<unsigned>{4, 3}));
    EXPECT_EQ(values(ends), (std::vector<unsigned>{2, 4}));
    EXPECT_EQ(values(pos), (std::vector<unsigned>{2, 0, X, 3, 1}));
}

TEST(SortElfes, CompanionMatrixFollowsAndIsRenumbered) {
    dense2D<unsigned> c = mixed_faces();
    // A neighbour-like matrix: column e names other columns.
    dense2D<unsigned> other(2, 5, {1, X, 0, 4, 3, 3, 2, 1, 0, 9});
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, other, nodes, ends, pos), 0);
    ASSERT_EQ(other.cols(), 4u);
    // new position of input columns: 0->2, 1->0, 2->dropped, 3->3, 4->1.
    EXPECT_EQ(column(other, 0), (std::vector<unsigned>{2, 1}));  // input column 1: (0, 4)
    EXPECT_EQ(column(other, 1), (std::vector<unsigned>{2, 9}));  // input column 4: (0, 9), 9 >= C kept
    EXPECT_EQ(column(other, 2), (std::vector<unsigned>{0, X}));  // input column 0: (1, X)
    EXPECT_EQ(column(other, 3), (std::vector<unsigned>{X, 0}));  // input column 3: (2 dropped, 1)
}

TEST(SortElfes, CompanionWithOtherColumnCountChangesNothing) {
    dense2D<unsigned> c = mixed_faces();
    dense2D<unsigned> other(1, 4, {0, 1, 2, 3});
    dense1D<unsigned> nodes{7}, ends{7}, pos{7};
    EXPECT_EQ(sort_elfes(c, other, nodes, ends, pos), -1);
    EXPECT_EQ(c, mixed_faces());
    EXPECT_EQ(values(nodes), (std::vector<unsigned>{7}));
    // An other without entries is ignored whatever its shape.
    dense2D<unsigned> none;
    none.resize(0, 3);
    EXPECT_EQ(sort_elfes(c, none, nodes, ends, pos), 0);
    EXPECT_EQ(c.cols(), 4u);
}

TEST(SortElfes, NoKeptColumnGivesSingleZeroGroup) {
    dense2D<unsigned> c(3, 2, X);
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(c.cols(), 0u);
    EXPECT_EQ(values(nodes), (std::vector<unsigned>{0}));
    EXPECT_EQ(values(ends), (std::vector<unsigned>{0}));
    EXPECT_EQ(values(pos), (std::vector<unsigned>{X, X}));
    dense2D<unsigned> empty;
    ASSERT_EQ(sort_elfes(empty, nodes, ends, pos), 0);
    EXPECT_TRUE(pos.empty());
    EXPECT_EQ(values(ends), (std::vector<unsigned>{0}));
}

TEST(SortElfes, UniformMatrixIsOneGroupUnchanged) {
    dense2D<unsigned> c(3, 3, {0, 1, 2, 2, 1, 3, 3, 4, 5});
    const dense2D<unsigned> before(3, 3, {0, 1, 2, 2, 1, 3, 3, 4, 5});
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(c, before);
    EXPECT_EQ(values(nodes), (std::vector<unsigned>{3}));
    EXPECT_EQ(values(ends), (std::vector<unsigned>{3}));
    EXPECT_EQ(values(pos), (std::vector<unsigned>{0, 1, 2}));
}

TEST(SortElfes, MixedSolidsAndSubMatrixView) {
    // 8-row solids: tet, hex, wedge, pyramid, hex, inside a wider buffer (ld 9).
    dense2D<unsigned> big(9, 5, X);
    const unsigned counts[5] = {4, 8, 6, 5, 8};
    for (unsigned e = 0; e < 5; ++e)
        for (unsigned i = 0; i < counts[e]; ++i) big(i, e) = 10 * e + i;
    dense2D<unsigned> c = big.sub_matrix(0, 0, 8, 5);
    dense1D<unsigned> nodes, ends, pos;
    ASSERT_EQ(sort_elfes(c, nodes, ends, pos), 0);
    EXPECT_EQ(values(pos), (std::vector<unsigned>{4, 0, 2, 3, 1}));
    EXPECT_EQ(values(nodes), (std::vector<unsigned>{8, 6, 5, 4}));
    EXPECT_EQ(values(ends), (std::vector<unsigned>{2, 3, 4, 5}));
    for (unsigned e = 0; e < 5; ++e) EXPECT_EQ(c(0, pos[e]), 10 * e);
    for (unsigned j = 0; j < 5; ++j) EXPECT_EQ(big(8, j), X);  // the row outside the view is untouched
}

TEST(SortElfes, AllocationFailureLeavesMatricesUnchanged) {
    NODARA_REQUIRE_FAULT_INJECTION();
    dense2D<unsigned> c, other;
    dense1D<unsigned> nodes, ends, pos;
    int result = 1;
    const auto runs = nodara_test::for_each_allocation_failure(
        [&] {
            c = mixed_faces();
            other = dense2D<unsigned>(1, 5, {4, 3, 2, 1, 0});
            nodes = dense1D<unsigned>();
            ends = dense1D<unsigned>();
            pos = dense1D<unsigned>();
        },
        [&] { return sort_elfes(c, other, nodes, ends, pos); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(c, mixed_faces());
            EXPECT_EQ(other, dense2D<unsigned>(1, 5, {4, 3, 2, 1, 0}));
            EXPECT_TRUE(nodes.empty() && ends.empty() && pos.empty());
        },
        result);
    EXPECT_GT(runs, 0u);
    EXPECT_EQ(result, 0);
}

}  // namespace
