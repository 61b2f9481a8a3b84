// Topology benchmarks: get_neighbors against a face matching by sorting, and the
// node graph and edge list, on a structured box of about one million tetrahedra
// and on a closed surface of about two million triangles.
//
// The reference computes the same neighbour matrix (flag cleared) by packing the
// sorted nodes of every face with its identifier and ordering them with std::sort;
// each benchmark checks that both agree.  Peak memory: the counter peak_rss_MB is
// the process's maximum resident size so far (run one benchmark per process, with
// --benchmark_filter, to read each one's own peak).
#include <zq5/nodara.h>

#include "common/meshes.cpp"  // the test mesh builders, compiled into this program

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
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

double peak_rss_mb() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_maxrss) / 1024.0;
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
void reference_neighbors(const dense2D<unsigned>& c, const unsigned char (*faces)[K], unsigned F,
                         dense2D<unsigned>& nb) {
    const std::size_t E = c.cols();
    std::vector<keyed_face<K>> all;
    all.reserve(E * F);
    for (std::size_t e = 0; e < E; ++e)
        for (unsigned j = 0; j < F; ++j) {
            keyed_face<K> f;
            for (int i = 0; i < K; ++i) f.n[i] = c(faces[j][i], e);
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

const unsigned char tet_faces[4][3] = {{1, 2, 3}, {2, 0, 3}, {1, 3, 0}, {2, 1, 0}};
const unsigned char tri_sides[3][2] = {{1, 2}, {2, 0}, {0, 1}};

void reference(const nodara_test::mesh& m, dense2D<unsigned>& nb) {
    if (m.type == EL_TETRA4)
        reference_neighbors<3>(m.connect, tet_faces, 4, nb);
    else
        reference_neighbors<2>(m.connect, tri_sides, 3, nb);
}

void run_neighbors(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> nb, ref;
    reference(m, ref);
    for (auto _ : state) {
        const int status = get_neighbors(m.connect, m.type, false, nb);
        benchmark::DoNotOptimize(status);
        benchmark::ClobberMemory();
    }
    if (!(nb == ref)) state.SkipWithError("get_neighbors differs from the sort-based reference");
    state.counters["elements"] = static_cast<double>(m.connect.cols());
    state.counters["peak_rss_MB"] = peak_rss_mb();
}

void run_reference(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> nb;
    for (auto _ : state) {
        reference(m, nb);
        benchmark::ClobberMemory();
    }
    state.counters["elements"] = static_cast<double>(m.connect.cols());
    state.counters["peak_rss_MB"] = peak_rss_mb();
}

void run_node_graph(benchmark::State& state, const nodara_test::mesh& m) {
    dense1D<unsigned> offsets, graph;
    for (auto _ : state) {
        const int status = get_node_graph(m.connect, offsets, graph, m.type);
        benchmark::DoNotOptimize(status);
    }
    state.counters["graph_entries"] = static_cast<double>(graph.size());
    state.counters["peak_rss_MB"] = peak_rss_mb();
}

void run_copy_edges(benchmark::State& state, const nodara_test::mesh& m) {
    dense2D<unsigned> edges;
    for (auto _ : state) {
        edges = dense2D<unsigned>();
        const int status = copy_edges(m.connect, m.type, edges);
        benchmark::DoNotOptimize(status);
    }
    state.counters["edges"] = static_cast<double>(edges.cols());
    state.counters["peak_rss_MB"] = peak_rss_mb();
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
