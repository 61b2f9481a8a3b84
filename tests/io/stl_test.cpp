// STL_input and STL_output: exact bytes, format variants, node sharing against the
// merge operations, statuses in order, allocation failure, locale independence.
#include "common/fault_injection.h"
#include "common/meshes.h"
#include "io/io_helpers.h"
#include "io/text.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_io_test;

namespace {

using facet_list = std::vector<std::vector<double>>;  // nine coordinates per facet

// Two facets sharing the edge (1,0,0)-(0,1,0): (0,1,2) and (1,3,2) once shared.
const facet_list kSquare = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {1, 0, 0, 1, 1, 0, 0, 1, 0}};

std::string ascii_facets(const facet_list& facets, const std::string& in = "  ") {
    std::string s;
    for (const auto& f : facets) {
        s += in + "facet normal 0 0 1\n" + in + " outer loop\n";
        for (int k = 0; k < 9; k += 3) {
            char line[200];
            std::snprintf(line, sizeof line, "%s  vertex %.17g %.17g %.17g\n", in.c_str(), f[k], f[k + 1], f[k + 2]);
            s += line;
        }
        s += in + " endloop\n" + in + "endfacet\n";
    }
    return s;
}

std::string ascii_stl(const facet_list& facets, const std::string& name = "square") {
    return "solid " + name + "\n" + ascii_facets(facets) + "endsolid " + name + "\n";
}

// A binary STL of the facets (normal 0 0 1), with the given header start and count.
std::string binary_stl(const facet_list& facets, const std::string& header, std::uint32_t count) {
    std::string s = header;
    s.resize(80, '\0');
    auto put = [&s](std::uint32_t u) {
        for (int k = 0; k < 32; k += 8) s.push_back(static_cast<char>((u >> k) & 0xFF));
    };
    auto put_float = [&put](double x) {
        const float f = static_cast<float>(x);
        std::uint32_t u;
        std::memcpy(&u, &f, 4);
        put(u);
    };
    put(count);
    for (const auto& f : facets) {
        for (double x : {0.0, 0.0, 1.0}) put_float(x);
        for (double x : f) put_float(x);
        s += std::string(2, '\0');
    }
    return s;
}

int read_bytes(const scratch_dir& dir, const std::string& bytes, dense2D<double>& pos, dense2D<unsigned>& connect) {
    write_file(dir.path("in.stl"), bytes);
    return STL_input(dir.path("in.stl").c_str(), pos, connect);
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
// Writer.

TEST(StlOutput, ExactBytesAndNormals) {
    scratch_dir dir;
    auto written = [&](const dense2D<double>& pos, const dense2D<unsigned>& tria, bool ascii) {
        EXPECT_EQ(STL_output(dir.path("o.stl").c_str(), pos, tria, ascii), 0);
        return read_file(dir.path("o.stl"));
    };
    const dense2D<unsigned> one = columns(3, {0, 1, 2}), none(3, 0), square = columns(3, {0, 1, 2, 1, 3, 2});
    // normal (0, -6, -2.5) / 6.5
    EXPECT_EQ(written(points(3, {0, 0, 0, 2, 0, 0, 0.5, -1.25, 3}), one, true),
              "solid ZQ5\n"
              "   facet normal 0.000000e+00 -9.230769e-01 -3.846154e-01\n"
              "      outer loop\n"
              "         vertex 0.000000e+00 0.000000e+00 0.000000e+00\n"
              "         vertex 2.000000e+00 0.000000e+00 0.000000e+00\n"
              "         vertex 5.000000e-01 -1.250000e+00 3.000000e+00\n"
              "      endloop\n"
              "   endfacet\n"
              "endsolid ZQ5\n");
    EXPECT_EQ(written(points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0}), one, false),
              binary_stl({kSquare[0]}, "ZQ5 STL Binary", 1));
    EXPECT_EQ(written(points(3, {}), none, true), "solid ZQ5\nendsolid ZQ5\n");
    EXPECT_EQ(written(points(3, {}), none, false), binary_stl({}, "ZQ5 STL Binary", 0));
    // A 2-D mesh is written with z = 0, byte for byte as its 3-D twin.
    for (bool ascii : {true, false})
        EXPECT_EQ(written(points(2, {0, 0, 1, 0, 0, 1, 1, 1}), square, ascii),
                  written(points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}), square, ascii));

    // Side p1p2 shorter than both sides at p0; a degenerate facet (zero normal); a
    // normal of length 1, written as it is.
    const std::string text = written(points(3, {0, 0, 0, 10, 0, 0, 10, 1, 0, 5, 5, 5, 0, 0, 1, 0, 1, 0}),
                                     columns(3, {0, 1, 2, 3, 3, 3, 0, 4, 5}), true);
    std::vector<std::string> normals;
    for (std::size_t at = text.find("normal "); at != std::string::npos; at = text.find("normal ", at + 1))
        normals.push_back(text.substr(at + 7, text.find('\n', at) - at - 7));
    EXPECT_EQ(normals, (std::vector<std::string>{"0.000000e+00 0.000000e+00 1.000000e+00",
                                                 "0.000000e+00 0.000000e+00 0.000000e+00",
                                                 "-1.000000e+00 0.000000e+00 0.000000e+00"}));
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
// Reader.

