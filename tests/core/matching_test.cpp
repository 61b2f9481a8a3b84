// Index utilities built on the hash containers: the index hash itself, matching
// values and elements (get_IDs), collecting and counting distinct indices.  Each
// is checked on both the dense (bitmap, direct table) and the sparse (hash table)
// path, against straightforward reference implementations.
#include <zq5/nodara.h>

#include "common/fault_injection.h"
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

values values_of(const list& a) { return values(a.begin(), a.end()); }

list make_list(const values& v) {
    list a(v.size());
    std::copy(v.begin(), v.end(), a.begin());
    return a;
}

values far(values v) {
    for (unsigned& x : v)
        if (x != N) x += kFar;
    return v;
}

matrix far(const matrix& m) {
    matrix r;
    EXPECT_TRUE(r.copy(m));
    for (std::size_t j = 0; j < r.cols(); ++j)
        for (std::size_t i = 0; i < r.rows(); ++i)
            if (r(i, j) != N) r(i, j) += kFar;
    return r;
}

// The rows x cols matrix as the top of a taller one whose extra row holds `filler`.
matrix strided_copy(const matrix& m, unsigned filler) {
    matrix parent(m.rows() + 1, m.cols(), filler);
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) parent(i, j) = m(i, j);
    return parent.sub_matrix(0, 0, m.rows(), m.cols());
}

// ---------------------------------------------------------------------------
// The index hash and the hash containers.

TEST(IndexHash, DocumentedValues) {
    EXPECT_EQ(detail::index_hash(NULL_INDEX), 0x1F2D9287u);
    EXPECT_EQ(detail::index_hash(NULL_INDEX) & 0x7FFFFFFFu, 0x1F2D9287u);
    EXPECT_EQ(detail::index_hash(0), 0x60D26D78u);
    EXPECT_EQ(detail::index_hash(1), 0x60D22BD1u);
    EXPECT_EQ(detail::index_hash(12345), 0x547CB429u);
    // The top bit is masked off before hashing.
    EXPECT_EQ(detail::index_hash(0x80000000u), detail::index_hash(0));
    // x' = 2^31 - 1, a multiple of the modulus.
    EXPECT_EQ(detail::index_hash(0x21524110u), 0u);
    // Against the Park-Miller step in 64-bit arithmetic.
    std::mt19937 rng(3);
    for (int k = 0; k < 1000; ++k) {
        const std::uint32_t x = static_cast<std::uint32_t>(rng());
        const std::uint64_t y = (x & 0x7FFFFFFFu) ^ 0x5EADBEEFu;
        EXPECT_EQ(detail::index_hash(x), static_cast<std::uint32_t>(16807u * y % 0x7FFFFFFFu)) << x;
    }
}

TEST(IndexHash, ColumnKeyIsAnOrderFreeSum) {
    const unsigned zero[] = {0};
    const unsigned abc[] = {0, 1, 2};
    const unsigned cab[] = {2, 0, 1};
    const unsigned other[] = {1, 2, 3};
    EXPECT_EQ(detail::column_key(zero, 1), 0x050C5D1Fu);
    EXPECT_EQ(detail::column_key(abc, 3), 0x102518F0u);
    EXPECT_EQ(detail::column_key(cab, 3), 0x102518F0u);
    EXPECT_EQ(detail::column_key(other, 3), 0x11251A83u);
    EXPECT_EQ(detail::column_key(abc, 0), 0u);
}

