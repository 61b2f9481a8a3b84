// Test fixtures: structured meshes of every linear element kind.
//
// Grids are made of nx x ny (x nz) unit cells; node (i, j[, k]) has coordinates
// (i, j[, k]) and index i + (nx+1) * (j + (ny+1) * k).  Every element has the
// library's positive orientation: triangles and quadrangles turn counter-clockwise
// seen from +z; the local faces of a solid (in the library's face numbering) have
// right-hand normals pointing into the element.  For tetrahedra that means
// (p1 - p0) x (p2 - p0) . (p3 - p0) < 0, the opposite of VTK's convention; hexahedra,
// wedges and pyramids are ordered as in VTK.
#ifndef NODARA_TESTS_COMMON_MESHES_H
#define NODARA_TESTS_COMMON_MESHES_H

#include <zq5/nodara.h>

#include <cstddef>

namespace nodara_test {

using zq5::dense1D;
using zq5::dense2D;

struct mesh {
    dense2D<double> pos;
    dense2D<unsigned> connect;
    zq5::nodara::element_type type = zq5::nodara::EL_NONE;
};

/// 2-D grid coordinates, 2 x (nx+1)(ny+1).
dense2D<double> grid_nodes_2d(unsigned nx, unsigned ny);
/// 3-D grid coordinates, 3 x (nx+1)(ny+1)(nz+1).
dense2D<double> grid_nodes_3d(unsigned nx, unsigned ny, unsigned nz);

/// Segments along x on a line of nx cells (2-D coordinates, y = 0).
mesh edge_mesh(unsigned nx);
/// Quadrangles, one per cell.
mesh quad_mesh(unsigned nx, unsigned ny);
/// Triangles, two per cell (diagonal from node (i, j) to node (i+1, j+1)).
mesh tria_mesh(unsigned nx, unsigned ny);
/// EL_FACE_ANY: cells with i + j even are quadrangles, others two triangles.
mesh mixed_face_mesh(unsigned nx, unsigned ny);
/// Hexahedra, one per cell.
mesh hexa_mesh(unsigned nx, unsigned ny, unsigned nz);
/// Tetrahedra, six per cell around the cell's main diagonal (conforming).
mesh tetra_mesh(unsigned nx, unsigned ny, unsigned nz);
/// Wedges, two per cell, triangles in the xy planes.
mesh wedge_mesh(unsigned nx, unsigned ny, unsigned nz);
/// Pyramids, six per cell, on the cell faces with an added centre node as apex.
mesh pyramid_mesh(unsigned nx, unsigned ny, unsigned nz);
/// EL_SOLID_ANY in 8 rows, conforming: the cell column (i, j) is hexahedra when
/// (i + j) mod 3 = 0, wedge pairs when 1, pyramid sextets when 2.
mesh mixed_solid_mesh(unsigned nx, unsigned ny, unsigned nz);
/// A closed triangulated surface: the skin of an n x n x n cube, 12 n^2 triangles,
/// outward-oriented, 6 n^2 + 2 nodes.
mesh cube_surface(unsigned n);

}  // namespace nodara_test

#endif  // NODARA_TESTS_COMMON_MESHES_H
