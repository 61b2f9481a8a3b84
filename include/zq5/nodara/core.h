// Element catalogue and index utilities.
//
// The catalogue names the element kinds a connectivity matrix can hold and
// answers four table look-ups on them.  The index utilities check, search,
// renumber, sort and collect the node or element indices held in lists
// (dense1D<unsigned>) and connectivity matrices (dense2D<unsigned>, one column per
// element, one row per local node), and widen bounding boxes over coordinates.
//
// NULL_INDEX (all 32 bits set) marks an absent node; each function says where it is
// skipped.  No function here throws, logs, keeps state or starts a thread.
// Statuses are plain ints: 0 is success, negative codes are listed per function
// in the order its checks run (the first failing check wins), -199 means that an
// array could not grow.
#ifndef ZQ5_NODARA_CORE_H
#define ZQ5_NODARA_CORE_H

#include <zq5/arrays.h>
#include <zq5/export.h>

namespace zq5 {
namespace nodara {

using zq5::NULL_INDEX;

/// Kind of the elements of a connectivity matrix.  The mixed kinds hold several
/// shapes in one matrix, padding a column with NULL_INDEX behind its last node:
/// EL_EDGE_ANY (2 rows, no padding), EL_FACE_ANY (4 rows: a triangle has NULL_INDEX
/// in row 3), EL_SOLID_ANY (8 rows: tetrahedron rows 0-3, pyramid 0-4, wedge 0-5,
/// hexahedron 0-7).
enum element_type {
    EL_NONE = 0,
    EL_NODE = 1,
    EL_EDGE_ANY = 2,
    EL_EDGE2 = 3,
    EL_EDGE3 = 4,
    EL_FACE_ANY = 5,
    EL_TRIA3 = 6,
    EL_QUAD4 = 7,
    EL_TRIA6 = 8,
    EL_QUAD8 = 9,
    EL_QUAD9 = 10,
    EL_SOLID_ANY = 11,
    EL_TETRA4 = 12,
    EL_TETRA10 = 13,
    EL_PYRAMID5 = 14,
    EL_PYRAMID13 = 15,
    EL_PYRAMID14 = 16,
    EL_WEDGE6 = 17,
    EL_WEDGE15 = 18,
    EL_WEDGE18 = 19,
    EL_HEXA8 = 20,
    EL_HEXA20 = 21,
    EL_HEXA27 = 22
};

// ---------------------------------------------------------------------------
// Catalogue.  Pure look-ups; a value outside 0..22 gives 0.  For the mixed kinds
// the widest member is described (rows of the padded matrix; quadrangle 4 and
// hexahedron 6 boundaries).

/// Topological dimension: 0 (none, node), 1 (edges), 2 (faces), 3 (solids).
NODARA_API unsigned element_dim(element_type FE) noexcept;
/// Rows of one element: every node, higher-order nodes included.
NODARA_API unsigned nbr_nodes(element_type FE) noexcept;
/// Vertices: the first rows of an element; the others are mid-edge, mid-face and
/// centre nodes.
NODARA_API unsigned nbr_base_nodes(element_type FE) noexcept;
/// Boundary entities of dimension one lower: end points of edges, sides of faces,
/// faces of solids; 0 for a node.
NODARA_API unsigned nbr_boundaries(element_type FE) noexcept;
/// The library's version, "5.0.0.0": static storage, the same pointer every call.
NODARA_API const char* version() noexcept;

// ---------------------------------------------------------------------------
// Checking and searching.

/// True when every entry of `ids` is NULL_INDEX or below `nods`.  True for an empty
/// list and whenever nods is NULL_INDEX.
NODARA_API bool check_IDs(const dense1D<unsigned>& ids, unsigned nods) noexcept;

/// True when every entry of the matrix is NULL_INDEX or below `nods` (columns
/// walked with the leading dimension).  True for an empty matrix and whenever nods
/// is NULL_INDEX.
NODARA_API bool check_IDs(const dense2D<unsigned>& connectM, unsigned nods) noexcept;

/// Validates a connectivity of kind FE: true for an empty matrix; otherwise
///   - EL_FACE_ANY: 3 rows are checked as EL_TRIA3; with 4 rows every entry must be
///     below nods except row 3, which may be NULL_INDEX; other row counts: false;
///   - EL_SOLID_ANY: 4, 5, 6 rows are checked as EL_TETRA4, EL_PYRAMID5, EL_WEDGE6;
///     with 8 rows, rows 0-3 must be below nods and a NULL_INDEX in row 4, 5 or 6
///     must be followed by NULL_INDEX down to row 7 (NULL_INDEX in rows 0-3 or only
///     in row 7 fails); other row counts: false;
///   - any other kind: rows must equal nbr_nodes(FE) and every entry must be below
///     nods (NULL_INDEX never passes; EL_NONE rejects any non-empty matrix).
/// Scanning stops at the first failing column.
NODARA_API bool check_IDs(const dense2D<unsigned>& connectM, element_type FE, unsigned nods) noexcept;

/// Largest entry that is not NULL_INDEX.  NULL_INDEX for an empty list; 0 for a list
/// holding only NULL_INDEX.
NODARA_API unsigned max_ID(const dense1D<unsigned>& ids) noexcept;
/// Largest entry that is not NULL_INDEX.  When ld equals rows the matrix is read as
/// one list (an empty matrix gives NULL_INDEX); when ld differs the columns are
/// walked and a matrix without columns gives 0.
NODARA_API unsigned max_ID(const dense2D<unsigned>& connectM) noexcept;

// ---------------------------------------------------------------------------
// Renumbering.

/// Adds `shift` (two's-complement wrap-around) to every entry except NULL_INDEX.
/// Returns 0.
NODARA_API int shift_indices(dense1D<unsigned>& ids, int shift) noexcept;
/// Adds `shift` to the entries of the matrix view: for EL_FACE_ANY and EL_SOLID_ANY
/// every entry except NULL_INDEX; for every other kind every entry, NULL_INDEX
/// included (it wraps).  Returns 0.
NODARA_API int shift_indices(dense2D<unsigned>& connectM, int shift, element_type FE) noexcept;

/// Replaces each entry v with v < new_ids.size() by new_ids[v]; other entries
/// (NULL_INDEX among them) are left as they are.
NODARA_API void change_indices(dense1D<unsigned>& ids, const dense1D<unsigned>& new_ids) noexcept;
/// The same on every entry of the matrix view.
NODARA_API void change_indices(dense2D<unsigned>& connectM, const dense1D<unsigned>& new_ids) noexcept;

/// Scatters `values` through `perm`: for i < min(values.size, perm.size) with
/// p = perm[i] < values.size and p != i, the new values[p] is the old values[i].
/// Positions no entry names keep their value; of two entries naming one position
/// the later wins.  Works on a copy, so values may alias perm.
/// Status: 0; -199 the temporary copy cannot be made (values unchanged).
NODARA_API int permutation(dense1D<unsigned>& values, const dense1D<unsigned>& perm) noexcept;
NODARA_API int permutation(dense1D<double>& values, const dense1D<unsigned>& perm) noexcept;

// ---------------------------------------------------------------------------
// Sorting and matching.

/// Stable counting sort of positions by index.  Overwrites `order` with the
/// positions of the entries that are not NULL_INDEX, grouped by index ascending
/// (positions ascending within a group), and `first` with max_ID(ids) + 2 offsets:
/// the positions holding index v are order[first[v]] .. order[first[v+1] - 1].
/// An empty `ids` gives first = [0] and an empty order.
/// The outputs may share storage with ids; the sort reads ids as it was on entry.
/// Status: 0; -1 the largest index is NULL_INDEX (max_ID of a non-empty list never
/// is, so this does not occur); -199 an output cannot be sized (both left empty).
NODARA_API int get_sorted_order(const dense1D<unsigned>& ids, dense1D<unsigned>& order,
                                dense1D<unsigned>& first) noexcept;

/// Matches values: overwrites posA (B.size entries) and posB (A.size entries),
/// filled with NULL_INDEX.  posA[j] is the first position of B[j] in A; posB[p] is
/// the first j with B[j] = A[p], for p the first position of its value in A
/// (repeated values of A keep NULL_INDEX).  NULL_INDEX entries never match.
/// Status: 0 (a failure to size the outputs is not reported).
NODARA_API int get_IDs(const dense1D<unsigned>& A, const dense1D<unsigned>& B, dense1D<unsigned>& posA,
                       dense1D<unsigned>& posB) noexcept;

/// Matches elements (columns): overwrites posA (B.cols entries) and posB (A.cols
/// entries), filled with NULL_INDEX.  Column c of B matches column j of A when their
/// entries are equal in order (strict), or, with strict false, equal after rotating
/// both so that their first largest entry comes first, possibly with the direction
/// of the rest reversed.  posA[c] is the smallest matching j; posB[j] the smallest
/// matching c.
/// Status, in order: -199 the outputs cannot be sized; 0 when A or B is empty;
/// -2 A.rows != B.rows; -199 the column map cannot be built.
NODARA_API int get_IDs(const dense2D<unsigned>& A, const dense2D<unsigned>& B, dense1D<unsigned>& posA,
                       dense1D<unsigned>& posB, bool strict) noexcept;

// ---------------------------------------------------------------------------
// Collecting.

/// Appends to `out` (not cleared) the distinct entries of `ids` in order of first
/// appearance, leaving out NULL_INDEX and every entry of `excluded` (entries
/// already in `out` are not looked at).  An append whose growth fails is skipped.
/// `out` may share storage with the inputs.
/// Status: 0; -199 the set of seen indices cannot grow (out back to its size).
NODARA_API int unique_indices(dense1D<unsigned>& out, const dense1D<unsigned>& ids,
                              dense1D<unsigned> excluded) noexcept;
/// The same over the matrix, column by column.  Status: 0; -199 as above.
NODARA_API int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>& connectM,
                              dense1D<unsigned> excluded) noexcept;
/// The same over the matrices of [first, last), in turn.
/// Status: 0 (also for an empty range); -3 first > last; -199 as above.
NODARA_API int unique_indices(dense1D<unsigned>& out, const dense2D<unsigned>* first,
                              const dense2D<unsigned>* last, dense1D<unsigned> excluded) noexcept;

/// Number of distinct entries of the matrix, NULL_INDEX not counted.
NODARA_API int count_unique_indices(const dense2D<unsigned>& connectM) noexcept;
/// Number of distinct entries over [first, last), NULL_INDEX not counted;
/// 0 for an empty range; -2 first > last; -199 the set of seen indices cannot grow.
NODARA_API int count_unique_indices(const dense2D<unsigned>* first, const dense2D<unsigned>* last) noexcept;

// ---------------------------------------------------------------------------
// Bounding boxes.  The box must be initialised by the caller; it is only widened:
// for each coordinate x[k] of each chosen node, min[k] = x[k] unless x[k] >= min[k],
// and max[k] = x[k] when x[k] > max[k] (a NaN in min is replaced, max never takes
// a NaN).

/// All nodes.  Status: 0; -1 pos.rows differs from N.
NODARA_API int inc_bounding_box(const dense2D<double>& pos, vector_fixed<double, 2>& min,
                                vector_fixed<double, 2>& max) noexcept;
NODARA_API int inc_bounding_box(const dense2D<double>& pos, vector_fixed<double, 3>& min,
                                vector_fixed<double, 3>& max) noexcept;
/// The listed nodes, in order (NULL_INDEX entries are skipped).  Status: 0 (also
/// for an empty list); -1 pos.rows differs from N; -2 an entry is neither
/// NULL_INDEX nor below pos.cols (nothing changed).
NODARA_API int inc_bounding_box(const dense2D<double>& pos, const dense1D<unsigned>& nodes,
                                vector_fixed<double, 2>& min, vector_fixed<double, 2>& max) noexcept;
NODARA_API int inc_bounding_box(const dense2D<double>& pos, const dense1D<unsigned>& nodes,
                                vector_fixed<double, 3>& min, vector_fixed<double, 3>& max) noexcept;
/// The nodes of a connectivity (each once): the statuses of the node-list form,
/// and -199 when the list of nodes cannot be made.
NODARA_API int inc_bounding_box(const dense2D<double>& pos, const dense2D<unsigned>& connectM,
                                vector_fixed<double, 2>& min, vector_fixed<double, 2>& max) noexcept;
NODARA_API int inc_bounding_box(const dense2D<double>& pos, const dense2D<unsigned>& connectM,
                                vector_fixed<double, 3>& min, vector_fixed<double, 3>& max) noexcept;

}  // namespace nodara
}  // namespace zq5

#endif  // ZQ5_NODARA_CORE_H
