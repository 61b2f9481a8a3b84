#include "common/meshes.h"

#include <map>
#include <tuple>
#include <vector>

namespace nodara_test {

using namespace zq5::nodara;

namespace {

unsigned node2(unsigned nx, unsigned i, unsigned j) { return i + (nx + 1) * j; }
unsigned node3(unsigned nx, unsigned ny, unsigned i, unsigned j, unsigned k) {
    return i + (nx + 1) * (j + (ny + 1) * k);
}

void append(std::vector<unsigned>& v, std::initializer_list<unsigned> nodes, std::size_t rows) {
    std::size_t n = 0;
    for (unsigned x : nodes) {
        v.push_back(x);
        ++n;
    }
    for (; n < rows; ++n) v.push_back(zq5::NULL_INDEX);
}

dense2D<unsigned> to_matrix(const std::vector<unsigned>& v, std::size_t rows) {
    dense2D<unsigned> m(rows, v.size() / rows);
    for (std::size_t k = 0; k < v.size(); ++k) m(k % rows, k / rows) = v[k];
    return m;
}

// The eight corners of cell (i, j, k) in hexahedron order.
void cell_corners(unsigned nx, unsigned ny, unsigned i, unsigned j, unsigned k, unsigned c[8]) {
    c[0] = node3(nx, ny, i, j, k);
    c[1] = node3(nx, ny, i + 1, j, k);
    c[2] = node3(nx, ny, i + 1, j + 1, k);
    c[3] = node3(nx, ny, i, j + 1, k);
    c[4] = node3(nx, ny, i, j, k + 1);
    c[5] = node3(nx, ny, i + 1, j, k + 1);
    c[6] = node3(nx, ny, i + 1, j + 1, k + 1);
    c[7] = node3(nx, ny, i, j + 1, k + 1);
}

double tet_volume6(const dense2D<double>& p, unsigned a, unsigned b, unsigned c, unsigned d) {
    double u[3], v[3], w[3];
    for (int r = 0; r < 3; ++r) {
        u[r] = p(r, b) - p(r, a);
        v[r] = p(r, c) - p(r, a);
        w[r] = p(r, d) - p(r, a);
    }
    return u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) + u[2] * (v[0] * w[1] - v[1] * w[0]);
}

void add_wedges(std::vector<unsigned>& v, const unsigned c[8], std::size_t rows) {
    append(v, {c[0], c[1], c[2], c[4], c[5], c[6]}, rows);
    append(v, {c[0], c[2], c[3], c[4], c[6], c[7]}, rows);
}

// Six pyramids on the faces of a cell, apex at `centre`; bases turn so that their
// right-hand normal points into the cell (towards the apex).
void add_pyramids(std::vector<unsigned>& v, const unsigned c[8], unsigned centre, std::size_t rows) {
    static const unsigned char faces[6][4] = {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1},
                                              {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}};
    for (const auto& f : faces) append(v, {c[f[0]], c[f[1]], c[f[2]], c[f[3]], centre}, rows);
}

unsigned add_centre(std::vector<double>& extra, unsigned first_extra, unsigned i, unsigned j, unsigned k) {
    extra.push_back(i + 0.5);
    extra.push_back(j + 0.5);
    extra.push_back(k + 0.5);
    return first_extra + static_cast<unsigned>(extra.size() / 3) - 1;
}

dense2D<double> with_extra_nodes(const dense2D<double>& pos, const std::vector<double>& extra) {
    dense2D<double> out(3, pos.cols() + extra.size() / 3);
    for (std::size_t j = 0; j < pos.cols(); ++j)
        for (int r = 0; r < 3; ++r) out(r, j) = pos(r, j);
    for (std::size_t e = 0; e < extra.size(); ++e) out(e % 3, pos.cols() + e / 3) = extra[e];
    return out;
}

}  // namespace

dense2D<double> grid_nodes_2d(unsigned nx, unsigned ny) {
    dense2D<double> pos(2, (nx + 1) * (ny + 1));
    for (unsigned j = 0; j <= ny; ++j)
        for (unsigned i = 0; i <= nx; ++i) {
            pos(0, node2(nx, i, j)) = i;
            pos(1, node2(nx, i, j)) = j;
        }
    return pos;
}

