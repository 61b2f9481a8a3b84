// Small fixed-size algebra (layout, initialisation) and the histogram accumulator.
#include <zq5/arrays.h>
#include <zq5/histogram.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace {

using zq5::histogram;
using zq5::matrix_fixed;
using zq5::symmetric_fixed;
using zq5::vector_fixed;

// Plain values laid out exactly as documented.
static_assert(sizeof(vector_fixed<double, 3>) == 3 * sizeof(double), "no padding");
static_assert(sizeof(matrix_fixed<double, 3, 3>) == 9 * sizeof(double), "no padding");
static_assert(sizeof(symmetric_fixed<double, 2>) == 3 * sizeof(double), "packed in 3");
static_assert(sizeof(symmetric_fixed<double, 3>) == 6 * sizeof(double), "packed in 6");

TEST(FixedTypes, ColumnMajorAndPackedSymmetricLayout) {
    const vector_fixed<double, 2> partial{5.};
    EXPECT_EQ(partial[1], 0.);
    matrix_fixed<double, 2, 3> m{1., 2., 3., 4., 5., 6.};  // column after column
    EXPECT_EQ(m(0, 1), 3.);
    m(0, 2) = 50.;
    EXPECT_EQ(m.data()[4], 50.);

    const symmetric_fixed<double, 2> t{1., 2., 3.};  // M00, M01, M11
    EXPECT_EQ(t(1, 0), 2.);
    EXPECT_EQ(t(1, 1), 3.);
    symmetric_fixed<double, 3> s{1., 2., 3., 4., 5., 6.};  // M00, M01, M11, M02, M12, M22
    const double expected[3][3] = {{1., 2., 4.}, {2., 3., 5.}, {4., 5., 6.}};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) EXPECT_EQ(s(i, j), expected[i][j]) << i << "," << j;
    s(2, 1) = 9.;  // one storage slot for (1, 2) and (2, 1)
    symmetric_fixed<double, 3> copy;
    copy = s;
    EXPECT_EQ(copy[4], 9.);
    EXPECT_EQ(copy(1, 2), 9.);
}

TEST(Histogram, CountsExtremesMeanAndBins) {
    histogram h(0.0, 1.0, 4);
    EXPECT_EQ(h.min(), std::numeric_limits<double>::infinity());
    for (double v : {0.0, 0.1, 0.25, 0.5, 0.99, 1.0, -0.5, 2.0}) h.process(v);
    EXPECT_EQ(h.count(), 8u);
    EXPECT_EQ(h.min(), -0.5);
    EXPECT_EQ(h.max(), 2.0);
    EXPECT_DOUBLE_EQ(h.mean(), (0.0 + 0.1 + 0.25 + 0.5 + 0.99 + 1.0 - 0.5 + 2.0) / 8);
    // [0, .25) [.25, .5) [.5, .75) [.75, 1); the upper bound is outside.
    const std::uint64_t counts[] = {2, 1, 1, 1, 0};
    for (std::size_t k = 0; k < 5; ++k) EXPECT_EQ(h.bin(k), counts[k]) << k;
    EXPECT_EQ(h.below(), 1u);
    EXPECT_EQ(h.above(), 2u);
    h.reset();
    EXPECT_EQ(h.count() + h.bin(0), 0u);
    EXPECT_EQ(h.bins(), 4u);
    EXPECT_EQ(histogram(0.0, 1.0, 0).bins(), 1u);
    EXPECT_EQ(histogram(0.0, 1.0, 1000).bins(), histogram::max_bins);
    histogram fine(0.0, 1.0, 64);  // just below the upper bound: the last bin, not past it
    fine.process(std::nextafter(1.0, 0.0));
    EXPECT_EQ(fine.bin(63), 1u);
}

TEST(Histogram, NaNAndOddRangesStayInBounds) {
    histogram h(-1.0, 1.0, 2);
    h.process(std::nan(""));
    h.process(0.5);
    EXPECT_EQ(h.below(), 1u);
    EXPECT_EQ(h.max(), 0.5);
    EXPECT_TRUE(std::isnan(h.mean()));  // not a mean of some of the values
    // The width of the range overflows a double; values still land in their bin.
    histogram wide(-1e308, 1e308, 4);
    for (double v : {0.99e308, -0.99e308, 0.0, std::numeric_limits<double>::max(),
                     -std::numeric_limits<double>::infinity()})
        wide.process(v);
    const std::uint64_t counts[] = {1, 0, 1, 1};
    for (std::size_t k = 0; k < 4; ++k) EXPECT_EQ(wide.bin(k), counts[k]) << k;
    EXPECT_EQ(wide.above() + wide.below(), 2u);
    histogram flat(1.0, 1.0, 3);  // an empty range puts everything below or above
    flat.process(1.0);
    flat.process(0.0);
    EXPECT_EQ(flat.above(), 1u);
    EXPECT_EQ(flat.below(), 1u);
    histogram nan_upper(0.0, std::nan(""), 3);
    nan_upper.process(0.5);
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
    EXPECT_DOUBLE_EQ(c.mean(), 0.5);
}

}  // namespace
