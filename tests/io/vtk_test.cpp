// vtk_convert and vtk_output: cell lists, exact file bytes, the split of mixed
// matrices, statuses in order, allocation failure.
#include "common/fault_injection.h"
#include "common/meshes.h"
#include "common/values.h"
#include "io/io_helpers.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_io_test;

namespace {

constexpr unsigned N = zq5::NULL_INDEX;

using nodara_test::values_of;

// The text from "CELLS" to the end of the file.
std::string cells_section(const std::string& file) { return file.substr(file.find("CELLS")); }

// ---------------------------------------------------------------------------
// vtk_convert.

TEST(VtkConvert, EveryAcceptedKindAppendsItsCells) {
    // The library's tetrahedra turn the other way: 4, then nodes 0, 1, 3, 2; the
    // extra nodes follow in a poly-vertex cell.
    dense2D<unsigned> tet10(10, 1);
    for (unsigned i = 0; i < 10; ++i) tet10(i, 0) = 100 + i;
    unsigned nbr_cells = 0;
    dense1D<unsigned> cells, types;
    ASSERT_EQ(vtk_convert(tet10, EL_TETRA10, nbr_cells, cells, types), 0);
    EXPECT_EQ(nbr_cells, 2u);
    EXPECT_EQ(values_of(types), (std::vector<unsigned>{10, 2}));
    EXPECT_EQ(values_of(cells), (std::vector<unsigned>{4, 100, 101, 103, 102, 6, 104, 105, 106, 107, 108, 109}));

    const struct {
        element_type type;
        unsigned vertices, code;
    } kinds[] = {{EL_EDGE2, 2, 3},      {EL_EDGE3, 2, 3},     {EL_TRIA3, 3, 5},    {EL_TRIA6, 3, 5},
                 {EL_QUAD4, 4, 9},      {EL_QUAD8, 4, 9},     {EL_QUAD9, 4, 9},    {EL_TETRA4, 4, 10},
                 {EL_TETRA10, 4, 10},   {EL_PYRAMID5, 5, 14}, {EL_PYRAMID14, 5, 14}, {EL_WEDGE6, 6, 13},
                 {EL_WEDGE18, 6, 13},   {EL_HEXA8, 8, 12},    {EL_HEXA20, 8, 12},  {EL_HEXA27, 8, 12}};
    for (const auto& k : kinds) {
        SCOPED_TRACE(k.type);
        const unsigned n = nbr_nodes(k.type);
        dense2D<unsigned> m(n, 2);
        std::vector<unsigned> expected_cells{42}, expected_types{7};  // appended to, not cleared
        for (unsigned j = 0; j < 2; ++j) {
            for (unsigned i = 0; i < n; ++i) m(i, j) = 10 * j + i;
            expected_cells.push_back(k.vertices);
            for (unsigned i = 0; i < k.vertices; ++i) expected_cells.push_back(10 * j + i);
            if (k.code == 10) std::swap(*(expected_cells.end() - 1), *(expected_cells.end() - 2));
            expected_types.push_back(k.code);
            if (n == k.vertices) continue;
            expected_cells.push_back(n - k.vertices);
            for (unsigned i = k.vertices; i < n; ++i) expected_cells.push_back(10 * j + i);
            expected_types.push_back(2);
        }
        nbr_cells = 3;
        cells = dense1D<unsigned>{42};
        types = dense1D<unsigned>{7};
        ASSERT_EQ(vtk_convert(m, k.type, nbr_cells, cells, types), 0);
        EXPECT_EQ(nbr_cells, 3 + expected_types.size() - 1);
        EXPECT_EQ(values_of(cells), expected_cells);
        EXPECT_EQ(values_of(types), expected_types);
    }
}

TEST(VtkConvert, StatusesInOrderAndNothingAppendedOnError) {
    unsigned nbr_cells = 1;
    dense1D<unsigned> cells{9}, types{9};
    auto call = [&](const dense2D<unsigned>& m, element_type t) {
        const int r = vtk_convert(m, t, nbr_cells, cells, types);
        EXPECT_TRUE(nbr_cells == 1 && cells.size() == 1 && types.size() == 1);
        return r;
    };
    // -1: check_IDs fails (NULL_INDEX, or rows that are not the type's, even 6 rows
    // of EL_TRIA3, which the index check refuses before rows are compared).
    EXPECT_EQ(call(columns(3, {0, N, 2}), EL_TRIA3), -1);
    EXPECT_EQ(call(dense2D<unsigned>(6, 1, 0u), EL_TRIA3), -1);
    EXPECT_EQ(call(dense2D<unsigned>(2, 1, 0u), EL_TETRA4), -1);
    // -2: kinds the writer refuses, whose rows pass the index check.
    EXPECT_EQ(call(dense2D<unsigned>(13, 1, 0u), EL_PYRAMID13), -2);
    EXPECT_EQ(call(dense2D<unsigned>(15, 1, 0u), EL_WEDGE15), -2);
    EXPECT_EQ(call(dense2D<unsigned>(2, 1, 0u), EL_EDGE_ANY), -2);
    EXPECT_EQ(call(columns(4, {0, 1, 2, N}), EL_FACE_ANY), -2);
    EXPECT_EQ(call(dense2D<unsigned>(8, 1, 0u), EL_SOLID_ANY), -2);
    EXPECT_EQ(call(dense2D<unsigned>(1, 1, 0u), EL_NODE), -2);
    EXPECT_EQ(call(dense2D<unsigned>(), EL_NONE), -2);
    // An empty matrix of an accepted kind appends nothing.
    EXPECT_EQ(call(dense2D<unsigned>(3, 0), EL_TRIA3), 0);
}

TEST(VtkConvert, AllocationFailureLeavesTheListsAsTheyWere) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::tetra_mesh(2, 2, 2);
    unsigned nbr_cells = 0;
    dense1D<unsigned> cells, types;
    int final_result = 1;
    nodara_test::for_each_allocation_failure(
        [&] {
            nbr_cells = 1;
            cells = dense1D<unsigned>{5, 0, 1, 2, 3, 4};
            types = dense1D<unsigned>{2};
        },
        [&] { return vtk_convert(m.connect, EL_TETRA4, nbr_cells, cells, types); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_TRUE(nbr_cells == 1 && cells.size() == 6 && types.size() == 1);
        },
        final_result);
    EXPECT_EQ(final_result, 0);
    EXPECT_EQ(nbr_cells, 1 + m.connect.cols());
}

