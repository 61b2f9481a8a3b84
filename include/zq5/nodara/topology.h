// Topology: adjacency, boundaries, subdomains and edge lists of a mesh.
//
// The functions of this family derive relations from connectivity matrices alone
// (one column per element, one row per local node; coordinates are never needed):
// element neighbours across shared sides and faces, node-to-node and node-to-element
// graphs in compressed form, the local boundaries of elements and the skin of a
// mesh, connected subdomains, boundaries between colours, the grouping of a mixed
// connectivity by node count and the list of distinct edges.
//
// Local numbering of boundaries (local node numbers of boundary j, in order):
//   EL_EDGE2     j = 0: (1); j = 1: (0)                 (the end opposite node j)
//   triangle     j = 0: (1,2); 1: (2,0); 2: (0,1)       (the side opposite node j)
//   quadrangle   j = 0: (0,1); 1: (1,2); 2: (2,3); 3: (3,0)   (the side from node j)
//   tetrahedron  j = 0: (1,2,3); 1: (2,0,3); 2: (1,3,0); 3: (2,1,0)  (opposite node j)
//   pyramid      j = 0..3: (j, 4, j+1 mod 4); 4: (0,1,2,3)
//   wedge        0: (0,1,2); 1: (3,5,4); 2: (2,1,4,5); 3: (0,2,5,3); 4: (1,0,3,4)
//   hexahedron   0: (0,3,7,4); 1: (1,5,6,2); 2: (0,4,5,1); 3: (3,2,6,7);
//                4: (0,1,2,3); 5: (4,7,6,5)
// A column of EL_FACE_ANY (4 rows) is a triangle when its row 3 is NULL_INDEX, else
// a quadrangle.  A column of EL_SOLID_ANY (8 rows) is a tetrahedron when node 3 is
// present and node 4 is NULL_INDEX, else a pyramid when node 5 is NULL_INDEX, else a
// wedge when node 6 is NULL_INDEX, else a hexahedron.  A face identifier is
// e * F + j (element e, local boundary j, F = nbr_boundaries of the type).
//
// Mixed kinds are read by row count where a function says so: 3 rows of EL_FACE_ANY
// are triangles (EL_TRIA3); 4, 5, 6 rows of EL_SOLID_ANY are tetrahedra, pyramids,
// wedges ("the substitution by rows" below).
//
// Boundary matrices (outputs of the boundary extractors) have one column per
// boundary and the boundary-row count of the type as rows: 1 for edges, 2 for
// EL_FACE_ANY, EL_TRIA3, EL_QUAD4, 3 for EL_TETRA4, 4 for EL_PYRAMID5, EL_WEDGE6,
// EL_HEXA8 and EL_SOLID_ANY (a triangular face has NULL_INDEX in row 3), and 3, 6, 8
// or 9 for the quadratic kinds (used by the row checks only).  They are appended
// to: when the column count reaches the capacity, room for max(2 x columns, 4)
// columns is reserved first.
//
// No function here throws, logs, keeps state between calls or starts a thread.
// Statuses are plain ints: 0 is success, negative codes are listed per function in
// the order its checks run (the first failing check wins); -199 means that an array
// could not grow.  Temporary storage is released before every return.
#ifndef ZQ5_NODARA_TOPOLOGY_H
#define ZQ5_NODARA_TOPOLOGY_H

#include <zq5/arrays.h>
#include <zq5/export.h>
#include <zq5/nodara/core.h>

