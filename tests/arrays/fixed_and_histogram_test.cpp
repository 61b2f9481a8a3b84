// Small fixed-size algebra (layout, initialisation) and the histogram accumulator.
#include <zq5/arrays.h>
#include <zq5/histogram.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

namespace {

using zq5::histogram;
using zq5::matrix_fixed;
using zq5::symmetric_fixed;
using zq5::vector_fixed;

// ---------------------------------------------------------------------------
// Fixed-size types: plain values laid out exactly as documented.

static_assert(sizeof(vector_fixed<double, 3>) == 3 * sizeof(double), "no padding");
static_assert(sizeof(matrix_fixed<double, 3, 3>) == 9 * sizeof(double), "no padding");
static_assert(sizeof(symmetric_fixed<double, 2>) == 3 * sizeof(double), "packed in 3");
static_assert(sizeof(symmetric_fixed<double, 3>) == 6 * sizeof(double), "packed in 6");
static_assert(std::is_trivially_copyable<symmetric_fixed<double, 3>>::value, "plain value");
static_assert(std::is_standard_layout<matrix_fixed<double, 2, 2>>::value, "plain value");

TEST(FixedTypes, ValueInitialisationGivesZeros) {
    const vector_fixed<double, 3> p{};
    const matrix_fixed<double, 3, 3> m{};
    const symmetric_fixed<double, 3> s{};
    for (std::size_t k = 0; k < 3; ++k) EXPECT_EQ(p[k], 0.0);
    for (std::size_t k = 0; k < 9; ++k) EXPECT_EQ(m.data()[k], 0.0);
    for (std::size_t k = 0; k < 6; ++k) EXPECT_EQ(s[k], 0.0);
    const vector_fixed<double, 2> q = vector_fixed<double, 2>();
    EXPECT_EQ(q[0], 0.0);
    EXPECT_EQ(q[1], 0.0);
}

TEST(FixedTypes, BraceInitialisationAndColumnMajorLayout) {
    vector_fixed<double, 3> p{1., 2., 3.};
    EXPECT_EQ(p[0], 1.);
    EXPECT_EQ(p[2], 3.);
    EXPECT_EQ(p.data(), &p[0]);
    EXPECT_EQ((vector_fixed<double, 3>::size()), 3u);
    vector_fixed<double, 2> partial{5.};
    EXPECT_EQ(partial[1], 0.);

    // Values are given column after column.
    matrix_fixed<double, 2, 3> m{1., 2., 3., 4., 5., 6.};
    EXPECT_EQ(m(0, 0), 1.);
    EXPECT_EQ(m(1, 0), 2.);
    EXPECT_EQ(m(0, 1), 3.);
    EXPECT_EQ(m(1, 2), 6.);
    m(0, 2) = 50.;
    EXPECT_EQ(m.data()[4], 50.);
}

TEST(FixedTypes, SymmetricPackedOrder) {
    // M00, M01, M11 in 2-D.
    symmetric_fixed<double, 2> t{1., 2., 3.};
    EXPECT_EQ(t(0, 0), 1.);
    EXPECT_EQ(t(0, 1), 2.);
    EXPECT_EQ(t(1, 0), 2.);
    EXPECT_EQ(t(1, 1), 3.);

    // M00, M01, M11, M02, M12, M22 in 3-D.
    symmetric_fixed<double, 3> s{1., 2., 3., 4., 5., 6.};
    const double expected[3][3] = {{1., 2., 4.}, {2., 3., 5.}, {4., 5., 6.}};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) EXPECT_EQ(s(i, j), expected[i][j]) << i << "," << j;
    s(2, 1) = 9.;  // one storage slot for (1, 2) and (2, 1)
    EXPECT_EQ(s[4], 9.);
    EXPECT_EQ(s(1, 2), 9.);
    EXPECT_EQ((symmetric_fixed<double, 3>::packed), 6u);
    EXPECT_EQ((symmetric_fixed<double, 3>::index(0, 2)), 3u);
    EXPECT_EQ((symmetric_fixed<double, 3>::index(2, 2)), 5u);

    symmetric_fixed<double, 3> copy;
    copy = s;
    EXPECT_EQ(copy[4], 9.);
    EXPECT_EQ(copy[5], 6.);
}

// ---------------------------------------------------------------------------
// Histogram.

