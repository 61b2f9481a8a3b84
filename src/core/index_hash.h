// Internal: the hash containers keyed by 32-bit indices.
//
// Both are chained tables over flat arrays with a power-of-two bucket count (8 to
// start), a maximum load factor of 1 and the library's index hash (a Park-Miller
// step on the index XOR 0x5EADBEEF).  The hash only decides speed, never results.
// They throw std::bad_alloc (from raw_allocator) when they cannot grow; callers
// catch it at the operation's boundary.
#ifndef NODARA_SRC_CORE_INDEX_HASH_H
#define NODARA_SRC_CORE_INDEX_HASH_H

#include "arrays/memory.h"

#include <cstddef>
#include <cstdint>

namespace zq5 {
namespace nodara {
namespace detail {

/// The index hash before masking: x' = (x AND 0x7FFFFFFF) XOR 0x5EADBEEF, then
/// 16807 (x' mod 127773) - 2836 (x' div 127773), plus 0x7FFFFFFF when negative.
inline std::uint32_t index_hash(std::uint32_t x) noexcept {
    const std::int32_t y = static_cast<std::int32_t>((x & 0x7FFFFFFFu) ^ 0x5EADBEEFu);
    std::int32_t h = 16807 * (y % 127773) - 2836 * (y / 127773);
    if (h < 0) h += 0x7FFFFFFF;
    return static_cast<std::uint32_t>(h);
}

/// Order-independent key of a set of indices: the sum of (x XOR 0x811C9DC5) *
/// 16777619 over the entries, modulo 2^32.
inline std::uint32_t column_key(const unsigned* column, std::size_t rows) noexcept {
    std::uint32_t k = 0;
    for (std::size_t i = 0; i < rows; ++i) k += (column[i] ^ 0x811C9DC5u) * 16777619u;
    return k;
}

/// Chained multimap from a 32-bit key to 32-bit values; also serves as a set.
class index_table {
public:
    index_table() { heads_.assign(8, NULL_INDEX); }

    std::size_t size() const noexcept { return keys_.size(); }
    std::size_t bucket_count() const noexcept { return heads_.size(); }

    /// Reserves room for n entries without rehashing on the way.
    void reserve(std::size_t n) {
        keys_.reserve(n);
        values_.reserve(n);
        next_.reserve(n);
        std::size_t b = heads_.size();
        while (b < n) b *= 2;
        if (b != heads_.size()) rehash(b);
    }

    /// Adds (key, value) unconditionally, behind the entries already chained.
    void insert(std::uint32_t key, std::uint32_t value) {
        if (keys_.size() + 1 > heads_.size()) rehash(heads_.size() * 2);
        const std::uint32_t e = static_cast<std::uint32_t>(keys_.size());
        keys_.push_back(key);
        values_.push_back(value);
        next_.push_back(NULL_INDEX);
        link(e);
    }

    /// Adds key when absent; true when it was added.
    bool insert_unique(std::uint32_t key) {
        if (find(key) != NULL_INDEX) return false;
        insert(key, 0);
        return true;
    }

    /// First entry of key, or NULL_INDEX; walk on with next().
    std::uint32_t find(std::uint32_t key) const noexcept {
        std::uint32_t e = heads_[index_hash(key) & (heads_.size() - 1)];
        while (e != NULL_INDEX && keys_[e] != key) e = next_[e];
        return e;
    }
    /// Next entry with the same key as entry e, or NULL_INDEX.
    std::uint32_t next(std::uint32_t e) const noexcept {
        const std::uint32_t key = keys_[e];
        e = next_[e];
        while (e != NULL_INDEX && keys_[e] != key) e = next_[e];
        return e;
    }
    std::uint32_t value(std::uint32_t e) const noexcept { return values_[e]; }

private:
    void link(std::uint32_t e) {
        // Chains keep insertion order: walk to the tail.
        std::uint32_t* slot = &heads_[index_hash(keys_[e]) & (heads_.size() - 1)];
        while (*slot != NULL_INDEX) slot = &next_[*slot];
        *slot = e;
    }
    void rehash(std::size_t buckets) {
        heads_.assign(buckets, NULL_INDEX);
        for (std::uint32_t e = 0; e < keys_.size(); ++e) {
            next_[e] = NULL_INDEX;
            link(e);
        }
    }

    zq5::detail::vec<std::uint32_t> heads_, keys_, values_, next_;
};

/// Set of indices: a bit per index when the largest index is small against the
/// amount of work (dense indices), the hash table otherwise.  Results do not
/// depend on which one is used.
class index_set {
public:
    /// `largest`: the largest index that will be inserted or looked up;
    /// `expected`: the number of insertions and look-ups to come.
    index_set(std::uint32_t largest, std::size_t expected) {
        const std::size_t words = static_cast<std::size_t>(largest) / 64 + 1;
        dense_ = words <= expected / 4 + 1024;
        if (dense_) bits_.assign(words, 0);
    }
    /// Adds x when absent; true when it was added.
    bool insert(std::uint32_t x) {
        if (dense_) {
            std::uint64_t& w = bits_[x >> 6];
            const std::uint64_t bit = std::uint64_t(1) << (x & 63);
            if (w & bit) return false;
            w |= bit;
            return true;
        }
        return table_.insert_unique(x);
    }

private:
    bool dense_ = false;
    zq5::detail::vec<std::uint64_t> bits_;
    index_table table_;
};

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_CORE_INDEX_HASH_H
