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

// True when the measure of the facet (x[0..2], x[3..5], x[6..8]) is certainly
// above `bound`, found at a third of the cost of the measure (for ASCII files).  The smallest
// squared altitude is 4 A^2 / L with A the area and L the longest squared side;
// computed here from one cross product, it differs from the three-altitude
// computation by a relative 1e-10 at most while the facet is not nearly flat
// (|cross|^2 at least 1e-8 L^2) and its sizes are far from the underflow range.
// Other facets are always measured.
bool clearly_above(const double* x, double bound) noexcept {
    double a[3], b[3], c[3];  // x1 - x0, x2 - x0, x2 - x1
    for (int r = 0; r < 3; ++r) {
        a[r] = x[3 + r] - x[r];
        b[r] = x[6 + r] - x[r];
        c[r] = x[6 + r] - x[3 + r];
    }
    const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    const double n2 = squared_norm(n);
    double longest = squared_norm(a);
    const double lb = squared_norm(b), lc = squared_norm(c);
    if (lb > longest) longest = lb;
    if (lc > longest) longest = lc;
    return longest > 1e-140 && n2 >= 1e-8 * longest * longest && n2 > bound * (1.0 + 1e-6) * longest;
}

// Facets of single-precision vertices whose measure is certainly above `bound`,
// found several at a time: far[j] is 1 for such a facet j < m, whose coordinate k
// (x0, y0, z0, x1, ... z2) is x[k][j].  In single precision the one-cross-product
// value moves by a relative 1e-4 at most while the facet is not nearly flat
// (|cross|^2 at least 1e-4 L^2) and its squared sides lie between 1e-15 and 1e15;
// the margin is 1e-3.  Bounds far from 1 (beyond 1e-20 .. 1e20) mark no facet.
constexpr std::size_t kScreen = 256;  // facets screened at a time
void screen(const float* const x[9], std::size_t m, double bound, unsigned char* far) noexcept {
    const double b = bound * (1.0 + 1e-3);
    if (!(b >= 1e-20 && b <= 1e20)) {
        std::memset(far, 0, m);
        return;
    }
    const float bf = static_cast<float>(b);
    for (std::size_t j = 0; j < m; ++j) {
        const float ax = x[3][j] - x[0][j], ay = x[4][j] - x[1][j], az = x[5][j] - x[2][j];
        const float bx = x[6][j] - x[0][j], by = x[7][j] - x[1][j], bz = x[8][j] - x[2][j];
        const float cx = x[6][j] - x[3][j], cy = x[7][j] - x[4][j], cz = x[8][j] - x[5][j];
        const float nx = ay * bz - az * by, ny = az * bx - ax * bz, nz = ax * by - ay * bx;
        const float n2 = nx * nx + ny * ny + nz * nz;
        const float la = ax * ax + ay * ay + az * az, lb = bx * bx + by * by + bz * bz;
        const float lc = cx * cx + cy * cy + cz * cz;
        float l = la > lb ? la : lb;
        l = l > lc ? l : lc;
        far[j] = static_cast<unsigned char>((l >= 1e-15f) & (l <= 1e15f) & (n2 >= 1e-4f * l * l) & (n2 > bf * l));
    }
}

// ---------------------------------------------------------------------------
// Coincident vertices, grouped while the facets are read.

// A slot of the open-addressed tables (of groups, of grid cells): the low 32 bits
// of the key's hash (the table index comes from the high bits) and a node
// (NULL_INDEX: empty).  A slot whose tag matches is confirmed against the node.
struct slot8 {
    std::uint32_t tag;
    unsigned node;
};

// The bits of a coordinate and what they say.
template <class T>
struct float_bits;
template <>
struct float_bits<float> {
    using word = std::uint32_t;
    static constexpr word kSign = 0x80000000u, kExponent = 0x7F800000u;
};
template <>
struct float_bits<double> {
    using word = std::uint64_t;
    static constexpr word kSign = 0x8000000000000000ull, kExponent = 0x7FF0000000000000ull;
};

