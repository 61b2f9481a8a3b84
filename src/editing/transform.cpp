// translate, rotate, zoom; copy_mesh and copy_sym_mesh.
#include "editing/lists.h"

#include <zq5/nodara/editing.h>

#include <cmath>
#include <cstring>
#include <new>

namespace zq5 {
namespace nodara {
namespace {

using detail::vec;

// Pads pos with rows of 0.0 up to `dim` rows.  False when storage cannot be had.
bool pad_rows(dense2D<double>& pos, std::size_t dim) {
    const std::size_t rows = pos.rows(), cols = pos.cols();
    if (rows >= dim) return true;
    dense2D<double> padded;
    if (!padded.resize(dim, cols, 0.0)) return false;
    for (std::size_t j = 0; j < cols; ++j) {
        const double* src = pos.col(j);
        double* dst = padded.col(j);
        for (std::size_t k = 0; k < rows; ++k) dst[k] = src[k];
    }
    pos = padded;
    return true;
}

// x' = c + M (x - c) on the first N coordinates of a column.
template <std::size_t N>
struct affine {
    double M[N][N];
    double c[N];
    void operator()(double* x) const {
        double d[N], y[N];
        for (std::size_t k = 0; k < N; ++k) d[k] = x[k] - c[k];
        for (std::size_t i = 0; i < N; ++i) {
            double s = 0.0;
            for (std::size_t k = 0; k < N; ++k) s += M[i][k] * d[k];
            y[i] = c[i] + s;
        }
        for (std::size_t k = 0; k < N; ++k) x[k] = y[k];
    }
};

template <std::size_t N>
affine<N> identity_affine() {
    affine<N> f;
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t k = 0; k < N; ++k) f.M[i][k] = i == k ? 1.0 : 0.0;
        f.c[i] = 0.0;
    }
    return f;
}

template <std::size_t N>
bool is_zero(const vector_fixed<double, N>& T) {
    for (std::size_t k = 0; k < N; ++k)
        if (T[k] != 0.0) return false;
    return true;
}

affine<2> rotation2(const vector_fixed<double, 2>& center, double angle) {
    affine<2> f = identity_affine<2>();
    const double c = std::cos(angle), s = std::sin(angle);
    f.M[0][0] = c;
    f.M[0][1] = -s;
    f.M[1][0] = s;
    f.M[1][1] = c;
    f.c[0] = center[0];
    f.c[1] = center[1];
    return f;
}

affine<3> rotation3(const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R) {
    affine<3> f = identity_affine<3>();
    const double t = R[0] * R[0] + R[1] * R[1] + R[2] * R[2];
    const double n = std::sqrt(t);
    double a, b;
    if (n <= 0.1) {
        a = 1.0 - t / 6.0 + t * t / 120.0 - t * t * t / 5040.0 + t * t * t * t / 362880.0 -
            t * t * t * t * t * 2.505210838544172e-08;
        b = 0.5 - t / 24.0 + t * t / 720.0 - t * t * t / 40320.0 + t * t * t * t * 2.755731922398589e-07;
    } else {
        a = std::sin(n) / n;
        b = (1.0 - std::cos(n)) / t;
    }
    const double K[3][3] = {{0.0, -R[2], R[1]}, {R[2], 0.0, -R[0]}, {-R[1], R[0], 0.0}};
    for (unsigned i = 0; i < 3; ++i)
        for (unsigned j = 0; j < 3; ++j) {
            double k2 = 0.0;
            for (unsigned m = 0; m < 3; ++m) k2 += K[i][m] * K[m][j];
            f.M[i][j] = (i == j ? 1.0 : 0.0) + a * K[i][j] + b * k2;
        }
    for (unsigned k = 0; k < 3; ++k) f.c[k] = center[k];
    return f;
}

// zoom is x + (x - c) (factor - 1), evaluated as written.
template <std::size_t N>
struct zoom_op {
    double c[N];
    double f1;
    void operator()(double* x) const {
        for (std::size_t k = 0; k < N; ++k) x[k] += (x[k] - c[k]) * f1;
    }
};

template <std::size_t N>
struct translate_op {
    double t[N];
    void operator()(double* x) const {
        for (std::size_t k = 0; k < N; ++k) x[k] += t[k];
    }
};

// The three forms over any column operation.
template <std::size_t N, class Op>
int run_all(dense2D<double>& pos, const Op& op) {
    if (!pad_rows(pos, N)) return -199;
    const std::size_t cols = pos.cols();
    for (std::size_t j = 0; j < cols; ++j) op(pos.col(j));
    return static_cast<int>(cols);
}

template <std::size_t N, class Op>
int run_list(dense2D<double>& pos, const Op& op, const unsigned* list, std::size_t n) {
    if (n == 0) return 0;
    if (!pad_rows(pos, N)) return -199;
    const std::size_t cols = pos.cols();
    int count = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (list[i] >= cols) continue;
        op(pos.col(list[i]));
        ++count;
    }
    return count;
}

