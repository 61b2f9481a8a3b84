// Index utilities built on the hash containers: the index hash itself, matching
// values and elements (get_IDs), collecting and counting distinct indices.  Each
// is checked on both the dense (bitmap, direct table) and the sparse (hash table)
// path, against straightforward reference implementations.
#include <zq5/nodara.h>

#include "common/fault_injection.h"
#include "common/values.h"
#include "core/index_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

namespace {

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;
using nodara_test::for_each_allocation_failure;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;
constexpr unsigned N = NULL_INDEX;
// Added to small indices to push them near 2^31, where the hash path is taken.
constexpr unsigned kFar = 0x7FFF0000u;

using nodara_test::values_of;
values column(const matrix& m, std::size_t j) { return values(m.col(j), m.col(j) + m.rows()); }

list make_list(const values& v) {
    list a(v.size());
    std::copy(v.begin(), v.end(), a.begin());
    return a;
}

values far(values v) {
    for (unsigned& x : v) x = x == N ? N : x + kFar;
    return v;
}

// The matrix with far indices, as the top rows of a taller one whose extra row
// holds `filler` (a strided view), or compact when no filler is given.
matrix far(const matrix& m, unsigned add = kFar, bool strided = false, unsigned filler = 0) {
    matrix parent(m.rows() + (strided ? 1 : 0), m.cols(), filler);
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) parent(i, j) = m(i, j) == N ? N : m(i, j) + add;
    return parent.sub_matrix(0, 0, m.rows(), m.cols());
}
matrix strided_copy(const matrix& m, unsigned filler) { return far(m, 0, true, filler); }

// ---------------------------------------------------------------------------
// The index hash and the hash containers.

TEST(IndexHash, DocumentedValues) {
    EXPECT_EQ(detail::index_hash(NULL_INDEX), 0x1F2D9287u);
    EXPECT_EQ(detail::index_hash(0), 0x60D26D78u);
    EXPECT_EQ(detail::index_hash(12345), 0x547CB429u);
    EXPECT_EQ(detail::index_hash(0x80000000u), detail::index_hash(0));  // top bit masked off
    EXPECT_EQ(detail::index_hash(0x21524110u), 0u);                      // x' = 2^31 - 1
    // Against the Park-Miller step in 64-bit arithmetic.
    std::mt19937 rng(3);
    for (int k = 0; k < 1000; ++k) {
        const std::uint32_t x = static_cast<std::uint32_t>(rng());
        const std::uint64_t y = (x & 0x7FFFFFFFu) ^ 0x5EADBEEFu;
        EXPECT_EQ(detail::index_hash(x), static_cast<std::uint32_t>(16807u * y % 0x7FFFFFFFu)) << x;
    }
    // The column key is an order-free sum.
    const unsigned zero[] = {0}, abc[] = {0, 1, 2}, cab[] = {2, 0, 1}, other[] = {1, 2, 3};
    EXPECT_EQ(detail::column_key(zero, 1), 0x050C5D1Fu);
    EXPECT_EQ(detail::column_key(abc, 3), 0x102518F0u);
    EXPECT_EQ(detail::column_key(cab, 3), 0x102518F0u);
    EXPECT_EQ(detail::column_key(other, 3), 0x11251A83u);
    EXPECT_EQ(detail::column_key(abc, 0), 0u);
}

TEST(IndexHash, TableGrowsAtLoadOneAndKeepsInsertionOrder) {
    detail::index_table t;
    EXPECT_EQ(t.bucket_count(), 8u);
    for (unsigned k = 0; k < 8; ++k) t.insert(k * 1000, k);
    EXPECT_EQ(t.bucket_count(), 8u);
    t.insert(9000, 8);
    EXPECT_EQ(t.bucket_count(), 16u);

    // Several values under one key come back in insertion order, across rehashing.
    detail::index_table r;
    r.insert(N, 1000);
    for (unsigned k = 0; k < 100; ++k) {
        r.insert(7, k);
        r.insert(1000 + k, k);
        EXPECT_TRUE(r.insert_unique(5000 + k));
    }
    EXPECT_EQ(r.bucket_count(), 512u);
    unsigned expected = 0;
    for (std::uint32_t e = r.find(7); e != N; e = r.next(e)) EXPECT_EQ(r.value(e), expected++);
    EXPECT_EQ(expected, 100u);
    EXPECT_EQ(r.value(r.find(1042)), 42u);
    EXPECT_EQ(r.value(r.find(N)), 1000u);
    EXPECT_EQ(r.find(99), N);
    EXPECT_FALSE(r.insert_unique(5099));
    EXPECT_FALSE(r.insert_unique(1042));  // keys entered by insert count too
}

