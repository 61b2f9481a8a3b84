// Index utilities on 10 million indices (a 10 x 1,000,000 connectivity of
// quadratic tetrahedra over 1.5 million nodes), each next to the obvious
// standard-library way of getting the same answer.
//
//   nodara_bench_indices --benchmark_filter=SortedOrder
//
// Pairs (library / standard):
//   SortedOrder    get_sorted_order              / std::stable_sort of positions
//   Unique         unique_indices (matrix form)  / std::sort + std::unique, and
//                                                  std::unordered_set in first-seen order
//   UniqueFar      the same on indices near 2^31 (the hash path) / std::unordered_set
//   GetIDs         get_IDs on 1,000,000 tetrahedra (4 rows), strict false
//                                                / std::unordered_map keyed by sorted columns
//   CheckIDs       check_IDs(EL_TETRA10)         / std::all_of
#include <zq5/nodara.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;

constexpr std::size_t kElements = 1000000;
constexpr std::size_t kRows = 10;
constexpr unsigned kNodes = 1500000;
constexpr unsigned kFar = 0x7F000000u;

// 10 x 1,000,000 random node indices below kNodes.
const dense2D<unsigned>& connectivity() {
    static const dense2D<unsigned> m = [] {
        dense2D<unsigned> c(kRows, kElements);
        std::mt19937 rng(1);
        std::uniform_int_distribution<unsigned> node(0, kNodes - 1);
        for (std::size_t j = 0; j < kElements; ++j)
            for (std::size_t i = 0; i < kRows; ++i) c(i, j) = node(rng);
        return c;
    }();
    return m;
}

// The same indices moved near 2^31, where the sets take their hash path.
const dense2D<unsigned>& far_connectivity() {
    static const dense2D<unsigned> m = [] {
        dense2D<unsigned> c;
        c.copy(connectivity());
        for (unsigned& v : c.as_vector()) v += kFar;
        return c;
    }();
    return m;
}

const std::vector<unsigned>& flat() {
    static const std::vector<unsigned> v(connectivity().data(), connectivity().data() + kRows * kElements);
    return v;
}

// ---------------------------------------------------------------------------