template <std::size_t N, class Op>
int run_matrix(dense2D<double>& pos, const Op& op, const dense2D<unsigned>& connectM) {
    try {
        vec<unsigned> list;
        detail::unique_nodes(&connectM, &connectM + 1, NULL_INDEX, list);
        return run_list<N>(pos, op, list.data(), list.size());
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

template <std::size_t N>
translate_op<N> make_translate(const vector_fixed<double, N>& T) {
    translate_op<N> op;
    for (std::size_t k = 0; k < N; ++k) op.t[k] = T[k];
    return op;
}

template <std::size_t N>
zoom_op<N> make_zoom(const vector_fixed<double, N>& c, double factor) {
    zoom_op<N> op;
    for (std::size_t k = 0; k < N; ++k) op.c[k] = c[k];
    op.f1 = factor - 1.0;
    return op;
}

}  // namespace

// ---------------------------------------------------------------------------
// translate

int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_all<2>(pos, make_translate(T));
}
int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T, const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_list<2>(pos, make_translate(T), nodes.data(), nodes.size());
}
int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T, const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_matrix<2>(pos, make_translate(T), connectM);
}
int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_all<3>(pos, make_translate(T));
}
int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T, const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_list<3>(pos, make_translate(T), nodes.data(), nodes.size());
}
int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T, const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || is_zero(T)) return 0;
    return run_matrix<3>(pos, make_translate(T), connectM);
}

// ---------------------------------------------------------------------------
// rotate

int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle) noexcept {
    if (pos.empty() || angle == 0.0) return 0;
    return run_all<2>(pos, rotation2(center, angle));
}
int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle,
           const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || angle == 0.0) return 0;
    return run_list<2>(pos, rotation2(center, angle), nodes.data(), nodes.size());
}
int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle,
           const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || angle == 0.0) return 0;
    return run_matrix<2>(pos, rotation2(center, angle), connectM);
}
int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R) noexcept {
    if (pos.empty() || is_zero(R)) return 0;
    return run_all<3>(pos, rotation3(center, R));
}
int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R,
           const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || is_zero(R)) return 0;
    return run_list<3>(pos, rotation3(center, R), nodes.data(), nodes.size());
}
int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R,
           const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || is_zero(R)) return 0;
    return run_matrix<3>(pos, rotation3(center, R), connectM);
}

// ---------------------------------------------------------------------------
// zoom

int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_all<2>(pos, make_zoom(center, factor));
}
int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor,
         const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_list<2>(pos, make_zoom(center, factor), nodes.data(), nodes.size());
}
int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor,
         const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_matrix<2>(pos, make_zoom(center, factor), connectM);
}
int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_all<3>(pos, make_zoom(center, factor));
}
int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor,
         const dense1D<unsigned>& nodes) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_list<3>(pos, make_zoom(center, factor), nodes.data(), nodes.size());
}
int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor,
         const dense2D<unsigned>& connectM) noexcept {
    if (pos.empty() || factor == 1.0) return 0;
    return run_matrix<3>(pos, make_zoom(center, factor), connectM);
}

// ---------------------------------------------------------------------------
// copies