TEST(StlInput, FormatVariantsAndNodeMerging) {
    scratch_dir dir;
    std::string upper = ascii_stl(kSquare, "SQUARE"), crlf, tabs;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (char c : ascii_stl(kSquare)) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    // Tabs wherever white space separates (not inside the keyword "outer loop").
    for (char c : ascii_stl(kSquare)) tabs += c == ' ' ? '\t' : c;
    for (std::size_t at; (at = tabs.find("outer\tloop")) != std::string::npos;) tabs[at + 5] = ' ';
    std::string no_final_newline = ascii_stl(kSquare), color = ascii_stl(kSquare);
    no_final_newline.pop_back();
    color.insert(color.find("  facet"), "color 0.1 0.2 0.3\n");
    struct variant {
        const char* name;
        std::string bytes;
        dense2D<double> pos = points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0});
        dense2D<unsigned> connect = columns(3, {0, 1, 2, 1, 3, 2});
    };
    const variant variants[] = {
        {"ascii", ascii_stl(kSquare)},
        {"binary", binary_stl(kSquare, "binary", 2)},
        {"binary header starting with solid", binary_stl(kSquare, "solid square", 2)},
        {"bytes after the last binary facet", binary_stl(kSquare, "solid", 2) + "trailing"},
        {"upper case", upper},
        {"CRLF", crlf},
        {"tabs", tabs},
        {"no final newline", no_final_newline},
        {"two solids", "solid one\n" + ascii_facets({kSquare[0]}, "") + "endsolid one\nsolid two\n" +
                           ascii_facets({kSquare[1]}, "") + "endsolid two\n"},
        {"color line", color},
        {"signs and exponents", "solid s\n facet normal +0 -0 +1E+0\n outer loop\n vertex +0 -0. 0e5\n"
                                " vertex 1.0E0 +0 0\n vertex .0 1 -0\n endloop\n endfacet\n facet normal 0 0 1\n"
                                " outer loop\n vertex 1 0 0\n vertex 0x1p0 1 0\n vertex 0 1 0\n endloop\n"
                                " endfacet\nendsolid s\n"},
        // The smallest altitude is 1/sqrt(2): a shift of 1e-3 is below 0.05 times it
        // (the first node of the list survives), one of 0.1 is not.
        {"shift within the tolerance", ascii_stl({kSquare[0], {1.001, 0, 0, 1, 1, 0, 0, 1, 0}})},
        {"shift beyond the tolerance", ascii_stl({kSquare[0], {1.1, 0, 0, 1, 1, 0, 0, 1, 0}}),
         points(3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1.1, 0, 0, 1, 1, 0}), columns(3, {0, 1, 2, 3, 4, 2})},
        // A flat sliver (zero altitude, so it does not set the tolerance) whose corner
        // (1e-4, 0, 0) lies within the square's tolerance of the origin: removed.
        {"degenerate facet removed after merging", ascii_stl({kSquare[0], kSquare[1], {0, 0, 0, 1e-4, 0, 0, 1, 0, 0}})},
        {"no positive altitude: nothing merges", ascii_stl({{1, 2, 3, 1, 2, 3, 1, 2, 3}, {0, 0, 0, 1, 0, 0, 2, 0, 0}}),
         points(3, {1, 2, 3, 1, 2, 3, 1, 2, 3, 0, 0, 0, 1, 0, 0, 2, 0, 0}), columns(3, {0, 1, 2, 3, 4, 5})},
    };
    for (const variant& v : variants) {
        SCOPED_TRACE(v.name);
        dense2D<double> pos(3, 10, 7.0);
        const dense2D<double> alias = pos;  // a second view of the caller's buffer
        dense2D<unsigned> connect(3, 5, 1u);
        ASSERT_EQ(read_bytes(dir, v.bytes, pos, connect), 0);
        EXPECT_EQ(pos, v.pos);
        EXPECT_EQ(connect, v.connect);
        EXPECT_TRUE(alias.cols() == 10 && alias(2, 9) == 7.0);  // overwritten, not written through
    }
}