TEST(IndexHash, TableStartsWithEightBucketsAndKeepsLoadAtMostOne) {
    detail::index_table t;
    EXPECT_EQ(t.bucket_count(), 8u);
    for (unsigned k = 0; k < 8; ++k) t.insert(k * 1000, k);
    EXPECT_EQ(t.bucket_count(), 8u);
    t.insert(9000, 8);
    EXPECT_EQ(t.bucket_count(), 16u);
    for (unsigned k = 9; k < 17; ++k) t.insert(k * 1000 + 1, k);
    EXPECT_EQ(t.size(), 17u);
    EXPECT_EQ(t.bucket_count(), 32u);

    // Several values under one key come back in insertion order.
    detail::index_table m;
    m.insert(5, 10);
    m.insert(13, 11);
    m.insert(5, 12);
    m.insert(N, 13);
    std::uint32_t e = m.find(5);
    ASSERT_NE(e, N);
    EXPECT_EQ(m.value(e), 10u);
    e = m.next(e);
    ASSERT_NE(e, N);
    EXPECT_EQ(m.value(e), 12u);
    EXPECT_EQ(m.next(e), N);
    EXPECT_EQ(m.find(99), N);
    EXPECT_EQ(m.value(m.find(N)), 13u);
    EXPECT_FALSE(m.insert_unique(13));
    EXPECT_TRUE(m.insert_unique(14));

    // The order survives rehashing, whichever way the entries came in.
    detail::index_table r;
    for (unsigned k = 0; k < 100; ++k) {
        r.insert(7, k);
        r.insert(1000 + k, k);
        r.insert_unique(5000 + k);
    }
    EXPECT_EQ(r.bucket_count(), 512u);
    unsigned expected = 0;
    for (std::uint32_t e = r.find(7); e != N; e = r.next(e)) EXPECT_EQ(r.value(e), expected++);
    EXPECT_EQ(expected, 100u);
    EXPECT_EQ(r.value(r.find(1042)), 42u);
    EXPECT_NE(r.find(5099), N);
    EXPECT_FALSE(r.insert_unique(5099));
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
        if (B[j] == N) continue;
        const auto it = std::find(A.begin(), A.end(), B[j]);
        if (it == A.end()) continue;
        const std::size_t p = static_cast<std::size_t>(it - A.begin());
        posA[j] = static_cast<unsigned>(p);
        if (posB[p] == N) posB[p] = static_cast<unsigned>(j);
    }
}

TEST(GetIDsList, WorkedExampleOnBothPaths) {
    const values A{5, 7, 5, N, 9};
    const values B{9, 5, 4, N, 5, 7};
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "direct path");
        list posA{1, 2, 3, 4, 5, 6, 7, 8, 9};
        list posB;
        EXPECT_EQ(get_IDs(make_list(sparse ? far(A) : A), make_list(sparse ? far(B) : B), posA, posB), 0);
        EXPECT_EQ(values_of(posA), (values{4, 0, N, N, 0, 1}));
        EXPECT_EQ(values_of(posB), (values{1, 5, N, N, 0}));
    }
}

TEST(GetIDsList, EmptySidesGiveNullFilledOutputs) {
    list posA{7}, posB{7, 7};
    EXPECT_EQ(get_IDs(list(), list{1, 2}, posA, posB), 0);
    EXPECT_EQ(values_of(posA), (values{N, N}));
    EXPECT_TRUE(posB.empty());
    EXPECT_EQ(get_IDs(list{1, 2, 3}, list(), posA, posB), 0);
    EXPECT_TRUE(posA.empty());
    EXPECT_EQ(values_of(posB), (values{N, N, N}));
    // Only NULL_INDEX: nothing matches.
    EXPECT_EQ(get_IDs(list{N}, list{N}, posA, posB), 0);
    EXPECT_EQ(values_of(posA), (values{N}));
    EXPECT_EQ(values_of(posB), (values{N}));
}

TEST(GetIDsList, RandomInputsMatchTheReferenceOnBothPaths) {
    std::mt19937 rng(11);
    for (int round = 0; round < 30; ++round) {
        const unsigned range = 1 + rng() % 100;
        values A(rng() % 200), B(rng() % 200);
        for (unsigned& v : A) v = rng() % 10 == 0 ? N : rng() % range;
        for (unsigned& v : B) v = rng() % 10 == 0 ? N : rng() % range;
        values expected_A, expected_B;
        reference_get_IDs(A, B, expected_A, expected_B);
        list posA, posB;
        EXPECT_EQ(get_IDs(make_list(A), make_list(B), posA, posB), 0);
        EXPECT_EQ(values_of(posA), expected_A);
        EXPECT_EQ(values_of(posB), expected_B);
        EXPECT_EQ(get_IDs(make_list(far(A)), make_list(far(B)), posA, posB), 0);
        EXPECT_EQ(values_of(posA), expected_A);
        EXPECT_EQ(values_of(posB), expected_B);
        // Mixed small and far indices.
        values C = A;
        for (std::size_t k = 0; k < C.size(); k += 3)
            if (C[k] != N) C[k] = N - 1 - C[k];
        values D = B;
        for (std::size_t k = 0; k < D.size(); k += 2)
            if (D[k] != N) D[k] = N - 1 - D[k];
        reference_get_IDs(C, D, expected_A, expected_B);
        EXPECT_EQ(get_IDs(make_list(C), make_list(D), posA, posB), 0);
        EXPECT_EQ(values_of(posA), expected_A);
        EXPECT_EQ(values_of(posB), expected_B);
    }
}

