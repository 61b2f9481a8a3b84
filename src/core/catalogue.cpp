#include <zq5/nodara/core.h>

namespace zq5 {
namespace nodara {

namespace {

struct catalogue_row {
    unsigned char dim, nodes, base_nodes, boundaries;
};

// Indexed by element_type.
constexpr catalogue_row catalogue[23] = {
    {0, 0, 0, 0},   // EL_NONE
    {0, 1, 1, 0},   // EL_NODE
    {1, 2, 2, 2},   // EL_EDGE_ANY
    {1, 2, 2, 2},   // EL_EDGE2
    {1, 3, 2, 2},   // EL_EDGE3
    {2, 4, 4, 4},   // EL_FACE_ANY
    {2, 3, 3, 3},   // EL_TRIA3
    {2, 4, 4, 4},   // EL_QUAD4
    {2, 6, 3, 3},   // EL_TRIA6
    {2, 8, 4, 4},   // EL_QUAD8
    {2, 9, 4, 4},   // EL_QUAD9
    {3, 8, 8, 6},   // EL_SOLID_ANY
    {3, 4, 4, 4},   // EL_TETRA4
    {3, 10, 4, 4},  // EL_TETRA10
    {3, 5, 5, 5},   // EL_PYRAMID5
    {3, 13, 5, 5},  // EL_PYRAMID13
    {3, 14, 5, 5},  // EL_PYRAMID14
    {3, 6, 6, 5},   // EL_WEDGE6
    {3, 15, 6, 5},  // EL_WEDGE15
    {3, 18, 6, 5},  // EL_WEDGE18
    {3, 8, 8, 6},   // EL_HEXA8
    {3, 20, 8, 6},  // EL_HEXA20
    {3, 27, 8, 6},  // EL_HEXA27
};

const catalogue_row* row(element_type FE) noexcept {
    const int k = static_cast<int>(FE);
    return (k >= 0 && k < 23) ? &catalogue[k] : nullptr;
}

constexpr char version_string[] = "5.0.0.0";

}  // namespace

unsigned element_dim(element_type FE) noexcept {
    const catalogue_row* r = row(FE);
    return r ? r->dim : 0u;
}
unsigned nbr_nodes(element_type FE) noexcept {
    const catalogue_row* r = row(FE);
    return r ? r->nodes : 0u;
}
unsigned nbr_base_nodes(element_type FE) noexcept {
    const catalogue_row* r = row(FE);
    return r ? r->base_nodes : 0u;
}
unsigned nbr_boundaries(element_type FE) noexcept {
    const catalogue_row* r = row(FE);
    return r ? r->boundaries : 0u;
}
const char* version() noexcept { return version_string; }

}  // namespace nodara
}  // namespace zq5
