// STL_input and STL_output: exact bytes, round trips, node sharing, the fault list
// of readers, statuses in order, allocation failure, locale independence.
#include "common/fault_injection.h"
#include "common/meshes.h"
#include "io/io_helpers.h"
#include "io/text.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <limits>
#include <string>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_io_test;

namespace {

std::string facet_text(const char* indent, const double v[3][3]) {
    std::string s = std::string(indent) + "facet normal 0 0 1\n";
    s += std::string(indent) + " outer loop\n";
    for (int k = 0; k < 3; ++k) {
        char line[200];
        std::snprintf(line, sizeof line, "%s  vertex %.17g %.17g %.17g\n", indent, v[k][0], v[k][1], v[k][2]);
        s += line;
    }
    s += std::string(indent) + " endloop\n";
    s += std::string(indent) + "endfacet\n";
    return s;
}

// Two facets sharing the edge (1,0,0)-(0,1,0): (0,1,2) and (1,3,2).
const double kSquare[2][3][3] = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{1, 0, 0}, {1, 1, 0}, {0, 1, 0}}};

std::string square_ascii(const char* name = "square") {
    return std::string("solid ") + name + "\n" + facet_text("  ", kSquare[0]) + facet_text("  ", kSquare[1]) +
           "endsolid " + name + "\n";
}

void put_u32(std::string& s, std::uint32_t u) {
    for (int k = 0; k < 4; ++k) s.push_back(static_cast<char>((u >> (8 * k)) & 0xFF));
}
void put_f32(std::string& s, float x) {
    std::uint32_t u;
    std::memcpy(&u, &x, 4);
    put_u32(s, u);
}

// A binary STL of the facets, with the given header start and facet count.
std::string binary_stl(const std::vector<std::vector<float>>& facets, const std::string& header, std::uint32_t count) {
    std::string s = header;
    s.resize(80, '\0');
    put_u32(s, count);
    for (const auto& f : facets) {
        for (int k = 0; k < 3; ++k) put_f32(s, k == 2 ? 1.f : 0.f);
        for (float x : f) put_f32(s, x);
        s.push_back('\0');
        s.push_back('\0');
    }
    return s;
}

const std::vector<std::vector<float>> kSquareFacets = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {1, 0, 0, 1, 1, 0, 0, 1, 0}};

void expect_square(int status, const dense2D<double>& pos, const dense2D<unsigned>& connect) {
    ASSERT_EQ(status, 0);
    ASSERT_EQ(pos.rows(), 3u);
    ASSERT_EQ(pos.cols(), 4u);
    EXPECT_EQ(connect, columns(3, {0, 1, 2, 1, 3, 2}));
    EXPECT_EQ(pos, points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}));
}

// Coordinates of each corner of each facet, facet by facet.
std::vector<double> facet_corners(const dense2D<double>& pos, const dense2D<unsigned>& connect) {
    std::vector<double> out;
    for (std::size_t j = 0; j < connect.cols(); ++j)
        for (std::size_t k = 0; k < 3; ++k)
            for (std::size_t r = 0; r < 3; ++r) out.push_back(r < pos.rows() ? pos(r, connect(k, j)) : 0.0);
    return out;
}

// ---------------------------------------------------------------------------
// Writer: exact bytes and the normal rule.

TEST(StlOutput, AsciiBytesOfOneFacet) {
    scratch_dir dir;
    const dense2D<double> pos = points(3, {0, 0, 0, 2, 0, 0, 0.5, -1.25, 3});
    const dense2D<unsigned> tria = columns(3, {0, 1, 2});
    ASSERT_EQ(STL_output(dir.path("a.stl").c_str(), pos, tria, true), 0);
    // normal (0, -6, -2.5) / 6.5
    EXPECT_EQ(read_file(dir.path("a.stl")),
              "solid ZQ5\n"
              "   facet normal 0.000000e+00 -9.230769e-01 -3.846154e-01\n"
              "      outer loop\n"
              "         vertex 0.000000e+00 0.000000e+00 0.000000e+00\n"
              "         vertex 2.000000e+00 0.000000e+00 0.000000e+00\n"
              "         vertex 5.000000e-01 -1.250000e+00 3.000000e+00\n"
              "      endloop\n"
              "   endfacet\n"
              "endsolid ZQ5\n");
}