TEST(GetIDsList, AllocationFailureIsNotReported) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "direct path");
        values A(50), B(40);
        for (unsigned k = 0; k < 50; ++k) A[k] = (k * 7) % 31;
        for (unsigned k = 0; k < 40; ++k) B[k] = (k * 5) % 37;
        if (sparse) {
            A = far(A);
            B = far(B);
        }
        values expected_A, expected_B;
        reference_get_IDs(A, B, expected_A, expected_B);
        const list a = make_list(A), b = make_list(B);
        list posA, posB;
        int status = 1;
        const auto failures = for_each_allocation_failure(
            [&] {
                posA.clear_hard();
                posB.clear_hard();
            },
            [&] { return get_IDs(a, b, posA, posB); },
            [&](int r) {
                EXPECT_EQ(r, 0);
                // Whatever was sized holds NULL_INDEX or a right answer.
                for (std::size_t j = 0; j < posA.size(); ++j)
                    if (posA[j] != N) {
                        EXPECT_EQ(posA[j], expected_A[j]);
                    }
                for (std::size_t p = 0; p < posB.size(); ++p)
                    if (posB[p] != N) {
                        EXPECT_EQ(posB[p], expected_B[p]);
                    }
            },
            status);
        EXPECT_GE(failures, 5u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(posA), expected_A);
        EXPECT_EQ(values_of(posB), expected_B);
    }
}

// ---------------------------------------------------------------------------
// get_IDs, matrix form.

// The documented matching rule, taken literally, without any hashing.
bool reference_match(values a, values b, bool strict) {
    const std::size_t rows = a.size();
    if (!strict) {
        std::rotate(b.begin(), std::max_element(b.begin(), b.end()), b.end());
        if (rows >= 2) std::rotate(a.begin(), std::max_element(a.begin(), a.end()), a.end());
    }
    if (a == b) return true;
    if (strict || rows == 1) return false;
    std::reverse(a.begin() + 1, a.end());
    return a == b;
}

values column(const matrix& m, std::size_t j) { return values(m.col(j), m.col(j) + m.rows()); }

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

TEST(GetIDsMatrix, TrianglesUpToRotationAndReversal) {
    const matrix A(3, 1, {1, 2, 3});
    const matrix B(3, 4, {3, 2, 1, 2, 3, 1, 1, 2, 3, 1, 2, 4});
    matched loose = match(A, B, false);
    EXPECT_EQ(loose.status, 0);
    EXPECT_EQ(loose.posA, (values{0, 0, 0, N}));
    EXPECT_EQ(loose.posB, (values{0}));
    matched strict = match(A, B, true);
    EXPECT_EQ(strict.status, 0);
    EXPECT_EQ(strict.posA, (values{N, N, 0, N}));
    EXPECT_EQ(strict.posB, (values{2}));
}

TEST(GetIDsMatrix, QuadranglesRotationsAndReflectionsOnly) {
    const matrix A(4, 1, {1, 2, 3, 4});
    // 2341 and 3412 are rotations, 4321 and 2143 reflections; 1324 and 1243 hold
    // the same nodes (same column key) in another cycle.
    const matrix B(4, 6, {2, 3, 4, 1, 3, 4, 1, 2, 4, 3, 2, 1, 2, 1, 4, 3, 1, 3, 2, 4, 1, 2, 4, 3});
    EXPECT_EQ(match(A, B, false).posA, (values{0, 0, 0, 0, N, N}));
    EXPECT_EQ(match(A, B, true).posA, (values{N, N, N, N, N, N}));
    // Edges: both directions; a single row matches itself.
    EXPECT_EQ(match(matrix(2, 1, {1, 2}), matrix(2, 2, {2, 1, 1, 2}), false).posA, (values{0, 0}));
    EXPECT_EQ(match(matrix(2, 1, {1, 2}), matrix(2, 2, {2, 1, 1, 2}), true).posA, (values{N, 0}));
    EXPECT_EQ(match(matrix(1, 2, {4, 5}), matrix(1, 2, {5, 6}), false).posA, (values{1, N}));
}

