// Dense arrays and small fixed-size algebra of namespace zq5.
//
// Every mesh operation of nodara exchanges its data in these types:
//   - vector_num<T, A>: reference-counted storage, aligned on A bytes;
//   - dense1D<T, A>:    a one-dimensional view {buffer, size, offset} on a vector_num;
//   - dense2D<T, A>:    a column-major view {buffer, count, offset, rows, cols, ld};
//   - vector_fixed, matrix_fixed, symmetric_fixed: small values held in place.
//
// Views share storage: copying a dense1D or a dense2D (copy construction or
// assignment, sub_vector, sub_matrix, as_vector, shallow_copy) makes a second view
// of the same buffer, and a write through one view is seen through all of them.
// `copy` is the deep copy.  Growing a view (push_back, resize, reserve) grows the
// shared buffer in place: every view of it sees the new storage, which keeps every
// element the sharing views can reach.  An element appended behind a view lands in
// the buffer slot that follows it, even when that slot belongs to a wider view (no
// copy-on-write).
//
// Nothing here throws.  Every operation that may allocate reports failure with a
// `false` result and leaves the array as it was.  All storage, the buffer headers
// included, comes from __vector_num_alloc and goes back through __vector_num_free.
// The reference count is the only value changed with an atomic operation; the
// arrays are otherwise not synchronised.
#ifndef ZQ5_ARRAYS_H
#define ZQ5_ARRAYS_H

#include <zq5/export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>

namespace zq5 {

/// The absent node, element or neighbour: all 32 bits set.
constexpr unsigned NULL_INDEX = 0xFFFFFFFFu;

/// Raw storage of every array: `bytes` bytes aligned for any scalar, or nullptr when
/// the memory cannot be had (never throws).
NODARA_API void* __vector_num_alloc(std::size_t bytes) noexcept;
/// Gives back storage obtained from __vector_num_alloc; nullptr is ignored.
NODARA_API void __vector_num_free(void* p) noexcept;

/// Base of reference-counted objects: an intrusive count and a virtual destructor.
/// When the last reference is dropped the object's __destroy() is called.
class ref_counted {
public:
    ref_counted() noexcept : refs_(0) {}
    ref_counted(const ref_counted&) = delete;
    ref_counted& operator=(const ref_counted&) = delete;

    void __add_ref() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
    void __release() const noexcept {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            const_cast<ref_counted*>(this)->__destroy();
    }
    /// Number of references held (for diagnostics and tests).
    long __ref_count() const noexcept { return refs_.load(std::memory_order_relaxed); }

protected:
    virtual ~ref_counted() = default;
    virtual void __destroy() noexcept = 0;

private:
    mutable std::atomic<long> refs_;
};

/// Counted pointer: holds one reference to its object.
template <class X>
class Ptr {
public:
    Ptr() noexcept : p_(nullptr) {}
    Ptr(X* p) noexcept : p_(p) {  // NOLINT: implicit by design
        if (p_) p_->__add_ref();
    }
    Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
    Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    ~Ptr() {
        if (p_) p_->__release();
    }
    /// Adds a reference to the new object, then drops one from the old.
    Ptr& operator=(X* p) noexcept {
        if (p) p->__add_ref();
        X* old = p_;
        p_ = p;
        if (old) old->__release();
        return *this;
    }
    Ptr& operator=(const Ptr& o) noexcept { return *this = o.p_; }
    Ptr& operator=(Ptr&& o) noexcept {
        if (this != &o) {
            X* old = p_;
            p_ = o.p_;
            o.p_ = nullptr;
            if (old) old->__release();
        }
        return *this;
    }
    X* get() const noexcept { return p_; }
    X* operator->() const noexcept { return p_; }
    X& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
    friend bool operator!=(const Ptr& a, const Ptr& b) noexcept { return a.p_ != b.p_; }

private:
    X* p_;
};

/// Shared storage behind dense arrays: `capacity` elements of T aligned on A bytes.
/// `shift` is the distance in bytes from the raw allocation to `data`; a shift of
/// 65535 or more marks storage that the buffer does not own and never frees.
template <class T, std::size_t A = 8>
class vector_num final : public ref_counted {
    static_assert(std::is_trivially_copyable<T>::value, "vector_num holds plain scalars");
    static_assert(A >= alignof(T) && (A & (A - 1)) == 0 && A < 65535, "bad alignment");

public:
    T* data = nullptr;
    std::uint64_t capacity = 0;
    std::uint64_t shift = 0;