TEST(IndexHash, DenseAndSparseSetsAgree) {
    detail::index_set dense(1000, 100000);
    detail::index_set sparse(0xFFFFFFFEu, 10);
    std::set<unsigned> reference;
    std::mt19937 rng(5);
    for (int k = 0; k < 5000; ++k) {
        const unsigned v = rng() % 1001;
        const bool fresh = reference.insert(v).second;
        EXPECT_EQ(dense.insert(v), fresh);
        EXPECT_EQ(sparse.insert(v + 0x7FFFFC00u), fresh);
    }
}

// ---------------------------------------------------------------------------
// get_IDs, list form.

// posA[j]: first position of B[j] in A; posB[p]: first j with B[j] = A[p], for p
// the first position of its value.
void reference_get_IDs(const values& A, const values& B, values& posA, values& posB) {
    posA.assign(B.size(), N);
    posB.assign(A.size(), N);
    for (std::size_t j = 0; j < B.size(); ++j) {
        const auto it = std::find(A.begin(), A.end(), B[j]);
        if (B[j] == N || it == A.end()) continue;
        const std::size_t p = static_cast<std::size_t>(it - A.begin());
        posA[j] = static_cast<unsigned>(p);
        if (posB[p] == N) posB[p] = static_cast<unsigned>(j);
    }
}

TEST(GetIDsList, WorkedExampleAndEmptySidesOnBothPaths) {
    struct ids_case {
        values A, B, posA, posB;
    };
    const ids_case cases[] = {
        {{5, 7, 5, N, 9}, {9, 5, 4, N, 5, 7}, {4, 0, N, N, 0, 1}, {1, 5, N, N, 0}},
        {{}, {1, 2}, {N, N}, {}},
        {{1, 2, 3}, {}, {}, {N, N, N}},
        {{N}, {N}, {N}, {N}},  // only NULL_INDEX: nothing matches
    };
    for (bool sparse : {false, true})
        for (const ids_case& c : cases) {
            SCOPED_TRACE(::testing::PrintToString(c.A) + (sparse ? " hash path" : " direct path"));
            list posA{1, 2, 3, 4, 5, 6, 7, 8, 9}, posB{7};
            EXPECT_EQ(get_IDs(make_list(sparse ? far(c.A) : c.A), make_list(sparse ? far(c.B) : c.B), posA, posB), 0);
            EXPECT_EQ(values_of(posA), c.posA);
            EXPECT_EQ(values_of(posB), c.posB);
        }
}

TEST(GetIDsList, RandomInputsMatchTheReferenceOnBothPaths) {
    std::mt19937 rng(11);
    for (int round = 0; round < 30; ++round) {
        const unsigned range = 1 + rng() % 100;
        values A(rng() % 200), B(rng() % 200);
        for (unsigned& v : A) v = rng() % 10 == 0 ? N : rng() % range;
        for (unsigned& v : B) v = rng() % 10 == 0 ? N : rng() % range;
        // Small indices, far ones, and a mix of both.
        values C = A, D = B;
        for (std::size_t k = 0; k < C.size(); k += 3) C[k] = C[k] == N ? N : N - 1 - C[k];
        for (std::size_t k = 0; k < D.size(); k += 2) D[k] = D[k] == N ? N : N - 1 - D[k];
        for (const auto& [a, b] : {std::make_pair(A, B), std::make_pair(far(A), far(B)), std::make_pair(C, D)}) {
            values expected_A, expected_B;
            reference_get_IDs(a, b, expected_A, expected_B);
            list posA, posB;
            EXPECT_EQ(get_IDs(make_list(a), make_list(b), posA, posB), 0);
            EXPECT_EQ(values_of(posA), expected_A);
            EXPECT_EQ(values_of(posB), expected_B);
        }
    }
}