namespace zq5 {
namespace nodara {

// ---------------------------------------------------------------------------
// Neighbours and graphs.

/// Element neighbours across local boundaries.
///   connectM          r x E, read.  Type after the substitution by rows, and r:
///                     EL_EDGE2 2, EL_TRIA3 3, EL_QUAD4 4, EL_FACE_ANY 4, EL_TETRA4 4,
///                     EL_PYRAMID5 5, EL_WEDGE6 6, EL_HEXA8 8, EL_SOLID_ANY 8.
///   FE_type           kind of the columns.
///   keep_nonmanifold  what a boundary shared by three or more elements gives (below).
///   neighbors         overwritten: F x E (F = 2, 3, 4, 4, 4, 5, 5, 6, 6 for the
///                     types above); entry (j, e) is the element across boundary j
///                     of e, or NULL_INDEX (mesh boundary, and rows j that the
///                     column's kind does not have).
/// Status (neighbors is emptied first and stays empty unless 0 is returned):
///    0    success (also for a connectivity without entries: neighbors empty)
///   -1    check_IDs(connectM, type, NULL_INDEX) fails, or r differs from the above
///   -2    type not in the list above (EL_NONE, EL_NODE, EL_EDGE_ANY, EL_EDGE3 and
///         every quadratic kind)
///   -199  the output or the face table cannot be allocated (also for 2^32 - 1
///         columns or more: element indices must stay below NULL_INDEX)
/// Two boundaries match when they hold the same nodes in the same cyclic order,
/// either orientation (a triangular face never matches a quadrangular one).  Of the
/// boundaries of one match class, in element order then local order: two are each
/// other's neighbours; with three or more and keep_nonmanifold set, each later one
/// points to the first and the first to the last; with it cleared all keep
/// NULL_INDEX.
NODARA_API int get_neighbors(const dense2D<unsigned>& connectM, element_type FE_type, bool keep_nonmanifold,
                             dense2D<unsigned>& neighbors) noexcept;

/// Node-to-node graph in compressed form: for each node the distinct other nodes
/// that share an edge of an element with it.
///   connectM  r x E, read.  With FE_type = EL_NONE every two nodes of a column are
///             joined; EL_EDGE2, EL_TRIA3, EL_TETRA4 likewise (a simplex); EL_QUAD4,
///             EL_FACE_ANY, EL_PYRAMID5, EL_WEDGE6, EL_HEXA8, EL_SOLID_ANY join the
///             nodes of the element's edges only (no diagonals).  NULL_INDEX entries
///             are skipped.
///   offsets   overwritten: N + 1 values from 0, N = largest node index met + 1.
///   graph     overwritten: the neighbours of node i are
///             graph[offsets[i]] .. graph[offsets[i+1] - 1].
///   FE_type   kind of the columns; no substitution by rows.
/// Status (both outputs are emptied first):
///    0    success (also for a connectivity without entries)
///   -2    FE_type is not EL_NONE and r differs from nbr_nodes(FE_type)
///   -5    FE_type not in the list above
///   -199  an array cannot be allocated, or the graph outgrows 32-bit offsets
///         (both outputs left empty)
/// Order: each node's neighbours in order of first meeting: the node's element
/// edges (columns ascending, then the edges of a column in the library's edge order,
/// or the whole column for a simplex) and within one the nodes in local order.
/// Never the node itself, never a duplicate.  A column of EL_SOLID_ANY whose node 3
/// is NULL_INDEX has no valid kind and is skipped; an EL_SOLID_ANY tetrahedron is
/// joined as a simplex.
NODARA_API int get_node_graph(const dense2D<unsigned>& connectM, dense1D<unsigned>& offsets,
                              dense1D<unsigned>& graph, element_type FE_type) noexcept;

/// Node-to-element incidence in compressed form.
///   connectM  r x E, read; NULL_INDEX entries are skipped.
///   offsets   overwritten: N + 1 values from 0, N = largest node index + 1.
///   elements  overwritten: the columns holding node i, ascending (a column holding
///             the node twice is listed twice), at elements[offsets[i]] ..
///             elements[offsets[i+1] - 1].
/// Status: 0 (also for a connectivity without entries: both outputs empty);
///   -199 an array cannot be allocated, or more than 2^32 - 1 entries (both outputs
///   left empty).
NODARA_API int get_connected_elements(const dense2D<unsigned>& connectM, dense1D<unsigned>& offsets,
                                      dense1D<unsigned>& elements) noexcept;

/// One element per node: the last column that holds it.
///   connectM   r x E, read.
///   ancestors  read and overwritten: when empty it is sized to max_ID(connectM) + 1
///              and filled with NULL_INDEX; otherwise its size and the values of
///              nodes no column holds are kept.  Entries not below its size
///              (NULL_INDEX among them) are ignored.
/// Status: 0 (a connectivity without entries leaves ancestors untouched);
///   -199 ancestors cannot be sized.
NODARA_API int get_ancestors(const dense2D<unsigned>& connectM, dense1D<unsigned>& ancestors) noexcept;

// ---------------------------------------------------------------------------
// Boundaries.  Processed types (after the substitution by rows): EL_EDGE2,
// EL_FACE_ANY, EL_TRIA3, EL_QUAD4, EL_SOLID_ANY, EL_TETRA4, EL_PYRAMID5, EL_WEDGE6,
// EL_HEXA8.  Only the boundaries of a column's own kind are examined.  On -199 the
// columns or values appended so far stay in the output.

/// Appends every local boundary of every element, columns in order, boundaries
/// j = 0, 1, ... of the column's kind in order (EL_EDGE2: node 1, then node 0).
///   connectM    r x E, read.
///   FE_type     kind of the columns (substitution by rows).
///   boundaries  appended: boundary-row count of the type x (old columns + new).
/// Status:
///    0    success (a connectivity without entries appends nothing)
///   -1    check_IDs(connectM, type, NULL_INDEX) fails
///   -2    type not processed
///   -1    r differs from nbr_nodes(type)
///   -2    boundaries has entries and its rows differ from the boundary-row count
///   -199  boundaries cannot grow
NODARA_API int get_element_boundaries(const dense2D<unsigned>& connectM, element_type FE_type,
                                      dense2D<unsigned>& boundaries) noexcept;

/// Appends the local boundaries (e, j) whose neighbour is NULL_INDEX: the skin.
///   connectM    r x E, read (its entries are copied, not checked).
///   neighbors   F x E, read: as get_neighbors gives it.
///   FE_type     kind of the columns (substitution by rows).
///   boundaries  appended, as get_element_boundaries; elements in column order,
///               j in order.
/// Status:
///    0    success (a connectivity without entries appends nothing)
///   -1    r differs from nbr_nodes(type)
///   -2    neighbors is not nbr_boundaries(type) x E or holds an entry that is
///         neither NULL_INDEX nor below E
///   -4    boundaries has entries and its rows differ from the boundary-row count
///   -3    type not processed
///   -199  boundaries cannot grow
NODARA_API int get_mesh_boundaries(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                                   element_type FE_type, dense2D<unsigned>& boundaries) noexcept;

/// Appends the face identifier e * F + j of every local boundary whose neighbour
/// is NULL_INDEX, in the order of get_mesh_boundaries.
///   connectM    r x E, read.
///   neighbors   F x E, read.
///   FE_type     kind of the columns (substitution by rows).
///   bounding    appended.
///   nbr_bounds  overwritten: 0 at entry, then F = nbr_boundaries(type), so that an
///               identifier splits into element id / F and local index id % F.
/// Status:
///    0    success (a connectivity without entries: nbr_bounds 0, nothing appended)
///   -1    check_IDs(connectM, type, NULL_INDEX) fails (nbr_bounds stays 0)
///   -2    type not processed (nbr_bounds already set)
///   -1    r differs from nbr_nodes(type)
///   -2    neighbors is not F x E
///   -199  bounding cannot grow
/// Assumed: E * F < 2^32 (identifiers are 32-bit).
NODARA_API int get_mesh_bounding_elements(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                                          element_type FE_type, dense1D<unsigned>& bounding,
                                          unsigned& nbr_bounds) noexcept;

/// For each column of a boundary mesh, the element face it lies on.
///   boundaries  boundary-row count x B, read: each column a side or face.
///   connectM    r x E, read.
///   neighbors   F x E, read: as get_neighbors gives it.
///   ancestors   read: one element per node, as get_ancestors gives it.
///   FE_type     kind of the columns (substitution by rows).
///   bounds      overwritten: B entries; bounds[b] is the identifier e * F + j of a
///               local boundary with the nodes of column b in the same order, else
///               of one with them in reversed order, else NULL_INDEX.
///   nbr_bounds  overwritten: 0 at entry, then F.
/// The faces tried are those of the elements around the first node n of the
/// column (found from ancestors[n] by walking across the local boundaries that
/// contain n), in the order met, local boundaries in order.
/// Status (bounds is emptied first):
///    0    success (a connectivity without entries: bounds empty)
///   -1    rows of boundaries differ from the boundary-row count (also when B = 0)
///   -2    r differs from nbr_nodes(type)
///   -3    neighbors is not F x E or holds an entry neither NULL_INDEX nor below E
///   -4    ancestors holds an entry neither NULL_INDEX nor below E
///   -5    type not processed (nbr_bounds already set)
///   -199  bounds cannot be sized
///   -4    during the walk: the element ancestors[n] does not hold n
///   -3    during the walk: a neighbour across a boundary holding n does not hold n
/// On -3 and -4 from the walk, the entries of bounds found so far are kept.
NODARA_API int get_elements_on_boundaries(const dense2D<unsigned>& boundaries, const dense2D<unsigned>& connectM,
                                          const dense2D<unsigned>& neighbors, const dense1D<unsigned>& ancestors,
                                          element_type FE_type, dense1D<unsigned>& bounds,
                                          unsigned& nbr_bounds) noexcept;

// ---------------------------------------------------------------------------
// Subdomains, colours, grouping and edges.

/// The elements grouped by connected subdomain (elements linked through the
/// neighbour matrix).
///   neighbors  F x E, read; entries not below E (NULL_INDEX among them) are
///              ignored.
///   order      overwritten: the E elements, subdomain by subdomain, each in
///              breadth-first order from its lowest element (neighbours pushed in
///              row order).
///   offsets    overwritten: subdomain k is order[offsets[k]] .. order[offsets[k+1]-1];
///              [0] when E = 0.
/// Status: 0; -199 an array cannot grow (outputs left empty).
NODARA_API int get_subdomains(const dense2D<unsigned>& neighbors, dense1D<unsigned>& order,
                              dense1D<unsigned>& offsets) noexcept;

/// Reorders a mesh so that each subdomain's elements are contiguous: the columns of
/// connectM and neighbors are put in the order of the form above, and the entries
/// of neighbors (below E) renumbered to the new positions.
///   connectM   r x E, read and overwritten in place.
///   neighbors  F x E, read and overwritten in place.
///   offsets    overwritten: subdomain k holds columns offsets[k] .. offsets[k+1]-1.
/// Status:
///    0    success
///   -2    connectM and neighbors differ in column count (nothing changed)
///   -199  an array cannot grow (connectM and neighbors unchanged, offsets empty)
NODARA_API int get_subdomains(dense2D<unsigned>& connectM, dense2D<unsigned>& neighbors,
                              dense1D<unsigned>& offsets) noexcept;

/// Appends the local boundaries that separate elements of different colours, and
/// those on the mesh boundary.  For each element e in column order and each local
/// boundary j of its kind in order, with n = neighbors(j, e): appended when
/// (n is NULL_INDEX or colors[n] != colors[e]) and (both_sides or n > e).  So with
/// both_sides cleared an interface is written once, from its lower element in that
/// element's orientation; the mesh skin is always written.
///   connectM    r x E, read (its entries are copied, not checked).
///   neighbors   F x E, read.
///   colors      E values, read.
///   FE_type     kind of the columns (substitution by rows).
///   both_sides  write each interface from both elements.
///   boundaries  appended, as get_element_boundaries.
/// Status:
///    0    success (also when connectM has no columns)
///   -1    r differs from nbr_nodes(type)
///   -2    neighbors is not nbr_boundaries(type) x E, or holds an entry neither
///         NULL_INDEX nor below E
///   -3    colors.size() differs from E
///   -5    boundaries has entries and its rows differ from the boundary-row count
///   -4    type not processed
///   -199  boundaries cannot grow
NODARA_API int get_colors_boundaries(const dense2D<unsigned>& connectM, const dense2D<unsigned>& neighbors,
                                     const dense1D<unsigned>& colors, element_type FE_type, bool both_sides,
                                     dense2D<unsigned>& boundaries) noexcept;

/// Groups the columns of a mixed connectivity by node count, largest first.
/// The node count of a column is the number of its entries before its first
/// NULL_INDEX.  Columns are moved in place into the order (decreasing node count,
/// then original column order); columns without nodes are dropped.
///   connectM       r x C, read and overwritten in place; r x K remain (K: the
///                  columns with at least one node).
///   other          read and overwritten: when it has entries, its columns follow
///                  those of connectM (it must have C columns), and then every entry
///                  v < C is replaced by new_positions[v] (a neighbour matrix stays
///                  consistent); NULL_INDEX and entries not below C are kept.
///   group_nodes    overwritten: the node count of each group, largest first.
///   group_ends     overwritten: one past the last position of each group; group g
///                  holds positions group_ends[g-1] .. group_ends[g] - 1 (0 before
///                  the first).  With K = 0 both lists hold the single value 0.
///   new_positions  overwritten: C entries; the new position of input column e, or
///                  NULL_INDEX for a dropped column.
/// Status:
///    0    success
///   -1    other has entries and a column count other than C (nothing changed)
///   -199  work storage or an output cannot be allocated (connectM and other
///         unchanged, the three outputs empty; all storage is taken before the
///         first column moves, so no append is ever skipped)
NODARA_API int sort_elfes(dense2D<unsigned>& connectM, dense2D<unsigned>& other, dense1D<unsigned>& group_nodes,
                          dense1D<unsigned>& group_ends, dense1D<unsigned>& new_positions) noexcept;
/// As above without a companion matrix.
NODARA_API int sort_elfes(dense2D<unsigned>& connectM, dense1D<unsigned>& group_nodes, dense1D<unsigned>& group_ends,
                          dense1D<unsigned>& new_positions) noexcept;

/// Appends the distinct edges of a connectivity as columns (a, b), a <= b, in
/// lexicographic order.  Edges taken (corner nodes only): EL_EDGE2, EL_EDGE3 one;
/// triangles (EL_TRIA3, EL_TRIA6) three; quadrangles (EL_QUAD4, EL_QUAD8, EL_QUAD9)
/// four; EL_TETRA4, EL_TETRA10 six; EL_PYRAMID5, EL_PYRAMID14 eight; EL_WEDGE6,
/// EL_WEDGE18 nine; EL_HEXA8, EL_HEXA27 twelve; EL_FACE_ANY, EL_SOLID_ANY those of
/// each column's kind (substitution by rows applies).  The serendipity solids
/// EL_PYRAMID13, EL_WEDGE15, EL_HEXA20 and every other kind give no edges.
///   connectM  r x E, read.
///   FE_type   kind of the columns.
///   edges     appended: 2 x (old columns + new); the new edges are not compared
///             with those already there.
/// Status:
///    0    success (a connectivity without entries: edges untouched)
///   -1    check_IDs(connectM, FE_type, NULL_INDEX) fails
///   -3    edges has entries and not 2 rows
///   -199  work storage or edges cannot grow (edges unchanged)
NODARA_API int copy_edges(const dense2D<unsigned>& connectM, element_type FE_type,
                          dense2D<unsigned>& edges) noexcept;
/// The same over the matrices [connectM_begin, connectM_end), FE_types[i] the kind
/// of matrix i; an edge of several matrices is listed once.
/// Status:
///    0    success (an empty range with an empty type list appends nothing)
///   -2    connectM_end before connectM_begin
///   -3    the number of matrices differs from FE_types.size()
///   -4    edges has entries and not 2 rows
///   -1    a matrix fails check_IDs(matrix, its type, NULL_INDEX) (a type outside
///         0..22 fails unless the matrix is empty)
///   -199  work storage or edges cannot grow (edges unchanged)
NODARA_API int copy_edges(const dense2D<unsigned>* connectM_begin, const dense2D<unsigned>* connectM_end,
                          const dense1D<int>& FE_types, dense2D<unsigned>& edges) noexcept;

}  // namespace nodara
}  // namespace zq5

#endif  // ZQ5_NODARA_TOPOLOGY_H