TEST(StlOutput, BinaryBytesOfOneFacet) {
    scratch_dir dir;
    const dense2D<double> pos = points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
    ASSERT_EQ(STL_output(dir.path("b.stl").c_str(), pos, columns(3, {0, 1, 2}), false), 0);
    std::string expected = binary_stl({{0, 0, 0, 1, 0, 0, 0, 1, 0}}, "ZQ5 STL Binary", 1);
    EXPECT_EQ(read_file(dir.path("b.stl")), expected);
}

TEST(StlOutput, EmptyMeshAndTwoDimensionalNodes) {
    scratch_dir dir;
    ASSERT_EQ(STL_output(dir.path("e.stl").c_str(), points(3, {}), dense2D<unsigned>(3, 0), true), 0);
    EXPECT_EQ(read_file(dir.path("e.stl")), "solid ZQ5\nendsolid ZQ5\n");
    ASSERT_EQ(STL_output(dir.path("e.bin").c_str(), points(3, {}), dense2D<unsigned>(3, 0), false), 0);
    EXPECT_EQ(read_file(dir.path("e.bin")), binary_stl({}, "ZQ5 STL Binary", 0));

    // A 2-D mesh is written with z = 0, byte for byte as its 3-D twin.
    const dense2D<unsigned> tria = columns(3, {0, 1, 2, 1, 3, 2});
    for (bool ascii : {true, false}) {
        ASSERT_EQ(STL_output(dir.path("2d").c_str(), points(2, {0, 0, 1, 0, 0, 1, 1, 1}), tria, ascii), 0);
        ASSERT_EQ(STL_output(dir.path("3d").c_str(), points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}), tria, ascii),
                  0);
        EXPECT_EQ(read_file(dir.path("2d")), read_file(dir.path("3d")));
    }
}

TEST(StlOutput, NormalRule) {
    scratch_dir dir;
    // Side p1p2 shorter than both sides at p0: the normal comes from (p1-p0) x (p2-p1);
    // a degenerate facet has the zero normal; a unit normal is written as it is.
    const dense2D<double> pos = points(3, {0, 0, 0, 10, 0, 0, 10, 1, 0, 5, 5, 5, 0, 0, 1, 0, 1, 0});
    const dense2D<unsigned> tria = columns(3, {0, 1, 2, 3, 3, 3, 0, 4, 5});
    ASSERT_EQ(STL_output(dir.path("n.stl").c_str(), pos, tria, true), 0);
    const std::string text = read_file(dir.path("n.stl"));
    std::vector<std::string> normals;
    for (std::size_t at = text.find("normal "); at != std::string::npos; at = text.find("normal ", at + 1))
        normals.push_back(text.substr(at + 7, text.find('\n', at) - at - 7));
    ASSERT_EQ(normals.size(), 3u);
    EXPECT_EQ(normals[0], "0.000000e+00 0.000000e+00 1.000000e+00");
    EXPECT_EQ(normals[1], "0.000000e+00 0.000000e+00 0.000000e+00");
    EXPECT_EQ(normals[2], "-1.000000e+00 0.000000e+00 0.000000e+00");
}

TEST(StlOutput, StatusesInOrder) {
    scratch_dir dir;
    const dense2D<double> pos = points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
    const dense2D<unsigned> tria = columns(3, {0, 1, 2});
    EXPECT_EQ(STL_output(dir.path("missing/x.stl").c_str(), pos, tria, true), -1);
    EXPECT_EQ(STL_output(nullptr, pos, tria, true), -1);
    EXPECT_EQ(STL_output(dir.path("r.stl").c_str(), dense2D<double>(1, 3), columns(3, {0, 1, 3}), true), -2);
    EXPECT_EQ(read_file(dir.path("r.stl")), "");
    EXPECT_EQ(STL_output(dir.path("i.stl").c_str(), pos, columns(3, {0, 1, 3}), false), -3);
    EXPECT_EQ(STL_output(dir.path("i.stl").c_str(), pos, columns(3, {0, 1, zq5::NULL_INDEX}), false), -3);
    EXPECT_EQ(STL_output(dir.path("q.stl").c_str(), pos, columns(4, {0, 1, 2, 0}), false), -3);
    // A full disk: the failure shows at the latest when the stream is closed.
    EXPECT_EQ(STL_output("/dev/full", pos, tria, true), -1);
    EXPECT_EQ(STL_output("/dev/full", pos, tria, false), -1);
}

// ---------------------------------------------------------------------------
// Reader: node sharing and the variants of the format.