    /// A new, unshared buffer with room for `capacity` elements, or nullptr.
    static vector_num* create(std::size_t capacity) noexcept {
        void* mem = __vector_num_alloc(sizeof(vector_num));
        if (!mem) return nullptr;
        vector_num* v = new (mem) vector_num();
        if (capacity && !v->__grow(capacity, 0, 1)) {
            v->~vector_num();
            __vector_num_free(mem);
            return nullptr;
        }
        return v;
    }

    /// A buffer over storage owned by somebody else (never freed by the buffer).
    static vector_num* wrap(T* storage, std::size_t capacity) noexcept {
        void* mem = __vector_num_alloc(sizeof(vector_num));
        if (!mem) return nullptr;
        vector_num* v = new (mem) vector_num();
        v->data = storage;
        v->capacity = capacity;
        v->shift = 65535;
        return v;
    }

    /// Enlarges the storage to at least `min_capacity` elements (at least `factor`
    /// times the present capacity), keeping the first `keep` elements.  False, with
    /// nothing changed, when the allocation fails.
    bool __grow(std::size_t min_capacity, std::size_t keep, std::size_t factor) noexcept {
        if (min_capacity <= capacity) return true;
        const std::size_t max_elems = (SIZE_MAX - A) / sizeof(T);
        if (min_capacity > max_elems) return false;
        std::size_t new_cap = min_capacity;
        if (factor > 1 && capacity <= max_elems / factor && capacity * factor > new_cap)
            new_cap = static_cast<std::size_t>(capacity * factor);
        unsigned char* raw = static_cast<unsigned char*>(__vector_num_alloc(new_cap * sizeof(T) + A));
        if (!raw) return false;
        const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(raw);
        const std::uintptr_t aligned = (addr + (A - 1)) & ~static_cast<std::uintptr_t>(A - 1);
        T* fresh = reinterpret_cast<T*>(raw + (aligned - addr));
        if (keep > capacity) keep = static_cast<std::size_t>(capacity);
        if (keep) std::memcpy(static_cast<void*>(fresh), data, keep * sizeof(T));
        release_storage();
        data = fresh;
        capacity = new_cap;
        shift = aligned - addr;
        return true;
    }

protected:
    ~vector_num() override { release_storage(); }
    void __destroy() noexcept override {
        this->~vector_num();
        __vector_num_free(this);
    }

private:
    vector_num() noexcept = default;
    void release_storage() noexcept {
        if (data && shift < 65535) __vector_num_free(reinterpret_cast<unsigned char*>(data) - shift);
        data = nullptr;
        capacity = 0;
        shift = 0;
    }
};

/// One-dimensional view: element i is buffer.data[offset + i], 0 <= i < size.
template <class T, std::size_t A = 8>
class dense1D {
public:
    using value_type = T;
    using buffer_type = vector_num<T, A>;

    /// Empty array: no buffer, size 0, offset 0.
    dense1D() noexcept = default;
    /// n value-initialised elements (an empty array when the memory cannot be had).
    explicit dense1D(std::size_t n) noexcept { resize(n, T()); }
    /// n elements equal to value (an empty array when the memory cannot be had).
    dense1D(std::size_t n, T value) noexcept { resize(n, value); }
    dense1D(std::initializer_list<T> values) noexcept {
        if (resize(values.size())) {
            std::size_t i = 0;
            for (T v : values) (*this)[i++] = v;
        }
    }
    /// View of `size` elements of `buffer` starting at `offset` (shares the buffer).
    dense1D(const Ptr<buffer_type>& buffer, std::size_t offset, std::size_t size) noexcept
        : buffer_(buffer), size_(size), offset_(offset) {}

