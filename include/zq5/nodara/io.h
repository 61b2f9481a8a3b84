// File formats: readers and writers of mesh exchange files.
//
// Each format has its own pair of functions named after it with a direction
// (STL_input, STL_output, vtk_output).  A reader fills the caller's coordinate
// matrix (one column per node) and connectivity matrix (one column per element);
// a writer reads them and never changes them.  Numbers are written and read the
// same way whatever locale the calling program has set: no function here depends
// on the process locale or changes it.  No function here throws, logs, keeps state
// between calls or starts a thread; every FILE* it opens it owns, and the few
// paths documented below that leave a freshly created stream open say so.
// Statuses are plain ints: 0 is success, negative codes are listed per function in
// the order its checks run (the first failing check wins), -199 means that an array
// could not grow.
//
// Format coverage:
//
//   format               | read | write | element kinds                              | ASCII/binary
//   ---------------------+------+-------+--------------------------------------------+-------------
//   STL                  | yes  | yes   | EL_TRIA3                                   | both
//   VTK legacy, unstruct.| no   | yes   | edges, triangles, quadrangles, tetrahedra, | ASCII
//     grid               |      |       | pyramids, wedges, hexahedra (linear and    |
//                        |      |       | EL_EDGE3, EL_TRIA6, EL_QUAD8/9, EL_TETRA10,|
//                        |      |       | EL_PYRAMID14, EL_WEDGE18, EL_HEXA20/27),   |
//                        |      |       | EL_FACE_ANY and EL_SOLID_ANY (named-file   |
//                        |      |       | forms only, split by node count)           |
#ifndef ZQ5_NODARA_IO_H
#define ZQ5_NODARA_IO_H

#include <zq5/arrays.h>
#include <zq5/export.h>
#include <zq5/nodara/core.h>

#include <cstdio>

