// STL: the ASCII and binary readers (with the rebuilding of shared nodes) and the
// writer.
#include <zq5/nodara/editing.h>
#include <zq5/nodara/io.h>

#include "arrays/memory.h"
#include "io/text.h"

#include <sys/stat.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

namespace zq5 {
namespace nodara {

namespace {

constexpr int kNoMemory = -199;

// Size of a binary STL: header, facet count, then 50 bytes per facet.
constexpr std::size_t kHeaderBytes = 80;
constexpr std::size_t kFacetBytes = 50;
// Facets per block of the exact merge that precedes the tolerance merge.
constexpr std::size_t kMergeBlock = 100000;
// Merge tolerance, relative to the smallest facet altitude.
constexpr double kRelativeTolerance = 0.05;

const char kBinaryHeader[] = "ZQ5 STL Binary";

// Owns a stdio stream.
struct file_closer {
    FILE* f;
    ~file_closer() {
        if (f) std::fclose(f);
    }
};

enum class open_result { ok, missing, directory };

// Opens `filename` in `mode`; a directory counts as a file that cannot be read.
FILE* open_for_reading(const char* filename, const char* mode, open_result& why) noexcept {
    why = open_result::missing;
    if (!filename) return nullptr;
    FILE* f = std::fopen(filename, mode);
    if (!f) return nullptr;
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fclose(f);
        why = open_result::directory;
        return nullptr;
    }
    why = open_result::ok;
    return f;
}

// ---------------------------------------------------------------------------
// The size measure of a facet: its smallest squared altitude.

double squared_norm(const double a[3]) noexcept { return a[0] * a[0] + a[1] * a[1] + a[2] * a[2]; }

// Squared distance from p to the line through the nearer (B) and the farther (F)
// of a and b; the undivided squared cross product when B and F coincide.
double squared_altitude(const double p[3], const double a[3], const double b[3]) noexcept {
    double da[3], db[3];
    for (int r = 0; r < 3; ++r) {
        da[r] = a[r] - p[r];
        db[r] = b[r] - p[r];
    }
    const bool a_nearer = squared_norm(da) <= squared_norm(db);
    const double* B = a_nearer ? a : b;
    const double* F = a_nearer ? b : a;
    double u[3], v[3];  // u = P - B, v = F - B
    for (int r = 0; r < 3; ++r) {
        u[r] = p[r] - B[r];
        v[r] = F[r] - B[r];
    }
    const double c[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    const double num = squared_norm(c);
    const double den = squared_norm(v);
    return den == 0.0 ? num : num / den;
}

// Smallest squared altitude of the facet (x0, x1, x2), starting from the largest
// double.
double facet_measure(const double* x0, const double* x1, const double* x2) noexcept {
    double m = DBL_MAX;
    const double* x[3] = {x0, x1, x2};
    for (int k = 0; k < 3; ++k) {
        const double h = squared_altitude(x[k], x[(k + 1) % 3], x[(k + 2) % 3]);
        if (h < m) m = h;
    }
    return m;
}

// ---------------------------------------------------------------------------
// Coincident vertices, grouped while the facets are read.

// Table slots: three words of key (the bits of three coordinates, or of three
// cell numbers) and a node (NULL_INDEX: empty).
struct slot16 {
    std::uint32_t key[3];
    unsigned node;
};
struct slot32 {
    std::uint64_t key[3];
    unsigned node;
};

// The bits of a coordinate and what they say.
template <class T>
struct float_bits;
template <>
struct float_bits<float> {
    using word = std::uint32_t;
    using slot = slot16;
    static constexpr word kSign = 0x80000000u, kExponent = 0x7F800000u;
};
template <>
struct float_bits<double> {
    using word = std::uint64_t;
    using slot = slot32;
    static constexpr word kSign = 0x8000000000000000ull, kExponent = 0x7FF0000000000000ull;
};

// Hash of three words; the high bits are the well mixed ones.
std::uint64_t hash3(std::uint32_t a, std::uint32_t b, std::uint32_t c) noexcept {
    const std::uint64_t h = (a | static_cast<std::uint64_t>(b) << 32) ^ (c * 0xC2B2AE3D27D4EB4Full);
    return (h ^ (h >> 29)) * 0x9E3779B97F4A7C15ull;
}
std::uint64_t hash3(std::uint64_t a, std::uint64_t b, std::uint64_t c) noexcept {
    std::uint64_t h = (a ^ (b * 0xC2B2AE3D27D4EB4Full)) * 0x9E3779B97F4A7C15ull;
    h = (h ^ (h >> 29) ^ (c * 0x165667B19E3779F9ull)) * 0xBF58476D1CE4E5B9ull;
    return h ^ (h >> 32);
}

unsigned shift_for(std::size_t size) noexcept {  // 64 - log2(size)
    unsigned shift = 64;
    for (std::size_t s = size; s > 1; s /= 2) --shift;
    return shift;
}

// Gives every vertex the node of the first vertex with the same coordinates, the
// nodes numbered in the order of their first vertex.  -0.0 and 0.0 coincide; a
// vertex with a coordinate that is not finite coincides with nothing (its distance
// to anything is NaN or infinite).  T is float for binary files, double for ASCII
// ones.  The table holds the coordinates next to the node, so a lookup touches one
// place in memory; the nodes are kept as doubles, 3 x nodes, ready to be handed
// out.  Throws std::bad_alloc.
template <class T>
class vertex_nodes {
public:
    using word = typename float_bits<T>::word;
    using slot = typename float_bits<T>::slot;

    // A vertex whose coordinates differ in their bits from its node's (signed zeros).
    struct odd_vertex {
        unsigned vertex;
        T x[3];
    };

    // Sized for a surface of `facets` facets (about one node per two facets).
    void reserve(std::size_t facets) {
        std::size_t size = 1024;
        while (size < facets) size *= 2;
        rehash(size);
        if (!coords_.reserve(3, facets / 2 + 16)) throw std::bad_alloc();
    }

    // The nodes of the m vertices x[0..2], x[3..5], ... numbered from `vertex` on,
    // into node[0], node[1], ...  The table slots are fetched a few vertices ahead.
    void nodes_of(const T* x, std::size_t m, std::size_t vertex, unsigned* node) {
        if (table_.empty()) rehash(1024);
        constexpr std::size_t kBatch = 256, kAhead = 16;
        word key[kBatch][3];
        std::uint64_t hash[kBatch];
        for (std::size_t first = 0; first < m; first += kBatch) {
            const std::size_t b = m - first < kBatch ? m - first : kBatch;
            const T* y = x + 3 * first;
            for (std::size_t i = 0; i < b; ++i) {
                for (int r = 0; r < 3; ++r) {
                    word w;
                    std::memcpy(&w, y + 3 * i + r, sizeof w);
                    key[i][r] = w == float_bits<T>::kSign ? 0 : w;  // -0.0 as 0.0
                }
                hash[i] = hash3(key[i][0], key[i][1], key[i][2]);
            }
            for (std::size_t i = 0; i < b && i < kAhead; ++i) prefetch(hash[i]);
            for (std::size_t i = 0; i < b; ++i) {
                if (i + kAhead < b) prefetch(hash[i + kAhead]);
                node[first + i] = node_of(y + 3 * i, key[i], hash[i], vertex + first + i);
            }
        }
    }

    std::size_t nodes() const noexcept { return coords_.cols(); }
    const double* coords(unsigned node) const noexcept { return coords_.col(node); }
    dense2D<double>& coordinates() noexcept { return coords_; }
    const zq5::detail::vec<odd_vertex>& odd() const noexcept { return odd_; }
    // Hands the table's storage over (for the grid of the tolerance check).
    void release_table(zq5::detail::vec<slot>& to) noexcept {
        to.clear();
        to.swap(table_);
    }

private:
    void prefetch(std::uint64_t hash) const noexcept {
        __builtin_prefetch(table_.data() + static_cast<std::size_t>(hash >> shift_));
    }
    unsigned node_of(const T* x, const word* k, std::uint64_t hash, std::size_t vertex) {
        constexpr word e = float_bits<T>::kExponent;
        if ((k[0] & e) == e || (k[1] & e) == e || (k[2] & e) == e) return append(x);  // not finite
        std::size_t i = static_cast<std::size_t>(hash >> shift_);
        for (;;) {
            const slot& s = table_[i];
            if (s.node == NULL_INDEX) break;
            if (s.key[0] == k[0] && s.key[1] == k[1] && s.key[2] == k[2]) {
                if ((k[0] == 0) | (k[1] == 0) | (k[2] == 0)) note_sign(x, s.node, vertex);
                return s.node;
            }
            i = (i + 1) & mask_;
        }
        if (nodes() + 1 > limit_) {
            rehash(2 * table_.size());
            i = static_cast<std::size_t>(hash >> shift_);
            while (table_[i].node != NULL_INDEX) i = (i + 1) & mask_;
        }
        const unsigned node = append(x);
        slot& s = table_[i];
        for (int r = 0; r < 3; ++r) s.key[r] = k[r];
        s.node = node;
        return node;
    }
    unsigned append(const T* x) {
        const std::size_t node = coords_.cols();
        if (!coords_.resize(3, node + 1)) throw std::bad_alloc();
        double* c = coords_.col(node);
        for (int r = 0; r < 3; ++r) c[r] = static_cast<double>(x[r]);
        return static_cast<unsigned>(node);
    }
    void note_sign(const T* x, unsigned node, std::size_t vertex) {
        const double* y = coords(node);
        for (int r = 0; r < 3; ++r)
            if (std::signbit(x[r]) != std::signbit(y[r])) {
                odd_.push_back(odd_vertex{static_cast<unsigned>(vertex), {x[0], x[1], x[2]}});
                return;
            }
    }
    void rehash(std::size_t size) {
        zq5::detail::vec<slot> old(size, slot{{0, 0, 0}, NULL_INDEX});
        old.swap(table_);
        mask_ = size - 1;
        shift_ = shift_for(size);
        limit_ = size / 10 * 6;  // load factor 0.6
        for (const slot& s : old) {
            if (s.node == NULL_INDEX) continue;
            std::size_t i = static_cast<std::size_t>(hash3(s.key[0], s.key[1], s.key[2]) >> shift_);
            while (table_[i].node != NULL_INDEX) i = (i + 1) & mask_;
            table_[i] = s;
        }
    }

    zq5::detail::vec<slot> table_;
    std::size_t mask_ = 0, limit_ = 0;
    unsigned shift_ = 64;
    dense2D<double> coords_;  // 3 x nodes, the coordinates of each node's first vertex
    zq5::detail::vec<odd_vertex> odd_;
};

// Facets read so far (each vertex as its node) and the smallest positive facet
// measure (+inf while none).
template <class T>
struct facets {
    vertex_nodes<T> nodes;
    dense2D<unsigned> connect;  // 3 x count
    std::size_t count = 0;
    double min_measure = std::numeric_limits<double>::infinity();

    // Makes room for `more` facets; false when the storage cannot grow.
    // Node indices are 32-bit: at most (2^32 - 2) / 3 facets.
    bool grow(std::size_t more) noexcept {
        if (more > (NULL_INDEX - 1) / 3 - count) return false;
        return connect.resize(3, count + more);
    }
    // Adds the m facets of vertices v[0..2], v[3..5], v[6..8], then v[9..11] ...
    // (room made by grow).  Throws std::bad_alloc.
    void add(const T* v, std::size_t m) {
        for (std::size_t j = 0; j < m; ++j) {
            double x[9];
            for (int k = 0; k < 9; ++k) x[k] = static_cast<double>(v[9 * j + k]);
            const double h = facet_measure(x, x + 3, x + 6);
            if (h > 0.0 && h < min_measure) min_measure = h;
        }
        nodes.nodes_of(v, 3 * m, 3 * count, connect.col(count));
        count += m;
    }
};

// ---------------------------------------------------------------------------
// ASCII reader.

bool contains(const char* line, const char* word) noexcept { return std::strstr(line, word) != nullptr; }

// Reads "<keyword> %lg %lg %lg" (after optional white space); true with three numbers.
bool read_triple(const char* line, const char* keyword, double out[3]) noexcept {
    const char* p = line;
    if (!detail::match_word(p, keyword)) return false;
    for (int k = 0; k < 3; ++k)
        if (!detail::parse_double(p, out[k])) return false;
    return true;
}
bool read_normal(const char* line, double out[3]) noexcept {
    const char* p = line;
    if (!detail::match_word(p, "facet") || !detail::match_word(p, "normal")) return false;
    for (int k = 0; k < 3; ++k)
        if (!detail::parse_double(p, out[k])) return false;
    return true;
}

// 0, -2 (no "solid" on the first line), -3 (malformed), -199.
int read_ascii(FILE* f, facets<double>& out) noexcept {
    detail::line_reader reader(f);
    char line[detail::line_reader::kLine];
    std::size_t length = reader.next(line);
    if (length == 0) return -2;
    detail::to_lower(line, length);
    if (!contains(line, "solid")) return -2;

    auto next = [&]() noexcept {
        length = reader.next(line);
        detail::to_lower(line, length);
        return length != 0;
    };
    for (;;) {
        if (!next()) return -3;
        if (contains(line, "color")) continue;
        if (contains(line, "endsolid")) {
            if (!next()) return 0;                  // the reading is complete
            if (contains(line, "solid")) continue;  // a further solid follows
            // otherwise the line is taken as a facet line
        }
        double normal[3], v[3][3];
        if (!read_normal(line, normal)) return -3;
        if (!next() || !contains(line, "outer loop")) return -3;
        for (int k = 0; k < 3; ++k)
            if (!next() || !read_triple(line, "vertex", v[k])) return -3;
        if (!next() || !contains(line, "endloop")) return -3;
        if (!next() || !contains(line, "endfacet")) return -3;
        if (!out.grow(1)) return kNoMemory;
        try {
            out.add(&v[0][0], 1);
        } catch (const std::bad_alloc&) {
            return kNoMemory;
        }
    }
}

// ---------------------------------------------------------------------------
// Binary reader.

std::uint32_t le32(const unsigned char* b) noexcept {
    return static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
           static_cast<std::uint32_t>(b[2]) << 16 | static_cast<std::uint32_t>(b[3]) << 24;
}
float le_float(const unsigned char* b) noexcept {
    const std::uint32_t u = le32(b);
    float x;
    std::memcpy(&x, &u, sizeof x);
    return x;
}

// 0, -2 (short header or a stream of unknown size), -3 (short count or facets),
// -199.
int read_binary(FILE* f, facets<float>& out) noexcept {
    unsigned char head[kHeaderBytes + 4];
    if (std::fread(head, 1, kHeaderBytes, f) != kHeaderBytes) return -2;
    if (std::fread(head + kHeaderBytes, 1, 4, f) != 4) return -3;
    const std::uint32_t count = le32(head + kHeaderBytes);
    if (count == 0) return 0;

    // Trust the count only as far as the bytes of the file go.
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) return -2;
    const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
    const std::uint64_t available = size > kHeaderBytes + 4 ? (size - kHeaderBytes - 4) / kFacetBytes : 0;
    if (count > available) return -3;  // the reading would end inside a facet

    if (!out.grow(count)) return kNoMemory;
    constexpr std::size_t kChunk = 4096;  // facets per read
    zq5::detail::vec<unsigned char> buffer;
    zq5::detail::vec<float> vertices;
    try {
        buffer.resize(kChunk * kFacetBytes);
        vertices.resize(kChunk * 9);
        out.nodes.reserve(count);
        std::size_t done = 0;
        while (done < count) {
            const std::size_t n = count - done < kChunk ? count - done : kChunk;
            if (std::fread(buffer.data(), kFacetBytes, n, f) != n) return -3;
            for (std::size_t i = 0; i < n; ++i) {
                const unsigned char* b = buffer.data() + i * kFacetBytes + 12;  // past the normal
                for (int k = 0; k < 9; ++k) vertices[9 * i + k] = le_float(b + 4 * k);
            }
            out.add(vertices.data(), n);
            done += n;
        }
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Rebuilding shared nodes.

// A full 64-bit mix (every input bit reaches every output bit).
std::uint64_t mix64(std::uint64_t x) noexcept {
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 31;
    return x;
}

// Coordinate bits of a node for hashing, with -0.0 read as 0.0 (they coincide).
std::uint64_t coordinate_bits(double x) noexcept {
    if (x == 0.0) x = 0.0;
    std::uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

// Merges the exactly coincident nodes of `block` (3 x n, entries below
// pos.cols()) and renumbers it: every node is mapped onto the first node of the
// block, in column order, with the same coordinates.  That is the result of
// `merge` with tolerance 0 over the block's nodes (a node merges onto the
// earliest coincident node of the list), found by hashing instead of a tree.
// Nodes with a coordinate that is not finite coincide with nothing (their squared
// distance is NaN).  Throws std::bad_alloc when storage fails.
void merge_coincident(const dense2D<double>& pos, dense2D<unsigned>& block) {
    const std::size_t entries = block.entries();
    std::size_t size = 16;
    while (size < 2 * entries) size *= 2;
    zq5::detail::vec<unsigned> table(size, NULL_INDEX);  // node ids, open addressing
    const std::size_t mask = size - 1;
    for (std::size_t j = 0; j < block.cols(); ++j) {
        unsigned* c = block.col(j);
        for (std::size_t k = 0; k < block.rows(); ++k) {
            const unsigned v = c[k];
            const double* x = pos.col(v);
            if (!std::isfinite(x[0]) || !std::isfinite(x[1]) || !std::isfinite(x[2])) continue;
            std::uint64_t h = 0;
            for (int r = 0; r < 3; ++r) h = mix64(h + coordinate_bits(x[r]));
            std::size_t slot = static_cast<std::size_t>(h) & mask;
            for (;;) {
                const unsigned u = table[slot];
                if (u == NULL_INDEX) {
                    table[slot] = v;
                    break;
                }
                const double* y = pos.col(u);
                if (y[0] == x[0] && y[1] == x[1] && y[2] == x[2]) {
                    c[k] = u;
                    break;
                }
                slot = (slot + 1) & mask;
            }
        }
    }
}

// Looks for nodes of `connect` closer than `tol` to each other.  `near_pairs`
// when two distinct positions lie within tol (or when the coordinates are too
// large for the grid: the caller then runs the full merge).  Otherwise
// `only_coincident`, and first[v] is the smallest node with the coordinates of
// v (v itself when none).  Nodes with a coordinate that is not finite are left
// out: their distance to anything is NaN or infinite, so they never merge.
// The search is a hash grid of cells 8 tol wide; a node looks into the next cell
// along an axis only when it lies within tol of that side.  Pairs are flagged a
// little beyond tol (a relative 1e-6), so rounding can only send a mesh to the
// full merge, never spare it one.  Throws std::bad_alloc.
enum class proximity { only_coincident, near_pairs };

proximity find_near_nodes(const dense2D<double>& pos, const dense2D<unsigned>& connect, double tol,
                          zq5::detail::vec<unsigned>& first) {
    const std::size_t nodes = pos.cols();
    zq5::detail::vec<unsigned char> used(nodes, 0);
    for (std::size_t j = 0; j < connect.cols(); ++j)
        for (std::size_t k = 0; k < 3; ++k) used[connect(k, j)] = 1;
    zq5::detail::vec<unsigned> list;
    for (std::size_t v = 0; v < nodes; ++v) {
        const double* x = pos.col(v);
        if (used[v] && std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]))
            list.push_back(static_cast<unsigned>(v));
    }
    first.resize(nodes);
    for (std::size_t v = 0; v < nodes; ++v) first[v] = static_cast<unsigned>(v);
    if (!(tol > 0.0)) return proximity::near_pairs;

    const double threshold = tol * tol * (1.0 + 1e-6);
    const double width = 8.0 * tol;
    const double reach = 0.125 * 1.01;  // tol as a fraction of the width, with room
    constexpr double kLimit = 4.6e18;   // cell numbers must fit in 64 bits
    struct cell {
        std::int64_t k[3] = {0, 0, 0};
        unsigned head;
    };
    const std::size_t m = list.size();
    std::size_t size = 16;
    while (size < 2 * m) size *= 2;
    const std::size_t mask = size - 1;
    zq5::detail::vec<unsigned> table(size, NULL_INDEX);  // index into cells
    zq5::detail::vec<cell> cells;
    zq5::detail::vec<unsigned> next(m, NULL_INDEX);      // next node of the same cell, by list position
    cells.reserve(m);
    auto slot_of = [&](const std::int64_t k[3]) {
        std::uint64_t h = 0;
        for (int r = 0; r < 3; ++r) h = mix64(h + static_cast<std::uint64_t>(k[r]));
        std::size_t slot = static_cast<std::size_t>(h) & mask;
        while (table[slot] != NULL_INDEX) {
            const cell& c = cells[table[slot]];
            if (c.k[0] == k[0] && c.k[1] == k[1] && c.k[2] == k[2]) break;
            slot = (slot + 1) & mask;
        }
        return slot;
    };
    auto cell_of = [&](const double* x, std::int64_t k[3], double f[3]) {
        for (int r = 0; r < 3; ++r) {
            const double q = x[r] / width;
            if (!(std::fabs(q) < kLimit)) return false;
            const double fl = std::floor(q);
            k[r] = static_cast<std::int64_t>(fl);
            f[r] = q - fl;
        }
        return true;
    };
    for (std::size_t i = 0; i < m; ++i) {
        std::int64_t k[3] = {0, 0, 0};
        double f[3] = {0, 0, 0};
        if (!cell_of(pos.col(list[i]), k, f)) return proximity::near_pairs;
        const std::size_t slot = slot_of(k);
        if (table[slot] == NULL_INDEX) {
            table[slot] = static_cast<unsigned>(cells.size());
            cells.push_back(cell{{k[0], k[1], k[2]}, NULL_INDEX});
        }
        cell& c = cells[table[slot]];
        next[i] = c.head;
        c.head = static_cast<unsigned>(i);
    }
    for (std::size_t i = 0; i < m; ++i) {
        const unsigned v = list[i];
        const double* x = pos.col(v);
        std::int64_t k[3] = {0, 0, 0};
        double f[3] = {0, 0, 0};
        cell_of(x, k, f);
        int lo[3], hi[3];
        for (int r = 0; r < 3; ++r) {
            const double slack = reach + 1e-9 + std::fabs(x[r] / width) * 1e-15;
            lo[r] = f[r] < slack ? -1 : 0;
            hi[r] = 1.0 - f[r] < slack ? 1 : 0;
        }
        for (int dx = lo[0]; dx <= hi[0]; ++dx)
            for (int dy = lo[1]; dy <= hi[1]; ++dy)
                for (int dz = lo[2]; dz <= hi[2]; ++dz) {
                    const std::int64_t q[3] = {k[0] + dx, k[1] + dy, k[2] + dz};
                    const unsigned t = table[slot_of(q)];
                    if (t == NULL_INDEX) continue;
                    for (unsigned j = cells[t].head; j != NULL_INDEX; j = next[j]) {
                        const unsigned u = list[j];
                        if (u == v) continue;
                        const double* y = pos.col(u);
                        const double d0 = x[0] - y[0], d1 = x[1] - y[1], d2 = x[2] - y[2];
                        const double d = d0 * d0 + d1 * d1 + d2 * d2;
                        if (d0 == 0.0 && d1 == 0.0 && d2 == 0.0) {
                            if (u < first[v]) first[v] = u;
                        } else if (d <= threshold) {
                            return proximity::near_pairs;
                        }
                    }
                }
    }
    return proximity::only_coincident;
}

// Builds the facet connectivity of the n facets of `pos` (vertices 3j, 3j+1,
// 3j+2), merges the vertices and cleans the mesh, as the public operations do.
// 0 or a negative status.
int merge_facets(dense2D<double>& pos, std::size_t n, double h2, dense2D<unsigned>& connectM) noexcept {
    if (!connectM.resize(3, n)) return kNoMemory;
    for (std::size_t j = 0; j < n; ++j) {
        unsigned* c = connectM.col(j);
        for (unsigned k = 0; k < 3; ++k) c[k] = static_cast<unsigned>(3 * j + k);
    }
    if (!(h2 > 0.0) || !std::isfinite(h2)) return 0;

    // Exactly coincident vertices, block by block (a cheap first reduction); then
    // every node within the tolerance.  When no two distinct positions lie within
    // the tolerance, merging reduces to mapping the coincident nodes left by the
    // blocks onto the first of them in the node list, which here is the smallest
    // index (each block keeps the first node of its own range).
    const double tol = kRelativeTolerance * std::sqrt(h2);
    proximity near = proximity::near_pairs;
    try {
        for (std::size_t first = 0; first < n; first += kMergeBlock) {
            const std::size_t cols = n - first < kMergeBlock ? n - first : kMergeBlock;
            dense2D<unsigned> block = connectM.sub_matrix(0, first, 3, cols);
            merge_coincident(pos, block);
        }
        zq5::detail::vec<unsigned> first;
        near = find_near_nodes(pos, connectM, tol, first);
        if (near == proximity::only_coincident)
            for (std::size_t j = 0; j < n; ++j)
                for (std::size_t k = 0; k < 3; ++k) connectM(k, j) = first[connectM(k, j)];
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    }
    int r = 0;
    if (near == proximity::near_pairs) {
        r = merge(pos, connectM, tol, 0u);
        if (r < 0) return r;
    }
    r = remove_degenerated(connectM, false);
    if (r < 0) return r;
    r = simplify(pos, connectM, 0u);
    if (r < 0) return r;
    // Merging leaves most of the storage unused: keep an exact copy.
    if (pos.capacity() > 2 * pos.entries()) {
        dense2D<double> tight;
        if (!tight.copy(pos)) return kNoMemory;
        pos = tight;
    }
    return 0;
}

// True when two nodes (finite ones) lie within `tol` of each other, or a little
// beyond (a relative 1e-6, so rounding can only send a mesh to the full merge,
// never spare it one), and when the coordinates are too large for the grid.  The
// nodes are distinct positions, so any such pair would merge under the tolerance.
// The search is a hash grid of cells 8 tol wide, filled in node order; a node is
// compared with the nodes already in its cell and, when it lies within tol of a
// side, in the next cell along that axis.  Throws std::bad_alloc.
template <class T>
bool near_nodes(const vertex_nodes<T>& nodes, double tol, zq5::detail::vec<slot16>& table) {
    if (!(tol > 0.0)) return true;
    const std::size_t m = nodes.nodes();
    const double threshold = tol * tol * (1.0 + 1e-6);
    const double width = 8.0 * tol;
    const double reach = 0.125 * 1.01;  // tol as a fraction of the width, with room
    constexpr double kLimit = 2.0e9;    // cell numbers must fit in 32 bits
    std::size_t size = 16;
    while (size < 2 * m) size *= 2;
    const unsigned shift = shift_for(size);
    const std::size_t mask = size - 1;
    table.assign(size, slot16{{0, 0, 0}, NULL_INDEX});  // key: the cell, node: its last node
    zq5::detail::vec<unsigned> next(m, NULL_INDEX);     // the node before, in the same cell
    // Slot of cell k (the empty slot where it would go when it holds no node).
    auto slot_of = [&](const std::uint32_t k[3], std::uint64_t hash) {
        std::size_t slot = static_cast<std::size_t>(hash >> shift);
        while (table[slot].node != NULL_INDEX) {
            const slot16& c = table[slot];
            if (c.key[0] == k[0] && c.key[1] == k[1] && c.key[2] == k[2]) break;
            slot = (slot + 1) & mask;
        }
        return slot;
    };
    // Nodes go by batches: first the cells each node looks into (its own first),
    // their slots fetched, then the comparisons.
    constexpr std::size_t kBatch = 32;
    struct look {
        std::uint32_t k[3];
        std::uint64_t hash;
    };
    look cells[kBatch * 8];
    unsigned count[kBatch];
    for (std::size_t first = 0; first < m; first += kBatch) {
        const std::size_t b = m - first < kBatch ? m - first : kBatch;
        for (std::size_t i = 0; i < b; ++i) {
            count[i] = 0;
            const double* x = nodes.coords(static_cast<unsigned>(first + i));
            if (!std::isfinite(x[0]) || !std::isfinite(x[1]) || !std::isfinite(x[2])) continue;
            std::int32_t k[3];
            int lo[3], hi[3];
            for (int r = 0; r < 3; ++r) {
                const double q = x[r] / width;
                if (!(std::fabs(q) < kLimit)) return true;
                const double fl = std::floor(q);
                const double f = q - fl;
                k[r] = static_cast<std::int32_t>(fl);
                const double slack = reach + 1e-9 + std::fabs(q) * 1e-15;
                lo[r] = f < slack ? -1 : 0;
                hi[r] = 1.0 - f < slack ? 1 : 0;
            }
            look* c = cells + 8 * i;
            c[0] = look{{static_cast<std::uint32_t>(k[0]), static_cast<std::uint32_t>(k[1]),
                         static_cast<std::uint32_t>(k[2])},
                        0};
            unsigned n = 1;
            for (int dx = lo[0]; dx <= hi[0]; ++dx)
                for (int dy = lo[1]; dy <= hi[1]; ++dy)
                    for (int dz = lo[2]; dz <= hi[2]; ++dz)
                        if (dx != 0 || dy != 0 || dz != 0)
                            c[n++] = look{{static_cast<std::uint32_t>(k[0] + dx), static_cast<std::uint32_t>(k[1] + dy),
                                           static_cast<std::uint32_t>(k[2] + dz)},
                                          0};
            for (unsigned j = 0; j < n; ++j) {
                c[j].hash = hash3(c[j].k[0], c[j].k[1], c[j].k[2]);
                __builtin_prefetch(table.data() + static_cast<std::size_t>(c[j].hash >> shift));
            }
            count[i] = n;
        }
        for (std::size_t i = 0; i < b; ++i) {
            if (count[i] == 0) continue;
            const unsigned v = static_cast<unsigned>(first + i);
            const double* x = nodes.coords(v);
            const look* c = cells + 8 * i;
            std::size_t own = 0;
            for (unsigned j = 0; j < count[i]; ++j) {
                const std::size_t slot = slot_of(c[j].k, c[j].hash);
                if (j == 0) own = slot;
                for (unsigned u = table[slot].node; u != NULL_INDEX; u = next[u]) {
                    const double* y = nodes.coords(u);
                    const double d0 = x[0] - y[0], d1 = x[1] - y[1], d2 = x[2] - y[2];
                    if (d0 * d0 + d1 * d1 + d2 * d2 <= threshold) return true;
                }
            }
            slot16& o = table[own];
            if (o.node == NULL_INDEX)
                for (int r = 0; r < 3; ++r) o.key[r] = c[0].k[r];
            next[v] = o.node;
            o.node = v;
        }
    }
    return false;
}

// The facets as read, one vertex per column with the bits it was read with.
template <class T>
bool facet_vertices(const facets<T>& in, dense2D<double>& pos) noexcept {
    if (!pos.resize(3, 3 * in.count)) return false;
    for (std::size_t j = 0; j < in.count; ++j)
        for (std::size_t k = 0; k < 3; ++k) {
            const double* y = in.nodes.coords(in.connect(k, j));
            double* x = pos.col(3 * j + k);
            for (int r = 0; r < 3; ++r) x[r] = static_cast<double>(y[r]);
        }
    for (const auto& odd : in.nodes.odd())
        for (int r = 0; r < 3; ++r) pos(r, odd.vertex) = static_cast<double>(odd.x[r]);
    return true;
}

// The mesh with shared nodes: the vertices merged within the tolerance set by the
// smallest facet measure, degenerate facets removed, unused nodes dropped.  When no
// two distinct positions lie within the tolerance, that is the grouping of
// coincident vertices made while reading (each vertex onto the first vertex with
// its coordinates); otherwise the facets go through the merge operations.
// 0 or a negative status.
template <class T>
int share_nodes(facets<T>& in, dense2D<double>& pos, dense2D<unsigned>& connectM) noexcept {
    const std::size_t n = in.count;
    const double h2 = in.min_measure;
    bool near = true;
    if (h2 > 0.0 && std::isfinite(h2)) {
        try {
            zq5::detail::vec<slot16> table;
            if constexpr (std::is_same<T, float>::value) in.nodes.release_table(table);
            near = near_nodes(in.nodes, kRelativeTolerance * std::sqrt(h2), table);
        } catch (const std::bad_alloc&) {
            return kNoMemory;
        }
    }
    if (near) {
        if (!facet_vertices(in, pos)) return kNoMemory;
        in.connect.clear_hard();
        return merge_facets(pos, n, h2, connectM);
    }

    // Degenerate facets (a node twice) go; the others move forward in order.
    dense2D<unsigned>& c = in.connect;
    std::size_t kept = 0;
    for (std::size_t j = 0; j < n; ++j) {
        const unsigned a = c(0, j), b = c(1, j), d = c(2, j);
        if (a == b || b == d || a == d) continue;
        if (kept != j) {
            unsigned* to = c.col(kept);
            to[0] = a, to[1] = b, to[2] = d;
        }
        ++kept;
    }
    c.resize(3, kept);  // same row count: never allocates
    // Every node belongs to a facet; when facets went, the nodes left without one
    // go too, the others keeping their order.
    const std::size_t nodes = in.nodes.nodes();
    zq5::detail::vec<unsigned> new_ids;
    std::size_t used = nodes;
    if (kept < n) {
        try {
            new_ids.assign(nodes, NULL_INDEX);
        } catch (const std::bad_alloc&) {
            return kNoMemory;
        }
        for (std::size_t j = 0; j < kept; ++j)
            for (std::size_t k = 0; k < 3; ++k) new_ids[c(k, j)] = 0;
        used = 0;
        for (std::size_t v = 0; v < nodes; ++v)
            if (new_ids[v] != NULL_INDEX) new_ids[v] = static_cast<unsigned>(used++);
        for (std::size_t j = 0; j < kept; ++j)
            for (std::size_t k = 0; k < 3; ++k) c(k, j) = new_ids[c(k, j)];
    }
    dense2D<double>& x = in.nodes.coordinates();
    if (used < nodes) {
        for (std::size_t v = 0; v < nodes; ++v) {
            const unsigned to = new_ids[v];
            if (to == NULL_INDEX || to == v) continue;
            const double* from = x.col(v);
            double* into = x.col(to);
            for (int r = 0; r < 3; ++r) into[r] = from[r];
        }
        x.resize(3, used);  // same row count: never allocates
    }
    // Hand out the nodes, in storage of about their size.
    if (x.capacity() > 2 * x.entries() + 48) {
        dense2D<double> tight;
        if (!tight.copy(x)) return kNoMemory;
        x = tight;
    }
    if (x.rows() != 3 && !x.resize(3, 0)) return kNoMemory;
    pos = x;
    connectM = c;
    return 0;
}

// ---------------------------------------------------------------------------
// Writer.

void facet_normal(const double* p0, const double* p1, const double* p2, double n[3]) noexcept {
    double a[3], b[3], c[3];  // p1 - p0, p2 - p0, p2 - p1
    for (int r = 0; r < 3; ++r) {
        a[r] = p1[r] - p0[r];
        b[r] = p2[r] - p0[r];
        c[r] = p2[r] - p1[r];
    }
    const double la = squared_norm(a), lb = squared_norm(b), lc = squared_norm(c);
    const double* w = (lc <= (la < lb ? la : lb)) ? c : b;
    n[0] = a[1] * w[2] - a[2] * w[1];
    n[1] = a[2] * w[0] - a[0] * w[2];
    n[2] = a[0] * w[1] - a[1] * w[0];
    const double l2 = squared_norm(n);
    if (l2 != 0.0 && l2 != 1.0) {
        const double l = std::sqrt(l2);
        for (int r = 0; r < 3; ++r) n[r] /= l;
    }
}

// Node j as three coordinates (z = 0 for a 2-D mesh).
void node_xyz(const dense2D<double>& pos, unsigned j, double x[3]) noexcept {
    const double* c = pos.col(j);
    x[0] = c[0];
    x[1] = c[1];
    x[2] = pos.rows() == 3 ? c[2] : 0.0;
}

void put_le32(unsigned char* b, std::uint32_t u) noexcept {
    b[0] = static_cast<unsigned char>(u);
    b[1] = static_cast<unsigned char>(u >> 8);
    b[2] = static_cast<unsigned char>(u >> 16);
    b[3] = static_cast<unsigned char>(u >> 24);
}
void put_float(unsigned char* b, double v) noexcept {
    const float x = static_cast<float>(v);
    std::uint32_t u;
    std::memcpy(&u, &x, sizeof u);
    put_le32(b, u);
}

void write_triple(detail::text_writer& w, const char* prefix, const double v[3]) noexcept {
    w.text(prefix);
    for (int r = 0; r < 3; ++r) {
        if (r) w.ch(' ');
        w.scientific(v[r]);
    }
    w.ch('\n');
}

}  // namespace

// ---------------------------------------------------------------------------

int STL_input(const char* filename, dense2D<double>& pos, dense2D<unsigned>& connectM) noexcept {
    pos.clear_hard();
    connectM.clear_hard();

    dense2D<double> nodes;
    dense2D<unsigned> connect;
    {
        facets<double> text;
        open_result why;
        int status = -1;
        if (FILE* f = open_for_reading(filename, "rt", why)) {
            file_closer closer{f};
            status = read_ascii(f, text);
        } else if (why == open_result::directory) {
            return -1;
        }
        if (status >= 0) {
            status = share_nodes(text, nodes, connect);
            if (status < 0) return status;
        } else if (status > kNoMemory + 1) {
            // Not an ASCII file, or a malformed one: read it as binary.
            text = facets<double>();
            facets<float> binary;
            FILE* f = open_for_reading(filename, "rb", why);
            if (!f) return status;
            {
                file_closer closer{f};
                status = read_binary(f, binary);
            }
            if (status < 0) return status;
            status = share_nodes(binary, nodes, connect);
            if (status < 0) return status;
        } else {
            return status;
        }
    }
    pos = nodes;
    connectM = connect;
    return 0;
}

int STL_output(const char* filename, const dense2D<double>& pos, const dense2D<unsigned>& connectM,
               bool ascii) noexcept {
    FILE* f = filename ? std::fopen(filename, ascii ? "wt" : "wb") : nullptr;
    if (!f) return -1;
    // On the next two paths the file stays created and empty; the stream is closed.
    if (pos.rows() != 2 && pos.rows() != 3) {
        std::fclose(f);
        return -2;
    }
    const std::size_t nodes = pos.cols() < NULL_INDEX ? pos.cols() : NULL_INDEX - 1;
    if (!check_IDs(connectM, EL_TRIA3, static_cast<unsigned>(nodes))) {
        std::fclose(f);
        return -3;
    }

    const std::size_t n = connectM.cols();
    bool ok = true;
    {
        detail::text_writer w(f);
        if (ascii) {
            w.text("solid ZQ5\n");
            for (std::size_t j = 0; j < n && !w.failed(); ++j) {
                const unsigned* c = connectM.col(j);
                double x[3][3], normal[3];
                for (int k = 0; k < 3; ++k) node_xyz(pos, c[k], x[k]);
                facet_normal(x[0], x[1], x[2], normal);
                write_triple(w, "   facet normal ", normal);
                w.text("      outer loop\n");
                for (int k = 0; k < 3; ++k) write_triple(w, "         vertex ", x[k]);
                w.text("      endloop\n");
                w.text("   endfacet\n");
            }
            w.text("endsolid ZQ5\n");
        } else if (n > 0xFFFFFFFFu) {
            ok = false;
        } else {
            unsigned char head[kHeaderBytes + 4] = {};
            std::memcpy(head, kBinaryHeader, sizeof kBinaryHeader);
            put_le32(head + kHeaderBytes, static_cast<std::uint32_t>(n));
            w.raw(head, sizeof head);
            for (std::size_t j = 0; j < n && !w.failed(); ++j) {
                const unsigned* c = connectM.col(j);
                double x[3][3], normal[3];
                for (int k = 0; k < 3; ++k) node_xyz(pos, c[k], x[k]);
                facet_normal(x[0], x[1], x[2], normal);
                unsigned char b[kFacetBytes] = {};
                for (int r = 0; r < 3; ++r) put_float(b + 4 * r, normal[r]);
                for (int k = 0; k < 3; ++k)
                    for (int r = 0; r < 3; ++r) put_float(b + 12 + 12 * k + 4 * r, x[k][r]);
                w.raw(b, sizeof b);
            }
        }
        ok = w.flush() && ok;
    }
    if (std::fclose(f) != 0) ok = false;
    return ok ? 0 : -1;
}

}  // namespace nodara
}  // namespace zq5