TEST(StlInput, TwoFacetsSharingAnEdgeGiveFourNodes) {
    scratch_dir dir;
    dense2D<double> pos;
    dense2D<unsigned> connect;
    write_file(dir.path("a.stl"), square_ascii());
    expect_square(STL_input(dir.path("a.stl").c_str(), pos, connect), pos, connect);
    write_file(dir.path("b.stl"), binary_stl(kSquareFacets, "binary", 2));
    expect_square(STL_input(dir.path("b.stl").c_str(), pos, connect), pos, connect);
}

TEST(StlInput, AsciiVariants) {
    scratch_dir dir;
    dense2D<double> pos;
    dense2D<unsigned> connect;
    struct variant {
        const char* name;
        std::string text;
    };
    std::string upper = square_ascii("SQUARE");
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string crlf;
    for (char c : square_ascii()) {
        if (c == '\n') crlf += '\r';
        crlf += c;
    }
    // Tabs wherever white space separates (not inside the keyword "outer loop").
    std::string tabs;
    for (char c : square_ascii()) tabs += c == ' ' ? '\t' : c;
    for (std::size_t at = tabs.find("outer\tloop"); at != std::string::npos; at = tabs.find("outer\tloop"))
        tabs[at + 5] = ' ';
    std::string no_final_newline = square_ascii();
    no_final_newline.pop_back();
    const std::string two_solids = "solid one\n" + facet_text("", kSquare[0]) + "endsolid one\nsolid two\n" +
                                   facet_text("", kSquare[1]) + "endsolid two\n";
    std::string color = square_ascii();
    color.insert(color.find("  facet"), "color 0.1 0.2 0.3\n");
    const std::vector<variant> variants = {
        {"upper case", upper},           {"CRLF", crlf},           {"tabs", tabs},
        {"no final newline", no_final_newline}, {"two solids", two_solids}, {"color line", color},
        {"signs and exponents", "solid s\n facet normal +0 -0 +1E+0\n outer loop\n vertex +0 -0. 0e5\n"
                                " vertex 1.0E0 +0 0\n vertex .0 1 -0\n endloop\n endfacet\n facet normal 0 0 1\n"
                                " outer loop\n vertex 1 0 0\n vertex 0x1p0 1 0\n vertex 0 1 0\n endloop\n"
                                " endfacet\nendsolid s\n"},
    };
    for (const variant& v : variants) {
        SCOPED_TRACE(v.name);
        write_file(dir.path("v.stl"), v.text);
        expect_square(STL_input(dir.path("v.stl").c_str(), pos, connect), pos, connect);
    }
}

TEST(StlInput, BinaryHeaderStartingWithSolid) {
    scratch_dir dir;
    dense2D<double> pos;
    dense2D<unsigned> connect;
    write_file(dir.path("s.stl"), binary_stl(kSquareFacets, "solid square", 2));
    expect_square(STL_input(dir.path("s.stl").c_str(), pos, connect), pos, connect);
    // Bytes after the last facet are ignored.
    write_file(dir.path("t.stl"), binary_stl(kSquareFacets, "solid", 2) + "trailing");
    expect_square(STL_input(dir.path("t.stl").c_str(), pos, connect), pos, connect);
}

TEST(StlInput, OutputsAreOverwrittenNotShared) {
    scratch_dir dir;
    write_file(dir.path("a.stl"), square_ascii());
    dense2D<double> pos(3, 10, 7.0);
    const dense2D<double> alias = pos;  // a second view of the caller's buffer
    dense2D<unsigned> connect(3, 5, 1u);
    expect_square(STL_input(dir.path("a.stl").c_str(), pos, connect), pos, connect);
    EXPECT_EQ(alias.cols(), 10u);
    EXPECT_EQ(alias(2, 9), 7.0);  // the caller's other view is untouched
    // Reading the same file twice gives the same mesh.
    dense2D<double> pos2;
    dense2D<unsigned> connect2;
    expect_square(STL_input(dir.path("a.stl").c_str(), pos2, connect2), pos2, connect2);
}