namespace {

// copy_mesh after the index check.  Every allocation is made before pos or
// connectM_out changes, so a failure leaves both as they were.  `first_new`
// receives the index of the first appended node and `count` their number.
int copy_core(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const dense2D<unsigned>& connectM_in,
              std::size_t& first_new, std::size_t& count) {
    try {
        vec<unsigned> nodes;
        detail::unique_nodes(&connectM_in, &connectM_in + 1, NULL_INDEX, nodes);
        const std::size_t old = pos.cols(), rows = pos.rows(), n = nodes.size();
        dense2D<unsigned> out;
        if (!out.copy(connectM_in)) return -199;
        dense1D<unsigned> map;
        if (!map.resize(old, NULL_INDEX)) return -199;
        for (std::size_t k = 0; k < n; ++k) map[nodes[k]] = static_cast<unsigned>(old + k);
        if (!pos.resize(rows, old + n)) return -199;
        for (std::size_t k = 0; k < n; ++k) {
            const double* src = pos.col(nodes[k]);
            double* dst = pos.col(old + k);
            for (std::size_t i = 0; i < rows; ++i) dst[i] = src[i];
        }
        change_indices(out, map);
        connectM_out = out;
        first_new = old;
        count = n;
        return 0;
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

template <std::size_t N>
int copy_sym(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, N>& P,
             const vector_fixed<double, N>& normal, const dense2D<unsigned>& connectM_in) {
    if (pos.empty()) return 0;
    double nn = 0.0;
    for (std::size_t k = 0; k < N; ++k) nn += normal[k] * normal[k];
    if (nn == 0.0) return -4;
    if (!check_IDs(connectM_in, static_cast<unsigned>(pos.cols()))) return -5;
    // Pad first (on a copy-free path: padding before copying keeps a failure
    // harmless, since padding only adds zero rows).
    if (!pad_rows(pos, N)) return -199;
    std::size_t first = 0, n = 0;
    const int r = copy_core(pos, connectM_out, connectM_in, first, n);
    if (r != 0) return r;
    for (std::size_t j = first; j < first + n; ++j) {
        double* x = pos.col(j);
        double s = 0.0;
        for (std::size_t k = 0; k < N; ++k) s += (x[k] - P[k]) * normal[k];
        const double f = 2.0 * s / nn;
        for (std::size_t k = 0; k < N; ++k) x[k] -= f * normal[k];
    }
    return 0;
}

// Appends the columns of `add` to `out` (rows already checked).
bool append_columns(dense2D<unsigned>& out, const dense2D<unsigned>& add) {
    const std::size_t rows = add.rows(), old = out.entries() == 0 ? 0 : out.cols();
    if (out.entries() == 0) {
        dense2D<unsigned> fresh;
        if (!fresh.resize(rows, add.cols())) return false;
        out = fresh;
    } else if (!out.resize(rows, old + add.cols())) {
        return false;
    }
    for (std::size_t j = 0; j < add.cols(); ++j) std::memcpy(out.col(old + j), add.col(j), rows * sizeof(unsigned));
    return true;
}

template <std::size_t N, class Rot>
int copy_repeated(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, N>& T,
                  unsigned count, const dense2D<unsigned>& connectM_in, Rot rotate_k) {
    if (pos.empty() || count == 0) return 0;
    if (!check_IDs(connectM_in, static_cast<unsigned>(pos.cols()))) return -7;
    if (connectM_out.entries() != 0 && connectM_out.rows() != connectM_in.rows()) return -7;
    for (unsigned k = 1; k <= count; ++k) {
        dense2D<unsigned> tmp;
        std::size_t first = 0, n = 0;
        int r = copy_core(pos, tmp, connectM_in, first, n);
        if (r != 0) return r;
        try {
            vec<unsigned> list(n);
            for (std::size_t i = 0; i < n; ++i) list[i] = static_cast<unsigned>(first + i);
            dense1D<unsigned> nodes;
            if (!nodes.resize(n)) return -199;
            for (std::size_t i = 0; i < n; ++i) nodes[i] = list[i];
            r = rotate_k(pos, k, nodes);
            if (r < 0) return r;
            vector_fixed<double, N> Tk;
            for (std::size_t d = 0; d < N; ++d) Tk[d] = T[d] * k;
            r = translate(pos, Tk, nodes);
            if (r < 0) return r;
        } catch (const std::bad_alloc&) {
            return -199;
        }
        if (tmp.entries() != 0 && !append_columns(connectM_out, tmp)) return -199;
    }
    return 0;
}

}  // namespace

int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const dense2D<unsigned>& connectM_in) noexcept {
    if (!check_IDs(connectM_in, static_cast<unsigned>(pos.cols()))) return -3;
    std::size_t first = 0, n = 0;
    return copy_core(pos, connectM_out, connectM_in, first, n);
}

int copy_sym_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 2>& P,
                  const vector_fixed<double, 2>& normal, const dense2D<unsigned>& connectM_in) noexcept {
    return copy_sym<2>(pos, connectM_out, P, normal, connectM_in);
}

int copy_sym_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 3>& P,
                  const vector_fixed<double, 3>& normal, const dense2D<unsigned>& connectM_in) noexcept {
    return copy_sym<3>(pos, connectM_out, P, normal, connectM_in);
}

int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 2>& T,
              const vector_fixed<double, 2>& center, double angle, unsigned count,
              const dense2D<unsigned>& connectM_in) noexcept {
    auto rot = [&center, angle](dense2D<double>& p, unsigned k, const dense1D<unsigned>& nodes) {
        return rotate(p, center, angle * k, nodes);
    };
    return copy_repeated<2>(pos, connectM_out, T, count, connectM_in, rot);
}

int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 3>& T,
              const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R, unsigned count,
              const dense2D<unsigned>& connectM_in) noexcept {
    auto rot = [&center, &R](dense2D<double>& p, unsigned k, const dense1D<unsigned>& nodes) {
        vector_fixed<double, 3> Rk{R[0] * k, R[1] * k, R[2] * k};
        return rotate(p, center, Rk, nodes);
    };
    return copy_repeated<3>(pos, connectM_out, T, count, connectM_in, rot);
}

}  // namespace nodara
}  // namespace zq5
