// Index utilities built on the hash containers: the index hash, matching values
// and elements (get_IDs), collecting and counting distinct indices.  Each is
// checked on the dense (direct table) and the sparse (hash table) path against
// straightforward reference implementations.
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
using nodara_test::values_of;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;
constexpr unsigned N = NULL_INDEX;
constexpr unsigned kFar = 0x7FFF0000u;  // added to small indices to take the hash path

values column(const matrix& m, std::size_t j) { return values(m.col(j), m.col(j) + m.rows()); }
values entries_of(const matrix& m) {
    values v;
    for (std::size_t j = 0; j < m.cols(); ++j) v.insert(v.end(), m.col(j), m.col(j) + m.rows());
    return v;
}

list make_list(const values& v) {
    list a(v.size());
    std::copy(v.begin(), v.end(), a.begin());
    return a;
}

values far(values v) {
    for (unsigned& x : v) x = x == N ? N : x + kFar;
    return v;
}

// m with `add` added to every entry but NULL_INDEX, as the top rows of a taller
// matrix whose extra row holds `filler` when strided.
matrix far(const matrix& m, unsigned add = kFar, bool strided = false, unsigned filler = 0) {
    matrix parent(m.rows() + (strided ? 1 : 0), m.cols(), filler);
    for (std::size_t j = 0; j < m.cols(); ++j)
        for (std::size_t i = 0; i < m.rows(); ++i) parent(i, j) = m(i, j) == N ? N : m(i, j) + add;
    return parent.sub_matrix(0, 0, m.rows(), m.cols());
}
matrix strided_copy(const matrix& m, unsigned filler) { return far(m, 0, true, filler); }

using nodara_test::status_under_failures;

TEST(IndexHash, DocumentedValuesAndGrowthAtLoadOne) {
    EXPECT_EQ(detail::index_hash(NULL_INDEX), 0x1F2D9287u);
    EXPECT_EQ(detail::index_hash(0x80000000u), detail::index_hash(0));  // top bit masked off
    EXPECT_EQ(detail::index_hash(0x21524110u), 0u);                      // x' = 2^31 - 1
    EXPECT_EQ(detail::index_hash(0), 0x60D26D78u);
    EXPECT_EQ(detail::index_hash(12345), 0x547CB429u);
    const unsigned abc[] = {0, 1, 2}, cab[] = {2, 0, 1};  // the column key is an order-free sum
    EXPECT_EQ(detail::column_key(abc, 3), 0x102518F0u);
    EXPECT_EQ(detail::column_key(cab, 3), 0x102518F0u);

    detail::index_table t;
    EXPECT_EQ(t.bucket_count(), 8u);
    for (unsigned k = 0; k < 8; ++k) t.insert(k * 1000, k);
    EXPECT_EQ(t.bucket_count(), 8u);
    t.insert(9000, 8);
    EXPECT_EQ(t.bucket_count(), 16u);
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
        values C = A, D = B;  // a mix of small and far indices
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
    for (unsigned add : {0u, kFar}) {
        SCOPED_TRACE(add);
        values A(50), B(40), expected_A, expected_B;
        for (unsigned k = 0; k < 50; ++k) A[k] = (k * 7) % 31 + add;
        for (unsigned k = 0; k < 40; ++k) B[k] = (k * 5) % 37 + add;
        reference_get_IDs(A, B, expected_A, expected_B);
        const list a = make_list(A), b = make_list(B);
        list posA, posB;
        const auto partly_right = [](const list& got, const values& expected) {  // NULL_INDEX or the answer
            for (std::size_t k = 0; k < got.size(); ++k) EXPECT_TRUE(got[k] == N || got[k] == expected[k]) << k;
        };
        EXPECT_EQ(status_under_failures([&] { posA.clear_hard(); posB.clear_hard(); },
                                        [&] { return get_IDs(a, b, posA, posB); },
                                        [&](int r) {
                                            EXPECT_EQ(r, 0);
                                            partly_right(posA, expected_A);
                                            partly_right(posB, expected_B);
                                        }),
                  0);
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
    // Triangles: 321 is a reflection of 123, 231 a rotation; 124 another element.
    const matrix tria(3, 1, {1, 2, 3}), trias(3, 4, {3, 2, 1, 2, 3, 1, 1, 2, 3, 1, 2, 4});
    const match_case cases[] = {
        {"triangle", tria, trias, false, {0, {0, 0, 0, N}, {0}}},
        {"strict triangle", tria, trias, true, {0, {N, N, 0, N}, {2}}},
        {"single row", matrix(1, 2, {4, 5}), matrix(1, 2, {5, 6}), false, {0, {1, N}, {N, 0}}},
        {"empty A", matrix(3, 0), matrix(4, 2), false, {0, {N, N}, {}}},  // empty before the row check
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
            for (const matched& m : {match(A, B, strict), match(far(A, kFar, true), far(B), strict)}) {
                EXPECT_EQ(m.status, 0);
                EXPECT_EQ(m.posA, expected_A);
                EXPECT_EQ(m.posB, expected_B);
            }
        }
    }
}