void SortedOrder_nodara(benchmark::State& state) {
    const dense1D<unsigned> ids = connectivity().as_vector();
    dense1D<unsigned> order, first;
    for (auto _ : state) {
        if (get_sorted_order(ids, order, first) != 0) state.SkipWithError("get_sorted_order failed");
        benchmark::DoNotOptimize(order.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

void SortedOrder_std_stable_sort(benchmark::State& state) {
    const std::vector<unsigned>& ids = flat();
    std::vector<unsigned> order(ids.size());
    for (auto _ : state) {
        std::iota(order.begin(), order.end(), 0u);
        std::stable_sort(order.begin(), order.end(), [&](unsigned a, unsigned b) { return ids[a] < ids[b]; });
        benchmark::DoNotOptimize(order.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

// ---------------------------------------------------------------------------

void Unique_nodara(benchmark::State& state) {
    const dense2D<unsigned>& m = connectivity();
    dense1D<unsigned> out;
    for (auto _ : state) {
        out.resize(0);
        unique_indices(out, m, dense1D<unsigned>());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * m.entries()));
}

void Unique_std_sort_unique(benchmark::State& state) {
    const std::vector<unsigned>& ids = flat();
    std::vector<unsigned> out;
    for (auto _ : state) {
        out = ids;
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

void Unique_std_unordered_set(benchmark::State& state) {
    const std::vector<unsigned>& ids = flat();
    std::vector<unsigned> out;
    for (auto _ : state) {
        out.clear();
        std::unordered_set<unsigned> seen;
        for (unsigned v : ids)
            if (seen.insert(v).second) out.push_back(v);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

void UniqueFar_nodara(benchmark::State& state) {
    const dense2D<unsigned>& m = far_connectivity();
    dense1D<unsigned> out;
    for (auto _ : state) {
        out.resize(0);
        unique_indices(out, m, dense1D<unsigned>());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * m.entries()));
}

void UniqueFar_std_unordered_set(benchmark::State& state) {
    const dense2D<unsigned>& m = far_connectivity();
    const unsigned* ids = m.data();
    const std::size_t n = m.entries();
    std::vector<unsigned> out;
    for (auto _ : state) {
        out.clear();
        std::unordered_set<unsigned> seen;
        for (std::size_t i = 0; i < n; ++i)
            if (seen.insert(ids[i]).second) out.push_back(ids[i]);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

void UniqueFar_std_sort_unique(benchmark::State& state) {
    const dense2D<unsigned>& m = far_connectivity();
    const std::vector<unsigned> ids(m.data(), m.data() + m.entries());
    std::vector<unsigned> out;
    for (auto _ : state) {
        out = ids;
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["distinct"] = static_cast<double>(out.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

// ---------------------------------------------------------------------------
// Matching 1,000,000 tetrahedra (the first 4 rows, which hold distinct nodes
// almost always) against the same elements in another order, each rotated and
// every other one reversed.

struct tetra_pair {
    dense2D<unsigned> A, B;
};

const tetra_pair& tetrahedra() {
    static const tetra_pair p = [] {
        tetra_pair t;
        t.A.copy(connectivity().sub_matrix(0, 0, 4, kElements));
        t.B.resize(4, kElements);
        std::vector<unsigned> where(kElements);
        std::iota(where.begin(), where.end(), 0u);
        std::mt19937 rng(2);
        std::shuffle(where.begin(), where.end(), rng);
        for (std::size_t c = 0; c < kElements; ++c) {
            std::array<unsigned, 4> col;
            std::copy(t.A.col(where[c]), t.A.col(where[c]) + 4, col.begin());
            std::rotate(col.begin(), col.begin() + c % 4, col.end());
            if (c % 2) std::reverse(col.begin(), col.end());
            std::copy(col.begin(), col.end(), t.B.col(c));
        }
        return t;
    }();
    return p;
}

void GetIDs_nodara(benchmark::State& state) {
    const tetra_pair& t = tetrahedra();
    dense1D<unsigned> posA, posB;
    for (auto _ : state) {
        if (get_IDs(t.A, t.B, posA, posB, false) != 0) state.SkipWithError("get_IDs failed");
        benchmark::DoNotOptimize(posA.data());
    }
    std::size_t matched = 0;
    for (unsigned v : posA) matched += v != NULL_INDEX;
    state.counters["matched"] = static_cast<double>(matched);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

struct key_hash {
    std::size_t operator()(const std::array<unsigned, 4>& k) const noexcept {
        std::uint64_t h = 1469598103934665603ull;
        for (unsigned v : k) h = (h ^ v) * 1099511628211ull;
        return static_cast<std::size_t>(h);
    }
};

void GetIDs_std_unordered_map(benchmark::State& state) {
    const tetra_pair& t = tetrahedra();
    std::vector<unsigned> posA, posB;
    for (auto _ : state) {
        posA.assign(kElements, NULL_INDEX);
        posB.assign(kElements, NULL_INDEX);
        std::unordered_map<std::array<unsigned, 4>, unsigned, key_hash> first;
        first.reserve(kElements);
        for (std::size_t j = 0; j < kElements; ++j) {
            std::array<unsigned, 4> k;
            std::copy(t.A.col(j), t.A.col(j) + 4, k.begin());
            std::sort(k.begin(), k.end());
            first.emplace(k, static_cast<unsigned>(j));
        }
        for (std::size_t c = 0; c < kElements; ++c) {
            std::array<unsigned, 4> k;
            std::copy(t.B.col(c), t.B.col(c) + 4, k.begin());
            std::sort(k.begin(), k.end());
            const auto it = first.find(k);
            if (it == first.end()) continue;
            posA[c] = it->second;
            posB[it->second] = std::min(posB[it->second], static_cast<unsigned>(c));
        }
        benchmark::DoNotOptimize(posA.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

// ---------------------------------------------------------------------------

void CheckIDs_nodara(benchmark::State& state) {
    const dense2D<unsigned>& m = connectivity();
    for (auto _ : state) {
        bool ok = check_IDs(m, EL_TETRA10, kNodes);
        benchmark::DoNotOptimize(ok);
        if (!ok) state.SkipWithError("check_IDs failed");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * m.entries()));
}

void CheckIDs_std_all_of(benchmark::State& state) {
    const std::vector<unsigned>& ids = flat();
    for (auto _ : state) {
        bool ok = std::all_of(ids.begin(), ids.end(), [](unsigned v) { return v < kNodes; });
        benchmark::DoNotOptimize(ok);
        if (!ok) state.SkipWithError("all_of failed");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ids.size()));
}

}  // namespace

BENCHMARK(SortedOrder_nodara)->Unit(benchmark::kMillisecond);
BENCHMARK(SortedOrder_std_stable_sort)->Unit(benchmark::kMillisecond);
BENCHMARK(Unique_nodara)->Unit(benchmark::kMillisecond);
BENCHMARK(Unique_std_sort_unique)->Unit(benchmark::kMillisecond);
BENCHMARK(Unique_std_unordered_set)->Unit(benchmark::kMillisecond);
BENCHMARK(UniqueFar_nodara)->Unit(benchmark::kMillisecond);
BENCHMARK(UniqueFar_std_unordered_set)->Unit(benchmark::kMillisecond);
BENCHMARK(UniqueFar_std_sort_unique)->Unit(benchmark::kMillisecond);
BENCHMARK(GetIDs_nodara)->Unit(benchmark::kMillisecond);
BENCHMARK(GetIDs_std_unordered_map)->Unit(benchmark::kMillisecond);
BENCHMARK(CheckIDs_nodara)->Unit(benchmark::kMillisecond);
BENCHMARK(CheckIDs_std_all_of)->Unit(benchmark::kMillisecond);
