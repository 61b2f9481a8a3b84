#include "common/fault_injection.h"
#include "common/meshes.h"
#include "editing/helpers.h"

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace zq5::nodara;
using nodara_test::list_of;
using nodara_test::random_cloud;
using nodara_test::vec_of;
using zq5::dense1D;
using zq5::dense2D;
using zq5::vector_fixed;

namespace {

const double kPi = 3.14159265358979323846;

double dist(const dense2D<double>& p, unsigned a, unsigned b) {
    double s = 0.0;
    for (std::size_t k = 0; k < p.rows(); ++k) s += (p(k, a) - p(k, b)) * (p(k, a) - p(k, b));
    return std::sqrt(s);
}

// ---------------------------------------------------------------------------
// The three forms and the identity rules.

TEST(Transforms, IdentityAndEmptyDoNothing) {
    dense2D<double> pos(1, 3, {1., 2., 3.});
    EXPECT_EQ(translate(pos, vector_fixed<double, 2>{0., 0.}), 0);
    EXPECT_EQ(pos.rows(), 1u);  // not padded
    EXPECT_EQ(rotate(pos, vector_fixed<double, 2>{5., 5.}, 0.0), 0);
    EXPECT_EQ(rotate(pos, vector_fixed<double, 3>{5., 5., 5.}, vector_fixed<double, 3>{}), 0);
    EXPECT_EQ(zoom(pos, vector_fixed<double, 3>{5., 5., 5.}, 1.0), 0);
    EXPECT_EQ(translate(pos, vector_fixed<double, 3>{1., 0., 0.}, dense1D<unsigned>()), 0);
    EXPECT_EQ(pos.rows(), 1u);
    EXPECT_EQ(vec_of(pos), (std::vector<double>{1., 2., 3.}));
    dense2D<double> empty(2, 0);
    EXPECT_EQ(translate(empty, vector_fixed<double, 2>{1., 1.}), 0);
}

TEST(Transforms, PaddingAndCounts) {
    dense2D<double> pos(1, 2, {1., 2.});
    EXPECT_EQ(translate(pos, vector_fixed<double, 2>{1., 0.}), 2);
    EXPECT_EQ(pos.rows(), 2u);
    EXPECT_EQ(vec_of(pos), (std::vector<double>{2., 0., 3., 0.}));
    // A 2-D mesh rotated in 3-D gains a z row of zeros, then turns.
    EXPECT_EQ(rotate(pos, vector_fixed<double, 3>{}, vector_fixed<double, 3>{kPi / 2, 0., 0.}), 2);
    ASSERT_EQ(pos.rows(), 3u);
    EXPECT_NEAR(pos(0, 0), 2.0, 1e-15);
    EXPECT_NEAR(pos(1, 0), 0.0, 1e-15);
    EXPECT_NEAR(pos(2, 0), 0.0, 1e-15);
    // Extra rows are left alone by a 2-D transform.
    dense2D<double> p3(3, 1, {1., 1., 7.});
    EXPECT_EQ(zoom(p3, vector_fixed<double, 2>{0., 0.}, 2.0), 1);
    EXPECT_EQ(vec_of(p3), (std::vector<double>{2., 2., 7.}));
}

TEST(Transforms, ListAndConnectivityForms) {
    dense2D<double> pos(2, 5, 0.0);
    // Repeated entries apply once per occurrence; out-of-range and NULL_INDEX skip.
    EXPECT_EQ(translate(pos, vector_fixed<double, 2>{1., 0.}, list_of({3, 3, 9, zq5::NULL_INDEX})), 2);
    EXPECT_EQ(pos(0, 3), 2.0);
    dense2D<unsigned> m(3, 2, {0, 1, 2, 2, 1, zq5::NULL_INDEX});
    EXPECT_EQ(translate(pos, vector_fixed<double, 2>{0., 1.}, m), 3);  // each node once
    EXPECT_EQ(vec_of(pos), (std::vector<double>{0., 1., 0., 1., 0., 1., 2., 0., 0., 0.}));
    EXPECT_EQ(zoom(pos, vector_fixed<double, 2>{0., 0.}, 0.0, m), 3);
    EXPECT_EQ(pos(1, 0), 0.0);
    EXPECT_EQ(rotate(pos, vector_fixed<double, 2>{1., 1.}, kPi, list_of({4})), 1);
    EXPECT_NEAR(pos(0, 4), 2.0, 1e-15);
    EXPECT_NEAR(pos(1, 4), 2.0, 1e-15);
}

// ---------------------------------------------------------------------------
// Against their definitions.

TEST(Transforms, Rotation2DIsCounterClockwise) {
    dense2D<double> pos(2, 1, {2., 1.});
    EXPECT_EQ(rotate(pos, vector_fixed<double, 2>{1., 1.}, kPi / 2), 1);
    EXPECT_NEAR(pos(0, 0), 1.0, 1e-15);
    EXPECT_NEAR(pos(1, 0), 2.0, 1e-15);
}

TEST(Transforms, Rotation3DAboutZ) {
    dense2D<double> pos(3, 1, {1., 0., 0.});
    EXPECT_EQ(rotate(pos, vector_fixed<double, 3>{}, vector_fixed<double, 3>{0., 0., kPi / 2}), 1);
    EXPECT_NEAR(pos(0, 0), 0.0, 1e-15);
    EXPECT_NEAR(pos(1, 0), 1.0, 1e-15);
    EXPECT_NEAR(pos(2, 0), 0.0, 1e-15);
}

TEST(Transforms, RotationsKeepDistancesAndTheAxis) {
    const dense2D<double> base = random_cloud(3, 40, false, 3);
    for (double angle : {0.03, 0.0999, 0.1, 0.1001, 1.0, 3.0}) {
        SCOPED_TRACE(angle);
        dense2D<double> pos;
        ASSERT_TRUE(pos.copy(base));
        const double ax[3] = {1.0 / std::sqrt(14.0), 2.0 / std::sqrt(14.0), 3.0 / std::sqrt(14.0)};
        const vector_fixed<double, 3> R{angle * ax[0], angle * ax[1], angle * ax[2]};
        const vector_fixed<double, 3> c{0.5, -0.25, 2.0};
        EXPECT_EQ(rotate(pos, c, R), 40);
        for (unsigned a = 0; a < 40; a += 3)
            for (unsigned b = a + 1; b < 40; b += 5) EXPECT_NEAR(dist(pos, a, b), dist(base, a, b), 1e-14);
        // A point on the axis stays; the rotation angle about the axis is |R|.
        dense2D<double> q(3, 2, {c[0] + ax[0], c[1] + ax[1], c[2] + ax[2], c[0] + 1.0, c[1], c[2]});
        EXPECT_EQ(rotate(q, c, R), 2);
        EXPECT_NEAR(q(0, 0), c[0] + ax[0], 1e-15);
        EXPECT_NEAR(q(1, 0), c[1] + ax[1], 1e-15);
        EXPECT_NEAR(q(2, 0), c[2] + ax[2], 1e-15);
        // Component of e_x orthogonal to the axis turns by exactly |R|.
        const double ex[3] = {1.0, 0.0, 0.0};
        const double along = ax[0];
        double u[3], v[3], dot = 0.0, nu = 0.0, nv = 0.0;
        for (int k = 0; k < 3; ++k) {
            u[k] = ex[k] - along * ax[k];
            v[k] = (q(k, 1) - c[k]) - along * ax[k];
            dot += u[k] * v[k];
            nu += u[k] * u[k];
            nv += v[k] * v[k];
        }
        EXPECT_NEAR(std::acos(std::min(1.0, dot / std::sqrt(nu * nv))), angle, 1e-7);
    }
}

TEST(Transforms, TaylorBranchAgreesWithTheClosedFormNearPointOne) {
    // For |R| <= 0.1 the coefficients come from their series; they must agree with
    // sin|R| / |R| and (1 - cos|R|) / |R|^2 to rounding.
    for (double len : {0.1, 0.0999, 0.05, 1e-3}) {
        SCOPED_TRACE(len);
        const double s = len / std::sqrt(3.0);
        const double R[3] = {s, -s, s};
        const double a = std::sin(len) / len, b = (1.0 - std::cos(len)) / (len * len);
        const double p[3] = {0.3, -1.2, 0.7};
        // Closed-form Rodrigues: p + a (R x p) + b R x (R x p).
        const double c1[3] = {R[1] * p[2] - R[2] * p[1], R[2] * p[0] - R[0] * p[2], R[0] * p[1] - R[1] * p[0]};
        const double c2[3] = {R[1] * c1[2] - R[2] * c1[1], R[2] * c1[0] - R[0] * c1[2], R[0] * c1[1] - R[1] * c1[0]};
        dense2D<double> pos(3, 1, {p[0], p[1], p[2]});
        EXPECT_EQ(rotate(pos, vector_fixed<double, 3>{}, vector_fixed<double, 3>{R[0], R[1], R[2]}), 1);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(pos(k, 0), p[k] + a * c1[k] + b * c2[k], 2e-16);
    }
}

TEST(Transforms, ZoomScalesAboutTheCentre) {
    dense2D<double> pos(3, 2, {1., 2., 3., -1., 0., 1.});
    EXPECT_EQ(zoom(pos, vector_fixed<double, 3>{1., 1., 1.}, 3.0), 2);
    EXPECT_EQ(vec_of(pos), (std::vector<double>{1., 4., 7., -5., -2., 1.}));
    EXPECT_EQ(zoom(pos, vector_fixed<double, 3>{1., 1., 1.}, 0.0), 2);
    EXPECT_EQ(vec_of(pos), (std::vector<double>{1., 1., 1., 1., 1., 1.}));
}

// ---------------------------------------------------------------------------
// Copies.

TEST(Copies, CopyMeshAppendsNodesInFirstAppearanceOrder) {
    dense2D<double> pos(2, 4, {0., 0., 1., 0., 1., 1., 0., 1.});
    dense2D<unsigned> in(3, 2, {2, 0, 1, 3, 2, 0}), out;
    EXPECT_EQ(copy_mesh(pos, out, in), 0);
    ASSERT_EQ(pos.cols(), 8u);
    EXPECT_EQ(vec_of(out), (std::vector<unsigned>{4, 5, 6, 7, 4, 5}));
    const unsigned order[4] = {2, 0, 1, 3};
    for (unsigned k = 0; k < 4; ++k)
        for (unsigned r = 0; r < 2; ++r) EXPECT_EQ(pos(r, 4 + k), pos(r, order[k]));
    // The output may be the input itself; NULL_INDEX stays.
    dense2D<unsigned> same(2, 1, {1, zq5::NULL_INDEX});
    EXPECT_EQ(copy_mesh(pos, same, same), 0);
    EXPECT_EQ(vec_of(same), (std::vector<unsigned>{8, zq5::NULL_INDEX}));
    dense2D<unsigned> bad(1, 1, {99});
    EXPECT_EQ(copy_mesh(pos, out, bad), -3);
    EXPECT_EQ(pos.cols(), 9u);
}

TEST(Copies, MirrorCopyReflectsAndReversesOrientation) {
    nodara_test::mesh m = nodara_test::tria_mesh(2, 2);
    dense2D<unsigned> out;
    EXPECT_EQ(copy_sym_mesh(m.pos, out, vector_fixed<double, 2>{0., 0.}, vector_fixed<double, 2>{0., 0.}, m.connect),
              -4);
    EXPECT_EQ(m.pos.cols(), 9u);
    EXPECT_EQ(copy_sym_mesh(m.pos, out, vector_fixed<double, 2>{0., 0.}, vector_fixed<double, 2>{2., 0.}, m.connect),
              0);
    ASSERT_EQ(m.pos.cols(), 18u);
    for (std::size_t j = 0; j < out.cols(); ++j) {
        const unsigned a = m.connect(0, j), b = m.connect(1, j), c = m.connect(2, j);
        const unsigned A = out(0, j), B = out(1, j), C = out(2, j);
        EXPECT_EQ(m.pos(0, A), -m.pos(0, a));
        EXPECT_EQ(m.pos(1, A), m.pos(1, a));
        const double area = (m.pos(0, b) - m.pos(0, a)) * (m.pos(1, c) - m.pos(1, a)) -
                            (m.pos(1, b) - m.pos(1, a)) * (m.pos(0, c) - m.pos(0, a));
        const double mirrored = (m.pos(0, B) - m.pos(0, A)) * (m.pos(1, C) - m.pos(1, A)) -
                                (m.pos(1, B) - m.pos(1, A)) * (m.pos(0, C) - m.pos(0, A));
        EXPECT_EQ(mirrored, -area);
    }
    // 3-D: reflection through the plane z = 1.
    nodara_test::mesh h = nodara_test::hexa_mesh(1, 1, 1);
    EXPECT_EQ(copy_sym_mesh(h.pos, out, vector_fixed<double, 3>{0., 0., 1.}, vector_fixed<double, 3>{0., 0., 5.},
                            h.connect),
              0);
    for (unsigned r = 0; r < 8; ++r) EXPECT_EQ(h.pos(2, out(r, 0)), 2.0 - h.pos(2, h.connect(r, 0)));
}

TEST(Copies, RepeatedCopiesTurnAndShift) {
    dense2D<double> pos(2, 2, {1., 0., 2., 0.});
    dense2D<unsigned> in(2, 1, {0, 1});
    dense2D<unsigned> out(2, 1, {0, 1});  // appended to, not cleared
    EXPECT_EQ(copy_mesh(pos, out, vector_fixed<double, 2>{0., 10.}, vector_fixed<double, 2>{0., 0.}, kPi / 2, 2, in),
              0);
    ASSERT_EQ(pos.cols(), 6u);
    EXPECT_EQ(vec_of(out), (std::vector<unsigned>{0, 1, 2, 3, 4, 5}));
    // Copy 1: turned a quarter, shifted by (0, 10); copy 2: turned a half, (0, 20).
    EXPECT_NEAR(pos(0, 2), 0.0, 1e-15);
    EXPECT_NEAR(pos(1, 2), 11.0, 1e-15);
    EXPECT_NEAR(pos(0, 5), -2.0, 1e-15);
    EXPECT_NEAR(pos(1, 5), 20.0, 1e-14);
    EXPECT_EQ(copy_mesh(pos, out, vector_fixed<double, 2>{}, vector_fixed<double, 2>{}, 1.0, 0, in), 0);
    EXPECT_EQ(pos.cols(), 6u);
    dense2D<unsigned> wrong(3, 1, {0, 1, 0});
    EXPECT_EQ(copy_mesh(pos, wrong, vector_fixed<double, 2>{}, vector_fixed<double, 2>{}, 1.0, 1, in), -7);
    // 3-D helix: three copies about z.
    dense2D<double> p3(3, 1, {1., 0., 0.});
    dense2D<unsigned> node(1, 1, {0}), o3;
    EXPECT_EQ(copy_mesh(p3, o3, vector_fixed<double, 3>{0., 0., 1.}, vector_fixed<double, 3>{},
                        vector_fixed<double, 3>{0., 0., kPi / 2}, 3, node),
              0);
    ASSERT_EQ(p3.cols(), 4u);
    EXPECT_NEAR(p3(0, 3), 0.0, 1e-15);
    EXPECT_NEAR(p3(1, 3), -1.0, 1e-15);
    EXPECT_NEAR(p3(2, 3), 3.0, 1e-15);
}

TEST(Copies, AllocationFailureLeavesInputs) {
    NODARA_REQUIRE_FAULT_INJECTION();
    const nodara_test::mesh m = nodara_test::quad_mesh(3, 2);
    dense2D<double> pos;
    dense2D<unsigned> out;
    int result = 0;
    nodara_test::for_each_allocation_failure(
        [&] {
            ASSERT_TRUE(pos.copy(m.pos));
            out = dense2D<unsigned>();
        },
        [&] { return copy_mesh(pos, out, m.connect); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(pos.cols(), m.pos.cols());
            EXPECT_TRUE(out.empty());
        },
        result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(pos.cols(), 2 * m.pos.cols());
    nodara_test::for_each_allocation_failure(
        [&] { ASSERT_TRUE(pos.copy(m.pos)); },
        [&] { return rotate(pos, vector_fixed<double, 2>{}, 1.0, m.connect); },
        [&](int r) {
            EXPECT_EQ(r, -199);
            EXPECT_EQ(vec_of(pos), vec_of(m.pos));
        },
        result);
    EXPECT_EQ(result, static_cast<int>(m.pos.cols()));
}

}  // namespace