TEST(GetIDsMatrix, RepeatedLargestEntryDefeatsRotation) {
    // Rotation brings the first largest entry to the front.  With the largest
    // entry twice, a rotated copy of (5, 1, 5, 2, 3) is therefore not recognised.
    const matrix A(5, 1, {5, 1, 5, 2, 3});
    const matrix B(5, 3, {5, 2, 3, 5, 1, 1, 5, 2, 3, 5, 5, 1, 5, 2, 3});
    const matched m = match(A, B, false);
    EXPECT_EQ(m.posA, (values{N, N, 0}));
    EXPECT_EQ(m.posB, (values{2}));
}

TEST(GetIDsMatrix, SmallestIndexWinsOnBothSides) {
    const matrix A(3, 3, {1, 2, 3, 7, 8, 9, 3, 1, 2});
    const matrix B(3, 3, {2, 1, 3, 9, 8, 7, 1, 2, 3});
    const matched m = match(A, B, false);
    EXPECT_EQ(m.posA, (values{0, 1, 0}));
    EXPECT_EQ(m.posB, (values{0, 1, 0}));
}

TEST(GetIDsMatrix, StatusesInOrder) {
    // Empty before the row check.
    matched m = match(matrix(3, 0), matrix(4, 2), false);
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.posA, (values{N, N}));
    EXPECT_TRUE(m.posB.empty());
    m = match(matrix(3, 2), matrix(0, 1), true);
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.posA, (values{N}));
    EXPECT_EQ(m.posB, (values{N, N}));
    m = match(matrix(3, 2, 1u), matrix(4, 1, 1u), false);
    EXPECT_EQ(m.status, -2);
    EXPECT_EQ(m.posA, (values{N}));
    EXPECT_EQ(m.posB, (values{N, N}));
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

TEST(GetIDsMatrix, StridedViewsMatchLikeCompactOnes) {
    const matrix A(3, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    const matrix B(3, 3, {9, 7, 8, 2, 3, 1, 6, 4, 5});
    const matched compact = match(A, B, false);
    EXPECT_EQ(compact.posA, (values{2, 0, 1}));
    EXPECT_EQ(compact.posB, (values{1, 2, 0}));
    const matched viewed = match(strided_copy(A, 1), strided_copy(B, 1), false);
    EXPECT_EQ(viewed.posA, compact.posA);
    EXPECT_EQ(viewed.posB, compact.posB);
}

TEST(GetIDsMatrix, RandomInputsMatchTheReference) {
    std::mt19937 rng(13);
    for (int round = 0; round < 60; ++round) {
        const std::size_t rows = 1 + rng() % 5;
        const unsigned range = 2 + rng() % 7;  // small: repeated entries and key collisions
        const std::size_t colsA = 1 + rng() % 30, colsB = 1 + rng() % 40;
        matrix A(rows, colsA), B(rows, colsB);
        for (std::size_t j = 0; j < colsA; ++j)
            for (std::size_t i = 0; i < rows; ++i) A(i, j) = rng() % range;
        for (std::size_t c = 0; c < colsB; ++c) {
            // Mostly transformed columns of A: rotated, maybe reversed or shuffled.
            values col = column(A, rng() % colsA);
            switch (rng() % 4) {
                case 0: std::rotate(col.begin(), col.begin() + rng() % rows, col.end()); break;
                case 1:
                    std::reverse(col.begin(), col.end());
                    std::rotate(col.begin(), col.begin() + rng() % rows, col.end());
                    break;
                case 2: std::shuffle(col.begin(), col.end(), rng); break;
                default:
                    for (unsigned& v : col) v = rng() % range;
            }
            std::copy(col.begin(), col.end(), B.col(c));
        }
        for (bool strict : {false, true}) {
            values expected_A, expected_B;
            reference_get_IDs(A, B, strict, expected_A, expected_B);
            const matched m = match(A, B, strict);
            EXPECT_EQ(m.status, 0);
            EXPECT_EQ(m.posA, expected_A) << "rows " << rows << (strict ? " strict" : "");
            EXPECT_EQ(m.posB, expected_B) << "rows " << rows << (strict ? " strict" : "");
            // Far indices and strided views change nothing.
            const matched f = match(strided_copy(far(A), 0), far(B), strict);
            EXPECT_EQ(f.posA, expected_A);
            EXPECT_EQ(f.posB, expected_B);
        }
    }
}

TEST(GetIDsMatrix, AllocationFailureReturns199) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const matrix A(3, 20), B(3, 20);
    matrix a = A, b = B;
    for (unsigned j = 0; j < 20; ++j)
        for (unsigned i = 0; i < 3; ++i) {
            a(i, j) = 3 * j + i;
            b(i, (j + 7) % 20) = 3 * j + (i + 1) % 3;
        }
    values expected_A, expected_B;
    reference_get_IDs(a, b, false, expected_A, expected_B);
    list posA, posB;
    int status = 1;
    const auto failures = for_each_allocation_failure(
        [&] {
            posA.clear_hard();
            posB.clear_hard();
        },
        [&] { return get_IDs(a, b, posA, posB, false); }, [&](int r) { EXPECT_EQ(r, -199); }, status);
    EXPECT_GE(failures, 5u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(values_of(posA), expected_A);
    EXPECT_EQ(values_of(posB), expected_B);
}

// ---------------------------------------------------------------------------
// unique_indices and count_unique_indices.

// Appends to out the entries not met before (NULL_INDEX and excluded count as met).
void reference_unique(values& out, const values& entries, const values& excluded) {
    std::set<unsigned> seen(excluded.begin(), excluded.end());
    seen.insert(N);
    for (unsigned v : entries)
        if (seen.insert(v).second) out.push_back(v);
}

bool is_subsequence(const values& sub, const values& full) {
    std::size_t k = 0;
    for (unsigned v : full)
        if (k < sub.size() && sub[k] == v) ++k;
    return k == sub.size();
}

values entries_of(const matrix& m) {
    values v;
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) v.push_back(m(i, j));
    return v;
}