TEST(StlInput, AbsurdNumbersEndInAResult) {
    scratch_dir dir;
    const double inf = std::numeric_limits<double>::infinity();
    dense2D<double> pos;
    dense2D<unsigned> connect;
    // NaN, infinities, overflow, underflow and denormals next to a proper facet.
    ASSERT_EQ(read_bytes(dir,
                         "solid x\n" + ascii_facets(kSquare) +
                             " facet normal 0 0 0\n outer loop\n vertex nan 1e999 -1e999\n"
                             " vertex 1e-400 4.9e-324 -inf\n vertex INF NaN 2.2e-310\n endloop\n endfacet\nendsolid\n",
                         pos, connect),
              0);
    ASSERT_EQ(connect.cols(), 3u);
    const unsigned a = connect(0, 2), b = connect(1, 2), c = connect(2, 2);
    EXPECT_TRUE(std::isnan(pos(0, a)) && std::isnan(pos(1, c)));
    EXPECT_EQ((std::vector<double>{pos(1, a), pos(2, a), pos(0, b), pos(1, b), pos(2, b), pos(0, c), pos(2, c)}),
              (std::vector<double>{inf, -inf, 0.0, 4.9e-324, -inf, inf, 2.2e-310}));

    // The same in binary: a facet of NaNs and one of denormal floats, which sets a
    // tiny tolerance: nothing but the shared edge merges.
    const double nan = std::nan(""), tiny = std::numeric_limits<float>::denorm_min();
    facet_list facets = kSquare;
    facets.push_back(std::vector<double>(9, nan));
    facets.push_back({tiny, 0, 0, 0, tiny, 0, 0, 0, tiny});
    ASSERT_EQ(read_bytes(dir, binary_stl(facets, "", 4), pos, connect), 0);
    EXPECT_EQ(connect.cols(), 4u);
    EXPECT_EQ(pos.cols(), 10u);
}