    /// Copies share the buffer (views); use copy() for a deep copy.
    dense1D(const dense1D&) noexcept = default;
    dense1D& operator=(const dense1D&) noexcept = default;
    dense1D(dense1D&& o) noexcept : buffer_(static_cast<Ptr<buffer_type>&&>(o.buffer_)), size_(o.size_), offset_(o.offset_) {
        o.size_ = o.offset_ = 0;
    }
    dense1D& operator=(dense1D&& o) noexcept {
        if (this != &o) {
            buffer_ = static_cast<Ptr<buffer_type>&&>(o.buffer_);
            size_ = o.size_;
            offset_ = o.offset_;
            o.size_ = o.offset_ = 0;
        }
        return *this;
    }
    ~dense1D() = default;

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::size_t offset() const noexcept { return offset_; }
    const Ptr<buffer_type>& buffer() const noexcept { return buffer_; }
    /// Elements the buffer can hold from the view's first element on.
    std::size_t capacity() const noexcept { return buffer_ ? static_cast<std::size_t>(buffer_->capacity - offset_) : 0; }

    T* data() noexcept { return buffer_ ? buffer_->data + offset_ : nullptr; }
    const T* data() const noexcept { return buffer_ ? buffer_->data + offset_ : nullptr; }
    T& operator[](std::size_t i) noexcept { return buffer_->data[offset_ + i]; }
    const T& operator[](std::size_t i) const noexcept { return buffer_->data[offset_ + i]; }
    T* begin() noexcept { return data(); }
    T* end() noexcept { return data() + size_; }
    const T* begin() const noexcept { return data(); }
    const T* end() const noexcept { return data() + size_; }

    /// Appends one element (grows the shared buffer when it has no room behind the view).
    bool push_back(T value) noexcept {
        if (!room_for(offset_ + size_ + 1)) return false;
        buffer_->data[offset_ + size_] = value;
        ++size_;
        return true;
    }
    /// Appends n copies of value.
    bool push_back_n(T value, std::size_t n) noexcept {
        if (n == 0) return true;
        if (n > SIZE_MAX - offset_ - size_ || !room_for(offset_ + size_ + n)) return false;
        T* p = buffer_ ? buffer_->data + offset_ + size_ : nullptr;
        for (std::size_t i = 0; i < n; ++i) p[i] = value;
        size_ += n;
        return true;
    }
    /// Size becomes n; existing elements are kept, new ones are left uninitialised.
    bool resize(std::size_t n) noexcept {
        if (n > size_ && (n > SIZE_MAX - offset_ || !room_for(offset_ + n))) return false;
        size_ = n;
        return true;
    }
    /// As resize(n), new elements set to value.
    bool resize(std::size_t n, T value) noexcept {
        const std::size_t old = size_;
        if (!resize(n)) return false;
        for (std::size_t i = old; i < n; ++i) (*this)[i] = value;
        return true;
    }
    /// Capacity for n elements without changing the size (m: growth factor).
    bool reserve(std::size_t n, std::size_t m = 1) noexcept {
        if (n > SIZE_MAX - offset_) return false;
        if (n <= capacity()) return true;
        if (!buffer_) return room_for(n);
        return buffer_->__grow(offset_ + n, kept(), m);
    }
    /// Deep copy of other into storage of this array's own; false on allocation failure.
    bool copy(const dense1D& other) noexcept {
        if (other.size_ == 0) {
            clear_hard();
            return true;
        }
        buffer_type* fresh = buffer_type::create(other.size_);
        if (!fresh) return false;
        std::memcpy(static_cast<void*>(fresh->data), other.data(), other.size_ * sizeof(T));
        const std::size_t n = other.size_;
        buffer_ = fresh;
        offset_ = 0;
        size_ = n;
        return true;
    }
    /// Size 0 and the buffer released.
    void clear_hard() noexcept {
        buffer_ = nullptr;
        size_ = 0;
        offset_ = 0;
    }
    /// Fills every element of the view with value; returns value.
    T operator=(T value) noexcept {
        for (std::size_t i = 0; i < size_; ++i) (*this)[i] = value;
        return value;
    }
    /// Same size and equal elements.
    bool operator==(const dense1D& o) const noexcept {
        if (size_ != o.size_) return false;
        for (std::size_t i = 0; i < size_; ++i)
            if (!((*this)[i] == o[i])) return false;
        return true;
    }
    bool operator!=(const dense1D& o) const noexcept { return !(*this == o); }

