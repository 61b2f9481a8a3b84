#include "report.h"

namespace nodara_cli {

using namespace zq5;
using namespace zq5::nodara;

const char* type_name(element_type type) {
    switch (type) {
        case EL_NODE: return "nodes";
        case EL_EDGE_ANY: case EL_EDGE2: return "edges";
        case EL_EDGE3: return "quadratic edges";
        case EL_FACE_ANY: return "triangles and quadrangles";
        case EL_TRIA3: return "triangles";
        case EL_QUAD4: return "quadrangles";
        case EL_TRIA6: return "quadratic triangles";
        case EL_QUAD8: return "8-node quadrangles";
        case EL_QUAD9: return "9-node quadrangles";
        case EL_SOLID_ANY: return "mixed solids";
        case EL_TETRA4: return "tetrahedra";
        case EL_TETRA10: return "quadratic tetrahedra";
        case EL_PYRAMID5: return "pyramids";
        case EL_PYRAMID13: return "13-node pyramids";
        case EL_PYRAMID14: return "14-node pyramids";
        case EL_WEDGE6: return "wedges";
        case EL_WEDGE15: return "15-node wedges";
        case EL_WEDGE18: return "18-node wedges";
        case EL_HEXA8: return "hexahedra";
        case EL_HEXA20: return "20-node hexahedra";
        case EL_HEXA27: return "27-node hexahedra";
        default: return "elements";
    }
}

namespace {

bool fail(failure& why, int status, const char* what) {
    why.status = status;
    why.message = what;
    return false;
}

bool summarize_block(const block& b, block_summary& bs, failure& why) {
    bs.type = b.type;
    bs.elements = b.connect.cols();
    dense1D<unsigned> used;
    if (unique_indices(used, b.connect, dense1D<unsigned>()) < 0) return fail(why, -199, "out of memory");
    bs.nodes_used = used.size();

    dense2D<unsigned> edges;
    const int e = copy_edges(b.connect, b.type, edges);
    if (e < 0) return fail(why, e, "the element list is invalid (edge extraction failed)");
    bs.edges = edges.cols();

    dense2D<unsigned> strict, linked;
    int status = get_neighbors(b.connect, b.type, false, strict);
    if (status == -2) return true;  // a kind without neighbour search: no topology figures
    if (status < 0) return fail(why, status, "the element list is invalid (neighbour search failed)");
    status = get_neighbors(b.connect, b.type, true, linked);
    if (status < 0) return fail(why, status, "neighbour search failed");
    bs.topology = true;
    for (std::size_t j = 0; j < strict.cols(); ++j)
        for (std::size_t i = 0; i < strict.rows(); ++i)
            if (strict(i, j) == NULL_INDEX && linked(i, j) != NULL_INDEX) ++bs.nonmanifold;

    dense2D<unsigned> skin;
    status = get_mesh_boundaries(b.connect, linked, b.type, skin);
    if (status < 0) return fail(why, status, "boundary extraction failed");
    bs.skin = skin.cols();

    dense1D<unsigned> order, offsets;
    status = get_subdomains(linked, order, offsets);
    if (status < 0) return fail(why, status, "sub-domain search failed");
    bs.pieces = offsets.size() ? offsets.size() - 1 : 0;
    return true;
}

}  // namespace

bool summarize(const mesh& m, summary& s, failure& why) {
    s = summary();
    s.nodes = m.pos.cols();
    s.dimension = m.pos.rows();
    if (s.dimension == 2 || s.dimension == 3) {
        for (std::size_t k = 0; k < s.dimension; ++k) {
            s.lo[k] = s.nodes ? m.pos(k, 0) : 0.0;
            s.hi[k] = s.lo[k];
        }
        if (s.dimension == 3) {
            vector_fixed<double, 3> lo{s.lo[0], s.lo[1], s.lo[2]}, hi{s.hi[0], s.hi[1], s.hi[2]};
            inc_bounding_box(m.pos, lo, hi);
            for (int k = 0; k < 3; ++k) s.lo[k] = lo[k], s.hi[k] = hi[k];
        } else {
            vector_fixed<double, 2> lo{s.lo[0], s.lo[1]}, hi{s.hi[0], s.hi[1]};
            inc_bounding_box(m.pos, lo, hi);
            for (int k = 0; k < 2; ++k) s.lo[k] = lo[k], s.hi[k] = hi[k];
        }
        if (s.nodes) {
            dense1D<unsigned> all(s.nodes), new_ids;
            for (std::size_t i = 0; i < s.nodes; ++i) all[i] = static_cast<unsigned>(i);
            const int merged = merge(m.pos, all, new_ids, 0.0);
            if (merged < 0) return fail(why, merged, "duplicate-node search failed");
            for (std::size_t i = 0; i < new_ids.size(); ++i)
                if (new_ids[i] != i) ++s.duplicate_nodes;
        }
    }
    for (const block& b : m.blocks) {
        block_summary bs;
        if (!summarize_block(b, bs, why)) return false;
        s.blocks.push_back(bs);
    }
    return true;
}

void print_summary(std::FILE* out, const summary& s) {
    std::fprintf(out, "nodes:            %zu (%zu-D)\n", s.nodes, s.dimension);
    for (const block_summary& b : s.blocks) std::fprintf(out, "elements:         %zu %s\n", b.elements, type_name(b.type));
    if (s.dimension == 3)
        std::fprintf(out, "bounding box:     [%g, %g] x [%g, %g] x [%g, %g]\n", s.lo[0], s.hi[0], s.lo[1], s.hi[1],
                     s.lo[2], s.hi[2]);
    else if (s.dimension == 2)
        std::fprintf(out, "bounding box:     [%g, %g] x [%g, %g]\n", s.lo[0], s.hi[0], s.lo[1], s.hi[1]);
    std::fprintf(out, "duplicate nodes:  %zu\n", s.duplicate_nodes);
    for (const block_summary& b : s.blocks) {
        const char* what = type_name(b.type);
        std::fprintf(out, "%s:\n", what);
        std::fprintf(out, "  edges:          %zu\n", b.edges);
        if (!b.topology) {
            std::fprintf(out, "  (no neighbour search for this element kind)\n");
            continue;
        }
        const unsigned dim = element_dim(b.type);
        const char* skin = dim == 3 ? "boundary faces" : dim == 2 ? "free edges" : "free ends";
        std::fprintf(out, "  connected pieces: %zu\n", b.pieces);
        std::fprintf(out, "  %-15s %zu%s\n", (std::string(skin) + ":").c_str(), b.skin,
                     dim == 2 && b.skin == 0 ? " (closed surface)" : "");
        std::fprintf(out, "  non-manifold:   %zu element sides shared by more than two elements\n", b.nonmanifold);
        if (dim == 2 && b.skin == 0 && b.nonmanifold == 0) {
            const long long chi = static_cast<long long>(b.nodes_used) - static_cast<long long>(b.edges) +
                                  static_cast<long long>(b.elements);
            std::fprintf(out, "  Euler characteristic: %lld", chi);
            if (b.pieces == 1 && chi <= 2 && chi % 2 == 0) std::fprintf(out, " (genus %lld)", (2 - chi) / 2);
            std::fprintf(out, "\n");
        }
    }
}

}  // namespace nodara_cli
