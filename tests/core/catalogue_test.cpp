#include <zq5/nodara.h>

#include <gtest/gtest.h>

using namespace zq5::nodara;

namespace {

struct catalogue_entry {
    element_type type;
    unsigned dim, nodes, base_nodes, boundaries;
};

// The whole table, row by row.
const catalogue_entry kCatalogue[] = {
    {EL_NONE, 0, 0, 0, 0},      {EL_NODE, 0, 1, 1, 0},        {EL_EDGE_ANY, 1, 2, 2, 2},
    {EL_EDGE2, 1, 2, 2, 2},     {EL_EDGE3, 1, 3, 2, 2},       {EL_FACE_ANY, 2, 4, 4, 4},
    {EL_TRIA3, 2, 3, 3, 3},     {EL_QUAD4, 2, 4, 4, 4},       {EL_TRIA6, 2, 6, 3, 3},
    {EL_QUAD8, 2, 8, 4, 4},     {EL_QUAD9, 2, 9, 4, 4},       {EL_SOLID_ANY, 3, 8, 8, 6},
    {EL_TETRA4, 3, 4, 4, 4},    {EL_TETRA10, 3, 10, 4, 4},    {EL_PYRAMID5, 3, 5, 5, 5},
    {EL_PYRAMID13, 3, 13, 5, 5}, {EL_PYRAMID14, 3, 14, 5, 5}, {EL_WEDGE6, 3, 6, 6, 5},
    {EL_WEDGE15, 3, 15, 6, 5},  {EL_WEDGE18, 3, 18, 6, 5},    {EL_HEXA8, 3, 8, 8, 6},
    {EL_HEXA20, 3, 20, 8, 6},   {EL_HEXA27, 3, 27, 8, 6},
};

TEST(Catalogue, EveryTypeAnswersItsRow) {
    int expected_value = 0;
    for (const catalogue_entry& e : kCatalogue) {
        SCOPED_TRACE(static_cast<int>(e.type));
        EXPECT_EQ(static_cast<int>(e.type), expected_value++);
        EXPECT_EQ(element_dim(e.type), e.dim);
        EXPECT_EQ(nbr_nodes(e.type), e.nodes);
        EXPECT_EQ(nbr_base_nodes(e.type), e.base_nodes);
        EXPECT_EQ(nbr_boundaries(e.type), e.boundaries);
    }
    EXPECT_EQ(expected_value, 23);
}

TEST(Catalogue, ValuesOutsideTheTableGiveZeroAndVersionIsOneStaticString) {
    for (int v : {23, 31}) {  // beyond the table, inside the range of the enumeration
        const element_type t = static_cast<element_type>(v);
        EXPECT_EQ(element_dim(t) + nbr_nodes(t) + nbr_base_nodes(t) + nbr_boundaries(t), 0u) << v;
    }
    const char* v = version();
    EXPECT_STREQ(v, "5.0.0.0");
    EXPECT_EQ(v, version());
}

}  // namespace