    /// View of elements start .. start+n-1, sharing the buffer.
    dense1D sub_vector(std::size_t start, std::size_t n) const noexcept { return dense1D(buffer_, offset_ + start, n); }

private:
    // Makes sure the buffer holds at least `total` elements (from its start).
    bool room_for(std::size_t total) noexcept {
        if (!buffer_) {
            buffer_type* fresh = buffer_type::create(total < 1 ? 1 : total);
            if (!fresh) return false;
            buffer_ = fresh;
            return true;
        }
        if (total <= buffer_->capacity) return true;
        return buffer_->__grow(total, kept(), 2);
    }
    // Elements to carry over when the buffer grows: up to the end of this view, or
    // the whole old storage while other views share it (they may hold elements
    // behind this one).
    std::size_t kept() const noexcept {
        return buffer_->__ref_count() > 1 ? static_cast<std::size_t>(buffer_->capacity) : offset_ + size_;
    }

    Ptr<buffer_type> buffer_;
    std::uint64_t size_ = 0;
    std::uint64_t offset_ = 0;
};

/// Column-major view: element (i, j) is buffer.data[offset + j * ld + i].
/// Column j is the contiguous run of `rows` elements at offset + j * ld.
template <class T, std::size_t A = 8>
class dense2D {
public:
    using value_type = T;
    using buffer_type = vector_num<T, A>;

    /// Empty matrix: no buffer, 0 x 0.
    dense2D() noexcept = default;
    /// rows x cols value-initialised elements (0 x 0 when the memory cannot be had).
    dense2D(std::size_t rows, std::size_t cols) noexcept { resize(rows, cols, T()); }
    /// rows x cols elements equal to value.
    dense2D(std::size_t rows, std::size_t cols, T value) noexcept { resize(rows, cols, value); }
    /// rows x cols elements given column after column (column 0 first); missing
    /// values are value-initialised, extra values ignored.
    dense2D(std::size_t rows, std::size_t cols, std::initializer_list<T> column_major_values) noexcept {
        if (resize(rows, cols, T())) {
            std::size_t k = 0;
            for (T v : column_major_values) {
                if (k >= rows * cols) break;
                (*this)(k % rows, k / rows) = v;
                ++k;
            }
        }
    }
    /// View of a rows x cols block of `buffer` starting at `offset`, columns `ld` apart.
    dense2D(const Ptr<buffer_type>& buffer, std::size_t offset, std::size_t rows, std::size_t cols,
            std::size_t ld) noexcept
        : buffer_(buffer), count_(rows * cols), offset_(offset), rows_(rows), cols_(cols), ld_(ld) {}

    /// Copies share the buffer (views); use copy() for a deep copy.
    dense2D(const dense2D&) noexcept = default;
    dense2D& operator=(const dense2D&) noexcept = default;
    dense2D(dense2D&& o) noexcept { take(o); }
    dense2D& operator=(dense2D&& o) noexcept {
        if (this != &o) take(o);
        return *this;
    }
    ~dense2D() = default;

    std::size_t rows() const noexcept { return rows_; }
    std::size_t cols() const noexcept { return cols_; }
    std::size_t ld() const noexcept { return ld_; }
    std::size_t entries() const noexcept { return rows_ * cols_; }
    bool empty() const noexcept { return rows_ * cols_ == 0; }
    std::size_t offset() const noexcept { return offset_; }
    const Ptr<buffer_type>& buffer() const noexcept { return buffer_; }
    /// Elements the buffer can hold from element (0, 0) on.
    std::size_t capacity() const noexcept { return buffer_ ? static_cast<std::size_t>(buffer_->capacity - offset_) : 0; }