// ---------------------------------------------------------------------------
// vtk_output to a stream.

TEST(VtkOutputStream, ExactBytesOfATwoDimensionalMesh) {
    unsigned nbr_cells = 0;
    dense1D<unsigned> cells, types;
    ASSERT_EQ(vtk_convert(columns(3, {0, 1, 2, 1, 3, 2}), EL_TRIA3, nbr_cells, cells, types), 0);
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(vtk_output(f, points(2, {0, 0, 1, 0, 0, 1, 1.5, -0.25}), nbr_cells, cells, types), 0);
    std::string text(static_cast<std::size_t>(std::ftell(f)), '\0');
    std::rewind(f);
    ASSERT_EQ(std::fread(&text[0], 1, text.size(), f), text.size());
    std::fclose(f);
    EXPECT_EQ(text,
              "# vtk DataFile Version 2.0\nGenerated by ZQ5 Nodara(R).\nASCII\nDATASET UNSTRUCTURED_GRID\n"
              "\nPOINTS 4 double\n"
              "0.000000 0.000000 0.000000\n"
              "1.000000 0.000000 0.000000\n"
              "0.000000 1.000000 0.000000\n"
              "1.500000 -0.250000 0.000000\n"
              "\nCELLS 2 8\n3 0 1 2 \n3 1 3 2 \n"
              "\nCELL_TYPES 2\n5\n5\n");
}

