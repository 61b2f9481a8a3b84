// Statistics accumulator of namespace zq5.
//
// The library only ever calls process(double) on a histogram the caller owns (the
// edge ratings of the quality family go there).  Derive from it to collect
// anything else; the base implementation keeps the count, the extremes, the mean
// and a fixed set of equal bins over [lower, upper).
#ifndef ZQ5_HISTOGRAM_H
#define ZQ5_HISTOGRAM_H

#include <zq5/export.h>

#include <cstddef>
#include <cstdint>

namespace zq5 {

class NODARA_API histogram {
public:
    static constexpr std::size_t max_bins = 64;

    /// Equal bins over [lower, upper); `bins` is clamped to 1 .. max_bins.  Values
    /// below `lower` (NaN included) and at or above `upper` are counted apart.
    explicit histogram(double lower = 0.0, double upper = 1.0, std::size_t bins = 10) noexcept;
    virtual ~histogram();

    /// Accounts for one value.
    virtual void process(double value);

    /// Forgets every value processed so far (the bins are kept).
    void reset() noexcept;

    std::uint64_t count() const noexcept { return count_; }
    /// Smallest and largest value processed (+inf / -inf while empty; NaN ignored).
    double min() const noexcept { return min_; }
    double max() const noexcept { return max_; }
    /// Mean of the values processed (0 while empty).
    double mean() const noexcept;
    std::size_t bins() const noexcept { return bins_; }
    double lower() const noexcept { return lower_; }
    double upper() const noexcept { return upper_; }
    /// Values that fell into bin k (0 for k >= bins()).
    std::uint64_t bin(std::size_t k) const noexcept { return k < bins_ ? counts_[k] : 0; }
    std::uint64_t below() const noexcept { return below_; }
    std::uint64_t above() const noexcept { return above_; }

private:
    double lower_, upper_;
    std::size_t bins_;
    std::uint64_t count_ = 0, below_ = 0, above_ = 0;
    double min_, max_, sum_ = 0.0;
    std::uint64_t counts_[max_bins] = {};
};

}  // namespace zq5

#endif  // ZQ5_HISTOGRAM_H