namespace zq5 {
namespace nodara {

// ---------------------------------------------------------------------------
// STL.  A facet is a triangle with its own three vertices; the reader rebuilds
// the node sharing that the format does not store.

/// Reads an ASCII or binary STL file into a triangle mesh with shared nodes.
///   filename  path of the file (read).
///   pos       overwritten: 3 x nodes, the coordinates.
///   connectM  overwritten: 3 x facets (EL_TRIA3), zero-based node indices.
/// The file is first read as ASCII (keywords in any case; several solids one after
/// the other make one mesh; lines longer than 255 characters are read in pieces of
/// 255); when that fails with a format error it is read as binary (80-byte header,
/// little-endian 32-bit facet count, 50 bytes per facet), so a binary file whose
/// header starts with "solid" is still read.  A binary facet count is never
/// trusted beyond the bytes the file holds.
/// Node sharing: let h2 be the smallest positive squared altitude over all facets.
/// When h2 is positive and finite, exactly coincident vertices are merged within
/// blocks of 100000 facets, then all nodes within 0.05 * sqrt(h2) of one another
/// (`merge`, the earlier node of the list survives), then facets that use a node
/// twice are removed and unused nodes dropped (`remove_degenerated`, `simplify`),
/// keeping the facet order and the order of first use of the surviving nodes.
/// When no facet has a positive altitude nothing is merged or removed: node 3f + k
/// is vertex k of facet f.
/// Status (the ASCII reading runs first; its format errors send the file to the
/// binary reading, whose status is returned):
///     0     success;
///    -1     the file cannot be opened (missing, unreadable, a directory);
///    -2     ASCII: first line without "solid"; binary: fewer than 80 bytes, or
///           the size of the file cannot be known (a pipe or device: the facet
///           count could not be bounded);
///    -3     malformed ASCII facet or unexpected end of file; binary: no facet
///           count, or fewer facets than the count says;
///  -199     storage cannot grow (also from the merging and cleaning steps), or
///           more facets than 32-bit node indices can number.
/// On any error both outputs are empty.
NODARA_API int STL_input(const char* filename, dense2D<double>& pos, dense2D<unsigned>& connectM) noexcept;

/// Writes a triangle mesh as STL, one facet per column, with a unit normal.
///   filename  path of the file (created or truncated).
///   pos       read: 2 or 3 x nodes (2-D nodes get z = 0).
///   connectM  read: 3 x facets (EL_TRIA3), indices below pos.cols().
///   ascii     true: ASCII ("solid ZQ5" ... "endsolid ZQ5", numbers as printf
///             "%e"); false: binary (header "ZQ5 STL Binary", 32-bit floats,
///             little-endian, attribute 0).
/// Normal of facet (p0, p1, p2): (p1 - p0) x (p2 - p0), or (p1 - p0) x (p2 - p1) when
/// |p1p2| is not longer than the shorter of |p0p1| and |p0p2|; it is divided by its
/// length unless its squared length is exactly 0 or exactly 1.
/// Status:
///    0    success;
///   -1    the file cannot be opened, a write fails (a full disk), closing fails,
///         or more than 2^32 - 1 facets for a binary file;
///   -2    pos has neither 2 nor 3 rows;
///   -3    check_IDs(connectM, EL_TRIA3, pos.cols()) fails.
/// On -2 and -3 the file is left created and empty (its stream is closed).
NODARA_API int STL_output(const char* filename, const dense2D<double>& pos, const dense2D<unsigned>& connectM,
                          bool ascii) noexcept;

// ---------------------------------------------------------------------------
// VTK legacy ASCII, data set UNSTRUCTURED_GRID.  Node indices are written as held
// (zero-based).  Cell types: 3 line, 5 triangle, 9 quadrangle, 10 tetrahedron,
// 12 hexahedron, 13 wedge, 14 pyramid, and 2 poly-vertex for the extra nodes of a
// higher-order element.

/// Appends the cells of one homogeneous connectivity to a VTK cell list.
///   connectM    read: R x N, one column per element.
///   FE_type     EL_EDGE2/3, EL_TRIA3/6, EL_QUAD4/8/9, EL_TETRA4/10, EL_PYRAMID5/14,
///               EL_WEDGE6/18, EL_HEXA8/20/27 (EL_PYRAMID13, EL_WEDGE15 and the
///               mixed kinds are refused).
///   nbr_cells   in/out: advanced by the number of cells appended.
///   cells       appended: per cell its node count, then its node indices.
///   cell_types  appended: one VTK code per cell.
/// Per element: the vertex cell (rows 0 .. nv-1; a tetrahedron is written as nodes
/// 0, 1, 3, 2, VTK's orientation), then, when R > nv, a poly-vertex cell with rows
/// nv .. R-1 in the library's order.
/// Status (nothing is appended on an error):
///     0    success (also for N = 0);
///    -1    check_IDs(connectM, FE_type, NULL_INDEX) fails, or R < nv;
///    -2    FE_type not accepted;
///  -199    the lists cannot grow.
NODARA_API int vtk_convert(const dense2D<unsigned>& connectM, element_type FE_type, unsigned& nbr_cells,
                           dense1D<unsigned>& cells, dense1D<unsigned>& cell_types) noexcept;

/// Writes a whole VTK file body to an open stream (not closed).
///   stream      open for writing.
///   pos         read: 2 or 3 x nodes (2-D nodes get z = 0), written as "%f".
///   nbr_cells   number of cells in `cells`.
///   cells       read: the cell list of vtk_convert, from its first element.
///   cell_types  read: one code per entry written.
/// Status:
///    0    success;
///   -1    stream is null;
///   -2    pos has neither 2 nor 3 rows;
///   -3    `cells` does not hold nbr_cells cells (nothing written);
///   -4    a write fails.
NODARA_API int vtk_output(FILE* stream, const dense2D<double>& pos, unsigned nbr_cells,
                          const dense1D<unsigned>& cells, const dense1D<unsigned>& cell_types) noexcept;

/// Writes a VTK file of several connectivities.
///   filename        path of the file (created or truncated).
///   pos             read: 2 or 3 x nodes.
///   connectM_begin, connectM_end
///                   read: the range of connectivity matrices.
///   FE_types        read: one element type per matrix.  EL_FACE_ANY and
///                   EL_SOLID_ANY matrices are split by node count (hexahedra,
///                   wedges, pyramids, tetrahedra; quadrangles, triangles) on a copy.
/// Cells follow the matrices in range order (a mixed matrix in decreasing node
/// count); empty matrices are skipped.
/// Status:
///     0    success;
///    -1    the file cannot be opened; a write or the close fails; or from
///          vtk_convert (bad rows);
///    -2    pos has neither 2 nor 3 rows; or from vtk_convert (type refused);
///    -4    connectM_end before connectM_begin;
///    -5    the range length differs from FE_types.size();
///    -3    check_IDs(matrix i, FE_types[i], pos.cols()) fails;
///  -199    storage cannot grow (in the two forms below, also before the file is
///          opened).
/// On every error after the file is opened the file is left created and empty;
/// the stream is always closed.
NODARA_API int vtk_output(const char* filename, const dense2D<double>& pos, const dense2D<unsigned>* connectM_begin,
                          const dense2D<unsigned>* connectM_end, const dense1D<int>& FE_types) noexcept;

/// One connectivity: the range form with {connectM} and {FE_type}.  Same statuses.
NODARA_API int vtk_output(const char* filename, const dense2D<double>& pos, const dense2D<unsigned>& connectM,
                          element_type FE_type) noexcept;

/// Two connectivities (say a solid mesh and its boundary faces): the range form with
/// {connectM1, connectM2} (shared views) and {FE_type1, FE_type2}.  Same statuses.
NODARA_API int vtk_output(const char* filename, const dense2D<double>& pos, const dense2D<unsigned>& connectM1,
                          const dense2D<unsigned>& connectM2, element_type FE_type1, element_type FE_type2) noexcept;

}  // namespace nodara
}  // namespace zq5

#endif  // ZQ5_NODARA_IO_H