dense2D<double> grid_nodes_3d(unsigned nx, unsigned ny, unsigned nz) {
    dense2D<double> pos(3, (nx + 1) * (ny + 1) * (nz + 1));
    for (unsigned k = 0; k <= nz; ++k)
        for (unsigned j = 0; j <= ny; ++j)
            for (unsigned i = 0; i <= nx; ++i) {
                const unsigned n = node3(nx, ny, i, j, k);
                pos(0, n) = i;
                pos(1, n) = j;
                pos(2, n) = k;
            }
    return pos;
}

mesh edge_mesh(unsigned nx) {
    mesh m;
    m.pos = grid_nodes_2d(nx, 0);
    std::vector<unsigned> v;
    for (unsigned i = 0; i < nx; ++i) append(v, {i, i + 1}, 2);
    m.connect = to_matrix(v, 2);
    m.type = EL_EDGE2;
    return m;
}

mesh quad_mesh(unsigned nx, unsigned ny) {
    mesh m;
    m.pos = grid_nodes_2d(nx, ny);
    std::vector<unsigned> v;
    for (unsigned j = 0; j < ny; ++j)
        for (unsigned i = 0; i < nx; ++i)
            append(v, {node2(nx, i, j), node2(nx, i + 1, j), node2(nx, i + 1, j + 1), node2(nx, i, j + 1)}, 4);
    m.connect = to_matrix(v, 4);
    m.type = EL_QUAD4;
    return m;
}

mesh tria_mesh(unsigned nx, unsigned ny) {
    mesh m;
    m.pos = grid_nodes_2d(nx, ny);
    std::vector<unsigned> v;
    for (unsigned j = 0; j < ny; ++j)
        for (unsigned i = 0; i < nx; ++i) {
            const unsigned a = node2(nx, i, j), b = node2(nx, i + 1, j), c = node2(nx, i + 1, j + 1),
                           d = node2(nx, i, j + 1);
            append(v, {a, b, c}, 3);
            append(v, {a, c, d}, 3);
        }
    m.connect = to_matrix(v, 3);
    m.type = EL_TRIA3;
    return m;
}

mesh mixed_face_mesh(unsigned nx, unsigned ny) {
    mesh m;
    m.pos = grid_nodes_2d(nx, ny);
    std::vector<unsigned> v;
    for (unsigned j = 0; j < ny; ++j)
        for (unsigned i = 0; i < nx; ++i) {
            const unsigned a = node2(nx, i, j), b = node2(nx, i + 1, j), c = node2(nx, i + 1, j + 1),
                           d = node2(nx, i, j + 1);
            if ((i + j) % 2 == 0) {
                append(v, {a, b, c, d}, 4);
            } else {
                append(v, {a, b, c}, 4);
                append(v, {a, c, d}, 4);
            }
        }
    m.connect = to_matrix(v, 4);
    m.type = EL_FACE_ANY;
    return m;
}

mesh hexa_mesh(unsigned nx, unsigned ny, unsigned nz) {
    mesh m;
    m.pos = grid_nodes_3d(nx, ny, nz);
    std::vector<unsigned> v;
    unsigned c[8];
    for (unsigned k = 0; k < nz; ++k)
        for (unsigned j = 0; j < ny; ++j)
            for (unsigned i = 0; i < nx; ++i) {
                cell_corners(nx, ny, i, j, k, c);
                append(v, {c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]}, 8);
            }
    m.connect = to_matrix(v, 8);
    m.type = EL_HEXA8;
    return m;
}

