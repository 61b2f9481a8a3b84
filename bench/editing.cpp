// Speed of the node detector and of merge, side by side with nanoflann doing the
// same work (nanoflann is a benchmark-only dependency).
//
//   detector:  build over 1 million random 3-D nodes, then 1 million find_closest
//              queries at random points;
//   merge:     the 3 million vertices of a 1-million-facet triangle soup (a wavy
//              707 x 707 grid surface with every facet given its own three
//              vertices), with tolerance 0 and a small tolerance.  The nanoflann
//              merge builds its index over all vertices and, for each vertex not
//              yet merged, maps the unmerged vertices of a radius search onto it.
//
// Each benchmark reports `peak_MB`, the process's peak resident set so far; run
// one benchmark per process (--benchmark_filter) to read it per benchmark.
#include <zq5/nodara.h>

#include <benchmark/benchmark.h>
#include <nanoflann.hpp>

#include <sys/resource.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;

namespace {

constexpr unsigned kNodes = 1000000;
constexpr unsigned kQueries = 1000000;
constexpr unsigned kGrid = 708;  // vertices per side: 2 x 707^2 = 999698 facets

double peak_mb() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_maxrss) / 1024.0;
}

const dense2D<double>& cloud() {
    static const dense2D<double> pos = [] {
        dense2D<double> p(3, kNodes);
        std::mt19937_64 gen(12345);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        for (unsigned j = 0; j < kNodes; ++j)
            for (unsigned k = 0; k < 3; ++k) p(k, j) = u(gen);
        return p;
    }();
    return pos;
}

const std::vector<double>& queries() {
    static const std::vector<double> q = [] {
        std::vector<double> v(3 * static_cast<std::size_t>(kQueries));
        std::mt19937_64 gen(777);
        std::uniform_real_distribution<double> u(-0.05, 1.05);
        for (double& x : v) x = u(gen);
        return v;
    }();
    return q;
}

struct soup_mesh {
    dense2D<double> pos;
    dense2D<unsigned> tri;
};

const soup_mesh& soup() {
    static const soup_mesh s = [] {
        soup_mesh m;
        const unsigned cells = kGrid - 1;
        const std::size_t nt = 2u * cells * cells;
        m.pos = dense2D<double>(3, 3 * nt);
        m.tri = dense2D<unsigned>(3, nt);
        const double h = 1.0 / cells;
        auto vertex = [&](unsigned i, unsigned j, double* x) {
            x[0] = i * h;
            x[1] = j * h;
            x[2] = 0.1 * std::sin(6.0 * x[0]) * std::cos(5.0 * x[1]);
        };
        std::size_t t = 0;
        for (unsigned j = 0; j < cells; ++j)
            for (unsigned i = 0; i < cells; ++i) {
                const unsigned corners[2][3][2] = {{{i, j}, {i + 1, j}, {i + 1, j + 1}},
                                                   {{i, j}, {i + 1, j + 1}, {i, j + 1}}};
                for (const auto& facet : corners) {
                    for (unsigned c = 0; c < 3; ++c) {
                        const std::size_t v = 3 * t + c;
                        vertex(facet[c][0], facet[c][1], m.pos.col(v));
                        m.tri(c, t) = static_cast<unsigned>(v);
                    }
                    ++t;
                }
            }
        return m;
    }();
    return s;
}

// nanoflann adaptor over a coordinate matrix.
struct cloud_adaptor {
    const dense2D<double>* pos;
    std::size_t kdtree_get_point_count() const { return pos->cols(); }
    double kdtree_get_pt(std::size_t i, std::size_t k) const { return (*pos)(k, i); }
    template <class B>
    bool kdtree_get_bbox(B&) const {
        return false;
    }
};

using nf_tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, cloud_adaptor>,
                                                    cloud_adaptor, 3, unsigned>;

// ---------------------------------------------------------------------------
// Detector.

void BM_detector_build(benchmark::State& state) {
    const dense2D<double>& pos = cloud();
    for (auto _ : state) {
        zq5::nodara::node_detector d(pos);
        benchmark::DoNotOptimize(d.size());
    }
    state.counters["peak_MB"] = peak_mb();
}