TEST(StlInput, StatusesInOrder) {
    scratch_dir dir;
    auto read_path = [](const char* path) {
        dense2D<double> pos(3, 2, 1.0);
        dense2D<unsigned> connect(3, 1, 0u);
        const int r = STL_input(path, pos, connect);
        EXPECT_TRUE(pos.empty() && connect.empty());
        return r;
    };
    auto read = [&](const std::string& bytes) {
        write_file(dir.path("in.stl"), bytes);
        return read_path(dir.path("in.stl").c_str());
    };
    // -1: nothing to open.
    const std::string missing = dir.path("missing.stl");
    for (const char* path : {missing.c_str(), dir.dir.c_str(), static_cast<const char*>(nullptr)})
        EXPECT_EQ(read_path(path), -1);
    // -2: neither ASCII nor 80 bytes of header ("solid only": ASCII -3, then too short).
    for (const std::string& bytes : {std::string(), std::string("hello\n"), std::string("solid only\n"),
                                     std::string(79, 'x')})
        EXPECT_EQ(read(bytes), -2) << bytes;
    // -3: an 80-byte header without a count; fewer facets than the count says,
    // mid-facet, or 4 billion claimed by a 1 KB file (refused before anything is sized).
    std::string truncated = binary_stl(kSquare, "", 2), liar = binary_stl(kSquare, "", 0xFFFFFFFFu);
    truncated.resize(truncated.size() - 20);
    liar.resize(1024, '\0');
    for (const std::string& bytes : {std::string(80, 'x'), std::string(83, 'x'), binary_stl(kSquare, "", 3),
                                     truncated, liar})
        EXPECT_EQ(read(bytes), -3);
    // Malformed ASCII facets (the binary reading of their bytes fails too): a short
    // normal, two or four vertices, no endsolid, a word for a number, a 1 MB line, NUL
    // bytes, and a blank line after endsolid (read as a facet).
    const std::string head = "solid bad" + std::string(80, ' ') + "\n";  // spaces as a facet count
    const std::string facet = " facet normal 0 0 1\n outer loop\n", two = " vertex 0 0 0\n vertex 1 0 0\n";
    const std::string bodies[] = {
        " facet normal 0 0\n outer loop\n",
        facet + two + " endloop\n endfacet\n",
        facet + two + " vertex 0 1 0\n vertex 1 1 0\n endloop\n endfacet\nendsolid\n",
        facet + two + " vertex 0 1 0\n endloop\n endfacet\n",
        facet + " vertex 0 0 zero\n",
        " facet normal 0 0 1" + std::string(1 << 20, ' ') + "\n",
        std::string(200, '\0'),
    };
    for (const std::string& body : bodies) EXPECT_EQ(read(head + body), -3) << body.substr(0, 60);
    EXPECT_EQ(read(ascii_stl(kSquare) + "\n"), -3);
    // Devices: an endless one ends in a status; /dev/zero claims zero facets.
    EXPECT_LT(read_path("/dev/urandom"), 0);
    EXPECT_EQ(read_path("/dev/zero"), 0);
}

// ---------------------------------------------------------------------------
// Round trips, allocation failure, real files, locale, numbers.

TEST(StlRoundTrip, ClosedSurfaceFacetForFacetAndUnderAllocationFailure) {
    scratch_dir dir;
    const nodara_test::mesh cube = nodara_test::cube_surface(3);
    for (bool ascii : {true, false}) {
        SCOPED_TRACE(ascii ? "ascii" : "binary");
        ASSERT_EQ(STL_output(dir.path("c.stl").c_str(), cube.pos, cube.connect, ascii), 0);
        dense2D<double> pos;
        dense2D<unsigned> connect;
        ASSERT_EQ(STL_input(dir.path("c.stl").c_str(), pos, connect), 0);
        EXPECT_EQ(pos.cols(), cube.pos.cols());
        ASSERT_TRUE(check_IDs(connect, EL_TRIA3, static_cast<unsigned>(pos.cols())));
        EXPECT_EQ(facet_corners(pos, connect), facet_corners(cube.pos, cube.connect));
        EXPECT_EQ(count_unique_indices(connect), static_cast<int>(pos.cols()));
        ASSERT_EQ(STL_output(dir.path("d.stl").c_str(), pos, connect, ascii), 0);
        EXPECT_EQ(read_file(dir.path("d.stl")), read_file(dir.path("c.stl")));

        if (!zq5::detail::fault_injection_enabled()) continue;
        dense2D<double> pos2;
        dense2D<unsigned> connect2;
        int final_result = 1;
        const auto failures = nodara_test::for_each_allocation_failure(
            [&] {
                pos2 = dense2D<double>(3, 2, 1.0);
                connect2 = dense2D<unsigned>(3, 1, 0u);
            },
            [&] { return STL_input(dir.path("c.stl").c_str(), pos2, connect2); },
            [&](int r) {
                EXPECT_EQ(r, -199);
                EXPECT_TRUE(pos2.empty() && connect2.empty());
            },
            final_result);
        EXPECT_GT(failures, 2u);
        EXPECT_EQ(final_result, 0);
        EXPECT_EQ(pos2, pos);
        EXPECT_EQ(connect2, connect);
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
        EXPECT_EQ(remove_degenerated(connect, false), 0);                        // no facet uses a node twice
    }
    closedir(d);
    EXPECT_GE(files, 5);
}

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