TEST(GetIDsList, AllocationFailureIsNotReported) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "direct path");
        values A(50), B(40);
        for (unsigned k = 0; k < 50; ++k) A[k] = (k * 7) % 31 + (sparse ? kFar : 0);
        for (unsigned k = 0; k < 40; ++k) B[k] = (k * 5) % 37 + (sparse ? kFar : 0);
        values expected_A, expected_B;
        reference_get_IDs(A, B, expected_A, expected_B);
        const list a = make_list(A), b = make_list(B);
        list posA, posB;
        int status = 1;
        // Whatever was sized holds NULL_INDEX or a right answer.
        const auto partly_right = [](const list& got, const values& expected) {
            for (std::size_t k = 0; k < got.size(); ++k)
                if (got[k] != N) {
                    EXPECT_EQ(got[k], expected[k]) << k;
                }
        };
        EXPECT_GE(for_each_allocation_failure([&] { posA.clear_hard(); posB.clear_hard(); },
                                              [&] { return get_IDs(a, b, posA, posB); },
                                              [&](int r) {
                                                  EXPECT_EQ(r, 0);
                                                  partly_right(posA, expected_A);
                                                  partly_right(posB, expected_B);
                                              },
                                              status),
                  5u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(posA), expected_A);
        EXPECT_EQ(values_of(posB), expected_B);
    }
}

// ---------------------------------------------------------------------------
// get_IDs, matrix form.

// The documented matching rule, taken literally, without any hashing.
bool reference_match(values a, values b, bool strict) {
    if (!strict) {
        std::rotate(b.begin(), std::max_element(b.begin(), b.end()), b.end());
        if (a.size() >= 2) std::rotate(a.begin(), std::max_element(a.begin(), a.end()), a.end());
    }
    if (a == b) return true;
    if (strict || a.size() == 1) return false;
    std::reverse(a.begin() + 1, a.end());
    return a == b;
}

void reference_get_IDs(const matrix& A, const matrix& B, bool strict, values& posA, values& posB) {
    posA.assign(B.cols(), N);
    posB.assign(A.cols(), N);
    for (std::size_t c = 0; c < B.cols(); ++c)
        for (std::size_t j = 0; j < A.cols(); ++j)
            if (reference_match(column(A, j), column(B, c), strict)) {
                if (posA[c] == N) posA[c] = static_cast<unsigned>(j);
                if (posB[j] == N) posB[j] = static_cast<unsigned>(c);
            }
}

struct matched {
    int status;
    values posA, posB;
};

matched match(const matrix& A, const matrix& B, bool strict) {
    list posA{123}, posB{456};
    const int status = get_IDs(A, B, posA, posB, strict);
    return {status, values_of(posA), values_of(posB)};
}

TEST(GetIDsMatrix, DocumentedExamplesAndStatuses) {
    struct match_case {
        const char* what;
        matrix A, B;
        bool strict;
        matched expected;
    };
    // Quadrangles: 2341 and 3412 are rotations, 4321 and 2143 reflections; 1324
    // and 1243 hold the same nodes (same column key) in another cycle.
    const matrix quad(4, 1, {1, 2, 3, 4});
    const matrix quads(4, 6, {2, 3, 4, 1, 3, 4, 1, 2, 4, 3, 2, 1, 2, 1, 4, 3, 1, 3, 2, 4, 1, 2, 4, 3});
    const match_case cases[] = {
        {"triangle", matrix(3, 1, {1, 2, 3}), matrix(3, 4, {3, 2, 1, 2, 3, 1, 1, 2, 3, 1, 2, 4}), false,
         {0, {0, 0, 0, N}, {0}}},
        {"strict triangle", matrix(3, 1, {1, 2, 3}), matrix(3, 4, {3, 2, 1, 2, 3, 1, 1, 2, 3, 1, 2, 4}), true,
         {0, {N, N, 0, N}, {2}}},
        {"quadrangle", quad, quads, false, {0, {0, 0, 0, 0, N, N}, {0}}},
        {"strict quadrangle", quad, quads, true, {0, {N, N, N, N, N, N}, {N}}},
        {"edge", matrix(2, 1, {1, 2}), matrix(2, 2, {2, 1, 1, 2}), false, {0, {0, 0}, {0}}},
        {"strict edge", matrix(2, 1, {1, 2}), matrix(2, 2, {2, 1, 1, 2}), true, {0, {N, 0}, {1}}},
        {"single row", matrix(1, 2, {4, 5}), matrix(1, 2, {5, 6}), false, {0, {1, N}, {N, 0}}},
        // Rotation brings the first largest entry to the front: with the largest
        // entry twice, a rotated copy of (5, 1, 5, 2, 3) is not recognised.
        {"repeated largest", matrix(5, 1, {5, 1, 5, 2, 3}), matrix(5, 3, {5, 2, 3, 5, 1, 1, 5, 2, 3, 5, 5, 1, 5, 2, 3}),
         false, {0, {N, N, 0}, {2}}},
        {"smallest index wins", matrix(3, 3, {1, 2, 3, 7, 8, 9, 3, 1, 2}), matrix(3, 3, {2, 1, 3, 9, 8, 7, 1, 2, 3}),
         false, {0, {0, 1, 0}, {0, 1, 0}}},
        // Empty before the row check.
        {"empty A", matrix(3, 0), matrix(4, 2), false, {0, {N, N}, {}}},
        {"empty B", matrix(3, 2), matrix(0, 1), true, {0, {N}, {N, N}}},
        {"rows differ", matrix(3, 2, 1u), matrix(4, 1, 1u), false, {-2, {N}, {N, N}}},
    };
    for (const match_case& c : cases) {
        SCOPED_TRACE(c.what);
        for (bool strided : {false, true}) {
            const matched m = strided ? match(strided_copy(c.A, 1), strided_copy(c.B, 1), c.strict)
                                      : match(c.A, c.B, c.strict);
            EXPECT_EQ(m.status, c.expected.status);
            EXPECT_EQ(m.posA, c.expected.posA);
            EXPECT_EQ(m.posB, c.expected.posB);
        }
    }
}