mesh tetra_mesh(unsigned nx, unsigned ny, unsigned nz) {
    mesh m;
    m.pos = grid_nodes_3d(nx, ny, nz);
    std::vector<unsigned> v;
    // Corner of the cell reached by the bits (x, y, z) -> hexahedron corner number.
    static const unsigned char corner_of_bits[8] = {0, 1, 3, 2, 4, 5, 7, 6};
    static const unsigned char axes[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
    unsigned c[8];
    for (unsigned k = 0; k < nz; ++k)
        for (unsigned j = 0; j < ny; ++j)
            for (unsigned i = 0; i < nx; ++i) {
                cell_corners(nx, ny, i, j, k, c);
                for (const auto& p : axes) {
                    unsigned bits = 0, t[4];
                    t[0] = c[corner_of_bits[0]];
                    for (int s = 0; s < 3; ++s) {
                        bits |= 1u << p[s];
                        t[s + 1] = c[corner_of_bits[bits]];
                    }
                    if (tet_volume6(m.pos, t[0], t[1], t[2], t[3]) > 0) std::swap(t[1], t[2]);
                    append(v, {t[0], t[1], t[2], t[3]}, 4);
                }
            }
    m.connect = to_matrix(v, 4);
    m.type = EL_TETRA4;
    return m;
}

mesh wedge_mesh(unsigned nx, unsigned ny, unsigned nz) {
    mesh m;
    m.pos = grid_nodes_3d(nx, ny, nz);
    std::vector<unsigned> v;
    unsigned c[8];
    for (unsigned k = 0; k < nz; ++k)
        for (unsigned j = 0; j < ny; ++j)
            for (unsigned i = 0; i < nx; ++i) {
                cell_corners(nx, ny, i, j, k, c);
                add_wedges(v, c, 6);
            }
    m.connect = to_matrix(v, 6);
    m.type = EL_WEDGE6;
    return m;
}

mesh pyramid_mesh(unsigned nx, unsigned ny, unsigned nz) {
    mesh m;
    dense2D<double> grid = grid_nodes_3d(nx, ny, nz);
    std::vector<unsigned> v;
    std::vector<double> extra;
    unsigned c[8];
    const unsigned first_extra = static_cast<unsigned>(grid.cols());
    for (unsigned k = 0; k < nz; ++k)
        for (unsigned j = 0; j < ny; ++j)
            for (unsigned i = 0; i < nx; ++i) {
                cell_corners(nx, ny, i, j, k, c);
                add_pyramids(v, c, add_centre(extra, first_extra, i, j, k), 5);
            }
    m.pos = with_extra_nodes(grid, extra);
    m.connect = to_matrix(v, 5);
    m.type = EL_PYRAMID5;
    return m;
}

mesh mixed_solid_mesh(unsigned nx, unsigned ny, unsigned nz) {
    mesh m;
    dense2D<double> grid = grid_nodes_3d(nx, ny, nz);
    std::vector<unsigned> v;
    std::vector<double> extra;
    unsigned c[8];
    const unsigned first_extra = static_cast<unsigned>(grid.cols());
    for (unsigned k = 0; k < nz; ++k)
        for (unsigned j = 0; j < ny; ++j)
            for (unsigned i = 0; i < nx; ++i) {
                cell_corners(nx, ny, i, j, k, c);
                switch ((i + j) % 3) {
                    case 0: append(v, {c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]}, 8); break;
                    case 1: add_wedges(v, c, 8); break;
                    default: add_pyramids(v, c, add_centre(extra, first_extra, i, j, k), 8); break;
                }
            }
    m.pos = with_extra_nodes(grid, extra);
    m.connect = to_matrix(v, 8);
    m.type = EL_SOLID_ANY;
    return m;
}

mesh cube_surface(unsigned n) {
    // Nodes of the cube's skin, numbered on first use.
    std::map<std::tuple<unsigned, unsigned, unsigned>, unsigned> ids;
    std::vector<double> xyz;
    auto id = [&](unsigned x, unsigned y, unsigned z) {
        auto it = ids.find({x, y, z});
        if (it != ids.end()) return it->second;
        const unsigned k = static_cast<unsigned>(ids.size());
        ids[{x, y, z}] = k;
        xyz.push_back(x);
        xyz.push_back(y);
        xyz.push_back(z);
        return k;
    };
    std::vector<unsigned> v;
    // For each axis and side: a grid of n x n squares; (u, w) span the face so that
    // u x w points outward.
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side)
            for (unsigned a = 0; a < n; ++a)
                for (unsigned b = 0; b < n; ++b) {
                    unsigned q[4][3];
                    const unsigned du[4] = {0, 1, 1, 0}, dw[4] = {0, 0, 1, 1};
                    for (int t = 0; t < 4; ++t) {
                        const int u = (axis + 1) % 3, w = (axis + 2) % 3;
                        q[t][axis] = side ? n : 0;
                        q[t][u] = a + du[t];
                        q[t][w] = b + dw[t];
                    }
                    unsigned p[4];
                    for (int t = 0; t < 4; ++t) p[t] = id(q[t][0], q[t][1], q[t][2]);
                    if (side) {
                        append(v, {p[0], p[1], p[2]}, 3);
                        append(v, {p[0], p[2], p[3]}, 3);
                    } else {
                        append(v, {p[0], p[2], p[1]}, 3);
                        append(v, {p[0], p[3], p[2]}, 3);
                    }
                }
    mesh m;
    m.pos = dense2D<double>(3, xyz.size() / 3);
    for (std::size_t e = 0; e < xyz.size(); ++e) m.pos(e % 3, e / 3) = xyz[e];
    m.connect = to_matrix(v, 3);
    m.type = EL_TRIA3;
    return m;
}

}  // namespace nodara_test