TEST(VtkOutputStream, StatusesInOrder) {
    const dense2D<double> pos = points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
    const dense1D<unsigned> cells{3, 0, 1, 2}, types{5};
    EXPECT_EQ(vtk_output(static_cast<FILE*>(nullptr), pos, 1, cells, types), -1);
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(vtk_output(f, dense2D<double>(4, 3), 1, cells, types), -2);
    // The cell list must hold the cells it is said to hold: nothing is written.
    EXPECT_EQ(vtk_output(f, pos, 2, cells, types), -3);
    EXPECT_EQ(vtk_output(f, pos, 1, dense1D<unsigned>{4, 0, 1, 2}, types), -3);
    EXPECT_EQ(std::ftell(f), 0);
    std::fclose(f);
    FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(vtk_output(full, pos, 1, cells, types), -4);
    std::fclose(full);
}

// ---------------------------------------------------------------------------
// vtk_output to a named file.

TEST(VtkOutputFile, MixedSolidsThenMixedFacesInSortedGroups) {
    scratch_dir dir;
    const dense2D<unsigned> solids = columns(8, {
                                                    0, 1, 2, 4, N, N, N, N,  // tetrahedron
                                                    0, 1, 2, 3, 4, 5, 6, 7,  // hexahedron
                                                    0, 1, 2, 4, 5, 6, N, N,  // wedge
                                                    0, 1, 2, 3, 4, N, N, N,  // pyramid
                                                    4, 5, 6, 7, N, N, N, N,  // tetrahedron
                                                });
    const dense2D<unsigned> faces = columns(4, {0, 1, 2, N, 0, 1, 2, 3, 4, 5, 6, N});
    dense2D<unsigned> solids_before;
    solids_before.copy(solids);
    ASSERT_EQ(vtk_output(dir.path("m.vtk").c_str(), nodara_test::grid_nodes_3d(1, 1, 1), solids, faces, EL_SOLID_ANY,
                         EL_FACE_ANY),
              0);
    EXPECT_EQ(solids, solids_before);  // sorted on a copy
    EXPECT_EQ(cells_section(read_file(dir.path("m.vtk"))),
              "CELLS 8 45\n8 0 1 2 3 4 5 6 7 \n6 0 1 2 4 5 6 \n5 0 1 2 3 4 \n4 0 1 4 2 \n4 4 5 7 6 \n"
              "4 0 1 2 3 \n3 0 1 2 \n3 4 5 6 \n\nCELL_TYPES 8\n12\n13\n14\n10\n10\n9\n5\n5\n");
}

TEST(VtkOutputFile, RangeFormSplitsMixedMatricesSkipsEmptyOnesAndKeepsOrder) {
    scratch_dir dir;
    const dense2D<double> pos = nodara_test::grid_nodes_3d(2, 1, 1);  // 12 nodes
    const dense2D<unsigned> faces = columns(4, {0, 1, 2, N, 3, 4, 5, 6, 7, 8, 9, N});
    // Empty matrices are skipped whatever their type; 3 rows of EL_FACE_ANY are
    // triangles, 6 rows of EL_SOLID_ANY wedges.
    const dense2D<unsigned> range[] = {columns(2, {0, 3}), dense2D<unsigned>(7, 0),      columns(3, {0, 1, 2}), faces,
                                       dense2D<unsigned>(), columns(6, {0, 1, 2, 3, 4, 5}), columns(3, {9, 10, 11})};
    const dense1D<int> types{EL_EDGE2, 99, EL_FACE_ANY, EL_FACE_ANY, EL_TRIA3, EL_SOLID_ANY, EL_TRIA3};
    ASSERT_EQ(vtk_output(dir.path("r.vtk").c_str(), pos, range, range + 7, types), 0);
    EXPECT_EQ(cells_section(read_file(dir.path("r.vtk"))),
              "CELLS 7 31\n2 0 3 \n3 0 1 2 \n4 3 4 5 6 \n3 0 1 2 \n3 7 8 9 \n6 0 1 2 3 4 5 \n3 9 10 11 \n"
              "\nCELL_TYPES 7\n3\n5\n9\n5\n5\n13\n5\n");
    EXPECT_EQ(faces, columns(4, {0, 1, 2, N, 3, 4, 5, 6, 7, 8, 9, N}));  // sorted on a copy
    // One matrix, and no matrix at all.
    ASSERT_EQ(vtk_output(dir.path("o.vtk").c_str(), pos, range[0], EL_EDGE2), 0);
    EXPECT_EQ(cells_section(read_file(dir.path("o.vtk"))), "CELLS 1 3\n2 0 3 \n\nCELL_TYPES 1\n3\n");
    ASSERT_EQ(vtk_output(dir.path("z.vtk").c_str(), pos, range, range, dense1D<int>()), 0);
    EXPECT_EQ(cells_section(read_file(dir.path("z.vtk"))), "CELLS 0 0\n\nCELL_TYPES 0\n");
}

