// Writes VTK files of every element kind the writer accepts, and beside them a
// manifest of what a reader must find in each: the points, and per cell its VTK
// type and point ids, worked out here from the meshes themselves (not from the
// writer's cell lists).  tests/io/vtk_interop.py reads both back with VTK.
//
// Usage: nodara_io_interop_writer OUTPUT_DIRECTORY
#include "common/meshes.h"

#include <zq5/nodara.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using namespace zq5::nodara;
using zq5::dense1D;
using zq5::dense2D;

namespace {

constexpr unsigned N = zq5::NULL_INDEX;

struct expected_cell {
    unsigned type;
    std::vector<unsigned> ids;
};

// VTK's linear cell for the corner nodes of a kind, and its vertex count.
void vtk_kind(element_type t, unsigned& code, unsigned& vertices) {
    switch (t) {
        case EL_EDGE2: case EL_EDGE3: code = 3; vertices = 2; break;
        case EL_TRIA3: case EL_TRIA6: code = 5; vertices = 3; break;
        case EL_QUAD4: case EL_QUAD8: case EL_QUAD9: code = 9; vertices = 4; break;
        case EL_TETRA4: case EL_TETRA10: code = 10; vertices = 4; break;
        case EL_PYRAMID5: case EL_PYRAMID14: code = 14; vertices = 5; break;
        case EL_WEDGE6: case EL_WEDGE18: code = 13; vertices = 6; break;
        default: code = 12; vertices = 8; break;
    }
}

// The cells a reader should see for one homogeneous column.
void expect_column(element_type t, const unsigned* c, unsigned rows, std::vector<expected_cell>& out) {
    unsigned code = 0, nv = 0;
    vtk_kind(t, code, nv);
    expected_cell main{code, std::vector<unsigned>(c, c + nv)};
    if (code == 10) std::swap(main.ids[2], main.ids[3]);  // VTK's tetrahedra turn the other way
    out.push_back(main);
    if (rows > nv) out.push_back({2, std::vector<unsigned>(c + nv, c + rows)});
}

// Cells of a mixed matrix: columns by decreasing node count, column order kept.
void expect_mixed(bool solid, const dense2D<unsigned>& m, std::vector<expected_cell>& out) {
    std::vector<std::pair<unsigned, std::size_t>> order;
    for (std::size_t j = 0; j < m.cols(); ++j) {
        unsigned k = 0;
        while (k < m.rows() && m(k, j) != N) ++k;
        order.push_back({static_cast<unsigned>(m.rows()) - k, j});
    }
    std::stable_sort(order.begin(), order.end());
    for (const auto& o : order) {
        const unsigned k = static_cast<unsigned>(m.rows()) - o.first;
        element_type t = EL_NONE;
        if (solid) t = k == 8 ? EL_HEXA8 : k == 6 ? EL_WEDGE6 : k == 5 ? EL_PYRAMID5 : EL_TETRA4;
        else t = k == 4 ? EL_QUAD4 : EL_TRIA3;
        expect_column(t, m.col(o.second), k, out);
    }
}

void expect_matrix(element_type t, const dense2D<unsigned>& m, std::vector<expected_cell>& out) {
    if (t == EL_FACE_ANY || t == EL_SOLID_ANY) return expect_mixed(t == EL_SOLID_ANY, m, out);
    for (std::size_t j = 0; j < m.cols(); ++j) expect_column(t, m.col(j), static_cast<unsigned>(m.rows()), out);
}

bool write_manifest(FILE* f, const std::string& name, bool oriented, const dense2D<double>& pos,
                    const std::vector<expected_cell>& cells) {
    std::fprintf(f, "file %s\noriented %d\npoints %zu\n", name.c_str(), oriented ? 1 : 0, pos.cols());
    for (std::size_t j = 0; j < pos.cols(); ++j)
        std::fprintf(f, "p %.9g %.9g %.9g\n", pos(0, j), pos(1, j), pos.rows() == 3 ? pos(2, j) : 0.0);
    std::fprintf(f, "cells %zu\n", cells.size());
    for (const expected_cell& c : cells) {
        std::fprintf(f, "c %u", c.type);
        for (unsigned id : c.ids) std::fprintf(f, " %u", id);
        std::fprintf(f, "\n");
    }
    return std::fprintf(f, "end\n") > 0;
}

struct job {
    std::string name;
    dense2D<double> pos;
    std::vector<dense2D<unsigned>> matrices;
    std::vector<element_type> types;
    bool oriented = true;  // elements in the library's positive orientation
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    std::vector<job> jobs;
    auto add = [&](const std::string& name, const nodara_test::mesh& m) {
        jobs.push_back({name, m.pos, {m.connect}, {m.type}});
    };
    add("edges_2d", nodara_test::edge_mesh(4));
    add("triangles_2d", nodara_test::tria_mesh(3, 2));
    add("quadrangles_2d", nodara_test::quad_mesh(3, 2));
    add("mixed_faces_2d", nodara_test::mixed_face_mesh(3, 3));
    add("tetrahedra", nodara_test::tetra_mesh(2, 2, 1));
    add("pyramids", nodara_test::pyramid_mesh(2, 1, 1));
    add("wedges", nodara_test::wedge_mesh(2, 2, 1));
    add("hexahedra", nodara_test::hexa_mesh(2, 2, 2));

