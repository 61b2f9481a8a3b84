// Internal: the one home of per-shape facts.
//
// Local boundary numbering, edge lists, the boundary-row counts, the kind of a
// column of a mixed matrix and the substitution of a mixed kind by row count all
// live here.  Topology, quality, metrics and the file formats read them from this
// header and never keep a copy of their own.
#ifndef NODARA_SRC_CORE_SHAPES_H
#define NODARA_SRC_CORE_SHAPES_H

#include <zq5/nodara/core.h>

#include <cstddef>

namespace zq5 {
namespace nodara {
namespace detail {

/// One local boundary: its node count (1 for an edge end, 2 for a side, 3 or 4 for
/// a face) and its local node numbers in order.
struct local_boundary {
    unsigned char size;
    unsigned char nodes[4];
};

/// One linear shape: its local boundaries in the library's numbering, and its
/// edges (pairs of local nodes) in the library's edge order.
struct shape {
    element_type kind;
    unsigned char nbr_nodes;
    unsigned char nbr_boundaries;
    local_boundary boundaries[6];
    unsigned char nbr_edges;
    unsigned char edges[12][2];
};

// Edge: boundary j is the end opposite node j.
inline constexpr shape edge2_shape = {EL_EDGE2, 2, 2, {{1, {1}}, {1, {0}}}, 1, {{0, 1}}};
// Triangle: side j is opposite node j.
inline constexpr shape tria3_shape = {
    EL_TRIA3, 3, 3, {{2, {1, 2}}, {2, {2, 0}}, {2, {0, 1}}}, 3, {{1, 2}, {2, 0}, {0, 1}}};
// Quadrangle: side j runs from node j to node j+1.
inline constexpr shape quad4_shape = {
    EL_QUAD4, 4, 4, {{2, {0, 1}}, {2, {1, 2}}, {2, {2, 3}}, {2, {3, 0}}}, 4, {{0, 1}, {1, 2}, {2, 3}, {3, 0}}};
// Tetrahedron: face j is opposite node j.
inline constexpr shape tetra4_shape = {EL_TETRA4,
                                       4,
                                       4,
                                       {{3, {1, 2, 3}}, {3, {2, 0, 3}}, {3, {1, 3, 0}}, {3, {2, 1, 0}}},
                                       6,
                                       {{0, 1}, {1, 2}, {2, 0}, {0, 3}, {1, 3}, {2, 3}}};
// Pyramid: faces j = 0..3 are (j, 4, j+1 mod 4); face 4 is the base.
inline constexpr shape pyramid5_shape = {
    EL_PYRAMID5,
    5,
    5,
    {{3, {0, 4, 1}}, {3, {1, 4, 2}}, {3, {2, 4, 3}}, {3, {3, 4, 0}}, {4, {0, 1, 2, 3}}},
    8,
    {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {0, 1}, {1, 2}, {2, 3}, {3, 0}}};
// Wedge: two triangles, then three quadrangles.
inline constexpr shape wedge6_shape = {
    EL_WEDGE6,
    6,
    5,
    {{3, {0, 1, 2}}, {3, {3, 5, 4}}, {4, {2, 1, 4, 5}}, {4, {0, 2, 5, 3}}, {4, {1, 0, 3, 4}}},
    9,
    {{0, 3}, {1, 4}, {2, 5}, {1, 2}, {2, 0}, {0, 1}, {4, 5}, {5, 3}, {3, 4}}};
// Hexahedron.
inline constexpr shape hexa8_shape = {
    EL_HEXA8,
    8,
    6,
    {{4, {0, 3, 7, 4}}, {4, {1, 5, 6, 2}}, {4, {0, 4, 5, 1}}, {4, {3, 2, 6, 7}}, {4, {0, 1, 2, 3}}, {4, {4, 7, 6, 5}}},
    12,
    {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6}, {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}}};

/// The shape of a linear kind (EL_EDGE2, EL_TRIA3, EL_QUAD4, EL_TETRA4, EL_PYRAMID5,
/// EL_WEDGE6, EL_HEXA8), or nullptr for any other kind.
inline const shape* linear_shape(element_type kind) noexcept {
    switch (kind) {
        case EL_EDGE2: return &edge2_shape;
        case EL_TRIA3: return &tria3_shape;
        case EL_QUAD4: return &quad4_shape;
        case EL_TETRA4: return &tetra4_shape;
        case EL_PYRAMID5: return &pyramid5_shape;
        case EL_WEDGE6: return &wedge6_shape;
        case EL_HEXA8: return &hexa8_shape;
        default: return nullptr;
    }
}

/// The kind a mixed matrix stands for by its row count: 3 rows of EL_FACE_ANY are
/// triangles; 4, 5, 6 rows of EL_SOLID_ANY are tetrahedra, pyramids, wedges.
/// Every other (kind, rows) pair is returned unchanged.
inline element_type substitute_by_rows(element_type kind, std::size_t rows) noexcept {
    if (kind == EL_FACE_ANY && rows == 3) return EL_TRIA3;
    if (kind == EL_SOLID_ANY) {
        if (rows == 4) return EL_TETRA4;
        if (rows == 5) return EL_PYRAMID5;
        if (rows == 6) return EL_WEDGE6;
    }
    return kind;
}

/// Kind of a 4-row EL_FACE_ANY column: a triangle when node 3 is NULL_INDEX.
inline element_type face_kind(const unsigned* column) noexcept {
    return column[3] == NULL_INDEX ? EL_TRIA3 : EL_QUAD4;
}

/// Kind of an 8-row EL_SOLID_ANY column, read from its absent nodes: node 3 present
/// and node 4 absent, a tetrahedron; else node 5 absent, a pyramid; else node 6
/// absent, a wedge; otherwise a hexahedron.
inline element_type solid_kind(const unsigned* column) noexcept {
    if (column[3] != NULL_INDEX && column[4] == NULL_INDEX) return EL_TETRA4;
    if (column[5] == NULL_INDEX) return EL_PYRAMID5;
    if (column[6] == NULL_INDEX) return EL_WEDGE6;
    return EL_HEXA8;
}

/// Linear kind of one column of a matrix of kind `kind` (already substituted by
/// rows): the column's own kind for EL_FACE_ANY (4 rows) and EL_SOLID_ANY (8 rows),
/// `kind` itself otherwise.
inline element_type column_kind(element_type kind, const unsigned* column) noexcept {
    if (kind == EL_FACE_ANY) return face_kind(column);
    if (kind == EL_SOLID_ANY) return solid_kind(column);
    return kind;
}

/// Rows of one boundary of an element of kind `kind`: the nodes of a side or face
/// including its higher-order nodes; faces of pyramids, wedges, hexahedra and mixed
/// solids take 4 rows (a triangle with NULL_INDEX in row 3).  0 outside 0..22.
inline unsigned boundary_rows(element_type kind) noexcept {
    static constexpr unsigned char rows[23] = {
        0, 0,           // none, node
        1, 1, 1,        // edges
        2, 2, 2,        // face any, tria3, quad4
        3, 3, 3,        // tria6, quad8, quad9
        4,              // solid any
        3, 6,           // tetra4, tetra10
        4, 8, 9,        // pyramid5, 13, 14
        4, 8, 9,        // wedge6, 15, 18
        4, 8, 9};       // hexa8, 20, 27
    const int k = static_cast<int>(kind);
    return (k >= 0 && k < 23) ? rows[k] : 0;
}

/// True for the kinds whose boundaries the topology family processes: EL_EDGE2,
/// EL_FACE_ANY, EL_TRIA3, EL_QUAD4, EL_SOLID_ANY, EL_TETRA4, EL_PYRAMID5, EL_WEDGE6,
/// EL_HEXA8.
inline bool is_processed_linear(element_type kind) noexcept {
    return kind == EL_FACE_ANY || kind == EL_SOLID_ANY || linear_shape(kind) != nullptr;
}

/// The kind whose corner edges a matrix of kind `kind` contributes to an edge list:
/// the linear counterpart for the linear and complete quadratic kinds, the mixed
/// kind itself for EL_FACE_ANY and EL_SOLID_ANY (read per column), and EL_NONE for
/// the kinds that give no edges (EL_PYRAMID13, EL_WEDGE15, EL_HEXA20 and all
/// others).
inline element_type edge_kind(element_type kind) noexcept {
    switch (kind) {
        case EL_EDGE2:
        case EL_EDGE3: return EL_EDGE2;
        case EL_TRIA3:
        case EL_TRIA6: return EL_TRIA3;
        case EL_QUAD4:
        case EL_QUAD8:
        case EL_QUAD9: return EL_QUAD4;
        case EL_FACE_ANY: return EL_FACE_ANY;
        case EL_TETRA4:
        case EL_TETRA10: return EL_TETRA4;
        case EL_PYRAMID5:
        case EL_PYRAMID14: return EL_PYRAMID5;
        case EL_WEDGE6:
        case EL_WEDGE18: return EL_WEDGE6;
        case EL_HEXA8:
        case EL_HEXA27: return EL_HEXA8;
        case EL_SOLID_ANY: return EL_SOLID_ANY;
        default: return EL_NONE;
    }
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_CORE_SHAPES_H