    T& operator()(std::size_t i, std::size_t j) noexcept { return buffer_->data[offset_ + j * ld_ + i]; }
    const T& operator()(std::size_t i, std::size_t j) const noexcept { return buffer_->data[offset_ + j * ld_ + i]; }
    T* data() noexcept { return buffer_ ? buffer_->data + offset_ : nullptr; }
    const T* data() const noexcept { return buffer_ ? buffer_->data + offset_ : nullptr; }
    /// First element of column j.
    T* col(std::size_t j) noexcept { return buffer_->data + offset_ + j * ld_; }
    const T* col(std::size_t j) const noexcept { return buffer_->data + offset_ + j * ld_; }

    /// Becomes a view of other's buffer and shape.
    void shallow_copy(const dense2D& other) noexcept { *this = other; }

    /// Deep copy into storage of this matrix's own (ld = rows); false on failure.
    bool copy(const dense2D& other) noexcept {
        const std::size_t r = other.rows_, c = other.cols_;
        if (r * c == 0) {
            clear_hard();
            rows_ = r;
            cols_ = c;
            ld_ = r;
            return true;
        }
        buffer_type* fresh = buffer_type::create(r * c);
        if (!fresh) return false;
        for (std::size_t j = 0; j < c; ++j)
            std::memcpy(static_cast<void*>(fresh->data + j * r), other.col(j), r * sizeof(T));
        buffer_ = fresh;
        offset_ = 0;
        rows_ = r;
        cols_ = c;
        ld_ = r;
        count_ = r * c;
        return true;
    }

    /// Shape becomes rows x cols.  With the row count unchanged the leading dimension
    /// and every element are kept (new columns uninitialised); with another row
    /// count ld becomes rows and the contents are unspecified.
    bool resize(std::size_t rows, std::size_t cols) noexcept {
        const std::size_t ld = (rows == rows_ && ld_ >= rows) ? ld_ : rows;
        std::size_t need = 0;
        if (!extent(rows, cols, ld, need)) return false;
        if (need > capacity() && !grow_to(need, 2)) return false;
        rows_ = rows;
        cols_ = cols;
        ld_ = ld;
        count_ = rows * cols;
        return true;
    }
    /// As resize(rows, cols); the new elements (all of them when the row count
    /// changes) are set to value.
    bool resize(std::size_t rows, std::size_t cols, T value) noexcept {
        const bool same_rows = rows == rows_;
        const std::size_t first_new = same_rows ? cols_ : 0;
        if (!resize(rows, cols)) return false;
        if (rows == 0) return true;  // no storage to fill (there may be no buffer)
        for (std::size_t j = first_new; j < cols; ++j) {
            T* c = col(j);
            for (std::size_t i = 0; i < rows; ++i) c[i] = value;
        }
        return true;
    }
    /// Capacity for rows x cols without changing the shape (m: growth factor).
    bool reserve(std::size_t rows, std::size_t cols, std::size_t m = 1) noexcept {
        const std::size_t ld = (rows == rows_ && ld_ >= rows) ? ld_ : rows;
        std::size_t need = 0;
        if (!extent(rows, cols, ld, need)) return false;
        if (need <= capacity()) return true;
        return grow_to(need, m);
    }
    /// Shape 0 x 0 and the buffer released.
    void clear_hard() noexcept {
        buffer_ = nullptr;
        count_ = offset_ = rows_ = cols_ = ld_ = 0;
    }

    /// View of the m x n block at row i0, column j0, sharing the buffer (ld kept).
    dense2D sub_matrix(std::size_t i0, std::size_t j0, std::size_t m, std::size_t n) const noexcept {
        return dense2D(buffer_, offset_ + j0 * ld_ + i0, m, n, ld_);
    }
    /// The whole matrix as one list of rows x cols elements (meaningful when ld = rows).
    dense1D<T, A> as_vector() const noexcept { return dense1D<T, A>(buffer_, offset_, rows_ * cols_); }

