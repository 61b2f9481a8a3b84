// Dense arrays: views and aliasing, growth, deep copies, and every `false` path
// reached through the allocation-failure injector.
#include <zq5/arrays.h>

#include "common/fault_injection.h"
#include "common/values.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace {

using zq5::dense1D;
using zq5::dense2D;
using zq5::Ptr;
using zq5::vector_num;
using nodara_test::for_each_allocation_failure;
using nodara_test::scoped_allocation_failure;
using nodara_test::values_of;

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;

// 0, 1, ..., n-1 in a buffer of exactly n elements.
list iota_list(unsigned n) {
    list a;
    EXPECT_TRUE(a.resize(n));
    for (unsigned i = 0; i < n; ++i) a[i] = i;
    EXPECT_EQ(a.capacity(), n);
    return a;
}

// rows x cols matrix holding 10 * j + i at (i, j).
matrix numbered(std::size_t rows, std::size_t cols) {
    matrix m(rows, cols);
    for (std::size_t j = 0; j < cols; ++j)
        for (std::size_t i = 0; i < rows; ++i) m(i, j) = static_cast<unsigned>(10 * j + i);
    return m;
}

// Every allocation of call() fails in turn: each failed run returns false and
// passes unchanged(); the count of failing runs is `failures`, the last run succeeds.
void expect_failures_harmless(unsigned long long failures, const std::function<void()>& setup,
                              const std::function<bool()>& call, const std::function<void()>& unchanged) {
    bool ok = false;
    EXPECT_EQ(for_each_allocation_failure(setup, call, [&](bool r) { EXPECT_FALSE(r); unchanged(); }, ok), failures);
    EXPECT_TRUE(ok);
}

TEST(ArrayBasics, ConstructorsFillAndCompare) {
    EXPECT_FALSE(list().buffer());
    EXPECT_EQ(matrix().data(), nullptr);
    EXPECT_EQ(values_of(list(2, 7u)), (values{7, 7}));
    EXPECT_EQ(dense1D<int>(2, -3)[1], -3);
    const matrix m(2, 3, {1, 2, 3, 4, 5, 6});  // column 0 first
    EXPECT_EQ(m.ld(), 2u);
    EXPECT_EQ(m(1, 0), 2u);
    EXPECT_EQ(m.col(1)[1], 4u);
    EXPECT_TRUE(matrix(3, 0).empty());  // empty but keeps its shape
    EXPECT_EQ(matrix(3, 0).rows(), 3u);

    list a = iota_list(6);
    list middle = a.sub_vector(1, 2);
    EXPECT_EQ((middle = 7u), 7u);  // fills the view only
    EXPECT_EQ(values_of(a), (values{0, 7, 7, 3, 4, 5}));
    EXPECT_FALSE((list{1, 2, 3} == list{1, 2}));
    EXPECT_FALSE((list{1, 2, 3} == list{1, 2, 4}));
    EXPECT_TRUE(a.sub_vector(1, 2) == (list{7, 7}));  // the views, not the buffers
}

// ---------------------------------------------------------------------------
// Views share their buffer: every write is seen through every view.

TEST(ArrayViews, CopiesAndCountedPointersShareTheBuffer) {
    list a{1, 2, 3};
    {
        list b(a), c;
        c = b;
        EXPECT_EQ(a.buffer()->__ref_count(), 3);
        c[1] = 20;
        EXPECT_EQ(a[1], 20u);
    }
    EXPECT_EQ(a.buffer()->__ref_count(), 1);

    Ptr<vector_num<double>> p = vector_num<double>::create(4), q, r = vector_num<double>::create(1);
    ASSERT_TRUE(p && r);
    q = p.get();
    q = q.get();  // self-assignment keeps the reference
    EXPECT_EQ(p->__ref_count(), 2);
    q = r;
    EXPECT_EQ(p->__ref_count(), 1);
    q = static_cast<vector_num<double>*>(nullptr);
    EXPECT_EQ(r->__ref_count(), 1);
}

