// A first look at nodara: build a small mesh in the library's arrays and ask the
// index utilities about it.
#include <zq5/nodara.h>

#include <cstdio>

using namespace zq5;
using namespace zq5::nodara;

int main() {
    // Two triangles of a unit square: coordinates one column per node,
    // connectivity one column per element.
    dense2D<double> pos(2, 4, {0., 0., 1., 0., 1., 1., 0., 1.});
    dense2D<unsigned> tria(3, 2, {0, 1, 2, 0, 2, 3});

    std::printf("nodara %s\n", version());
    std::printf("%zu nodes, %zu %s of %u nodes each\n", pos.cols(), tria.cols(), "triangles", nbr_nodes(EL_TRIA3));

    if (!check_IDs(tria, EL_TRIA3, static_cast<unsigned>(pos.cols()))) {
        std::printf("invalid connectivity\n");
        return 1;
    }

    dense1D<unsigned> used;
    unique_indices(used, tria, dense1D<unsigned>());
    std::printf("nodes used, in order of appearance:");
    for (unsigned v : used) std::printf(" %u", v);
    std::printf("\n");

    vector_fixed<double, 2> lo{1e300, 1e300}, hi{-1e300, -1e300};
    if (inc_bounding_box(pos, tria, lo, hi) != 0) return 1;
    std::printf("bounding box: [%g, %g] x [%g, %g]\n", lo[0], hi[0], lo[1], hi[1]);
    return 0;
}