TEST(GetIDsMatrix, SizingTheOutputsIsCheckedFirst) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const matrix A(3, 2, 1u), B(4, 1, 1u);
    list posA, posB;
    {
        // Rows differ, but the outputs cannot even be sized: -199 wins.
        nodara_test::scoped_allocation_failure fail(1);
        EXPECT_EQ(get_IDs(A, B, posA, posB, false), -199);
        EXPECT_TRUE(fail.fired());
    }
    EXPECT_EQ(get_IDs(A, B, posA, posB, false), -2);
}

TEST(GetIDsMatrix, RandomInputsMatchTheReference) {
    std::mt19937 rng(13);
    for (int round = 0; round < 60; ++round) {
        const std::size_t rows = 1 + rng() % 5;
        const unsigned range = 2 + rng() % 7;  // small: repeated entries and key collisions
        matrix A(rows, 1 + rng() % 30), B(rows, 1 + rng() % 40);
        for (std::size_t j = 0; j < A.cols(); ++j)
            for (std::size_t i = 0; i < rows; ++i) A(i, j) = rng() % range;
        for (std::size_t c = 0; c < B.cols(); ++c) {
            // Mostly transformed columns of A: rotated, maybe reversed or shuffled.
            values col = column(A, rng() % A.cols());
            const unsigned how = rng() % 4;
            if (how == 1) std::reverse(col.begin(), col.end());
            if (how <= 1) std::rotate(col.begin(), col.begin() + rng() % rows, col.end());
            if (how == 2) std::shuffle(col.begin(), col.end(), rng);
            if (how == 3)
                for (unsigned& v : col) v = rng() % range;
            std::copy(col.begin(), col.end(), B.col(c));
        }
        for (bool strict : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "rows " << rows << (strict ? " strict" : ""));
            values expected_A, expected_B;
            reference_get_IDs(A, B, strict, expected_A, expected_B);
            // Far indices and strided views change nothing.
            for (const matched& m : {match(A, B, strict), match(far(A, kFar, true), far(B), strict)}) {
                EXPECT_EQ(m.status, 0);
                EXPECT_EQ(m.posA, expected_A);
                EXPECT_EQ(m.posB, expected_B);
            }
        }
    }
}

TEST(GetIDsMatrix, AllocationFailureReturns199) {
    NODARA_REQUIRE_FAULT_INJECTION();
    matrix a(3, 20), b(3, 20);
    for (unsigned j = 0; j < 20; ++j)
        for (unsigned i = 0; i < 3; ++i) {
            a(i, j) = 3 * j + i;
            b(i, (j + 7) % 20) = 3 * j + (i + 1) % 3;
        }
    values expected_A, expected_B;
    reference_get_IDs(a, b, false, expected_A, expected_B);
    list posA, posB;
    int status = 1;
    EXPECT_GE(for_each_allocation_failure([&] { posA.clear_hard(); posB.clear_hard(); },
                                          [&] { return get_IDs(a, b, posA, posB, false); },
                                          [&](int r) { EXPECT_EQ(r, -199); }, status),
              5u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(posA), expected_A);
    EXPECT_EQ(values_of(posB), expected_B);
}