TEST(ArrayViews, SubVectorSubMatrixAsVectorShareTheBuffer) {
    list a = iota_list(10);
    list s = a.sub_vector(3, 4);
    EXPECT_EQ(s.capacity(), 7u);
    const list ss = s.sub_vector(1, 2);  // offsets add up
    s[1] = 40;
    a[5] = 50;
    EXPECT_EQ(values_of(ss), (values{40, 50}));

    matrix m = numbered(4, 5);
    matrix sm = m.sub_matrix(1, 2, 2, 3);
    EXPECT_EQ(sm.offset(), 9u);
    EXPECT_EQ(sm.col(1), m.col(3) + 1);
    sm(1, 1) = 99;
    m(1, 4) = 77;
    matrix c;  // a deep copy of a strided view is contiguous
    ASSERT_TRUE(c.copy(sm));
    EXPECT_EQ(c.ld(), 2u);
    EXPECT_TRUE(c.as_vector() == (list{21, 22, 31, 99, 77, 42}));
    c(0, 0) = 0;
    EXPECT_EQ(m(1, 2), 21u);

    matrix n = numbered(3, 2), w;
    list v = n.as_vector();
    w.shallow_copy(n);
    EXPECT_EQ(w.cols(), 2u);
    v[4] = 5;
    w(2, 0) = 8;
    EXPECT_EQ(n, matrix(3, 2, {0, 1, 8, 10, 5, 12}));
    EXPECT_EQ(n.buffer()->__ref_count(), 3);
}