    /// Same shape and equal elements.
    bool operator==(const dense2D& o) const noexcept {
        if (rows_ != o.rows_ || cols_ != o.cols_) return false;
        for (std::size_t j = 0; j < cols_; ++j)
            for (std::size_t i = 0; i < rows_; ++i)
                if (!((*this)(i, j) == o(i, j))) return false;
        return true;
    }
    bool operator!=(const dense2D& o) const noexcept { return !(*this == o); }

private:
    static bool extent(std::size_t rows, std::size_t cols, std::size_t ld, std::size_t& need) noexcept {
        if (rows == 0 || cols == 0) {
            need = 0;
            return true;
        }
        if (ld != 0 && cols - 1 > (SIZE_MAX - rows) / ld) return false;
        need = ld * (cols - 1) + rows;
        return true;
    }
    bool grow_to(std::size_t need, std::size_t factor) noexcept {
        if (need > SIZE_MAX - offset_) return false;
        if (!buffer_) {
            buffer_type* fresh = buffer_type::create(need);
            if (!fresh) return false;
            buffer_ = fresh;
            offset_ = 0;
            return true;
        }
        // Carry over up to the end of this view, or the whole old storage while
        // other views share it (they may hold elements behind this one).
        std::size_t keep = 0;
        extent(rows_, cols_, ld_, keep);
        keep = buffer_->__ref_count() > 1 ? static_cast<std::size_t>(buffer_->capacity) : offset_ + keep;
        return buffer_->__grow(offset_ + need, keep, factor);
    }
    void take(dense2D& o) noexcept {
        buffer_ = static_cast<Ptr<buffer_type>&&>(o.buffer_);
        count_ = o.count_;
        offset_ = o.offset_;
        rows_ = o.rows_;
        cols_ = o.cols_;
        ld_ = o.ld_;
        o.count_ = o.offset_ = o.rows_ = o.cols_ = o.ld_ = 0;
    }

    Ptr<buffer_type> buffer_;
    std::uint64_t count_ = 0;  // rows x cols, kept for the array type's own use
    std::uint64_t offset_ = 0;
    std::uint64_t rows_ = 0;
    std::uint64_t cols_ = 0;
    std::uint64_t ld_ = 0;
};

/// A point or vector of N values held in place; zero unless initialised.
/// `vector_fixed<double, 3> P{1., 2., 3.};`
template <class T, std::size_t N>
struct vector_fixed {
    T v[N] = {};
    static constexpr std::size_t size() noexcept { return N; }
    T& operator[](std::size_t i) noexcept { return v[i]; }
    const T& operator[](std::size_t i) const noexcept { return v[i]; }
    T* data() noexcept { return v; }
    const T* data() const noexcept { return v; }
};

/// An M x N matrix held in place, column-major; zero unless initialised.
template <class T, std::size_t M, std::size_t N>
struct matrix_fixed {
    T a[M * N] = {};
    T& operator()(std::size_t i, std::size_t j) noexcept { return a[j * M + i]; }
    const T& operator()(std::size_t i, std::size_t j) const noexcept { return a[j * M + i]; }
    T* data() noexcept { return a; }
    const T* data() const noexcept { return a; }
};

/// A symmetric N x N matrix packed in N(N+1)/2 values, upper triangle column by
/// column: M00, M01, M11 (N = 2); M00, M01, M11, M02, M12, M22 (N = 3).
template <class T, std::size_t N>
struct symmetric_fixed {
    static constexpr std::size_t packed = N * (N + 1) / 2;
    T a[packed] = {};
    T& operator[](std::size_t k) noexcept { return a[k]; }
    const T& operator[](std::size_t k) const noexcept { return a[k]; }
    T& operator()(std::size_t i, std::size_t j) noexcept { return a[index(i, j)]; }
    const T& operator()(std::size_t i, std::size_t j) const noexcept { return a[index(i, j)]; }
    T* data() noexcept { return a; }
    const T* data() const noexcept { return a; }
    static constexpr std::size_t index(std::size_t i, std::size_t j) noexcept {
        return i <= j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j;
    }
};

}  // namespace zq5

#endif  // ZQ5_ARRAYS_H
