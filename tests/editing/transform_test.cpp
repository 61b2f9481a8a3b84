#include "editing/helpers.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

using namespace zq5::nodara;
using namespace nodara_test;

namespace {

const double kPi = 3.14159265358979323846;

std::array<double, 3> cross(const double* u, const double* v) {
    return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
}

TEST(Transforms, IdentityEmptyAndPadding) {
    dense2D<double> pos(1, 3, {1., 2., 3.}), empty(2, 0);
    EXPECT_EQ(translate(pos, V2{0., 0.}), 0);
    EXPECT_EQ(rotate(pos, V2{5., 5.}, 0.0), 0);
    EXPECT_EQ(rotate(pos, V3{5., 5., 5.}, V3{}), 0);
    EXPECT_EQ(zoom(pos, V3{5., 5., 5.}, 1.0), 0);
    EXPECT_EQ(translate(pos, V3{1., 0., 0.}, dense1D<unsigned>()), 0);
    EXPECT_EQ(translate(empty, V2{1., 1.}), 0);
    EXPECT_EQ(vec_of(pos), (dvec{1., 2., 3.}));  // one row still: not padded
    // Too few rows are padded with zeros first; extra rows are left alone.
    dense2D<double> p(1, 2, {1., 2.}), p3(3, 1, {1., 1., 7.});
    EXPECT_EQ(translate(p, V2{1., 0.}), 2);
    EXPECT_EQ(vec_of(p), (dvec{2., 0., 3., 0.}));
    EXPECT_EQ(rotate(p, V3{}, V3{kPi / 2, 0., 0.}), 2);
    expect_near(p, {2., 0., 0., 3., 0., 0.}, 1e-15);
    EXPECT_EQ(zoom(p3, V2{0., 0.}, 2.0), 1);
    EXPECT_EQ(vec_of(p3), (dvec{2., 2., 7.}));
}

TEST(Transforms, ListAndConnectivityForms) {
    dense2D<double> pos(2, 5, 0.0);
    // Repeated entries apply once per occurrence; out-of-range and NULL_INDEX skip.
    EXPECT_EQ(translate(pos, V2{1., 0.}, list_of({3, 3, 9, NIL})), 2);
    EXPECT_EQ(pos(0, 3), 2.0);
    dense2D<unsigned> m(3, 2, {0, 1, 2, 2, 1, NIL});
    EXPECT_EQ(translate(pos, V2{0., 1.}, m), 3);  // each node once
    EXPECT_EQ(vec_of(pos), (dvec{0., 1., 0., 1., 0., 1., 2., 0., 0., 0.}));
    EXPECT_EQ(zoom(pos, V2{0., 0.}, 0.0, m), 3);
    EXPECT_EQ(pos(1, 0), 0.0);
    EXPECT_EQ(rotate(pos, V2{1., 1.}, kPi, list_of({4})), 1);
    expect_near(pos.sub_matrix(0, 4, 2, 1), {2., 2.}, 1e-15);
}

TEST(Transforms, WorkedExamples) {
    dense2D<double> p2(2, 1, {2., 1.}), p3(3, 1, {1., 0., 0.}), z(3, 2, {1., 2., 3., -1., 0., 1.});
    EXPECT_EQ(rotate(p2, V2{1., 1.}, kPi / 2), 1);  // counter-clockwise
    expect_near(p2, {1., 2.}, 1e-15);
    EXPECT_EQ(rotate(p3, V3{}, V3{0., 0., kPi / 2}), 1);
    expect_near(p3, {0., 1., 0.}, 1e-15);
    EXPECT_EQ(zoom(z, V3{1., 1., 1.}, 3.0), 2);
    EXPECT_EQ(vec_of(z), (dvec{1., 4., 7., -5., -2., 1.}));
    EXPECT_EQ(zoom(z, V3{1., 1., 1.}, 0.0), 2);
    EXPECT_EQ(vec_of(z), dvec(6, 1.));
}

// Rodrigues' closed form x' = c + p + a (R x p) + b R x (R x p), p = x - c; the series
// used for |R| <= 0.1 agrees with it to rounding.
TEST(Transforms, Rotation3DIsRodrigues) {
    const dense2D<double> base = random_cloud(3, 40, false, 3);
    const double ax[3] = {1.0 / std::sqrt(14.0), -2.0 / std::sqrt(14.0), 3.0 / std::sqrt(14.0)}, c[3] = {.5, -.25, 2.};
    for (double len : {1e-3, 0.03, 0.0999, 0.1, 0.1001, 1.0, 3.0}) {
        SCOPED_TRACE(len);
        const double R[3] = {len * ax[0], len * ax[1], len * ax[2]};
        const double a = std::sin(len) / len, b = (1.0 - std::cos(len)) / (len * len);
        dense2D<double> pos;
        ASSERT_TRUE(pos.copy(base));
        EXPECT_EQ(rotate(pos, V3{c[0], c[1], c[2]}, V3{R[0], R[1], R[2]}), 40);
        for (unsigned j = 0; j < 40; ++j) {
            const double p[3] = {base(0, j) - c[0], base(1, j) - c[1], base(2, j) - c[2]};
            const std::array<double, 3> c1 = cross(R, p), c2 = cross(R, c1.data());
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(pos(k, j), c[k] + p[k] + a * c1[k] + b * c2[k], 1e-15);
        }
    }
}

TEST(Copies, CopyMeshAppendsNodesInFirstAppearanceOrder) {
    dense2D<double> pos(2, 4, {0., 0., 1., 0., 1., 1., 0., 1.});
    dense2D<unsigned> in(3, 2, {2, 0, 1, 3, 2, 0}), out, same(2, 1, {1, NIL}), bad(1, 1, {99});
    EXPECT_EQ(copy_mesh(pos, out, in), 0);
    EXPECT_EQ(vec_of(out), (uvec{4, 5, 6, 7, 4, 5}));
    EXPECT_EQ(vec_of(pos), (dvec{0., 0., 1., 0., 1., 1., 0., 1., 1., 1., 0., 0., 1., 0., 0., 1.}));
    EXPECT_EQ(copy_mesh(pos, same, same), 0);  // in place; NULL_INDEX stays
    EXPECT_EQ(vec_of(same), (uvec{8, NIL}));
    EXPECT_EQ(copy_mesh(pos, out, bad), -3);
    EXPECT_EQ(pos.cols(), 9u);
}

TEST(Copies, MirrorCopyReflectsAndReversesOrientation) {
    mesh m = tria_mesh(2, 2), h = hexa_mesh(1, 1, 1);
    dense2D<unsigned> out;
    EXPECT_EQ(copy_sym_mesh(m.pos, out, V2{0., 0.}, V2{0., 0.}, m.connect), -4);
    EXPECT_EQ(m.pos.cols(), 9u);
    EXPECT_EQ(copy_sym_mesh(m.pos, out, V2{0., 0.}, V2{2., 0.}, m.connect), 0);
    ASSERT_EQ(m.pos.cols(), 18u);
    auto area = [&](unsigned a, unsigned b, unsigned c) {
        const dense2D<double>& p = m.pos;
        return (p(0, b) - p(0, a)) * (p(1, c) - p(1, a)) - (p(1, b) - p(1, a)) * (p(0, c) - p(0, a));
    };
    for (std::size_t j = 0; j < out.cols(); ++j) {
        EXPECT_EQ(m.pos(0, out(0, j)), -m.pos(0, m.connect(0, j)));
        EXPECT_EQ(m.pos(1, out(0, j)), m.pos(1, m.connect(0, j)));
        EXPECT_EQ(area(out(0, j), out(1, j), out(2, j)), -area(m.connect(0, j), m.connect(1, j), m.connect(2, j)));
    }
    // 3-D: through the plane z = 1.
    EXPECT_EQ(copy_sym_mesh(h.pos, out, V3{0., 0., 1.}, V3{0., 0., 5.}, h.connect), 0);
    for (unsigned r = 0; r < 8; ++r) EXPECT_EQ(h.pos(2, out(r, 0)), 2.0 - h.pos(2, h.connect(r, 0)));
}

TEST(Copies, RepeatedCopiesTurnAndShift) {
    dense2D<double> pos(2, 2, {1., 0., 2., 0.}), p3(3, 1, {1., 0., 0.});
    dense2D<unsigned> in(2, 1, {0, 1}), out(2, 1, {0, 1}), wrong(3, 1, {0, 1, 0}), node(1, 1, {0}), o3;
    // Copy k is turned k quarters and shifted k times (0, 10); out is appended to.
    EXPECT_EQ(copy_mesh(pos, out, V2{0., 10.}, V2{0., 0.}, kPi / 2, 2, in), 0);
    EXPECT_EQ(vec_of(out), (uvec{0, 1, 2, 3, 4, 5}));
    expect_near(pos, {1., 0., 2., 0., 0., 11., 0., 12., -1., 20., -2., 20.}, 1e-14);
    EXPECT_EQ(copy_mesh(pos, out, V2{}, V2{}, 1.0, 0, in), 0);
    EXPECT_EQ(pos.cols(), 6u);
    EXPECT_EQ(copy_mesh(pos, wrong, V2{}, V2{}, 1.0, 1, in), -7);
    // 3-D helix: three copies, a quarter turn about z and one up each.
    EXPECT_EQ(copy_mesh(p3, o3, V3{0., 0., 1.}, V3{}, V3{0., 0., kPi / 2}, 3, node), 0);
    expect_near(p3, {1., 0., 0., 0., 1., 1., -1., 0., 2., 0., -1., 3.}, 1e-15);
}

TEST(Copies, AllocationFailureLeavesInputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const mesh m = quad_mesh(3, 2);
    dense2D<double> pos;
    dense2D<unsigned> out;
    auto reset = [&] {
        ASSERT_TRUE(pos.copy(m.pos));
        out = dense2D<unsigned>();
    };
    int r = expect_failures_report(reset, [&] { return copy_mesh(pos, out, m.connect); },
                                   [&] { EXPECT_TRUE(pos.cols() == m.pos.cols() && out.empty()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(pos.cols(), 2 * m.pos.cols());
    r = expect_failures_report(
        reset, [&] { return rotate(pos, V2{}, 1.0, m.connect); }, [&] { EXPECT_EQ(vec_of(pos), vec_of(m.pos)); });
    EXPECT_EQ(r, static_cast<int>(m.pos.cols()));
}

}  // namespace
