// File formats, each next to its floor in the same run:
//   - STL_input of a 1-million-facet closed surface, binary and ASCII, next to a
//     plain read of the same file (the I/O floor), and the node sharing alone
//     (block-wise exact merge, tolerance merge, cleaning) on the facets as read;
//   - vtk_output of a 1-million-tetrahedron mesh next to the same bytes produced
//     by fprintf.
// Files go to a scratch directory under /tmp (about 300 MB, made once per run).
#include <zq5/nodara.h>

#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;

namespace {

// A torus of nu x nv quadrangles split in two: 2 nu nv facets, closed.
void torus(unsigned nu, unsigned nv, dense2D<double>& pos, dense2D<unsigned>& tria) {
    const double pi = 3.14159265358979323846;
    pos.resize(3, static_cast<std::size_t>(nu) * nv);
    for (unsigned i = 0; i < nu; ++i)
        for (unsigned j = 0; j < nv; ++j) {
            const double u = 2 * pi * i / nu, v = 2 * pi * j / nv;
            const std::size_t k = static_cast<std::size_t>(i) * nv + j;
            pos(0, k) = (3 + std::cos(v)) * std::cos(u);
            pos(1, k) = (3 + std::cos(v)) * std::sin(u);
            pos(2, k) = std::sin(v);
        }
    tria.resize(3, 2 * static_cast<std::size_t>(nu) * nv);
    std::size_t e = 0;
    for (unsigned i = 0; i < nu; ++i)
        for (unsigned j = 0; j < nv; ++j) {
            const unsigned a = i * nv + j, b = ((i + 1) % nu) * nv + j, c = ((i + 1) % nu) * nv + (j + 1) % nv,
                           d = i * nv + (j + 1) % nv;
            tria(0, e) = a, tria(1, e) = b, tria(2, e) = c, ++e;
            tria(0, e) = a, tria(1, e) = c, tria(2, e) = d, ++e;
        }
}

// n^3 cubes, six tetrahedra each around the main diagonal.
void tetra_block(unsigned n, dense2D<double>& pos, dense2D<unsigned>& tets) {
    const unsigned m = n + 1;
    pos.resize(3, static_cast<std::size_t>(m) * m * m);
    for (unsigned k = 0; k < m; ++k)
        for (unsigned j = 0; j < m; ++j)
            for (unsigned i = 0; i < m; ++i) {
                const std::size_t p = i + static_cast<std::size_t>(m) * (j + static_cast<std::size_t>(m) * k);
                pos(0, p) = 0.01 * i, pos(1, p) = 0.01 * j, pos(2, p) = 0.01 * k;
            }
    static const unsigned paths[6][2] = {{1, 2}, {1, 4}, {2, 1}, {2, 4}, {4, 1}, {4, 2}};
    tets.resize(4, 6 * static_cast<std::size_t>(n) * n * n);
    std::size_t e = 0;
    for (unsigned k = 0; k < n; ++k)
        for (unsigned j = 0; j < n; ++j)
            for (unsigned i = 0; i < n; ++i) {
                auto node = [&](unsigned bits) {
                    return (i + (bits & 1)) + m * ((j + ((bits >> 1) & 1)) + m * (k + ((bits >> 2) & 1)));
                };
                for (const auto& p : paths) {
                    tets(0, e) = node(0);
                    tets(1, e) = node(p[0]);
                    tets(2, e) = node(p[0] | p[1]);
                    tets(3, e) = node(7);
                    ++e;
                }
            }
}

struct stl_files {
    std::string dir, binary, ascii;
    std::size_t facets = 0;
    stl_files() {
        dir = "/tmp/nodara_bench_io_" + std::to_string(getpid());
        mkdir(dir.c_str(), 0700);
        binary = dir + "/torus_binary.stl";
        ascii = dir + "/torus_ascii.stl";
        dense2D<double> pos;
        dense2D<unsigned> tria;
        torus(500, 1000, pos, tria);
        facets = tria.cols();
        if (STL_output(binary.c_str(), pos, tria, false) != 0 || STL_output(ascii.c_str(), pos, tria, true) != 0)
            std::fprintf(stderr, "cannot write the benchmark files in %s\n", dir.c_str());
    }
    ~stl_files() {
        std::remove(binary.c_str());
        std::remove(ascii.c_str());
        rmdir(dir.c_str());
    }
};

const stl_files& files() {
    static const stl_files f;
    return f;
}

std::size_t file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<std::size_t>(st.st_size) : 0;
}

// The I/O floor: the whole file read into memory.
void plain_read(benchmark::State& state, const std::string& path) {
    std::vector<char> buffer(file_size(path));
    for (auto _ : state) {
        FILE* f = std::fopen(path.c_str(), "rb");
        const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), f);
        std::fclose(f);
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
}

void stl_input(benchmark::State& state, const std::string& path) {
    int nodes = 0;
    for (auto _ : state) {
        dense2D<double> pos;
        dense2D<unsigned> tria;
        if (STL_input(path.c_str(), pos, tria) != 0) state.SkipWithError("STL_input failed");
        nodes = static_cast<int>(pos.cols());
    }
    state.counters["nodes"] = nodes;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file_size(path)));
}

void BM_PlainRead_Binary(benchmark::State& state) { plain_read(state, files().binary); }
void BM_STL_input_Binary(benchmark::State& state) { stl_input(state, files().binary); }
void BM_PlainRead_Ascii(benchmark::State& state) { plain_read(state, files().ascii); }
void BM_STL_input_Ascii(benchmark::State& state) { stl_input(state, files().ascii); }