TEST(StlInput, MergeToleranceFollowsTheSmallestAltitude) {
    scratch_dir dir;
    // Facet A is 1 x 1 (smallest altitude 1/sqrt(2)); facet B shares A's edge up to a
    // shift of 1e-3 in x (below 0.05 * 0.707), so the edge is rebuilt.
    const double shifted[2][3][3] = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{1.001, 0, 0}, {1, 1, 0}, {0, 1, 0}}};
    write_file(dir.path("m.stl"), "solid m\n" + facet_text("", shifted[0]) + facet_text("", shifted[1]) +
                                      "endsolid\n");
    dense2D<double> pos;
    dense2D<unsigned> connect;
    ASSERT_EQ(STL_input(dir.path("m.stl").c_str(), pos, connect), 0);
    EXPECT_EQ(pos.cols(), 4u);
    EXPECT_EQ(connect, columns(3, {0, 1, 2, 1, 3, 2}));
    EXPECT_EQ(pos(0, 1), 1.0);  // the first node of the list survives

    // Shifted by 0.1, beyond the tolerance: six nodes stay apart except the exact pair.
    const double apart[2][3][3] = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{1.1, 0, 0}, {1, 1, 0}, {0, 1, 0}}};
    write_file(dir.path("n.stl"), "solid n\n" + facet_text("", apart[0]) + facet_text("", apart[1]) + "endsolid\n");
    ASSERT_EQ(STL_input(dir.path("n.stl").c_str(), pos, connect), 0);
    EXPECT_EQ(pos.cols(), 5u);
    EXPECT_EQ(connect, columns(3, {0, 1, 2, 3, 4, 2}));
}

TEST(StlInput, DegenerateFacetsAreRemovedAfterMerging) {
    scratch_dir dir;
    // A flat facet (zero altitude, so it does not set the tolerance) whose corner
    // (1e-4, 0, 0) lies within the square's tolerance of the origin.
    const double sliver[3][3] = {{0, 0, 0}, {1e-4, 0, 0}, {1, 0, 0}};
    write_file(dir.path("d.stl"), square_ascii().substr(0, square_ascii().rfind("endsolid")) +
                                      facet_text("", sliver) + "endsolid\n");
    dense2D<double> pos;
    dense2D<unsigned> connect;
    expect_square(STL_input(dir.path("d.stl").c_str(), pos, connect), pos, connect);
}