TEST(ArrayViews, GrowingAViewKeepsWhatOtherViewsHold) {
    list wide = iota_list(10);
    list narrow = wide.sub_vector(2, 3);
    const unsigned* storage = wide.data();
    ASSERT_TRUE(narrow.push_back(99));  // room behind the view: written into the wider view's slot
    ASSERT_TRUE(narrow.push_back_n(7, 2));
    EXPECT_EQ(wide.data(), storage);
    EXPECT_EQ(values_of(wide), (values{0, 1, 2, 3, 4, 99, 7, 7, 8, 9}));
    list tail = wide.sub_vector(7, 3);
    ASSERT_TRUE(tail.push_back(10));  // a full buffer grows under every view, keeping all of it
    EXPECT_NE(wide.data(), storage);
    EXPECT_EQ(values_of(wide), (values{0, 1, 2, 3, 4, 99, 7, 7, 8, 9}));
    EXPECT_EQ(values_of(tail), (values{7, 8, 9, 10}));
    list wide2 = iota_list(10);
    ASSERT_TRUE(wide2.sub_vector(0, 2).resize(30));
    EXPECT_EQ(values_of(wide2), (values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    matrix m = numbered(3, 4);
    matrix left = m.sub_matrix(0, 0, 3, 2);
    ASSERT_TRUE(left.reserve(3, 50));
    ASSERT_TRUE(left.resize(3, 60));
    EXPECT_EQ(m, numbered(3, 4));
    EXPECT_EQ(left(2, 3), 32u);
}

TEST(ArrayViews, WrappedStorageIsNeverFreed) {
    unsigned storage[4] = {1, 2, 3, 4};
    {
        Ptr<vector_num<unsigned>> buffer = vector_num<unsigned>::wrap(storage, 4);
        ASSERT_TRUE(buffer);
        EXPECT_GE(buffer->shift, 65535u);
        list a(buffer, 1, 3);
        a[0] = 20;
        EXPECT_EQ(storage[1], 20u);
        ASSERT_TRUE(a.push_back(5));  // growing past foreign storage copies it into owned storage
        EXPECT_LT(buffer->shift, 65535u);
        EXPECT_EQ(values_of(a), (values{20, 3, 4, 5}));
        a[1] = 30;
        EXPECT_EQ(storage[2], 3u);
    }
    EXPECT_EQ(storage[0], 1u);
}

// ---------------------------------------------------------------------------
// Resizing, reserving, appending, deep copies.

TEST(ArrayGrowth, ListResizeReserveAndAppend) {
    list a{1, 2, 3};
    ASSERT_TRUE(a.resize(5, 9u));
    ASSERT_TRUE(a.resize(2));
    ASSERT_TRUE(a.resize(4, 7u));  // only the new elements take the value
    EXPECT_EQ(values_of(a), (values{1, 2, 7, 7}));
    list b{1, 2};
    ASSERT_TRUE(b.reserve(100, 1));
    const unsigned* storage = b.data();
    ASSERT_TRUE(b.push_back_n(4, 3));
    for (unsigned i = 0; i < 95; ++i) ASSERT_TRUE(b.push_back(i));
    ASSERT_TRUE(b.reserve(10));  // smaller than what is there: nothing changes
    EXPECT_EQ(b.data(), storage);
    for (unsigned i = 0; i < 1000; ++i) ASSERT_TRUE(b.push_back(i));
    EXPECT_EQ(b[4], 4u);
    EXPECT_EQ(b[99], 94u);
    EXPECT_EQ(b[1099], 999u);
}

TEST(ArrayGrowth, MatrixReserveAndResize) {
    matrix m = numbered(3, 2);
    ASSERT_TRUE(m.reserve(3, 10));
    const unsigned* storage = m.data();
    ASSERT_TRUE(m.resize(3, 4, 5u));  // same rows: columns kept
    EXPECT_EQ(m.data(), storage);
    EXPECT_EQ(m, matrix(3, 4, {0, 1, 2, 10, 11, 12, 5, 5, 5, 5, 5, 5}));
    ASSERT_TRUE(m.resize(2, 3, 8u));  // another row count: ld follows, every element takes the value
    EXPECT_EQ(m.ld(), 2u);
    EXPECT_EQ(m, matrix(2, 3, 8u));
    matrix big = numbered(4, 6);  // a strided view grows in place with its leading dimension
    matrix top = big.sub_matrix(0, 0, 2, 3);
    ASSERT_TRUE(top.resize(2, 5));
    EXPECT_EQ(top.ld(), 4u);
    EXPECT_EQ(top(1, 4), 41u);
    ASSERT_TRUE(top.resize(2, 6, 0u));
    EXPECT_EQ(big(0, 5), 0u);
    EXPECT_EQ(big(2, 5), 52u);
}

TEST(ArrayGrowth, CopyIsDeepAndClearHardReleases) {
    list a{3, 1, 4}, view = a, b{9};
    ASSERT_TRUE(b.copy(a.sub_vector(1, 2)));
    EXPECT_EQ(b.offset(), 0u);
    ASSERT_TRUE(b.copy(b));  // copying itself leaves the values
    EXPECT_EQ(values_of(b), (values{1, 4}));
    ASSERT_TRUE(b.copy(list()));
    EXPECT_FALSE(b.buffer());
    a.clear_hard();
    EXPECT_FALSE(a.buffer());
    EXPECT_EQ(view.buffer()->__ref_count(), 1);
    EXPECT_EQ(values_of(view), (values{3, 1, 4}));
    matrix n;
    ASSERT_TRUE(n.copy(matrix(3, 0)));
    EXPECT_EQ(n.rows(), 3u);
}

TEST(ArrayGrowth, SizesThatCannotBeAddressedAreRefused) {
    list a = iota_list(4);
    list tail = a.sub_vector(1, 3);
    EXPECT_FALSE(tail.resize(SIZE_MAX / 2));
    EXPECT_FALSE(tail.reserve(SIZE_MAX));
    EXPECT_FALSE(tail.push_back_n(0, SIZE_MAX - 2));
    EXPECT_EQ(values_of(tail), (values{1, 2, 3}));
    EXPECT_EQ(a.capacity(), 4u);
    matrix m = numbered(2, 2);
    EXPECT_FALSE(m.resize(SIZE_MAX / 2, 3));
    EXPECT_FALSE(m.reserve(4, SIZE_MAX / 2));
    EXPECT_EQ(m, numbered(2, 2));
}

// ---------------------------------------------------------------------------
// Allocation failure: every growth reports false and leaves the array as it was.

TEST(ArrayAllocationFailure, GrowthAndCopyLeaveTheArrayAsItWas) {
    NODARA_REQUIRE_FAULT_INJECTION();
    list a, other_view;
    struct op {
        const char* name;
        std::function<bool(list&)> call;
        std::size_t size_after;
    };
    const op ops[] = {
        {"resize", [](list& l) { return l.resize(100); }, 100},
        {"resize with value", [](list& l) { return l.resize(100, 0u); }, 100},
        {"reserve", [](list& l) { return l.reserve(100, 1); }, 3},
        {"push_back", [](list& l) { return l.push_back(4); }, 4},
        {"push_back_n", [](list& l) { return l.push_back_n(4, 10); }, 13},
    };
    for (const op& o : ops) {
        SCOPED_TRACE(o.name);
        expect_failures_harmless(1, [&] { a = list{1, 2, 3}; other_view = a; }, [&] { return o.call(a); }, [&] {
            EXPECT_EQ(values_of(a), (values{1, 2, 3}));
            EXPECT_EQ(a.data(), other_view.data());
        });
        EXPECT_EQ(a.size(), o.size_after);
        EXPECT_EQ(values_of(other_view), (values{1, 2, 3}));
    }
    // A first append needs the buffer header, then its storage.
    expect_failures_harmless(2, [&] { a.clear_hard(); }, [&] { return a.push_back(5); },
                             [&] { EXPECT_FALSE(a.buffer()); });
    EXPECT_EQ(values_of(a), (values{5}));

    matrix m;
    const std::function<bool()> calls[] = {[&] { return m.resize(3, 50); }, [&] { return m.resize(3, 50, 1u); },
                                           [&] { return m.resize(7, 7); }, [&] { return m.reserve(3, 50, 1); }};
    for (const auto& call : calls)
        expect_failures_harmless(1, [&] { m = numbered(3, 2); }, call, [&] { EXPECT_EQ(m, numbered(3, 2)); });
    const list source{7, 8, 9};
    expect_failures_harmless(2, [&] { a = list{1}; }, [&] { return a.copy(source); },
                             [&] { EXPECT_EQ(values_of(a), (values{1})); });
    EXPECT_EQ(a, source);
    const matrix msource = numbered(3, 3).sub_matrix(1, 1, 2, 2);
    expect_failures_harmless(2, [&] { m = numbered(1, 1); }, [&] { return m.copy(msource); },
                             [&] { EXPECT_EQ(m, numbered(1, 1)); });
    EXPECT_EQ(m, matrix(2, 2, {11, 12, 21, 22}));
}

TEST(ArrayAllocationFailure, ConstructorsGiveEmptyArrays) {
    NODARA_REQUIRE_FAULT_INJECTION();
    unsigned storage[2] = {0, 0};
    struct attempt {
        unsigned long long nth;
        std::function<bool()> empty_result;
    };
    const attempt attempts[] = {
        {2, [] { return list(5).empty(); }},
        {1, [] { return list{1, 2, 3}.empty(); }},
        {2, [] { const matrix m(3, 4, 1u); return m.empty() && m.rows() == 0; }},
        {1, [&] { return !vector_num<unsigned>::wrap(storage, 2); }},
    };
    for (std::size_t k = 0; k < sizeof attempts / sizeof attempts[0]; ++k) {
        SCOPED_TRACE(k);
        scoped_allocation_failure fail(attempts[k].nth);
        EXPECT_TRUE(attempts[k].empty_result());
        EXPECT_TRUE(fail.fired());
    }
}

}  // namespace
