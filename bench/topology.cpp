// Topology benchmarks: get_neighbors against a face matching by sorting, and the
// node graph and edge list, on a structured box of about one million tetrahedra
// and on a closed surface of about two million triangles.
//
// The reference computes the same neighbour matrix (flag cleared) by packing the
// sorted nodes of every face with its identifier and ordering them with std::sort;
// each benchmark checks that both agree.  Memory: before the timed runs, one call is
// made with the resident-size high-water mark reset (/proc/self/clear_refs); the
// counter extra_peak_MB is that mark minus the resident size before the call, i.e.
// the memory the call itself needed at its peak, outputs included.
#include <zq5/nodara.h>

#include "common/meshes.cpp"  // the test mesh builders, compiled into this program
#include "core/shapes.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdint>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;

const nodara_test::mesh& tetra_box() {
    static const nodara_test::mesh m = nodara_test::tetra_mesh(55, 55, 55);  // 998 250 tetrahedra
    return m;
}

const nodara_test::mesh& closed_surface() {
    static const nodara_test::mesh m = nodara_test::cube_surface(409);  // 2 007 372 triangles
    return m;
}

// VmRSS or VmHWM of this process, in MB (0 when unavailable).
double status_mb(const char* field) {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return 0;
    char line[256];
    double kb = 0;
    const std::size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, field, n) == 0) kb = std::atof(line + n + 1);
    std::fclose(f);
    return kb / 1024.0;
}

// Peak extra resident memory of one call of `fn`.  Large blocks are mapped and
// given back to the system at once (fixed thresholds), so that memory freed by an
// earlier benchmark is not counted as already resident.
template <class Fn>
double extra_peak_mb(Fn fn) {
    static const bool fixed = mallopt(M_MMAP_THRESHOLD, 128 * 1024) && mallopt(M_TRIM_THRESHOLD, 128 * 1024);
    (void)fixed;
    malloc_trim(0);
    if (std::FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", f);
        std::fclose(f);
    }
    const double before = status_mb("VmRSS:");
    fn();
    return status_mb("VmHWM:") - before;
}

// Sort-based face matching: faces of K nodes (K = 2 sides of triangles, K = 3
// faces of tetrahedra), sorted node tuples as keys.
template <int K>
struct keyed_face {
    std::uint32_t n[K];
    std::uint64_t id;
    bool operator<(const keyed_face& o) const {
        for (int i = 0; i < K; ++i)
            if (n[i] != o.n[i]) return n[i] < o.n[i];
        return id < o.id;
    }
    bool same(const keyed_face& o) const {
        for (int i = 0; i < K; ++i)
            if (n[i] != o.n[i]) return false;
        return true;
    }
};

template <int K>
void reference_neighbors(const dense2D<unsigned>& c, const detail::shape& shape, dense2D<unsigned>& nb) {
    const unsigned F = shape.nbr_boundaries;
    const std::size_t E = c.cols();
    std::vector<keyed_face<K>> all;
    all.reserve(E * F);
    for (std::size_t e = 0; e < E; ++e)
        for (unsigned j = 0; j < F; ++j) {
            keyed_face<K> f;
            for (int i = 0; i < K; ++i) f.n[i] = c(shape.boundaries[j].nodes[i], e);
            std::sort(f.n, f.n + K);
            f.id = e * F + j;
            all.push_back(f);
        }
    std::sort(all.begin(), all.end());
    nb.resize(F, E, zq5::NULL_INDEX);
    for (std::size_t s = 0; s < all.size();) {
        std::size_t t = s + 1;
        while (t < all.size() && all[t].same(all[s])) ++t;
        if (t - s == 2) {
            nb(all[s].id % F, all[s].id / F) = static_cast<unsigned>(all[s + 1].id / F);
            nb(all[s + 1].id % F, all[s + 1].id / F) = static_cast<unsigned>(all[s].id / F);
        }
        s = t;
    }
}

void reference(const nodara_test::mesh& m, dense2D<unsigned>& nb) {
    if (m.type == EL_TETRA4)
        reference_neighbors<3>(m.connect, detail::tetra4_shape, nb);
    else
        reference_neighbors<2>(m.connect, detail::tria3_shape, nb);
}

void run_neighbors(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> nb, ref;
    const double extra = extra_peak_mb([&] { get_neighbors(m.connect, m.type, false, nb); });
    for (auto _ : state) {
        const int status = get_neighbors(m.connect, m.type, false, nb);
        benchmark::DoNotOptimize(status);
        benchmark::ClobberMemory();
    }
    reference(m, ref);
    if (!(nb == ref)) state.SkipWithError("get_neighbors differs from the sort-based reference");
    state.counters["elements"] = static_cast<double>(m.connect.cols());
    state.counters["extra_peak_MB"] = extra;
}

void run_reference(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> nb;
    const double extra = extra_peak_mb([&] { reference(m, nb); });
    for (auto _ : state) {
        reference(m, nb);
        benchmark::ClobberMemory();
    }
    state.counters["elements"] = static_cast<double>(m.connect.cols());
    state.counters["extra_peak_MB"] = extra;
}

void run_node_graph(benchmark::State& state, const nodara_test::mesh& m) {
    dense1D<unsigned> offsets, graph;
    const double extra = extra_peak_mb([&] { get_node_graph(m.connect, offsets, graph, m.type); });
    for (auto _ : state) {
        const int status = get_node_graph(m.connect, offsets, graph, m.type);
        benchmark::DoNotOptimize(status);
    }
    state.counters["graph_entries"] = static_cast<double>(graph.size());
    state.counters["extra_peak_MB"] = extra;
}

void run_copy_edges(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> edges;
    const double extra = extra_peak_mb([&] { copy_edges(m.connect, m.type, edges); });
    for (auto _ : state) {
        edges = dense2D<unsigned>();
        const int status = copy_edges(m.connect, m.type, edges);
        benchmark::DoNotOptimize(status);
    }
    state.counters["edges"] = static_cast<double>(edges.cols());
    state.counters["extra_peak_MB"] = extra;
}

void BM_get_neighbors_tetra_box(benchmark::State& s) { run_neighbors(s, tetra_box()); }
void BM_reference_sort_tetra_box(benchmark::State& s) { run_reference(s, tetra_box()); }
void BM_get_neighbors_closed_surface(benchmark::State& s) { run_neighbors(s, closed_surface()); }
void BM_reference_sort_closed_surface(benchmark::State& s) { run_reference(s, closed_surface()); }
void BM_get_node_graph_tetra_box(benchmark::State& s) { run_node_graph(s, tetra_box()); }
void BM_get_node_graph_closed_surface(benchmark::State& s) { run_node_graph(s, closed_surface()); }
void BM_copy_edges_tetra_box(benchmark::State& s) { run_copy_edges(s, tetra_box()); }
void BM_copy_edges_closed_surface(benchmark::State& s) { run_copy_edges(s, closed_surface()); }

BENCHMARK(BM_get_neighbors_tetra_box)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_reference_sort_tetra_box)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_neighbors_closed_surface)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_reference_sort_closed_surface)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_node_graph_tetra_box)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_node_graph_closed_surface)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_copy_edges_tetra_box)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_copy_edges_closed_surface)->Unit(benchmark::kMillisecond);

}  // namespace
