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

using list = dense1D<unsigned>;
using matrix = dense2D<unsigned>;
using values = std::vector<unsigned>;

using nodara_test::values_of;

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

// ---------------------------------------------------------------------------
// Construction, fill, comparison.

TEST(ArrayBasics, ConstructorsFillAsDocumented) {
    const list none;
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(none.offset(), 0u);
    EXPECT_FALSE(none.buffer());
    EXPECT_EQ(matrix().data(), nullptr);

    EXPECT_EQ(values_of(list(3)), (values{0, 0, 0}));
    EXPECT_EQ(values_of(list(2, 7u)), (values{7, 7}));
    EXPECT_EQ(values_of(list{4, 5, 6}), (values{4, 5, 6}));
    EXPECT_EQ(dense1D<int>(2, -3)[1], -3);

    // Column-major initialisation: column 0 first.
    const matrix m(2, 3, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(m.ld(), 2u);
    EXPECT_EQ(m(1, 0), 2u);
    EXPECT_EQ(m(0, 1), 3u);
    EXPECT_EQ(m.col(1)[1], 4u);
    EXPECT_EQ(m.data()[5], 6u);
    EXPECT_EQ(dense2D<double>(3, 2, 1.5)(2, 1), 1.5);

    // A matrix with no columns or no rows is empty but keeps its shape.
    const matrix no_cols(3, 0);
    EXPECT_TRUE(no_cols.empty());
    EXPECT_EQ(no_cols.rows(), 3u);
    const dense2D<double> no_rows(0, 4, 2.0);
    EXPECT_TRUE(no_rows.empty());
    EXPECT_EQ(no_rows.cols(), 4u);
    EXPECT_EQ(matrix(0, 2, {}).cols(), 2u);
}

TEST(ArrayBasics, FillAndCompareViews) {
    list a = iota_list(6);
    list middle = a.sub_vector(1, 2);
    EXPECT_EQ((middle = 7u), 7u);
    EXPECT_EQ(values_of(a), (values{0, 7, 7, 3, 4, 5}));
    EXPECT_TRUE((list{1, 2, 3} == list{1, 2, 3}));
    EXPECT_FALSE((list{1, 2, 3} == list{1, 2}));
    EXPECT_FALSE((list{1, 2, 3} == list{1, 2, 4}));
    EXPECT_TRUE(list() == list());
    EXPECT_TRUE(a.sub_vector(1, 2) == (list{7, 7}));  // the views, not the buffers
}

// ---------------------------------------------------------------------------
// Views share their buffer: every write is seen through every view.

TEST(ArrayViews, CopiesShareTheBufferAndCountReferences) {
    list a{1, 2, 3};
    ASSERT_EQ(a.buffer()->__ref_count(), 1);
    {
        list b(a);
        list c;
        c = b;
        EXPECT_EQ(a.buffer(), c.buffer());
        EXPECT_EQ(a.buffer()->__ref_count(), 3);
        c[1] = 20;
        EXPECT_EQ(b[1], 20u);
    }
    EXPECT_EQ(a.buffer()->__ref_count(), 1);

    list moved(static_cast<list&&>(a));
    EXPECT_FALSE(a.buffer());
    EXPECT_EQ(a.size(), 0u);
    EXPECT_EQ(moved.buffer()->__ref_count(), 1);
    EXPECT_EQ(values_of(moved), (values{1, 20, 3}));
}

TEST(ArrayViews, SubVectorIsAnOffsetView) {
    list a = iota_list(10);
    list s = a.sub_vector(3, 4);
    EXPECT_EQ(s.buffer(), a.buffer());
    EXPECT_EQ(s.offset(), 3u);
    EXPECT_EQ(s.data(), a.data() + 3);
    EXPECT_EQ(s.capacity(), 7u);
    EXPECT_EQ(values_of(s), (values{3, 4, 5, 6}));
    s[1] = 40;
    EXPECT_EQ(a[4], 40u);
    const list ss = s.sub_vector(1, 2);  // offsets add up
    EXPECT_EQ(ss.offset(), 4u);
    a[5] = 50;
    EXPECT_EQ(values_of(ss), (values{40, 50}));
}

TEST(ArrayViews, SubMatrixKeepsTheLeadingDimensionAndCopiesCompactly) {
    matrix m = numbered(4, 5);
    matrix s = m.sub_matrix(1, 2, 2, 3);
    EXPECT_EQ(s.buffer(), m.buffer());
    EXPECT_EQ(s.ld(), 4u);
    EXPECT_EQ(s.offset(), 9u);
    EXPECT_EQ(s(1, 0), 22u);
    EXPECT_EQ(s(0, 2), 41u);
    EXPECT_EQ(s.col(1), m.col(3) + 1);
    s(1, 1) = 99;
    EXPECT_EQ(m(2, 3), 99u);
    m(1, 4) = 77;

    // Deep copy of a strided view: contiguous, ld = rows, same values.
    matrix c;
    ASSERT_TRUE(c.copy(s));
    EXPECT_NE(c.buffer(), m.buffer());
    EXPECT_EQ(c.ld(), 2u);
    EXPECT_TRUE(c == s);
    EXPECT_TRUE(c.as_vector() == (list{21, 22, 31, 99, 77, 42}));
    c(0, 0) = 0;
    EXPECT_EQ(m(1, 2), 21u);
}

TEST(ArrayViews, AsVectorAndShallowCopyShareTheBuffer) {
    matrix m = numbered(3, 2);
    list v = m.as_vector();
    EXPECT_EQ(values_of(v), (values{0, 1, 2, 10, 11, 12}));
    v[4] = 5;
    EXPECT_EQ(m(1, 1), 5u);
    matrix w;
    w.shallow_copy(m);
    EXPECT_EQ(w.rows(), 3u);
    EXPECT_EQ(w.cols(), 2u);
    w(2, 0) = 8;
    EXPECT_EQ(v[2], 8u);
    EXPECT_EQ(m.buffer()->__ref_count(), 3);
}

TEST(ArrayViews, PushBackWritesIntoTheWiderViewsSlot) {
    list wide = iota_list(10);
    list narrow = wide.sub_vector(2, 3);
    const unsigned* storage = wide.data();
    ASSERT_TRUE(narrow.push_back(99));
    ASSERT_TRUE(narrow.push_back_n(7, 2));
    EXPECT_EQ(values_of(narrow), (values{2, 3, 4, 99, 7, 7}));
    // No copy on write: the slots behind the view were the wide view's.
    EXPECT_EQ(wide.data(), storage);
    EXPECT_EQ(values_of(wide), (values{0, 1, 2, 3, 4, 99, 7, 7, 8, 9}));
}

TEST(ArrayViews, GrowingAViewMovesEveryViewAndKeepsTheWholeBuffer) {
    list wide = iota_list(10);
    list tail = wide.sub_vector(7, 3);
    const unsigned* storage = wide.data();
    ASSERT_TRUE(tail.push_back(10));  // the buffer is full: it grows
    EXPECT_NE(wide.data(), storage);
    EXPECT_EQ(tail.buffer(), wide.buffer());
    EXPECT_EQ(values_of(wide), (values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(values_of(tail), (values{7, 8, 9, 10}));

    // A narrow view that ends long before the buffer grows past the capacity:
    // what the other views hold behind it must survive.
    list wide2 = iota_list(10);
    list narrow = wide2.sub_vector(0, 2);
    ASSERT_TRUE(narrow.resize(30));
    EXPECT_GE(wide2.capacity(), 30u);
    EXPECT_EQ(values_of(wide2), (values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(narrow[9], 9u);
    list wide3 = iota_list(10);
    ASSERT_TRUE(wide3.sub_vector(1, 2).reserve(40));
    EXPECT_EQ(values_of(wide3), (values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
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
        // Growing past the foreign storage copies it into storage of the buffer's own.
        ASSERT_TRUE(a.push_back(5));
        EXPECT_LT(buffer->shift, 65535u);
        EXPECT_EQ(values_of(a), (values{20, 3, 4, 5}));
        a[1] = 30;
        EXPECT_EQ(storage[2], 3u);
    }
    EXPECT_EQ(storage[0], 1u);
}

TEST(ArrayViews, CountedPointerAssignment) {
    Ptr<vector_num<double>> p = vector_num<double>::create(4);
    ASSERT_TRUE(p);
    EXPECT_GE(p->capacity, 4u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p->data) % 8, 0u);
    Ptr<vector_num<double>> q;
    q = p.get();
    EXPECT_EQ(p->__ref_count(), 2);
    q = q.get();  // self-assignment keeps the reference
    EXPECT_EQ(p->__ref_count(), 2);
    Ptr<vector_num<double>> r = vector_num<double>::create(1);
    q = r;
    EXPECT_EQ(p->__ref_count(), 1);
    EXPECT_EQ(r->__ref_count(), 2);
    q = static_cast<vector_num<double>*>(nullptr);
    EXPECT_EQ(r->__ref_count(), 1);
}

// ---------------------------------------------------------------------------
// Resizing, reserving, appending, deep copies.

TEST(ArrayGrowth, ListResizeReserveAndAppend) {
    list a{1, 2, 3};
    ASSERT_TRUE(a.resize(5, 9u));
    ASSERT_TRUE(a.resize(2));
    ASSERT_TRUE(a.resize(4, 7u));  // only the new elements take the value
    EXPECT_EQ(values_of(a), (values{1, 2, 7, 7}));
    ASSERT_TRUE(a.resize(0));
    EXPECT_TRUE(a.buffer());  // resize never releases
    dense1D<double> d;
    ASSERT_TRUE(d.resize(3, 0.5));
    EXPECT_EQ(d[2], 0.5);

    list b{1, 2};
    ASSERT_TRUE(b.reserve(100, 1));
    EXPECT_EQ(values_of(b), (values{1, 2}));
    const unsigned* storage = b.data();
    ASSERT_TRUE(b.push_back_n(4, 3));
    ASSERT_TRUE(b.push_back_n(5, 0));
    for (unsigned i = 0; i < 95; ++i) ASSERT_TRUE(b.push_back(i));
    EXPECT_EQ(b.data(), storage);
    ASSERT_TRUE(b.reserve(10));  // smaller than what is there: nothing changes
    EXPECT_EQ(b.data(), storage);
    EXPECT_EQ(b.size(), 100u);
    EXPECT_EQ(b[4], 4u);
    for (unsigned i = 0; i < 1000; ++i) ASSERT_TRUE(b.push_back(i));
    EXPECT_EQ(b[1099], 999u);
    EXPECT_EQ(b[99], 94u);
}

TEST(ArrayGrowth, MatrixReserveAndResize) {
    matrix m = numbered(3, 2);
    ASSERT_TRUE(m.reserve(3, 10));
    EXPECT_EQ(m, numbered(3, 2));
    const unsigned* storage = m.data();
    ASSERT_TRUE(m.resize(3, 4, 5u));  // same rows: columns kept
    EXPECT_EQ(m.data(), storage);
    EXPECT_EQ(m(2, 1), 12u);
    EXPECT_EQ(m(0, 2), 5u);
    EXPECT_EQ(m(2, 3), 5u);

    // Another row count: ld follows the rows and every element takes the value.
    ASSERT_TRUE(m.resize(2, 3, 8u));
    EXPECT_EQ(m.ld(), 2u);
    EXPECT_EQ(m, matrix(2, 3, 8u));

    // A strided view grows in place with its leading dimension.
    matrix big = numbered(4, 6);
    matrix top = big.sub_matrix(0, 0, 2, 3);
    ASSERT_TRUE(top.resize(2, 5));
    EXPECT_EQ(top.ld(), 4u);
    EXPECT_EQ(top(1, 4), 41u);
    ASSERT_TRUE(top.resize(2, 6, 0u));
    EXPECT_EQ(big(0, 5), 0u);
    EXPECT_EQ(big(2, 5), 52u);
}

TEST(ArrayGrowth, CopyIsDeepAndClearHardReleases) {
    list a{3, 1, 4};
    list view = a;
    list b{9};
    ASSERT_TRUE(b.copy(a));
    EXPECT_NE(b.buffer(), a.buffer());
    b[0] = 0;
    EXPECT_EQ(a[0], 3u);
    ASSERT_TRUE(b.copy(a.sub_vector(1, 2)));
    EXPECT_EQ(b.offset(), 0u);
    ASSERT_TRUE(b.copy(b));  // copying itself leaves the values
    EXPECT_EQ(values_of(b), (values{1, 4}));
    ASSERT_TRUE(b.copy(list()));
    EXPECT_FALSE(b.buffer());
    dense1D<double> e;
    ASSERT_TRUE(e.copy(dense1D<double>{0.5, 1.5}));
    EXPECT_EQ(e[1], 1.5);

    a.clear_hard();
    EXPECT_TRUE(a.empty());
    EXPECT_FALSE(a.buffer());
    EXPECT_EQ(view.buffer()->__ref_count(), 1);
    EXPECT_EQ(values_of(view), (values{3, 1, 4}));

    matrix m = numbered(2, 2);
    matrix n;
    ASSERT_TRUE(n.copy(matrix(3, 0)));
    EXPECT_EQ(n.rows(), 3u);
    ASSERT_TRUE(n.copy(m));
    m(0, 0) = 5;
    EXPECT_EQ(n(0, 0), 0u);
    n.clear_hard();
    EXPECT_EQ(n.rows(), 0u);
    EXPECT_FALSE(n.buffer());
}

TEST(ArrayGrowth, SizesThatCannotBeAddressedAreRefused) {
    list a = iota_list(4);
    list tail = a.sub_vector(1, 3);
    EXPECT_FALSE(tail.resize(SIZE_MAX));
    EXPECT_FALSE(tail.resize(SIZE_MAX / 2));
    EXPECT_FALSE(tail.reserve(SIZE_MAX));
    EXPECT_FALSE(tail.push_back_n(0, SIZE_MAX - 2));
    EXPECT_EQ(values_of(tail), (values{1, 2, 3}));
    EXPECT_EQ(a.capacity(), 4u);
    matrix m = numbered(2, 2);
    EXPECT_FALSE(m.resize(2, SIZE_MAX));
    EXPECT_FALSE(m.resize(SIZE_MAX / 2, 3));
    EXPECT_FALSE(m.reserve(4, SIZE_MAX / 2));
    EXPECT_EQ(m, numbered(2, 2));
}

// ---------------------------------------------------------------------------
// Allocation failure: every growth reports false and leaves the array as it was.

TEST(ArrayAllocationFailure, ListGrowthLeavesTheListAsItWas) {
    NODARA_REQUIRE_FAULT_INJECTION();
    list a, other_view;
    const unsigned* storage = nullptr;
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
        expect_failures_harmless(
            1,
            [&] {
                a = list{1, 2, 3};
                other_view = a;
                storage = a.data();
            },
            [&] { return o.call(a); },
            [&] {
                EXPECT_EQ(values_of(a), (values{1, 2, 3}));
                EXPECT_EQ(a.data(), storage);
                EXPECT_EQ(other_view.data(), storage);
            });
        EXPECT_EQ(a.size(), o.size_after);
        EXPECT_EQ(values_of(other_view), (values{1, 2, 3}));
    }

    // A first append needs the buffer header, then its storage.
    expect_failures_harmless(2, [&] { a.clear_hard(); }, [&] { return a.push_back(5); },
                             [&] {
                                 EXPECT_TRUE(a.empty());
                                 EXPECT_FALSE(a.buffer());
                             });
    EXPECT_EQ(values_of(a), (values{5}));
}

TEST(ArrayAllocationFailure, FailedCopyKeepsTheTarget) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const list source{7, 8, 9};
    list target;
    expect_failures_harmless(2, [&] { target = list{1}; }, [&] { return target.copy(source); },
                             [&] { EXPECT_EQ(values_of(target), (values{1})); });
    EXPECT_EQ(target, source);

    const dense1D<double> dsource{0.25};
    dense1D<double> dtarget;
    expect_failures_harmless(2, [&] { dtarget.clear_hard(); }, [&] { return dtarget.copy(dsource); },
                             [&] { EXPECT_TRUE(dtarget.empty()); });

    const matrix msource = numbered(3, 3).sub_matrix(1, 1, 2, 2);
    matrix mtarget;
    expect_failures_harmless(2, [&] { mtarget = numbered(1, 1); }, [&] { return mtarget.copy(msource); },
                             [&] { EXPECT_EQ(mtarget, numbered(1, 1)); });
    EXPECT_EQ(mtarget, matrix(2, 2, {11, 12, 21, 22}));
}

TEST(ArrayAllocationFailure, FailedMatrixGrowthKeepsShapeAndContents) {
    NODARA_REQUIRE_FAULT_INJECTION();
    matrix m;
    const std::function<bool()> calls[] = {
        [&] { return m.resize(3, 50); }, [&] { return m.resize(3, 50, 1u); }, [&] { return m.resize(7, 7); },
        [&] { return m.reserve(3, 50, 1); }};
    for (const auto& call : calls)
        expect_failures_harmless(1, [&] { m = numbered(3, 2); }, call, [&] {
            EXPECT_EQ(m.ld(), 3u);
            EXPECT_EQ(m, numbered(3, 2));
        });
    EXPECT_EQ(m, numbered(3, 2));

    // A fresh matrix needs a header and its storage.
    matrix fresh;
    expect_failures_harmless(2, [&] { fresh.clear_hard(); }, [&] { return fresh.resize(2, 2, 1u); }, [&] {
        EXPECT_EQ(fresh.rows(), 0u);
        EXPECT_FALSE(fresh.buffer());
    });
    EXPECT_EQ(fresh, matrix(2, 2, 1u));
}

TEST(ArrayAllocationFailure, NothingToAddNeedsNoMemory) {
    NODARA_REQUIRE_FAULT_INJECTION();
    list a;
    list b{1, 2};
    matrix m = numbered(2, 2);
    scoped_allocation_failure fail(1);
    EXPECT_TRUE(a.push_back_n(7, 0));
    EXPECT_TRUE(a.reserve(0));
    EXPECT_TRUE(a.resize(0));
    EXPECT_TRUE(b.reserve(2));
    EXPECT_TRUE(b.resize(1));
    EXPECT_TRUE(b.push_back(3));  // room behind the view
    EXPECT_TRUE(m.reserve(2, 2));
    EXPECT_TRUE(m.resize(2, 1));
    EXPECT_TRUE(m.resize(1, 2));  // fewer elements than the storage holds
    EXPECT_FALSE(fail.fired());
    EXPECT_FALSE(a.buffer());
    EXPECT_EQ(values_of(b), (values{1, 3}));
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
        {1, [] { return !vector_num<unsigned>::create(8); }},
        {2, [] { return !vector_num<unsigned>::create(8); }},
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