    // Mixed solids and faces on the same nodes (the two-matrix form).
    {
        const nodara_test::mesh solids = nodara_test::mixed_solid_mesh(3, 2, 2);
        // Faces: the bottom quadrangles of the first cells, and triangles splitting others.
        dense2D<unsigned> faces(4, 0);
        const unsigned nx = 3;
        for (unsigned i = 0; i < nx; ++i) {
            const unsigned a = i, b = i + 1, c = i + 1 + (nx + 1), d = i + (nx + 1);
            const std::size_t j = faces.cols();
            faces.resize(4, j + (i % 2 ? 2 : 1));
            if (i % 2 == 0) {
                faces(0, j) = a; faces(1, j) = b; faces(2, j) = c; faces(3, j) = d;
            } else {
                faces(0, j) = a; faces(1, j) = b; faces(2, j) = c; faces(3, j) = N;
                faces(0, j + 1) = a; faces(1, j + 1) = c; faces(2, j + 1) = d; faces(3, j + 1) = N;
            }
        }
        jobs.push_back({"mixed_solids_and_faces", solids.pos, {solids.connect, faces}, {EL_SOLID_ANY, EL_FACE_ANY}});
    }

    // One element of every higher-order kind, on 27 scattered nodes.
    {
        dense2D<double> pos(3, 27);
        unsigned seed = 12345;
        for (std::size_t j = 0; j < 27; ++j)
            for (std::size_t r = 0; r < 3; ++r) {
                seed = seed * 1103515245u + 12345u;
                pos(r, j) = static_cast<double>((seed >> 8) % 20001) / 1000.0 - 10.0;
            }
        job q{"higher_order", pos, {}, {}, false};
        for (element_type t : {EL_EDGE3, EL_TRIA6, EL_QUAD8, EL_QUAD9, EL_TETRA10, EL_PYRAMID14, EL_WEDGE18,
                               EL_HEXA20, EL_HEXA27}) {
            const unsigned n = nbr_nodes(t);
            dense2D<unsigned> m(n, 2);
            for (unsigned i = 0; i < n; ++i) {
                m(i, 0) = i;
                m(i, 1) = 26 - i;
            }
            q.matrices.push_back(m);
            q.types.push_back(t);
        }
        jobs.push_back(q);
    }

    const std::string manifest_path = dir + "/manifest.txt";
    FILE* manifest = std::fopen(manifest_path.c_str(), "w");
    if (!manifest) {
        std::fprintf(stderr, "%s: cannot be created\n", manifest_path.c_str());
        return 1;
    }
    int failures = 0;
    for (const job& j : jobs) {
        const std::string path = dir + "/" + j.name + ".vtk";
        dense1D<int> types;
        std::vector<expected_cell> cells;
        for (std::size_t i = 0; i < j.types.size(); ++i) {
            types.push_back(j.types[i]);
            expect_matrix(j.types[i], j.matrices[i], cells);
        }
        const int status =
            vtk_output(path.c_str(), j.pos, j.matrices.data(), j.matrices.data() + j.matrices.size(), types);
        if (status != 0) {
            std::fprintf(stderr, "%s: vtk_output status %d\n", path.c_str(), status);
            ++failures;
            continue;
        }
        write_manifest(manifest, j.name + ".vtk", j.oriented, j.pos, cells);
    }
    if (std::fclose(manifest) != 0) ++failures;
    return failures ? 1 : 0;
}