// Number reading is scanf "%lg" in the C locale, whose conversion is strtod's.
TEST(NumberText, AgreesWithStrtod) {
    std::vector<std::string> texts = {"1.5", "  -2e3 x", "+.5",  "-0x1p4", "1e400", "-1e400", "1e-400", "inf",
                                      "-infinity", "nan", "1,5", "--1", "+-1", "", "x1", "0x", "4.9e-324",
                                      "0x-1", "0xinf", "-0x-1", "0x.8", "0x.g"};
    std::mt19937_64 rng(20240611);
    for (int i = 0; i < 3000; ++i) {
        const std::uint64_t bits = rng();
        double x;
        std::memcpy(&x, &bits, 8);
        char text[64];
        std::snprintf(text, sizeof text, i % 3 == 0 ? "%.17g" : i % 3 == 1 ? "%a" : "%.3e", x);
        texts.push_back(text);
    }
    for (const std::string& t : texts) {
        SCOPED_TRACE(t);
        char* end = nullptr;
        const double expected = std::strtod(t.c_str(), &end);
        const char* p = t.c_str();
        double v = -99.0;
        ASSERT_EQ(detail::parse_double(p, v), end != t.c_str());
        EXPECT_EQ(p, end);
        EXPECT_TRUE(end == t.c_str() || v == expected || (std::isnan(v) && std::isnan(expected))) << v;
    }
}

// ---------------------------------------------------------------------------
// The node sharing against the public operations it stands for: the facets as
// read (binary STL holds floats) put through merge with tolerance 0 in blocks of
// 100000 facets, merge with 0.05 times the square root of the smallest positive
// squared altitude, remove_degenerated and simplify.