TEST(UniqueIndices, ListAppendsDistinctIndicesInOrder) {
    for (bool sparse : {false, true}) {
        SCOPED_TRACE(sparse ? "hash path" : "bitmap path");
        auto maybe_far = [&](values v) { return sparse ? far(v) : v; };
        list out = make_list(maybe_far({42}));
        EXPECT_EQ(unique_indices(out, make_list(maybe_far({3, 1, N, 3, 5, 1, 42, 7})), make_list(maybe_far({5, N}))), 0);
        // 42 was already in out: out is not looked at.
        EXPECT_EQ(values_of(out), maybe_far({42, 3, 1, 42, 7}));
    }
    // The list form reserves room for every entry first: no growth on the way.
    list roomy{1};
    EXPECT_EQ(unique_indices(roomy, list{2, 3, 4, 5, 6, 7, 8, 9, 10}, list()), 0);
    EXPECT_GE(roomy.capacity(), 10u);
    EXPECT_EQ(roomy.size(), 10u);

    list out;
    EXPECT_EQ(unique_indices(out, list(), list{1}), 0);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(unique_indices(out, list{N, N}, list()), 0);
    EXPECT_TRUE(out.empty());
}

TEST(UniqueIndices, MatrixFormsWalkColumnsAndAppend) {
    // excluded = [5]: 5 never comes out, and out keeps what it held.
    list out{9};
    EXPECT_EQ(unique_indices(out, matrix(2, 3, {5, 2, 2, 5, 7, N}), list{5}), 0);
    EXPECT_EQ(values_of(out), (values{9, 2, 7}));

    // Strided view: the hidden row (8) is never collected.
    const matrix view = strided_copy(matrix(2, 2, {4, 1, 1, 3}), 8);
    out.clear_hard();
    EXPECT_EQ(unique_indices(out, view, list()), 0);
    EXPECT_EQ(values_of(out), (values{4, 1, 3}));

    // Range form: the matrices in turn.
    const matrix range[] = {matrix(1, 2, {1, 2}), strided_copy(matrix(2, 1, {2, 3}), 9), matrix(3, 0)};
    out.clear_hard();
    EXPECT_EQ(unique_indices(out, range, range + 3, list()), 0);
    EXPECT_EQ(values_of(out), (values{1, 2, 3}));
    EXPECT_EQ(unique_indices(out, range + 2, range + 1, list()), -3);
    EXPECT_EQ(unique_indices(out, range + 1, range + 1, list()), 0);
    EXPECT_EQ(values_of(out), (values{1, 2, 3}));
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

        values expected = prefix;
        reference_unique(expected, entries_of(m), excluded);

        list out = make_list(prefix);
        EXPECT_EQ(unique_indices(out, m, make_list(excluded)), 0);
        EXPECT_EQ(values_of(out), expected);
        out = make_list(prefix);
        EXPECT_EQ(unique_indices(out, strided_copy(m, range + 7), make_list(excluded)), 0);
        EXPECT_EQ(values_of(out), expected);
        out = make_list(prefix);
        EXPECT_EQ(unique_indices(out, make_list(entries_of(m)), make_list(excluded)), 0);
        EXPECT_EQ(values_of(out), expected);

        out = make_list(far(prefix));
        EXPECT_EQ(unique_indices(out, far(m), make_list(far(excluded))), 0);
        EXPECT_EQ(values_of(out), far(expected));
        out = make_list(far(prefix));
        EXPECT_EQ(unique_indices(out, make_list(far(entries_of(m))), make_list(far(excluded))), 0);
        EXPECT_EQ(values_of(out), far(expected));

        const values e = entries_of(m);
        std::set<unsigned> distinct(e.begin(), e.end());
        distinct.erase(N);
        const int count = count_unique_indices(m);
        EXPECT_EQ(count, static_cast<int>(distinct.size()));
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
        values entries(200);
        for (unsigned k = 0; k < 200; ++k) entries[k] = (k * 37) % 101;
        values excluded{3, 4};
        values prefix{500};
        if (sparse) {
            entries = far(entries);
            excluded = far(excluded);
            prefix = far(prefix);
        }
        values expected = prefix;
        reference_unique(expected, entries, excluded);
        const list ids = make_list(entries), ex = make_list(excluded);
        list out;
        int status = 1;
        // The set failing gives -199 and out as it was; an append that cannot grow
        // out is skipped, and the rest comes in order.
        const auto failures = for_each_allocation_failure(
            [&] { out = make_list(prefix); }, [&] { return unique_indices(out, ids, ex); },
            [&](int r) {
                if (r == -199) {
                    EXPECT_EQ(values_of(out), prefix);
                    return;
                }
                EXPECT_EQ(r, 0);
                const values got = values_of(out);
                ASSERT_FALSE(got.empty());
                EXPECT_EQ(got[0], prefix[0]);
                EXPECT_TRUE(
                    is_subsequence(values(got.begin() + 1, got.end()), values(expected.begin() + 1, expected.end())));
            },
            status);
        EXPECT_GE(failures, 1u);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(values_of(out), expected);

        // Matrix form, with out starting empty (its buffer is created on the way).
        matrix filled(2, 100);
        for (std::size_t j = 0; j < 100; ++j)
            for (std::size_t i = 0; i < 2; ++i) filled(i, j) = entries[2 * j + i];
        values expected_m;
        reference_unique(expected_m, entries, excluded);
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
        EXPECT_EQ(values_of(out), expected_m);

        // The very list as out, growing while it is read.
        list self;
        for_each_allocation_failure(
            [&] { self = make_list(entries); }, [&] { return unique_indices(self, self, ex); },
            [&](int r) { EXPECT_TRUE(r == 0 || r == -199); }, status);
        EXPECT_EQ(status, 0);
        values expected_self = entries;
        reference_unique(expected_self, entries, excluded);
        EXPECT_EQ(values_of(self), expected_self);
    }
}