TEST(StlInput, NoPositiveAltitudeMergesNothing) {
    scratch_dir dir;
    const double point[3][3] = {{1, 2, 3}, {1, 2, 3}, {1, 2, 3}};
    const double line[3][3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
    write_file(dir.path("z.stl"), "solid z\n" + facet_text("", point) + facet_text("", line) + "endsolid z\n");
    dense2D<double> pos;
    dense2D<unsigned> connect;
    ASSERT_EQ(STL_input(dir.path("z.stl").c_str(), pos, connect), 0);
    EXPECT_EQ(connect, columns(3, {0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(pos, points(3, {1, 2, 3, 1, 2, 3, 1, 2, 3, 0, 0, 0, 1, 0, 0, 2, 0, 0}));
}

TEST(StlInput, AbsurdNumbersEndInAResult) {
    scratch_dir dir;
    const double inf = std::numeric_limits<double>::infinity();
    dense2D<double> pos;
    dense2D<unsigned> connect;
    // NaN, infinities, overflow, underflow and denormals next to a proper facet.
    write_file(dir.path("x.stl"), square_ascii().substr(0, square_ascii().rfind("endsolid")) +
                                      " facet normal 0 0 0\n outer loop\n vertex nan 1e999 -1e999\n"
                                      " vertex 1e-400 4.9e-324 -inf\n vertex INF NaN 2.2e-310\n endloop\n"
                                      " endfacet\nendsolid\n");
    ASSERT_EQ(STL_input(dir.path("x.stl").c_str(), pos, connect), 0);
    ASSERT_EQ(connect.cols(), 3u);
    const unsigned a = connect(0, 2), b = connect(1, 2), c = connect(2, 2);
    EXPECT_TRUE(std::isnan(pos(0, a)));
    EXPECT_EQ(pos(1, a), inf);
    EXPECT_EQ(pos(2, a), -inf);
    EXPECT_EQ(pos(0, b), 0.0);
    EXPECT_EQ(pos(1, b), 4.9e-324);
    EXPECT_EQ(pos(2, b), -inf);
    EXPECT_EQ(pos(0, c), inf);
    EXPECT_EQ(pos(2, c), 2.2e-310);

    // The same in binary: a facet of NaNs and one of denormal floats.
    const float nan = std::numeric_limits<float>::quiet_NaN(), tiny = std::numeric_limits<float>::denorm_min();
    std::vector<std::vector<float>> facets = kSquareFacets;
    facets.push_back({nan, nan, nan, nan, nan, nan, nan, nan, nan});
    facets.push_back({tiny, 0, 0, 0, tiny, 0, 0, 0, tiny});
    write_file(dir.path("x.bin"), binary_stl(facets, "", 4));
    ASSERT_EQ(STL_input(dir.path("x.bin").c_str(), pos, connect), 0);
    // The denormal facet sets a tiny tolerance: nothing but the shared edge merges.
    EXPECT_EQ(connect.cols(), 4u);
    EXPECT_EQ(pos.cols(), 10u);
}

// ---------------------------------------------------------------------------
// Reader: statuses in order, and the fault list.

TEST(StlInput, StatusesInOrder) {
    scratch_dir dir;
    dense2D<double> pos(3, 2, 1.0);
    dense2D<unsigned> connect(3, 1, 0u);
    auto read = [&](const std::string& bytes) {
        write_file(dir.path("f.stl"), bytes);
        pos = dense2D<double>(3, 2, 1.0);
        connect = dense2D<unsigned>(3, 1, 0u);
        const int r = STL_input(dir.path("f.stl").c_str(), pos, connect);
        EXPECT_TRUE(pos.empty());
        EXPECT_TRUE(connect.empty());
        return r;
    };
    // -1: nothing to open.
    EXPECT_EQ(STL_input(dir.path("missing.stl").c_str(), pos, connect), -1);
    EXPECT_TRUE(pos.empty() && connect.empty());
    EXPECT_EQ(STL_input(dir.dir().c_str(), pos, connect), -1);
    EXPECT_EQ(STL_input(nullptr, pos, connect), -1);
    // -2: neither ASCII nor 80 bytes of header.
    EXPECT_EQ(read(""), -2);
    EXPECT_EQ(read("hello\n"), -2);
    EXPECT_EQ(read("solid only\n"), -2);  // ASCII -3, then too short for binary
    EXPECT_EQ(read(std::string(79, 'x')), -2);
    // -3: an 80-byte header without a count; fewer facets than the count says.
    EXPECT_EQ(read(std::string(80, 'x')), -3);
    EXPECT_EQ(read(std::string(83, 'x')), -3);
    EXPECT_EQ(read(binary_stl(kSquareFacets, "", 3)), -3);
    std::string truncated = binary_stl(kSquareFacets, "", 2);
    truncated.resize(truncated.size() - 20);  // mid-facet
    EXPECT_EQ(read(truncated), -3);
    // 4 billion facets claimed by a 1 KB file: refused before anything is sized.
    std::string liar = binary_stl(kSquareFacets, "", 0xFFFFFFFFu);
    liar.resize(1024, '\0');
    EXPECT_EQ(read(liar), -3);
    // Malformed ASCII facets (the binary reading of their bytes fails too).
    const std::string head = "solid bad" + std::string(80, ' ') + "\n";  // spaces as a facet count
    EXPECT_EQ(read(head + " facet normal 0 0\n outer loop\n"), -3);
    EXPECT_EQ(read(head + " facet normal 0 0 1\n outer loop\n vertex 0 0 0\n vertex 1 0 0\n endloop\n endfacet\n"),
              -3);
    EXPECT_EQ(read(head + " facet normal 0 0 1\n outer loop\n vertex 0 0 0\n vertex 1 0 0\n vertex 0 1 0\n"
                          " vertex 1 1 0\n endloop\n endfacet\nendsolid\n"),
              -3);
    EXPECT_EQ(read(head + " facet normal 0 0 1\n outer loop\n vertex 0 0 0\n vertex 1 0 0\n vertex 0 1 0\n"
                          " endloop\n endfacet\n"),
              -3);  // no endsolid
    EXPECT_EQ(read(head + " facet normal 0 0 1\n outer loop\n vertex 0 0 zero\n"), -3);
    // A 1 MB line and NUL bytes: a status, never a crash.
    EXPECT_EQ(read(head + " facet normal 0 0 1" + std::string(1 << 20, ' ') + "\n"), -3);
    EXPECT_EQ(read(head + std::string(200, '\0')), -3);
    EXPECT_EQ(read(square_ascii() + "\n"), -3);  // a blank line after endsolid is read as a facet
}

TEST(StlInput, DevicesEndInAStatus) {
    dense2D<double> pos;
    dense2D<unsigned> connect;
    // An endless device: no "solid", and a stream of unknown size for the binary reader.
    EXPECT_EQ(STL_input("/dev/urandom", pos, connect) < 0, true);
    EXPECT_EQ(STL_input("/dev/zero", pos, connect), 0);  // zero facets claimed
    EXPECT_TRUE(pos.empty() && connect.empty());
}

TEST(StlInput, AllocationFailureGivesMinus199AndEmptyOutputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    scratch_dir dir;
    const nodara_test::mesh cube = nodara_test::cube_surface(2);
    ASSERT_EQ(STL_output(dir.path("a.stl").c_str(), cube.pos, cube.connect, true), 0);
    ASSERT_EQ(STL_output(dir.path("b.stl").c_str(), cube.pos, cube.connect, false), 0);
    for (const char* name : {"a.stl", "b.stl"}) {
        SCOPED_TRACE(name);
        dense2D<double> pos;
        dense2D<unsigned> connect;
        int final_result = 1;
        const auto failures = nodara_test::for_each_allocation_failure(
            [&] {
                pos = dense2D<double>(3, 2, 1.0);
                connect = dense2D<unsigned>(3, 1, 0u);
            },
            [&] { return STL_input(dir.path(name).c_str(), pos, connect); },
            [&](int r) {
                EXPECT_EQ(r, -199);
                EXPECT_TRUE(pos.empty());
                EXPECT_TRUE(connect.empty());
            },
            final_result);
        EXPECT_GT(failures, 2u);
        EXPECT_EQ(final_result, 0);
        EXPECT_EQ(pos.cols(), cube.pos.cols());
    }
}

// ---------------------------------------------------------------------------
// Round trips.

TEST(StlRoundTrip, ClosedSurfaceComesBackFacetForFacet) {
    scratch_dir dir;
    const nodara_test::mesh cube = nodara_test::cube_surface(3);
    const dense2D<double> pos_before = [&] {
        dense2D<double> c;
        c.copy(cube.pos);
        return c;
    }();
    for (bool ascii : {true, false}) {
        SCOPED_TRACE(ascii ? "ascii" : "binary");
        ASSERT_EQ(STL_output(dir.path("c.stl").c_str(), cube.pos, cube.connect, ascii), 0);
        EXPECT_EQ(cube.pos, pos_before);  // the input is not touched
        dense2D<double> pos;
        dense2D<unsigned> connect;
        ASSERT_EQ(STL_input(dir.path("c.stl").c_str(), pos, connect), 0);
        EXPECT_EQ(pos.cols(), cube.pos.cols());
        ASSERT_EQ(connect.cols(), cube.connect.cols());
        EXPECT_EQ(facet_corners(pos, connect), facet_corners(cube.pos, cube.connect));
        EXPECT_EQ(check_IDs(connect, EL_TRIA3, static_cast<unsigned>(pos.cols())), true);
        EXPECT_EQ(count_unique_indices(connect), static_cast<int>(pos.cols()));
        // Written again, the file is the same byte for byte.
        const std::string first = read_file(dir.path("c.stl"));
        ASSERT_EQ(STL_output(dir.path("d.stl").c_str(), pos, connect, ascii), 0);
        EXPECT_EQ(read_file(dir.path("d.stl")), first);
    }
}

TEST(StlRoundTrip, RealSampleFiles) {
    const std::string data = data_dir();
    if (data.empty()) GTEST_SKIP() << "sample data not present";
    DIR* d = opendir((data + "/stl").c_str());
    ASSERT_NE(d, nullptr);
    int files = 0;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() < 4 || name.substr(name.size() - 4) != ".stl") continue;
        SCOPED_TRACE(name);
        ++files;
        dense2D<double> pos;
        dense2D<unsigned> connect;
        ASSERT_EQ(STL_input((data + "/stl/" + name).c_str(), pos, connect), 0);
        EXPECT_GT(connect.cols(), 0u);
        EXPECT_EQ(count_unique_indices(connect), static_cast<int>(pos.cols()));  // no unused node
        dense2D<unsigned> copy;
        copy.copy(connect);
        EXPECT_EQ(remove_degenerated(copy, false), 0);  // no facet uses a node twice
    }
    closedir(d);
    EXPECT_GE(files, 5);
}

// ---------------------------------------------------------------------------
// Locale independence.

TEST(StlLocale, BytesAndValuesDoNotDependOnTheLocale) {
    scratch_dir dir;
    const dense2D<double> pos = points(3, {0.5, 0.25, 0, 1.75, 0, 0, 0, 1.5, 0.125, 1.5, 1.5, 0});
    const dense2D<unsigned> tria = columns(3, {0, 1, 2, 1, 3, 2});
    ASSERT_EQ(STL_output(dir.path("c.stl").c_str(), pos, tria, true), 0);
    ASSERT_EQ(vtk_output(dir.path("c.vtk").c_str(), pos, tria, EL_TRIA3), 0);

    const std::string saved = std::setlocale(LC_ALL, nullptr);
    if (!std::setlocale(LC_ALL, "de_DE.UTF-8")) GTEST_SKIP() << "locale de_DE.UTF-8 is not installed";
    char probe[32];
    std::snprintf(probe, sizeof probe, "%.1f", 1.5);
    const bool comma = std::string(probe) == "1,5";
    ASSERT_EQ(STL_output(dir.path("d.stl").c_str(), pos, tria, true), 0);
    ASSERT_EQ(vtk_output(dir.path("d.vtk").c_str(), pos, tria, EL_TRIA3), 0);
    dense2D<double> back;
    dense2D<unsigned> connect;
    const int r = STL_input(dir.path("c.stl").c_str(), back, connect);
    std::setlocale(LC_ALL, saved.c_str());

    EXPECT_TRUE(comma) << "the locale did not switch the decimal separator";
    EXPECT_EQ(read_file(dir.path("d.stl")), read_file(dir.path("c.stl")));
    EXPECT_EQ(read_file(dir.path("d.vtk")), read_file(dir.path("c.vtk")));
    ASSERT_EQ(r, 0);
    EXPECT_EQ(back, pos);
    EXPECT_EQ(connect, tria);
}

// ---------------------------------------------------------------------------
// Number reading, as scanf "%lg" in the C locale.

TEST(NumberText, ParsesAsScanfDoes) {
    struct sample {
        const char* text;
        bool ok;
        double value;
        std::size_t used;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const sample samples[] = {
        {"1.5", true, 1.5, 3},          {"  -2e3 x", true, -2000.0, 6}, {"+.5", true, 0.5, 3},
        {"-0x1p4", true, -16.0, 6},     {"1e400", true, inf, 5},        {"-1e400", true, -inf, 6},
        {"1e-400", true, 0.0, 6},       {"inf", true, inf, 3},          {"-infinity", true, -inf, 9},
        {"1,5", true, 1.0, 1},          {"--1", false, 0, 0},           {"+-1", false, 0, 0},
        {"", false, 0, 0},              {"x1", false, 0, 0},            {"0x", true, 0.0, 1},
    };
    for (const sample& s : samples) {
        SCOPED_TRACE(s.text);
        const char* p = s.text;
        double v = -99.0;
        EXPECT_EQ(detail::parse_double(p, v), s.ok);
        if (s.ok) {
            EXPECT_EQ(v, s.value);
            EXPECT_EQ(static_cast<std::size_t>(p - s.text), s.used);
        } else {
            EXPECT_EQ(p, s.text);
        }
    }
    const char* nan_text = "nan";
    double v = 0;
    EXPECT_TRUE(detail::parse_double(nan_text, v));
    EXPECT_TRUE(std::isnan(v));
}

}  // namespace

// ---------------------------------------------------------------------------
// The node sharing against the public operations it stands for: the facets as
// read, merge with tolerance 0 in blocks of 100000 facets, merge with 0.05 times
// the smallest altitude, remove_degenerated, simplify.

namespace {

void reference_sharing(dense2D<double>& pos, dense2D<unsigned>& connect, double tol) {
    const std::size_t n = connect.cols();
    for (std::size_t first = 0; first < n; first += 100000) {
        dense2D<unsigned> block = connect.sub_matrix(0, first, 3, std::min<std::size_t>(100000, n - first));
        ASSERT_GE(merge(pos, block, 0.0, 0u), 0);
    }
    ASSERT_GE(merge(pos, connect, tol, 0u), 0);
    ASSERT_GE(remove_degenerated(connect, false), 0);
    ASSERT_GE(simplify(pos, connect, 0u), 0);
}

// The facets of a mesh as separate vertices, as a reader sees them.
void facet_soup(const dense2D<double>& pos, const dense2D<unsigned>& tria, dense2D<double>& soup,
                dense2D<unsigned>& connect) {
    soup.resize(3, 3 * tria.cols());
    connect.resize(3, tria.cols());
    for (std::size_t j = 0; j < tria.cols(); ++j)
        for (unsigned k = 0; k < 3; ++k) {
            for (std::size_t r = 0; r < 3; ++r)  // binary STL holds floats
                soup(r, 3 * j + k) = static_cast<double>(static_cast<float>(pos(r, tria(k, j))));
            connect(k, j) = static_cast<unsigned>(3 * j + k);
        }
}

// Writes the cube skin plus two facets on `extra` (six points), reads it back and
// compares with the merge operations on the facets as read; returns the number of
// nodes read.
std::size_t compare_with_merge_operations(unsigned n, const double extra[6][3]) {
    scratch_dir dir;
    nodara_test::mesh cube = nodara_test::cube_surface(n);
    const std::size_t nodes = cube.pos.cols();
    cube.pos.resize(3, nodes + 6);
    for (std::size_t i = 0; i < 6; ++i)
        for (std::size_t r = 0; r < 3; ++r) cube.pos(r, nodes + i) = extra[i][r];
    const std::size_t f = cube.connect.cols();
    cube.connect.resize(3, f + 2);
    for (unsigned k = 0; k < 3; ++k) {
        cube.connect(k, f) = static_cast<unsigned>(nodes + k);
        cube.connect(k, f + 1) = static_cast<unsigned>(nodes + 3 + k);
    }
    EXPECT_EQ(STL_output(dir.path("c.stl").c_str(), cube.pos, cube.connect, false), 0);
    dense2D<double> pos;
    dense2D<unsigned> connect;
    EXPECT_EQ(STL_input(dir.path("c.stl").c_str(), pos, connect), 0);

    dense2D<double> ref_pos;
    dense2D<unsigned> ref_connect;
    facet_soup(cube.pos, cube.connect, ref_pos, ref_connect);
    // The skin's smallest squared altitude is 1/2 (unit right triangles).
    reference_sharing(ref_pos, ref_connect, 0.05 * std::sqrt(0.5));
    EXPECT_EQ(connect, ref_connect);
    EXPECT_EQ(pos.cols(), ref_pos.cols());
    if (pos.cols() != ref_pos.cols()) return 0;
    for (std::size_t j = 0; j < pos.cols(); ++j)
        for (std::size_t r = 0; r < 3; ++r)
            if (!(std::isnan(pos(r, j)) && std::isnan(ref_pos(r, j)))) {
                EXPECT_EQ(pos(r, j), ref_pos(r, j)) << j;
                if (pos(r, j) != ref_pos(r, j)) return 0;
            }
    return pos.cols() - nodes;
}

TEST(StlInput, NodeSharingEqualsTheMergeOperations) {
    // A closed cube skin with signed zeros, infinite and NaN corners on two extra
    // facets.  Optimised builds take a skin of 100,000+ facets (two merge blocks);
    // under the sanitizers the reference merges of that size take too long, and one
    // block is used.
#ifdef NDEBUG
    const unsigned n = 92;
#else
    const unsigned n = 8;
#endif
    ASSERT_EQ(12u * n * n > 100000u, n > 91);
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    {
        SCOPED_TRACE("only coincident nodes: -0 onto the origin");
        const double extra[6][3] = {{-0.0, -0.0, -0.0}, {inf, 1, 1}, {1, nan, 1}, {0.5, 0.5, 0}, {inf, 1, 1}, {2, 3, 4}};
        EXPECT_EQ(compare_with_merge_operations(n, extra), 5u);
    }
    {
        SCOPED_TRACE("a node 1e-9 from the origin, within the tolerance");
        const double extra[6][3] = {{-0.0, -0.0, -0.0}, {inf, 1, 1}, {1, nan, 1}, {1e-9, 0, 0}, {inf, 1, 1}, {2, 3, 4}};
        EXPECT_EQ(compare_with_merge_operations(n, extra), 4u);
    }
    {
        SCOPED_TRACE("nodes just beyond and just within the tolerance of a corner");
        const double extra[6][3] = {{1, 1, -0.036}, {0.5, 0.5, 2}, {0.5, 2, 0.5}, {1, 1, 0.034}, {2, 0.5, 0.5}, {2, 2, 2}};
        EXPECT_EQ(compare_with_merge_operations(n, extra), 5u);
    }
}

}  // namespace