// The smallest squared altitude of a facet, computed as documented.
double facet_measure(const double* x) {
    double m = std::numeric_limits<double>::max();
    for (int k = 0; k < 3; ++k) {
        const double *p = x + 3 * k, *a = x + 3 * ((k + 1) % 3), *b = x + 3 * ((k + 2) % 3);
        double da = 0, db = 0;
        for (int r = 0; r < 3; ++r) da += (a[r] - p[r]) * (a[r] - p[r]), db += (b[r] - p[r]) * (b[r] - p[r]);
        const double *B = da <= db ? a : b, *F = da <= db ? b : a;
        const double u[3] = {p[0] - B[0], p[1] - B[1], p[2] - B[2]}, v[3] = {F[0] - B[0], F[1] - B[1], F[2] - B[2]};
        const double c[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
        const double num = c[0] * c[0] + c[1] * c[1] + c[2] * c[2], den = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
        m = std::min(m, den == 0.0 ? num : num / den);
    }
    return m;
}

// Writes the facets as a binary STL, reads them back and compares with the merge
// operations; returns the number of nodes read.
std::size_t expect_merge_operations(const facet_list& facets) {
    scratch_dir dir;
    write_file(dir.path("c.stl"), binary_stl(facets, "", static_cast<std::uint32_t>(facets.size())));
    dense2D<double> pos;
    dense2D<unsigned> connect;
    EXPECT_EQ(STL_input(dir.path("c.stl").c_str(), pos, connect), 0);

    const std::size_t f = facets.size();
    dense2D<double> ref_pos(3, 3 * f);
    dense2D<unsigned> ref_connect(3, f);
    double h2 = std::numeric_limits<double>::infinity();
    for (std::size_t j = 0; j < f; ++j) {
        for (std::size_t i = 0; i < 9; ++i) ref_pos(i % 3, 3 * j + i / 3) = static_cast<float>(facets[j][i]);
        for (unsigned k = 0; k < 3; ++k) ref_connect(k, j) = static_cast<unsigned>(3 * j + k);
        const double h = facet_measure(ref_pos.col(3 * j));
        if (h > 0.0) h2 = std::min(h2, h);
    }
    if (std::isfinite(h2)) {
        for (std::size_t first = 0; first < f; first += 100000) {
            dense2D<unsigned> block = ref_connect.sub_matrix(0, first, 3, std::min<std::size_t>(100000, f - first));
            EXPECT_GE(merge(ref_pos, block, 0.0, 0u), 0);
        }
        EXPECT_GE(merge(ref_pos, ref_connect, 0.05 * std::sqrt(h2), 0u), 0);
        EXPECT_GE(remove_degenerated(ref_connect, false), 0);
        EXPECT_GE(simplify(ref_pos, ref_connect, 0u), 0);
    }
    EXPECT_EQ(connect, ref_connect);
    if (pos.cols() != ref_pos.cols()) {
        ADD_FAILURE() << pos.cols() << " nodes read, " << ref_pos.cols() << " by the merge operations";
        return 0;
    }
    for (std::size_t j = 0; j < pos.cols(); ++j)
        for (std::size_t r = 0; r < 3; ++r)
            if (std::isnan(pos(r, j)) && std::isnan(ref_pos(r, j))) pos(r, j) = ref_pos(r, j) = 0.0;
    // Compared bit for bit: a node keeps the signs of zero of its first vertex.
    for (std::size_t j = 0; j < pos.cols(); ++j)
        for (std::size_t r = 0; r < 3; ++r)
            if (std::signbit(pos(r, j)) != std::signbit(ref_pos(r, j)) || pos(r, j) != ref_pos(r, j)) {
                ADD_FAILURE() << "node " << j << " row " << r << ": " << pos(r, j) << " vs " << ref_pos(r, j);
                return 0;
            }
    return pos.cols();
}

// The cube skin plus two facets on six extra points.
facet_list cube_and_two(unsigned n, const double extra[6][3]) {
    const nodara_test::mesh cube = nodara_test::cube_surface(n);
    const std::vector<double> corners = facet_corners(cube.pos, cube.connect);
    facet_list facets;
    for (std::size_t i = 0; i < corners.size(); i += 9) facets.emplace_back(corners.begin() + i, corners.begin() + i + 9);
    for (int j = 0; j < 2; ++j) {
        facets.emplace_back();
        for (int k = 0; k < 3; ++k)
            for (int r = 0; r < 3; ++r) facets.back().push_back(extra[3 * j + k][r]);
    }
    return facets;
}

TEST(StlInput, NodeSharingEqualsTheMergeOperations) {
    // Optimised builds take a skin of 100,000+ facets (two merge blocks); under the
    // sanitizers the reference merges of that size take too long, and one block is used.
#ifdef NDEBUG
    const unsigned n = 92;
#else
    const unsigned n = 8;
#endif
    const std::size_t skin = 6u * (n + 1) * (n + 1) - 12u * (n + 1) + 8u;  // nodes of the skin
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    const struct {
        const char* name;
        double extra[6][3];
        std::size_t new_nodes;
    } cases[] = {
        {"only coincident nodes: -0 onto the origin",
         {{-0.0, -0.0, -0.0}, {inf, 1, 1}, {1, nan, 1}, {0.5, 0.5, 0}, {inf, 1, 1}, {2, 3, 4}}, 5},
        {"a node 1e-9 from the origin, within the tolerance",
         {{-0.0, -0.0, -0.0}, {inf, 1, 1}, {1, nan, 1}, {1e-9, 0, 0}, {inf, 1, 1}, {2, 3, 4}}, 4},
        {"nodes just beyond and just within the tolerance of a corner",
         {{1, 1, -0.036}, {0.5, 0.5, 2}, {0.5, 2, 0.5}, {1, 1, 0.034}, {2, 0.5, 0.5}, {2, 2, 2}}, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const facet_list facets = cube_and_two(n, c.extra);
        ASSERT_EQ(facets.size() > 100000u, n > 91);
        EXPECT_EQ(expect_merge_operations(facets), skin + c.new_nodes);
    }
}

// A closed skin whose facets come in random order (no vertex cache can help: the
// reader then looks vertices up in a table), with a -0 corner and a duplicate
// facet among them, and the same skin with one corner moved within the tolerance
// of another node.
TEST(StlInput, FacetsInNoOrderEqualTheMergeOperations) {
    // Over 40% of the first 4096 facets' vertices are new in any order: the table is used.
#ifdef NDEBUG
    const unsigned n = 92;
#else
    const unsigned n = 40;
#endif
    const double extra[6][3] = {{-0.0, -0.0, -0.0}, {0.5, 0.5, 2}, {0.5, 2, 0.5},
                                {-0.0, -0.0, -0.0}, {0.5, 0.5, 2}, {0.5, 2, 0.5}};
    facet_list facets = cube_and_two(n, extra);
    std::shuffle(facets.begin(), facets.end(), std::mt19937(5));
    const std::size_t skin = 6u * (n + 1) * (n + 1) - 12u * (n + 1) + 8u;
    EXPECT_EQ(expect_merge_operations(facets), skin + 2);
    facets[facets.size() / 2][0] += 1e-6;  // a corner within the tolerance of its node
    EXPECT_GT(expect_merge_operations(facets), 0u);
}

// Two unit right triangles with a corner of one at a random place and a corner of
// the other just within (merged: 5 nodes) or just beyond (6 nodes) the tolerance of
// it, in a random direction: the nearness test must see pairs wherever they lie.
TEST(StlInput, NearPairsAnywhereMerge) {
    const double tol = 0.05 * std::sqrt(0.5);  // the smallest squared altitude is 1/2
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> place(-100.0, 100.0), axis(-1.0, 1.0);
    scratch_dir dir;
    for (int trial = 0; trial < 200; ++trial) {
        const double p[3] = {place(rng), place(rng), place(rng)};
        double u[3] = {axis(rng), axis(rng), axis(rng)};
        const double length = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
        const double gap = (trial % 2 ? 1.02 : 0.98) * tol / length;
        const double q[3] = {p[0] + u[0] * gap, p[1] + u[1] * gap, p[2] + u[2] * gap};
        const facet_list facets = {{p[0], p[1], p[2], p[0] + 1, p[1], p[2], p[0], p[1] + 1, p[2]},
                                   {q[0], q[1], q[2], q[0], q[1], q[2] + 1, q[0] - 1, q[1], q[2]}};
        dense2D<double> pos;
        dense2D<unsigned> connect;
        // ASCII keeps the doubles (floats would round the gap).
        ASSERT_EQ(read_bytes(dir, ascii_stl(facets), pos, connect), 0);
        ASSERT_EQ(pos.cols(), trial % 2 ? 6u : 5u) << "trial " << trial;
    }
}

// Facets drawn from a pool of grid points with signed zeros, a few points that are
// not finite, vertices shared far apart in the file (more distinct vertices than
// any small cache holds) and repeated within a facet, optionally one point a tiny
// step from another (the full merge then runs).
TEST(StlInput, RandomSoupsEqualTheMergeOperations) {
#ifdef NDEBUG
    const std::size_t pool_size = 40000, facet_count = 120000;  // two merge blocks
#else
    const std::size_t pool_size = 2500, facet_count = 4000;
#endif
    std::mt19937 rng(20261121);
    for (int near : {0, 1}) {
        SCOPED_TRACE(near ? "with a near pair" : "coincident vertices only");
        std::vector<std::vector<double>> pool;
        std::uniform_int_distribution<int> coordinate(-20, 20), coin(0, 1);
        for (std::size_t i = 0; i < pool_size; ++i) {
            std::vector<double> p(3);
            for (double& x : p) x = coordinate(rng) == 0 ? (coin(rng) ? -0.0 : 0.0) : coordinate(rng) * 0.5;
            pool.push_back(p);
        }
        pool[7] = {std::nan(""), 1, 2};
        pool[8] = {1, std::numeric_limits<double>::infinity(), 2};
        if (near) pool[9] = {pool[10][0] + 1e-6, pool[10][1], pool[10][2]};
        facet_list facets;
        std::uniform_int_distribution<std::size_t> anywhere(0, pool_size - 1);
        std::uniform_int_distribution<int> step(-40, 40);
        std::size_t cursor = 0;  // facets mostly near the last one, sometimes anywhere
        for (std::size_t j = 0; j < facet_count; ++j) {
            cursor = coin(rng) && coin(rng) ? anywhere(rng) : (cursor + pool_size + step(rng)) % pool_size;
            facets.emplace_back();
            for (int k = 0; k < 3; ++k) {
                const std::size_t i = k == 0 ? cursor : (cursor + pool_size + step(rng)) % pool_size;
                facets.back().insert(facets.back().end(), pool[i].begin(), pool[i].end());
            }
        }
        EXPECT_GT(expect_merge_operations(facets), 0u);
    }
}

}  // namespace