TEST(CountUniqueIndices, CountsAndStatuses) {
    EXPECT_EQ(count_unique_indices(matrix(3, 2, {0, N, 4, 4, 7, 0})), 3);
    EXPECT_EQ(count_unique_indices(matrix()), 0);
    EXPECT_EQ(count_unique_indices(matrix(2, 1, {N, N})), 0);
    EXPECT_EQ(count_unique_indices(strided_copy(matrix(1, 3, {5, 5, 6}), 9)), 2);
    EXPECT_EQ(count_unique_indices(far(matrix(3, 2, {0, N, 4, 4, 7, 0}))), 3);
    const matrix range[] = {matrix(1, 2, {1, 2}), matrix(2, 1, {2, 3}), matrix(1, 1, {N - 1})};
    EXPECT_EQ(count_unique_indices(range, range + 3), 4);
    EXPECT_EQ(count_unique_indices(range, range + 2), 3);
    EXPECT_EQ(count_unique_indices(range + 1, range + 1), 0);
    EXPECT_EQ(count_unique_indices(range + 2, range), -2);
}

TEST(CountUniqueIndices, AllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (bool sparse : {false, true}) {
        matrix m(3, 50);
        for (unsigned j = 0; j < 50; ++j)
            for (unsigned i = 0; i < 3; ++i) m(i, j) = (7 * j + i) % 61;
        if (sparse) m = far(m);
        int count = 0;
        const auto failures = for_each_allocation_failure(
            [] {}, [&] { return count_unique_indices(m); }, [&](int r) { EXPECT_EQ(r, -199); }, count);
        EXPECT_GE(failures, 1u);
        EXPECT_EQ(count, 61);
    }
}

}  // namespace