// ---------------------------------------------------------------------------
// unique_indices and count_unique_indices.

// Appends to out the entries not met before (NULL_INDEX and excluded count as met).
values reference_unique(values out, const values& entries, const values& excluded) {
    std::set<unsigned> seen(excluded.begin(), excluded.end());
    seen.insert(N);
    for (unsigned v : entries)
        if (seen.insert(v).second) out.push_back(v);
    return out;
}

values entries_of(const matrix& m) {
    values v;
    for (std::size_t j = 0; j < m.cols(); ++j) v.insert(v.end(), m.col(j), m.col(j) + m.rows());
    return v;
}

TEST(UniqueIndices, AppendsDistinctIndicesInOrderOfFirstAppearance) {
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "bitmap path");
        auto maybe_far = [&](values v) { return sparse ? far(v) : v; };
        list out = make_list(maybe_far({42}));
        EXPECT_EQ(unique_indices(out, make_list(maybe_far({3, 1, N, 3, 5, 1, 42, 7})), make_list(maybe_far({5, N}))), 0);
        EXPECT_EQ(values_of(out), maybe_far({42, 3, 1, 42, 7}));  // out is not looked at
    }
    // The list form reserves room for every entry first: no growth on the way.
    list roomy{1};
    EXPECT_EQ(unique_indices(roomy, list{2, 3, 4, 5, 6, 7, 8, 9, 10}, list()), 0);
    EXPECT_GE(roomy.capacity(), 10u);
    EXPECT_EQ(roomy.size(), 10u);

    // Matrix form with excluded = [5]: 5 never comes out, and out keeps what it held.
    list out{9};
    EXPECT_EQ(unique_indices(out, matrix(2, 3, {5, 2, 2, 5, 7, N}), list{5}), 0);
    EXPECT_EQ(values_of(out), (values{9, 2, 7}));
    // Range form: the matrices in turn (a strided one whose hidden row is never collected).
    const matrix range[] = {matrix(1, 2, {1, 2}), strided_copy(matrix(2, 1, {2, 3}), 9), matrix(3, 0)};
    out.clear_hard();
    EXPECT_EQ(unique_indices(out, range, range + 3, list()), 0);
    EXPECT_EQ(values_of(out), (values{1, 2, 3}));
    EXPECT_EQ(unique_indices(out, range + 2, range + 1, list()), -3);
    EXPECT_EQ(unique_indices(out, range + 1, range + 1, list()), 0);
    EXPECT_EQ(values_of(out), (values{1, 2, 3}));
    EXPECT_EQ(count_unique_indices(range, range + 3), 3);
    EXPECT_EQ(count_unique_indices(range + 1, range + 1), 0);
    EXPECT_EQ(count_unique_indices(range + 2, range), -2);
}

TEST(UniqueIndices, RandomInputsMatchTheReferenceOnBothPaths) {
    std::mt19937 rng(17);
    for (int round = 0; round < 30; ++round) {
        const unsigned range = 1 + rng() % 200;
        matrix m(1 + rng() % 4, rng() % 100);
        for (std::size_t j = 0; j < m.cols(); ++j)
            for (std::size_t i = 0; i < m.rows(); ++i) m(i, j) = rng() % 7 == 0 ? N : rng() % range;
        values excluded(rng() % 10);
        for (unsigned& v : excluded) v = rng() % range;
        const values prefix{range + 1};
        const values expected = reference_unique(prefix, entries_of(m), excluded);
        const auto expect_appended = [&](const values& start, const auto& ids, const values& ex, const values& want) {
            list out = make_list(start);
            EXPECT_EQ(unique_indices(out, ids, make_list(ex)), 0);
            EXPECT_EQ(values_of(out), want);
        };
        expect_appended(prefix, m, excluded, expected);
        expect_appended(prefix, strided_copy(m, range + 7), excluded, expected);
        expect_appended(prefix, make_list(entries_of(m)), excluded, expected);
        expect_appended(far(prefix), far(m), far(excluded), far(expected));
        expect_appended(far(prefix), make_list(far(entries_of(m))), far(excluded), far(expected));

        const int count = static_cast<int>(reference_unique({}, entries_of(m), {}).size());
        EXPECT_EQ(count_unique_indices(m), count);
        EXPECT_EQ(count_unique_indices(far(m)), count);
        EXPECT_EQ(count_unique_indices(strided_copy(m, range + 7)), count);
    }
}