TEST(Histogram, CountsExtremesMeanAndBins) {
    histogram h(0.0, 1.0, 4);
    EXPECT_EQ(h.count(), 0u);
    EXPECT_EQ(h.mean(), 0.0);
    EXPECT_EQ(h.min(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(h.max(), -std::numeric_limits<double>::infinity());

    for (double v : {0.0, 0.1, 0.25, 0.5, 0.99, 1.0, -0.5, 2.0}) h.process(v);
    EXPECT_EQ(h.count(), 8u);
    EXPECT_EQ(h.min(), -0.5);
    EXPECT_EQ(h.max(), 2.0);
    EXPECT_DOUBLE_EQ(h.mean(), (0.0 + 0.1 + 0.25 + 0.5 + 0.99 + 1.0 - 0.5 + 2.0) / 8);
    // [0, .25) [.25, .5) [.5, .75) [.75, 1); the upper bound is outside.
    EXPECT_EQ(h.bin(0), 2u);
    EXPECT_EQ(h.bin(1), 1u);
    EXPECT_EQ(h.bin(2), 1u);
    EXPECT_EQ(h.bin(3), 1u);
    EXPECT_EQ(h.bin(4), 0u);
    EXPECT_EQ(h.below(), 1u);
    EXPECT_EQ(h.above(), 2u);

    h.reset();
    EXPECT_EQ(h.count(), 0u);
    EXPECT_EQ(h.bin(0), 0u);
    EXPECT_EQ(h.above(), 0u);
    EXPECT_EQ(h.bins(), 4u);
}

TEST(Histogram, BinCountIsClampedAndNaNIsKeptApart) {
    EXPECT_EQ(histogram(0.0, 1.0, 0).bins(), 1u);
    EXPECT_EQ(histogram(0.0, 1.0, 1000).bins(), histogram::max_bins);

    histogram h(-1.0, 1.0, 2);
    h.process(std::nan(""));
    h.process(0.5);
    EXPECT_EQ(h.count(), 2u);
    EXPECT_EQ(h.below(), 1u);
    EXPECT_EQ(h.bin(1), 1u);
    EXPECT_EQ(h.min(), 0.5);
    EXPECT_EQ(h.max(), 0.5);
    // A NaN among the values makes the mean NaN rather than a mean of some of them.
    EXPECT_TRUE(std::isnan(h.mean()));
    h.reset();
    h.process(0.5);
    EXPECT_EQ(h.mean(), 0.5);

    histogram wide(0.0, 1.0, 64);
    wide.process(std::nextafter(1.0, 0.0));
    EXPECT_EQ(wide.bin(63), 1u);
}

TEST(Histogram, WidestRangesAndOddBounds) {
    // The width of the range overflows a double; values still land in their bin.
    histogram h(-1e308, 1e308, 4);
    h.process(0.99e308);
    h.process(-0.99e308);
    h.process(0.0);
    h.process(std::numeric_limits<double>::max());
    h.process(-std::numeric_limits<double>::infinity());
    EXPECT_EQ(h.bin(0), 1u);
    EXPECT_EQ(h.bin(2), 1u);
    EXPECT_EQ(h.bin(3), 1u);
    EXPECT_EQ(h.above(), 1u);
    EXPECT_EQ(h.below(), 1u);

    // Empty or reversed ranges put everything below or above; a NaN bound never
    // makes a bin index out of a NaN.
    histogram flat(1.0, 1.0, 3);
    flat.process(1.0);
    flat.process(0.0);
    EXPECT_EQ(flat.above(), 1u);
    EXPECT_EQ(flat.below(), 1u);
    histogram nan_upper(0.0, std::nan(""), 3);
    nan_upper.process(0.5);
    EXPECT_EQ(nan_upper.count(), 1u);
    EXPECT_EQ(nan_upper.bin(0) + nan_upper.bin(1) + nan_upper.bin(2) + nan_upper.above(), 1u);
}

TEST(Histogram, CallersCanDeriveTheirOwnAccumulator) {
    struct collector : histogram {
        std::vector<double> seen;
        void process(double v) override {
            seen.push_back(v);
            histogram::process(v);
        }
    };
    collector c;
    histogram& base = c;
    base.process(0.25);
    base.process(0.75);
    EXPECT_EQ(c.seen, (std::vector<double>{0.25, 0.75}));
    EXPECT_EQ(c.count(), 2u);
    EXPECT_DOUBLE_EQ(c.mean(), 0.5);
}

}  // namespace