// Hash of three words; the high bits are the well mixed ones.
std::uint64_t hash3(std::uint32_t a, std::uint32_t b, std::uint32_t c) noexcept {
    const std::uint32_t ab[2] = {a, b};
    std::uint64_t h;
    std::memcpy(&h, ab, sizeof h);  // a and b as they lie in memory: one load for a vertex
    h ^= c * 0xC2B2AE3D27D4EB4Full;
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

// Groups the vertices of the facets, as they are read, by their coordinates: a
// vertex joins the group of an earlier vertex with the same coordinates when that
// one is still in a small direct-mapped cache of recent vertices (facets sharing a
// vertex usually lie close in a file), and starts a group otherwise.  A position
// therefore has one group or a few; the check of distinct positions joins them
// (distinct_positions).  In files whose facets come in no useful order the cache
// fails; once it has missed more than 40% of the vertices, a table of all groups
// answers what it does not hold, and no position gets a further group.  Groups
// are numbered in the order of their first vertex and keep its coordinates, as
// doubles (3 x groups).  -0.0 and 0.0 coincide; a vertex with a coordinate that
// is not finite is a group of its own (its distance to anything is NaN or
// infinite).  T is float for binary files, double for ASCII ones.  Throws
// std::bad_alloc.
template <class T>
class vertex_nodes {
public:
    using word = typename float_bits<T>::word;
    static constexpr std::size_t kVertexBytes = 3 * sizeof(T);

    // Room for the groups of about `facets` facets (about 0.55 per facet in real
    // files, where the cache answers about 82% of the vertices).
    void reserve(std::size_t facets) {
        const std::size_t groups = facets - facets / 4 + 16;
        if (!coords_.reserve(3, groups) || !coords_.resize(3, groups)) throw std::bad_alloc();
    }

    // node[3j + k] gets the group of vertex k of facet j < m; the three vertices of
    // facet j lie at first + j * stride (bytes), as three T triples in a row.
    void nodes_of(const unsigned char* first, std::size_t stride, std::size_t m, unsigned* node) {
        // The cache grows with the mesh up to its full size (starting afresh: it
        // only ever holds copies).
        if (recent_.size() < kRecent && recent_.size() < 4 * (nodes_ + 3 * m)) {
            std::size_t size = 256;
            while (size < kRecent && size < 4 * (nodes_ + 3 * m)) size *= 2;
            recent_.assign(size, recent_vertex{{0, 0, 0}, NULL_INDEX});
            recent_mask_ = size - 1;
            // An empty entry holds a key that is never looked up there: (0, 0, 0),
            // or (w, 0, 0) in the entry where (0, 0, 0) is looked up.
            const std::size_t zero = hash3(word{0}, word{0}, word{0}) & recent_mask_;
            word w = 1;
            while ((hash3(w, word{0}, word{0}) & recent_mask_) == zero) ++w;
            recent_[zero].key[0] = w;
        }
        const recent_vertex* recent = recent_.data();
        const std::size_t mask = recent_mask_;
        auto one = [&](const unsigned char* p) {
            const std::uint64_t h = hash_bits(p);
            const recent_vertex& e = recent[h & mask];
            return holds(e, p) ? e.node : miss(p, h);
        };
        // With the table, its slots are fetched a few facets ahead.
        constexpr std::size_t kAhead = 16;
        const bool table = !table_.empty();
        for (std::size_t j = 0; j < m; ++j, first += stride, node += 3) {
            if (table && j + kAhead < m)
                for (std::size_t k = 0; k < 3; ++k)
                    __builtin_prefetch(table_.data() +
                                       (hash_bits(first + kAhead * stride + k * kVertexBytes) >> shift_));
            node[0] = one(first);
            node[1] = one(first + kVertexBytes);
            node[2] = one(first + 2 * kVertexBytes);
        }
        seen_ += 3 * m;
        if (table_.empty() && seen_ >= kJudgeAfter && 5 * nodes_ > 2 * seen_) start_table();
    }

    std::size_t nodes() const noexcept { return nodes_; }
    const double* coords(unsigned node) const noexcept { return coords_.col(node); }
    // The groups' storage, 3 x capacity, for the caller to rearrange when the
    // grouping is over.
    dense2D<double>& storage() noexcept { return coords_; }
    // The coordinates of group v at data() + 3 v (null while there is none).
    const double* data() const noexcept { return nodes_ ? coords_.col(0) : nullptr; }

private:
    static constexpr std::size_t kRecent = 32768;  // entries at most, a power of two
    static constexpr word kNegativeZero = float_bits<T>::kSign;
    struct recent_vertex {
        word key[3];
        unsigned node;
    };

    static std::uint64_t hash_bits(const unsigned char* p) noexcept {
        word k[3];
        std::memcpy(k, p, sizeof k);
        return hash3(k[0], k[1], k[2]);
    }
    // True when the cache entry holds the bits of the vertex at p (e is the entry
    // where they are looked up).
    static bool holds(const recent_vertex& e, const unsigned char* p) noexcept {
        if constexpr (sizeof(word) == 4) {  // two words at once
            std::uint64_t a, b;
            std::memcpy(&a, p, sizeof a);
            std::memcpy(&b, e.key, sizeof b);
            word c;
            std::memcpy(&c, p + 2 * sizeof(word), sizeof c);
            return ((a ^ b) | (c ^ e.key[2])) == 0;
        } else {
            word k[3];
            std::memcpy(k, p, sizeof k);
            return ((k[0] ^ e.key[0]) | (k[1] ^ e.key[1]) | (k[2] ^ e.key[2])) == 0;
        }
    }
    // The group of a vertex the cache does not hold; hash is that of its bits.
    unsigned miss(const unsigned char* p, std::uint64_t hash) {
        word bits[3], k[3];
        std::memcpy(bits, p, sizeof bits);
        constexpr word e = float_bits<T>::kExponent;
        if ((bits[0] & e) == e || (bits[1] & e) == e || (bits[2] & e) == e) return append(bits);  // not finite
        for (int r = 0; r < 3; ++r) k[r] = bits[r] == kNegativeZero ? 0 : bits[r];  // -0.0 as 0.0
        if (k[0] != bits[0] || k[1] != bits[1] || k[2] != bits[2]) hash = hash3(k[0], k[1], k[2]);
        recent_vertex& last = recent_[hash & recent_mask_];
        if (last.key[0] == k[0] && last.key[1] == k[1] && last.key[2] == k[2])
            return last.node;  // a vertex with -0.0, held under 0.0
        const unsigned found = table_.empty() ? append(bits) : find_or_append(bits, k, hash);
        for (int r = 0; r < 3; ++r) last.key[r] = k[r];
        last.node = found;
        return found;
    }

    // The table of groups: a slot holds the low 32 bits of the hash of a group's
    // bits (-0.0 as 0.0; the index comes from the high bits) and the group
    // (NULL_INDEX: empty); a matching tag is confirmed against the coordinates.
    // The group at position k (bits with -0.0 as 0.0, hash: its hash), NULL_INDEX
    // when the table holds none.
    unsigned find(const word k[3], std::uint64_t hash) const noexcept {
        const std::uint32_t tag = static_cast<std::uint32_t>(hash);
        for (std::size_t i = static_cast<std::size_t>(hash >> shift_); table_[i].node != NULL_INDEX;
             i = (i + 1) & (table_.size() - 1)) {
            const slot8& s = table_[i];
            const double* c = coords(s.node);
            if (s.tag == tag && c[0] == value(k[0]) && c[1] == value(k[1]) && c[2] == value(k[2])) return s.node;
        }
        return NULL_INDEX;
    }
    // The group at the position of bits (k, hash: as for find), a new one when
    // there is none.
    unsigned find_or_append(const word bits[3], const word k[3], std::uint64_t hash) {
        unsigned found = find(k, hash);
        if (found == NULL_INDEX) {
            found = append(bits);
            insert(found, hash);
        }
        return found;
    }
    static double value(word w) noexcept {
        T x;
        std::memcpy(&x, &w, sizeof x);
        return static_cast<double>(x);
    }
    // The bits of group v, -0.0 as 0.0, and their hash.
    std::uint64_t key_of(unsigned v, word k[3]) const noexcept {
        for (int r = 0; r < 3; ++r) {
            const T x = static_cast<T>(coords(v)[r]);
            std::memcpy(&k[r], &x, sizeof x);
            if (k[r] == kNegativeZero) k[r] = 0;
        }
        return hash3(k[0], k[1], k[2]);
    }
    // Enters group v (whose position the table does not hold) under hash.
    void insert(unsigned v, std::uint64_t hash) {
        if (2 * (++held_) > table_.size()) {  // load factor 1/2 at most
            zq5::detail::vec<slot8> old(2 * table_.size(), slot8{0, NULL_INDEX});
            old.swap(table_);
            shift_ = shift_for(table_.size());
            word k[3];
            for (const slot8& s : old)
                if (s.node != NULL_INDEX) place(s, key_of(s.node, k));
        }
        place(slot8{static_cast<std::uint32_t>(hash), v}, hash);
    }
    void place(const slot8& s, std::uint64_t hash) noexcept {
        std::size_t i = static_cast<std::size_t>(hash >> shift_);
        while (table_[i].node != NULL_INDEX) i = (i + 1) & (table_.size() - 1);
        table_[i] = s;
    }
    // The table, filled with the groups so far (one per position: later groups at
    // a position stay out).
    void start_table() {
        table_.assign(1024, slot8{0, NULL_INDEX});
        shift_ = shift_for(table_.size());
        for (std::size_t v = 0; v < nodes_; ++v) {
            const double* c = coords(static_cast<unsigned>(v));
            if (!(std::isfinite(c[0]) && std::isfinite(c[1]) && std::isfinite(c[2]))) continue;
            word k[3];
            const std::uint64_t hash = key_of(static_cast<unsigned>(v), k);
            if (find(k, hash) == NULL_INDEX) insert(static_cast<unsigned>(v), hash);
        }
    }
    unsigned append(const word bits[3]) {
        if (nodes_ == coords_.cols()) {
            const std::size_t more = nodes_ < 1024 ? 1024 : nodes_;
            if (nodes_ + more >= NULL_INDEX || !coords_.resize(3, nodes_ + more)) throw std::bad_alloc();
        }
        double* c = coords_.col(nodes_);
        for (int r = 0; r < 3; ++r) c[r] = value(bits[r]);
        return static_cast<unsigned>(nodes_++);
    }

    static constexpr std::size_t kJudgeAfter = 3 * 4096;  // vertices seen before the cache is judged

    zq5::detail::vec<recent_vertex> recent_;
    std::size_t recent_mask_ = 0;
    dense2D<double> coords_;  // 3 x capacity; the first nodes_ columns hold the groups
    std::size_t nodes_ = 0;
    std::size_t seen_ = 0;             // vertices
    zq5::detail::vec<slot8> table_;    // empty while the cache is trusted
    std::size_t held_ = 0;             // groups in the table
    unsigned shift_ = 64;
};

// Facets read so far (each vertex as its group) and the smallest positive facet
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
        if (more > 1 && !connect.reserve(3, count + more)) return false;  // a known count: no room to spare
        return connect.resize(3, count + more);
    }
    // Takes the measure of the facet of coordinates x[0..8] into account.
    void measure(const double x[9]) noexcept {
        const double h = facet_measure(x, x + 3, x + 6);
        if (h > 0.0 && h < min_measure) min_measure = h;
    }
    // Adds m facets whose vertices lie at first + j * stride (room made by grow;
    // their measures taken).  Throws std::bad_alloc.
    void add(const unsigned char* first, std::size_t stride, std::size_t m) {
        nodes.nodes_of(first, stride, m, connect.col(count));
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
        if (!clearly_above(&v[0][0], out.min_measure)) out.measure(&v[0][0]);
        try {
            out.add(reinterpret_cast<const unsigned char*>(&v[0][0]), sizeof v, 1);
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

// The nine vertex coordinates of n facets (50 bytes apart, from v) as the host's
// floats: the file's little-endian words byte-swapped on a big-endian host.
void native_floats(unsigned char* v, std::size_t n) noexcept {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (std::size_t j = 0; j < n; ++j)
        for (int k = 0; k < 9; ++k) {
            const std::uint32_t u = le32(v + j * kFacetBytes + 4 * k);
            std::memcpy(v + j * kFacetBytes + 4 * k, &u, sizeof u);
        }
#else
    (void)v, (void)n;
#endif
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
    // Facets are read kChunk at a time; their coordinates are also laid out in
    // columns (coordinate k of facet j in columns[k][j]) for the size screen.
    constexpr std::size_t kChunk = 4096;
    zq5::detail::vec<unsigned char> buffer;
    zq5::detail::vec<float> columns;
    try {
        buffer.resize(kChunk * kFacetBytes);
        columns.resize(9 * kChunk);
        out.nodes.reserve(count);
        std::size_t done = 0;
        while (done < count) {
            const std::size_t n = count - done < kChunk ? count - done : kChunk;
            if (std::fread(buffer.data(), kFacetBytes, n, f) != n) return -3;
            unsigned char* vertices = buffer.data() + 12;  // past the normal
            native_floats(vertices, n);
            float* x[9];
            for (int k = 0; k < 9; ++k) x[k] = columns.data() + k * kChunk;
            for (std::size_t j = 0; j < n; ++j) {
                const unsigned char* b = vertices + j * kFacetBytes;
                for (int k = 0; k < 9; ++k) std::memcpy(&x[k][j], b + 4 * k, 4);
            }
            // The exact measure only for the facets the screen cannot rule out.
            unsigned char far[kScreen];
            for (std::size_t first = 0; first < n; first += kScreen) {
                const std::size_t m = n - first < kScreen ? n - first : kScreen;
                const float* y[9];
                for (int k = 0; k < 9; ++k) y[k] = x[k] + first;
                screen(y, m, out.min_measure, far);
                for (std::size_t j = 0; j < m; ++j) {
                    if (far[j]) continue;
                    double c[9];
                    for (int k = 0; k < 9; ++k) c[k] = static_cast<double>(y[k][j]);
                    out.measure(c);
                }
            }
            out.add(vertices, kFacetBytes, n);
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

    // Exactly coincident vertices, block by block, then every node within the
    // tolerance.  (The caller comes here only when some distinct positions lie
    // within it, or positions lie beyond the grid of its nearness check.)
    try {
        for (std::size_t first = 0; first < n; first += kMergeBlock) {
            const std::size_t cols = n - first < kMergeBlock ? n - first : kMergeBlock;
            dense2D<unsigned> block = connectM.sub_matrix(0, first, 3, cols);
            merge_coincident(pos, block);
        }
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    }
    int r = merge(pos, connectM, kRelativeTolerance * std::sqrt(h2), 0u);
    if (r < 0) return r;
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

// Cell width of the check of distinct positions, in tolerances: wide cells keep
// most positions away from the sides, so most look into their own cell only.
constexpr double kCellWidth = 64.0;

// Joins the groups of vertices at the same position and checks that distinct
// positions lie apart.  position[v] gets the number of the position of group v;
// positions are numbered in the order of their first group, and a group with a
// coordinate that is not finite is a position of its own.  False (position then
// unspecified) when two distinct positions lie within `tol` of each other, or a
// little beyond (a relative 1e-6, so rounding can only send a mesh to the full
// merges, never spare it one), or when coordinates are too large for the grid:
// the full merges must then run.  The search is a hash grid of cells kCellWidth
// tol wide, holding one group per position, filled in group order; a group is
// compared with the groups in its cell and, when it lies within tol of a side,
// with those of the next cell along that axis.  Throws std::bad_alloc.
template <class T>
bool distinct_positions(const vertex_nodes<T>& nodes, double tol, dense1D<unsigned>& positions,
                        std::size_t& count) {
    count = 0;
    if (!(tol > 0.0)) return false;
    const std::size_t m = nodes.nodes();
    // (storage written before it is read: left uninitialised)
    dense1D<unsigned> nexts;
    dense1D<std::uint32_t> cell_numbers;
    if (!positions.resize(m) || !nexts.resize(m) || !cell_numbers.resize(3 * m)) throw std::bad_alloc();
    if (m == 0) return true;
    unsigned* const position = positions.data();
    unsigned* const next = nexts.data();                 // the group before, in the same cell
    std::uint32_t* const cells = cell_numbers.data();   // the cell of each group
    const double* const xs = nodes.data();  // group v at xs + 3 v
    const double threshold = tol * tol * (1.0 + 1e-6);
    const double scale = 1.0 / (kCellWidth * tol);
    constexpr double kLimit = 2.0e9;  // cell numbers must fit in 32 bits
    // tol in cells, with room for rounding (positions in cells are below kLimit,
    // so their rounding errors stay under 1e-6)
    const double reach = 1.01 / kCellWidth + 1e-6;
    std::size_t size = 16;
    while (size < m + m / 2) size *= 2;
    const unsigned shift = shift_for(size);
    const std::size_t mask = size - 1;
    zq5::detail::vec<slot8> table(size, slot8{0, NULL_INDEX});  // node: the cell's last group

    // Slot of cell k (the empty slot where it would go when it holds no group).
    auto slot_of = [&](const std::uint32_t k[3], std::uint64_t hash) {
        const std::uint32_t tag = static_cast<std::uint32_t>(hash);
        std::size_t slot = static_cast<std::size_t>(hash >> shift);
        for (;; slot = (slot + 1) & mask) {
            const slot8& s = table[slot];
            if (s.node == NULL_INDEX) return slot;
            const std::uint32_t* h = &cells[3 * static_cast<std::size_t>(s.node)];
            if (s.tag == tag && h[0] == k[0] && h[1] == k[1] && h[2] == k[2]) return slot;
        }
    };
    auto squared_distance = [](const double* x, const double* y) noexcept {
        const double d0 = x[0] - y[0], d1 = x[1] - y[1], d2 = x[2] - y[2];
        return d0 * d0 + d1 * d1 + d2 * d2;
    };

    // The cells a group looks into (its own first) are found, and their slots
    // fetched, a few groups ahead.
    struct look {
        unsigned sides;  // bit 2r: within reach of the lower side along r, 2r + 1: the upper
        unsigned count;  // cells
        std::uint64_t hash[8];
        std::uint32_t k[8][3];
    };
    constexpr unsigned kNotFinite = ~0u;  // sides of a group that is not finite
    constexpr std::size_t kAhead = 16, kRing = 32;
    look ring[kRing];
    // False when group v lies beyond the grid.
    auto prepare = [&](std::size_t v) {
        look& L = ring[v % kRing];
        const double* x = xs + 3 * v;
        const double q[3] = {x[0] * scale, x[1] * scale, x[2] * scale};
        if (!((std::fabs(q[0]) < kLimit) & (std::fabs(q[1]) < kLimit) & (std::fabs(q[2]) < kLimit))) {
            L.sides = kNotFinite;
            return !(std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]));
        }
        std::uint32_t* k = &cells[3 * v];
        unsigned sides = 0;
        for (int r = 0; r < 3; ++r) {
            // floor by truncation: below kLimit the conversion is exact
            std::int64_t t = static_cast<std::int64_t>(q[r]);
            t -= static_cast<std::int64_t>(static_cast<double>(t) > q[r]);
            const double f = q[r] - static_cast<double>(t);
            k[r] = static_cast<std::uint32_t>(static_cast<std::int32_t>(t));
            sides |= static_cast<unsigned>(f < reach) << (2 * r);
            sides |= static_cast<unsigned>(f > 1.0 - reach) << (2 * r + 1);
        }
        L.sides = sides;
        L.hash[0] = hash3(k[0], k[1], k[2]);
        __builtin_prefetch(table.data() + static_cast<std::size_t>(L.hash[0] >> shift));
        L.count = 1;
        if (sides != 0) {
            int lo[3], hi[3];
            for (int r = 0; r < 3; ++r) {
                lo[r] = -static_cast<int>(sides >> (2 * r) & 1);
                hi[r] = static_cast<int>(sides >> (2 * r + 1) & 1);
            }
            for (int dx = lo[0]; dx <= hi[0]; ++dx)
                for (int dy = lo[1]; dy <= hi[1]; ++dy)
                    for (int dz = lo[2]; dz <= hi[2]; ++dz) {
                        if (dx == 0 && dy == 0 && dz == 0) continue;
                        std::uint32_t* c = L.k[L.count];
                        c[0] = k[0] + dx, c[1] = k[1] + dy, c[2] = k[2] + dz;
                        L.hash[L.count] = hash3(c[0], c[1], c[2]);
                        __builtin_prefetch(table.data() + static_cast<std::size_t>(L.hash[L.count] >> shift));
                        ++L.count;
                    }
        }
        return true;
    };
    // False when group v lies within the tolerance of another position.
    auto place = [&](std::size_t v) {
        const look& L = ring[v % kRing];
        if (L.sides == kNotFinite) {
            position[v] = static_cast<unsigned>(count++);
            return true;
        }
        const double* x = xs + 3 * v;
        const std::uint32_t* k = &cells[3 * v];
        const std::size_t own = slot_of(k, L.hash[0]);
        for (unsigned u = table[own].node; u != NULL_INDEX; u = next[u]) {
            const double* y = xs + 3 * static_cast<std::size_t>(u);
            if (squared_distance(x, y) <= threshold) {
                if (!(x[0] == y[0] && x[1] == y[1] && x[2] == y[2])) return false;
                position[v] = position[u];  // the same position
                return true;
            }
        }
        for (unsigned c = 1; c < L.count; ++c) {
            const std::size_t slot = slot_of(L.k[c], L.hash[c]);
            for (unsigned u = table[slot].node; u != NULL_INDEX; u = next[u])
                if (squared_distance(x, xs + 3 * static_cast<std::size_t>(u)) <= threshold) return false;
        }
        slot8& o = table[own];
        if (o.node == NULL_INDEX) o.tag = static_cast<std::uint32_t>(L.hash[0]);
        next[v] = o.node;
        o.node = static_cast<unsigned>(v);
        position[v] = static_cast<unsigned>(count++);
        return true;
    };
    // Half way, the slot has come: the cell's last group is fetched too (in files
    // whose facets come in no particular order it lies anywhere).
    auto fetch_last = [&](std::size_t v) {
        const look& L = ring[v % kRing];
        if (L.sides == kNotFinite) return;
        const unsigned u = table[static_cast<std::size_t>(L.hash[0] >> shift)].node;
        if (u == NULL_INDEX) return;
        __builtin_prefetch(cells + 3 * static_cast<std::size_t>(u));
        __builtin_prefetch(xs + 3 * static_cast<std::size_t>(u));
    };
    for (std::size_t v = 0; v < m && v < kAhead; ++v)
        if (!prepare(v)) return false;
    for (std::size_t v = 0; v < m; ++v) {
        if (v + kAhead < m && !prepare(v + kAhead)) return false;
        if (v + kAhead / 2 < m) fetch_last(v + kAhead / 2);
        if (!place(v)) return false;
    }
    return true;
}

// The facets as read, one vertex per column.  A vertex gets its group's
// coordinates, which differ from its own only in the signs of zeros: the merges map
// a vertex onto the earliest coincident one (it is nearer than anything else and
// comes first), so only the bits of a position's first vertex can reach the result.
template <class T>
bool facet_vertices(const facets<T>& in, dense2D<double>& pos) noexcept {
    if (!pos.resize(3, 3 * in.count)) return false;
    for (std::size_t j = 0; j < in.count; ++j)
        for (std::size_t k = 0; k < 3; ++k) {
            const double* y = in.nodes.coords(in.connect(k, j));
            double* x = pos.col(3 * j + k);
            for (int r = 0; r < 3; ++r) x[r] = static_cast<double>(y[r]);
        }
    return true;
}

// The mesh with shared nodes: the vertices merged within the tolerance set by the
// smallest facet measure, degenerate facets removed, unused nodes dropped.  When no
// two distinct positions lie within the tolerance, that is one node per position
// (each vertex onto the first vertex at its position); otherwise the facets go
// through the merge operations.  0 or a negative status.
template <class T>
int share_nodes(facets<T>& in, dense2D<double>& pos, dense2D<unsigned>& connectM) noexcept {
    const std::size_t n = in.count;
    const double h2 = in.min_measure;
    dense1D<unsigned> position_of;
    std::size_t positions = 0;
    bool apart = false;
    if (h2 > 0.0 && std::isfinite(h2)) {
        try {
            apart = distinct_positions(in.nodes, kRelativeTolerance * std::sqrt(h2), position_of, positions);
        } catch (const std::bad_alloc&) {
            return kNoMemory;
        }
    }
    if (!apart) {
        position_of.clear_hard();
        if (!facet_vertices(in, pos)) return kNoMemory;
        in.connect.clear_hard();
        return merge_facets(pos, n, h2, connectM);
    }

    // Facets by positions; degenerate ones (a position twice) go, the others move
    // forward in order.
    const unsigned* position = position_of.data();
    dense2D<unsigned>& c = in.connect;
    std::size_t kept = 0;
    for (std::size_t j = 0; j < n; ++j) {
        const unsigned* from = c.col(j);
        const unsigned a = position[from[0]], b = position[from[1]], d = position[from[2]];
        if (a == b || b == d || a == d) continue;
        unsigned* to = c.col(kept++);
        to[0] = a, to[1] = b, to[2] = d;
    }
    c.resize(3, kept);  // same row count: never allocates
    // Every position belongs to a facet; when facets went, the positions left
    // without one go too, the others keeping their order.
    zq5::detail::vec<unsigned> new_ids;
    std::size_t used = positions;
    if (kept < n) {
        try {
            new_ids.assign(positions, NULL_INDEX);
        } catch (const std::bad_alloc&) {
            return kNoMemory;
        }
        for (std::size_t j = 0; j < kept; ++j)
            for (std::size_t k = 0; k < 3; ++k) new_ids[c(k, j)] = 0;
        used = 0;
        for (std::size_t p = 0; p < positions; ++p)
            if (new_ids[p] != NULL_INDEX) new_ids[p] = static_cast<unsigned>(used++);
        for (std::size_t j = 0; j < kept; ++j)
            for (std::size_t k = 0; k < 3; ++k) c(k, j) = new_ids[c(k, j)];
    }
    // A node's coordinates are those of the first group at its position, moved
    // forward in the groups' storage (a node comes no later than its first group).
    const std::size_t groups = in.nodes.nodes();
    dense2D<double>& x = in.nodes.storage();
    std::size_t first = 0;  // the next position whose first group is to come
    for (std::size_t v = 0; v < groups; ++v) {
        if (position[v] != first) continue;
        const unsigned to = used < positions ? new_ids[first] : static_cast<unsigned>(first);
        ++first;
        if (to == NULL_INDEX || to == v) continue;
        const double* from = x.col(v);
        double* into = x.col(to);
        for (int r = 0; r < 3; ++r) into[r] = from[r];
    }
    x.resize(3, used);  // fewer columns: never allocates
    // Hand out the nodes in storage of about their size.
    if (x.capacity() > 2 * x.entries() + 48) {
        dense2D<double> tight;
        if (!tight.copy(x)) return kNoMemory;
        x = tight;
    }
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