TEST(UniqueIndices, OutputSharingTheInputsStorage) {
    // out is the very list being collected, with no room to grow in place.
    list a{1, 2, 1, 3};
    EXPECT_EQ(unique_indices(a, a, list()), 0);
    EXPECT_EQ(values_of(a), (values{1, 2, 1, 3, 1, 2, 3}));
    // out is the matrix's storage seen as a list: appended behind the matrix.
    matrix m(2, 2, {1, 2, 2, 3});
    list out = m.as_vector();
    EXPECT_EQ(unique_indices(out, m, list()), 0);
    EXPECT_EQ(values_of(out), (values{1, 2, 2, 3, 1, 2, 3}));
    EXPECT_EQ(m, matrix(2, 2, {1, 2, 2, 3}));
}

TEST(UniqueIndices, AllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "bitmap path");
        const unsigned add = sparse ? kFar : 0;
        values entries(200);
        for (unsigned k = 0; k < 200; ++k) entries[k] = (k * 37) % 101 + add;
        const values excluded{3 + add, 4 + add}, prefix{500 + add};
        const values expected = reference_unique(prefix, entries, excluded);
        const list ids = make_list(entries), ex = make_list(excluded);
        list out;
        int status = 1;
        // The set failing gives -199 and out as it was; an append that cannot grow
        // out is skipped, and the rest comes in order.
        EXPECT_GE(for_each_allocation_failure(
                      [&] { out = make_list(prefix); }, [&] { return unique_indices(out, ids, ex); },
                      [&](int r) {
                          const values got = values_of(out);
                          if (r == -199) {
                              EXPECT_EQ(got, prefix);
                              return;
                          }
                          EXPECT_EQ(r, 0);
                          ASSERT_FALSE(got.empty());
                          EXPECT_EQ(got[0], prefix[0]);
                          std::size_t k = 1;  // the rest is a subsequence of the expected tail
                          for (std::size_t e = 1; e < expected.size(); ++e)
                              if (k < got.size() && got[k] == expected[e]) ++k;
                          EXPECT_EQ(k, got.size());
                      },
                      status),
                  1u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(out), expected);

        // Matrix form with out starting empty, and the very list as out, growing
        // while it is read.
        matrix filled(2, 100);
        std::copy(entries.begin(), entries.end(), filled.data());
        for_each_allocation_failure(
            [&] { out.clear_hard(); }, [&] { return unique_indices(out, filled, ex); },
            [&](int r) {
                EXPECT_TRUE(r == 0 || r == -199);
                if (r == -199) {
                    EXPECT_TRUE(out.empty());
                }
            },
            status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(out), reference_unique({}, entries, excluded));
        for_each_allocation_failure(
            [&] { out = make_list(entries); }, [&] { return unique_indices(out, out, ex); },
            [&](int r) { EXPECT_TRUE(r == 0 || r == -199); }, status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(out), reference_unique(entries, entries, excluded));

        // Counting: every failure is reported.
        int count = 0;
        EXPECT_GE(for_each_allocation_failure(
                      [] {}, [&] { return count_unique_indices(filled); }, [&](int r) { EXPECT_EQ(r, -199); }, count),
                  1u);
        EXPECT_EQ(count, 101);
    }
}

TEST(CountUniqueIndices, CountsDistinctIndicesOnly) {
    EXPECT_EQ(count_unique_indices(matrix(3, 2, {0, N, 4, 4, 7, 0})), 3);
    EXPECT_EQ(count_unique_indices(far(matrix(3, 2, {0, N, 4, 4, 7, 0}))), 3);
    EXPECT_EQ(count_unique_indices(matrix()), 0);
    EXPECT_EQ(count_unique_indices(matrix(2, 1, {N, N})), 0);
    const matrix range[] = {matrix(1, 2, {1, 2}), matrix(2, 1, {2, 3}), matrix(1, 1, {N - 1})};
    EXPECT_EQ(count_unique_indices(range, range + 3), 4);
}

}  // namespace