void BM_nanoflann_build(benchmark::State& state) {
    const cloud_adaptor a{&cloud()};
    for (auto _ : state) {
        nf_tree t(3, a, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        benchmark::DoNotOptimize(t.size(t));
    }
    state.counters["peak_MB"] = peak_mb();
}

void BM_detector_queries(benchmark::State& state) {
    const dense2D<double>& pos = cloud();
    const std::vector<double>& q = queries();
    zq5::nodara::node_detector d(pos);
    for (auto _ : state) {
        unsigned long long sum = 0;
        for (std::size_t i = 0; i < kQueries; ++i)
            sum += d.find_closest(vector_fixed<double, 3>{q[3 * i], q[3 * i + 1], q[3 * i + 2]});
        benchmark::DoNotOptimize(sum);
    }
    state.counters["peak_MB"] = peak_mb();
}

void BM_nanoflann_queries(benchmark::State& state) {
    const cloud_adaptor a{&cloud()};
    const std::vector<double>& q = queries();
    nf_tree t(3, a, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    for (auto _ : state) {
        unsigned long long sum = 0;
        for (std::size_t i = 0; i < kQueries; ++i) {
            unsigned idx = 0;
            double d2 = 0.0;
            t.knnSearch(&q[3 * i], 1, &idx, &d2);
            sum += idx;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["peak_MB"] = peak_mb();
}

void BM_detector_build_and_queries(benchmark::State& state) {
    const dense2D<double>& pos = cloud();
    const std::vector<double>& q = queries();
    for (auto _ : state) {
        zq5::nodara::node_detector d(pos);
        unsigned long long sum = 0;
        for (std::size_t i = 0; i < kQueries; ++i)
            sum += d.find_closest(vector_fixed<double, 3>{q[3 * i], q[3 * i + 1], q[3 * i + 2]});
        benchmark::DoNotOptimize(sum);
    }
    state.counters["peak_MB"] = peak_mb();
}

void BM_nanoflann_build_and_queries(benchmark::State& state) {
    const cloud_adaptor a{&cloud()};
    const std::vector<double>& q = queries();
    for (auto _ : state) {
        nf_tree t(3, a, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        unsigned long long sum = 0;
        for (std::size_t i = 0; i < kQueries; ++i) {
            unsigned idx = 0;
            double d2 = 0.0;
            t.knnSearch(&q[3 * i], 1, &idx, &d2);
            sum += idx;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["peak_MB"] = peak_mb();
}

// ---------------------------------------------------------------------------
// Merge.

double tolerance_of(const benchmark::State& state) { return state.range(0) == 0 ? 0.0 : 1e-7; }

void BM_merge_soup(benchmark::State& state) {
    const soup_mesh& s = soup();
    const double tol = tolerance_of(state);
    int merged = 0;
    for (auto _ : state) {
        state.PauseTiming();
        dense2D<unsigned> tri;
        tri.copy(s.tri);
        state.ResumeTiming();
        merged = zq5::nodara::merge(s.pos, tri, tol, 0);
        benchmark::DoNotOptimize(tri.data());
    }
    state.counters["merge_count"] = merged;
    state.counters["peak_MB"] = peak_mb();
}

void BM_nanoflann_merge_soup(benchmark::State& state) {
    const soup_mesh& s = soup();
    const double tol = tolerance_of(state);
    // nanoflann keeps points with d2 < radius; step just past tol^2 so that
    // points exactly at tol (coincident ones for tol = 0) are found.
    const double radius = std::nextafter(tol * tol, std::numeric_limits<double>::infinity());
    const cloud_adaptor a{&s.pos};
    std::size_t merged = 0;
    for (auto _ : state) {
        state.PauseTiming();
        dense2D<unsigned> tri;
        tri.copy(s.tri);
        state.ResumeTiming();
        nf_tree t(3, a, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        const std::size_t n = s.pos.cols();
        std::vector<unsigned> map(n, zq5::NULL_INDEX);
        std::vector<std::pair<unsigned, double>> found;
        nanoflann::SearchParams params;
        params.sorted = false;
        merged = 0;
        for (std::size_t i = 0; i < n; ++i) {
            if (map[i] != zq5::NULL_INDEX) continue;
            map[i] = static_cast<unsigned>(i);
            found.clear();
            t.radiusSearch(s.pos.col(i), radius, found, params);
            for (const auto& f : found)
                if (map[f.first] == zq5::NULL_INDEX) {
                    map[f.first] = static_cast<unsigned>(i);
                    ++merged;
                }
        }
        for (std::size_t j = 0; j < tri.cols(); ++j)
            for (unsigned r = 0; r < 3; ++r) tri(r, j) = map[tri(r, j)];
        benchmark::DoNotOptimize(tri.data());
    }
    state.counters["merge_count"] = static_cast<double>(merged);
    state.counters["peak_MB"] = peak_mb();
}

}  // namespace

BENCHMARK(BM_detector_build)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_nanoflann_build)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_detector_queries)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_nanoflann_queries)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_detector_build_and_queries)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_nanoflann_build_and_queries)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_merge_soup)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_nanoflann_merge_soup)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
