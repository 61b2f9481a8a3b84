#include <zq5/histogram.h>

#include <cmath>
#include <limits>

namespace zq5 {

histogram::histogram(double lower, double upper, std::size_t bins) noexcept
    : lower_(lower), upper_(upper), bins_(bins < 1 ? 1 : (bins > max_bins ? max_bins : bins)) {
    reset();
}

histogram::~histogram() = default;

void histogram::reset() noexcept {
    count_ = below_ = above_ = 0;
    sum_ = 0.0;
    min_ = std::numeric_limits<double>::infinity();
    max_ = -std::numeric_limits<double>::infinity();
    for (std::size_t k = 0; k < max_bins; ++k) counts_[k] = 0;
}

void histogram::process(double value) {
    ++count_;
    sum_ += value;  // a NaN makes the mean NaN
    if (!std::isnan(value)) {
        if (value < min_) min_ = value;
        if (value > max_) max_ = value;
    }
    if (!(value >= lower_)) {
        ++below_;
    } else if (value >= upper_) {
        ++above_;
    } else {
        // Halved so that neither difference overflows on the widest ranges; the
        // position is clamped (and a NaN from a NaN bound lands in bin 0) before
        // it becomes an index.
        const double t = (0.5 * value - 0.5 * lower_) / (0.5 * upper_ - 0.5 * lower_);
        const double x = t * static_cast<double>(bins_);
        std::size_t k = 0;
        if (x >= static_cast<double>(bins_)) k = bins_ - 1;
        else if (x > 0.0) k = static_cast<std::size_t>(x);
        ++counts_[k];
    }
}

double histogram::mean() const noexcept { return count_ ? sum_ / static_cast<double>(count_) : 0.0; }

}  // namespace zq5