TEST(GetIDsMatrix, AllocationFailureReturns199BeforeTheRowCheck) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const matrix three_rows(3, 2, 1u), four_rows(4, 1, 1u);
    list posA, posB;
    {
        nodara_test::scoped_allocation_failure fail(1);  // outputs that cannot be sized win over -2
        EXPECT_EQ(get_IDs(three_rows, four_rows, posA, posB, false), -199);
        EXPECT_TRUE(fail.fired());
    }
    matrix a(3, 20), b(3, 20);
    for (unsigned j = 0; j < 20; ++j)
        for (unsigned i = 0; i < 3; ++i) {
            a(i, j) = 3 * j + i;
            b(i, (j + 7) % 20) = 3 * j + (i + 1) % 3;
        }
    values expected_A, expected_B;
    reference_get_IDs(a, b, false, expected_A, expected_B);
    EXPECT_EQ(status_under_failures([&] { posA.clear_hard(); posB.clear_hard(); },
                                    [&] { return get_IDs(a, b, posA, posB, false); },
                                    [&](int r) { EXPECT_EQ(r, -199); }),
              0);
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

TEST(UniqueIndices, WorkedExamplesRangesAndSharedStorage) {
    // Matrix form with excluded = [5]: 5 never comes out, and out keeps what it held.
    list out{9};
    EXPECT_EQ(unique_indices(out, matrix(2, 3, {5, 2, 2, 5, 7, N}), list{5}), 0);
    EXPECT_EQ(values_of(out), (values{9, 2, 7}));
    list roomy{1};  // the list form reserves room for every entry first; out is not looked at
    EXPECT_EQ(unique_indices(roomy, list{2, 1, 2, 3, 4, 5, 6, 7, 8, 9}, list()), 0);
    EXPECT_GE(roomy.capacity(), 11u);
    EXPECT_EQ(values_of(roomy), (values{1, 2, 1, 3, 4, 5, 6, 7, 8, 9}));
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

    list a{1, 2, 1, 3};  // out is the very list being collected, with no room to grow in place
    EXPECT_EQ(unique_indices(a, a, list()), 0);
    EXPECT_EQ(values_of(a), (values{1, 2, 1, 3, 1, 2, 3}));
    matrix m(2, 2, {1, 2, 2, 3});  // out is the matrix's storage seen as a list
    list behind = m.as_vector();
    EXPECT_EQ(unique_indices(behind, m, list()), 0);
    EXPECT_EQ(values_of(behind), (values{1, 2, 2, 3, 1, 2, 3}));
    EXPECT_EQ(m, matrix(2, 2, {1, 2, 2, 3}));
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

        const int count = static_cast<int>(reference_unique({}, entries_of(m), {}).size());
        EXPECT_EQ(count_unique_indices(m), count);
        EXPECT_EQ(count_unique_indices(far(m)), count);
        EXPECT_EQ(count_unique_indices(strided_copy(m, range + 7)), count);
    }
}

TEST(UniqueIndices, AllocationFailure) {
    NODARA_REQUIRE_FAULT_INJECTION();
    for (unsigned add : {0u, kFar}) {
        SCOPED_TRACE(add);
        values entries(200);
        for (unsigned k = 0; k < 200; ++k) entries[k] = (k * 37) % 101 + add;
        const values excluded{3 + add, 4 + add}, prefix{500 + add};
        const values expected = reference_unique(prefix, entries, excluded);
        const list ids = make_list(entries), ex = make_list(excluded);
        list out;
        // The set failing gives -199 and out as it was; an append that cannot grow out
        // is skipped, and what comes is in order: a subsequence of the full answer.
        EXPECT_EQ(status_under_failures([&] { out = make_list(prefix); }, [&] { return unique_indices(out, ids, ex); },
                                        [&](int r) {
                                            const values got = values_of(out);
                                            EXPECT_TRUE(r == 0 || (r == -199 && got == prefix)) << r;
                                            EXPECT_TRUE(!got.empty() && got[0] == prefix[0]);
                                            std::size_t k = 0;
                                            for (std::size_t e = 0; e < expected.size() && k < got.size(); ++e)
                                                if (got[k] == expected[e]) ++k;
                                            EXPECT_EQ(k, got.size());
                                        }),
                  0);
        EXPECT_EQ(values_of(out), expected);
        matrix filled(2, 100);  // counting: every failure is reported
        std::copy(entries.begin(), entries.end(), filled.data());
        EXPECT_EQ(status_under_failures([] {}, [&] { return count_unique_indices(filled); },
                                        [&](int r) { EXPECT_EQ(r, -199); }),
                  101);
    }
}

}  // namespace
