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
/// Entries live in one array in insertion order; each bucket chains its entries
/// in that order too, so the values of one key come back in insertion order.
class index_table {
public:
    index_table() { heads_.assign(8, NULL_INDEX); }

    std::size_t size() const noexcept { return nodes_.size(); }
    std::size_t bucket_count() const noexcept { return heads_.size(); }

    /// Reserves room for n entries without rehashing on the way.
    void reserve(std::size_t n) {
        nodes_.reserve(n);
        values_.reserve(n);
        std::size_t b = heads_.size();
        while (b < n) b *= 2;
        if (b != heads_.size()) rehash(b);
    }

    /// Adds (key, value) unconditionally, behind the entries already chained.
    void insert(std::uint32_t key, std::uint32_t value) {
        grow_for_one_more();
        const std::size_t b = bucket(key);
        append(b, chain_tail(b), key, value);
    }

    /// Adds key when absent; true when it was added.
    bool insert_unique(std::uint32_t key) {
        std::size_t b = bucket(key);
        std::uint32_t tail = NULL_INDEX;
        for (std::uint32_t e = heads_[b]; e != NULL_INDEX; e = nodes_[e].next) {
            if (nodes_[e].key == key) return false;
            tail = e;
        }
        if (nodes_.size() + 1 > heads_.size()) {
            grow_for_one_more();
            b = bucket(key);
            tail = chain_tail(b);
        }
        append(b, tail, key, 0);
        return true;
    }

    /// First entry of key, or NULL_INDEX; walk on with next().
    std::uint32_t find(std::uint32_t key) const noexcept {
        std::uint32_t e = heads_[bucket(key)];
        while (e != NULL_INDEX && nodes_[e].key != key) e = nodes_[e].next;
        return e;
    }
    /// Next entry with the same key as entry e, or NULL_INDEX.
    std::uint32_t next(std::uint32_t e) const noexcept {
        const std::uint32_t key = nodes_[e].key;
        e = nodes_[e].next;
        while (e != NULL_INDEX && nodes_[e].key != key) e = nodes_[e].next;
        return e;
    }
    std::uint32_t value(std::uint32_t e) const noexcept { return values_[e]; }

private:
    struct node {
        std::uint32_t key;
        std::uint32_t next;
    };

    std::size_t bucket(std::uint32_t key) const noexcept { return index_hash(key) & (heads_.size() - 1); }

    // Keeps the load factor at most 1 once one more entry is in.
    void grow_for_one_more() {
        if (nodes_.size() + 1 > heads_.size()) rehash(heads_.size() * 2);
    }
    // Last entry of bucket b's chain, or NULL_INDEX for an empty chain.
    std::uint32_t chain_tail(std::size_t b) const noexcept {
        std::uint32_t tail = NULL_INDEX;
        for (std::uint32_t e = heads_[b]; e != NULL_INDEX; e = nodes_[e].next) tail = e;
        return tail;
    }
    // Adds an entry behind `tail` in bucket b (at its head when tail is NULL_INDEX).
    void append(std::size_t b, std::uint32_t tail, std::uint32_t key, std::uint32_t value) {
        const std::uint32_t e = static_cast<std::uint32_t>(nodes_.size());
        values_.push_back(value);  // first, so that a failure leaves no half entry behind
        try {
            nodes_.push_back(node{key, NULL_INDEX});
        } catch (...) {
            values_.pop_back();
            throw;
        }
        if (tail == NULL_INDEX) heads_[b] = e;
        else nodes_[tail].next = e;
    }
    // New bucket array; the entries are linked in from the last one to the first,
    // each at the front of its chain, so every chain stays in insertion order.
    void rehash(std::size_t buckets) {
        heads_.assign(buckets, NULL_INDEX);
        for (std::size_t e = nodes_.size(); e-- > 0;) {
            std::uint32_t& head = heads_[bucket(nodes_[e].key)];
            nodes_[e].next = head;
            head = static_cast<std::uint32_t>(e);
        }
    }

    zq5::detail::vec<std::uint32_t> heads_;
    zq5::detail::vec<node> nodes_;
    zq5::detail::vec<std::uint32_t> values_;
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