// The binary file turned into 3 million vertices (floats to doubles), without
// node sharing: STL_input minus this is the time the reader spends merging and
// cleaning.
void BM_STL_BinaryVerticesOnly(benchmark::State& state) {
    const std::string& path = files().binary;
    std::vector<unsigned char> buffer(file_size(path));
    for (auto _ : state) {
        FILE* f = std::fopen(path.c_str(), "rb");
        const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), f);
        std::fclose(f);
        const std::size_t n = got < 84 ? 0 : (got - 84) / 50;
        dense2D<double> pos(3, 3 * n);
        for (std::size_t j = 0; j < n; ++j) {
            const unsigned char* b = buffer.data() + 84 + 50 * j + 12;
            double* x = pos.col(3 * j);
            for (int k = 0; k < 9; ++k) {
                float v;
                std::memcpy(&v, b + 4 * k, 4);
                x[k] = v;
            }
        }
        benchmark::DoNotOptimize(pos.data());
    }
}

// The node sharing done with the public operations it stands for, on the 3
// million vertices of the facets: merge with tolerance 0 per block of 100000
// facets, merge with the tolerance, remove_degenerated, simplify.  (The reader
// reaches the same result by hashing when no two distinct positions are within
// the tolerance.)
void BM_STL_NodeSharingByMergeOperations(benchmark::State& state) {
    dense2D<double> surface;
    dense2D<unsigned> tria;
    torus(500, 1000, surface, tria);
    const std::size_t n = tria.cols();
    dense2D<double> soup(3, 3 * n);
    for (std::size_t j = 0; j < n; ++j)
        for (std::size_t k = 0; k < 3; ++k)
            for (std::size_t r = 0; r < 3; ++r)
                soup(r, 3 * j + k) = static_cast<double>(static_cast<float>(surface(r, tria(k, j))));
    const double tol = 0.05 * 0.0064;  // 0.05 x the smallest altitude of this torus (about 0.0064)
    for (auto _ : state) {
        state.PauseTiming();
        dense2D<double> pos;
        pos.copy(soup);
        dense2D<unsigned> connect(3, n);
        for (std::size_t j = 0; j < n; ++j)
            for (unsigned k = 0; k < 3; ++k) connect(k, j) = static_cast<unsigned>(3 * j + k);
        state.ResumeTiming();
        for (std::size_t first = 0; first < n; first += 100000) {
            dense2D<unsigned> block = connect.sub_matrix(0, first, 3, std::min<std::size_t>(100000, n - first));
            merge(pos, block, 0.0, 0u);
        }
        merge(pos, connect, tol, 0u);
        remove_degenerated(connect, false);
        simplify(pos, connect, 0u);
        benchmark::DoNotOptimize(pos.cols());
    }
}

// ---------------------------------------------------------------------------
// VTK: 998,250 tetrahedra (55^3 cubes) on 175,616 nodes, written to /dev/null.

struct tet_mesh {
    dense2D<double> pos;
    dense2D<unsigned> tets;
    tet_mesh() { tetra_block(55, pos, tets); }
};
const tet_mesh& tets() {
    static const tet_mesh m;
    return m;
}

void BM_vtk_output_Tetrahedra(benchmark::State& state) {
    const tet_mesh& m = tets();
    for (auto _ : state)
        if (vtk_output("/dev/null", m.pos, m.tets, EL_TETRA4) != 0) state.SkipWithError("vtk_output failed");
    state.counters["cells"] = static_cast<double>(m.tets.cols());
}

// The same bytes through fprintf.
void BM_vtk_fprintf_Tetrahedra(benchmark::State& state) {
    const tet_mesh& m = tets();
    for (auto _ : state) {
        FILE* f = std::fopen("/dev/null", "w");
        std::fprintf(f, "# vtk DataFile Version 2.0\nGenerated by ZQ5 Nodara(R).\nASCII\nDATASET UNSTRUCTURED_GRID\n");
        std::fprintf(f, "\nPOINTS %d double\n", static_cast<int>(m.pos.cols()));
        for (std::size_t j = 0; j < m.pos.cols(); ++j)
            std::fprintf(f, "%f %f %f\n", m.pos(0, j), m.pos(1, j), m.pos(2, j));
        const std::size_t n = m.tets.cols();
        std::fprintf(f, "\nCELLS %d %d\n", static_cast<int>(n), static_cast<int>(5 * n));
        for (std::size_t e = 0; e < n; ++e)
            std::fprintf(f, "%d %d %d %d %d \n", 4, static_cast<int>(m.tets(0, e)), static_cast<int>(m.tets(1, e)),
                         static_cast<int>(m.tets(3, e)), static_cast<int>(m.tets(2, e)));
        std::fprintf(f, "\nCELL_TYPES %d\n", static_cast<int>(n));
        for (std::size_t e = 0; e < n; ++e) std::fprintf(f, "%d\n", 10);
        std::fclose(f);
    }
}

void BM_STL_output_Binary(benchmark::State& state) {
    dense2D<double> pos;
    dense2D<unsigned> tria;
    torus(500, 1000, pos, tria);
    for (auto _ : state) STL_output("/dev/null", pos, tria, false);
}
void BM_STL_output_Ascii(benchmark::State& state) {
    dense2D<double> pos;
    dense2D<unsigned> tria;
    torus(500, 1000, pos, tria);
    for (auto _ : state) STL_output("/dev/null", pos, tria, true);
}

}  // namespace

BENCHMARK(BM_PlainRead_Binary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_input_Binary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_BinaryVerticesOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_NodeSharingByMergeOperations)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainRead_Ascii)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_input_Ascii)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_vtk_output_Tetrahedra)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_vtk_fprintf_Tetrahedra)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_output_Binary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_STL_output_Ascii)->Unit(benchmark::kMillisecond);