TEST(VtkOutputFile, StatusesInOrder) {
    scratch_dir dir;
    const dense2D<double> pos = points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
    const dense2D<unsigned> tria = columns(3, {0, 1, 2});
    const dense2D<unsigned> range[] = {tria, tria};
    const dense1D<int> one{EL_TRIA3};
    const std::string file = dir.path("s.vtk");
    EXPECT_EQ(vtk_output(dir.path("missing/s.vtk").c_str(), pos, range, range + 1, one), -1);
    EXPECT_EQ(vtk_output(static_cast<const char*>(nullptr), pos, range, range + 1, one), -1);
    EXPECT_EQ(vtk_output(file.c_str(), dense2D<double>(1, 3), range + 1, range, one), -2);
    EXPECT_EQ(read_file(file), "");  // created empty
    EXPECT_EQ(vtk_output(file.c_str(), pos, range + 1, range, one), -4);
    EXPECT_EQ(vtk_output(file.c_str(), pos, range, range + 2, one), -5);
    EXPECT_EQ(vtk_output(file.c_str(), pos, range[0], columns(3, {0, 1, 3}), EL_TRIA3, EL_TRIA3), -3);
    EXPECT_EQ(vtk_output(file.c_str(), pos, range, range + 2, dense1D<int>{EL_TRIA3, 99}), -3);
    EXPECT_EQ(vtk_output(file.c_str(), pos, columns(4, {0, 1, 2, 0}), EL_TRIA3), -3);
    // Passed on from vtk_convert: refused kinds.
    EXPECT_EQ(vtk_output(file.c_str(), pos, dense2D<unsigned>(13, 1, 0u), EL_PYRAMID13), -2);
    EXPECT_EQ(vtk_output(file.c_str(), pos, dense2D<unsigned>(15, 1, 0u), EL_WEDGE15), -2);
    EXPECT_EQ(vtk_output(file.c_str(), pos, columns(2, {0, 1}), EL_EDGE_ANY), -2);
    EXPECT_EQ(read_file(file), "");
    EXPECT_EQ(vtk_output("/dev/full", pos, tria, EL_TRIA3), -1);  // a full disk
    EXPECT_EQ(vtk_output(file.c_str(), pos, range, range + 2, dense1D<int>{EL_TRIA3, EL_TRIA3}), 0);
}

TEST(VtkOutputFile, AllocationFailureGivesMinus199) {
    NODARA_REQUIRE_FAULT_INJECTION();
    scratch_dir dir;
    const nodara_test::mesh solids = nodara_test::mixed_solid_mesh(3, 2, 1);
    const nodara_test::mesh faces = nodara_test::mixed_face_mesh(2, 2);
    int final_result = 1;
    const auto failures = nodara_test::for_each_allocation_failure(
        [] {},
        [&] {
            return vtk_output(dir.path("f.vtk").c_str(), solids.pos, solids.connect, faces.connect, EL_SOLID_ANY,
                              EL_FACE_ANY);
        },
        [](int r) { EXPECT_EQ(r, -199); }, final_result);
    EXPECT_GT(failures, 3u);
    EXPECT_EQ(final_result, 0);
}

}  // namespace
