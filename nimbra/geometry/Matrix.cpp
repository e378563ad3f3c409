#include "nimbra/geometry/Matrix.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace nimbra {
namespace {

constexpr double kEpsilon = std::numeric_limits<double>::epsilon();
constexpr int kMaxSweeps = 64;

bool allFinite(const Mat3& a) {
    return std::all_of(a.begin(), a.end(), [](double x) { return std::isfinite(x); });
}

double column3(const Mat3& a, int c, int r) { return a[3 * r + c]; }

void swapColumns3(Mat3& a, int i, int j) {
    for (int r = 0; r < 3; ++r) std::swap(a[3 * r + i], a[3 * r + j]);
}

// One plane rotation of the one-sided Jacobi method applied to columns p and
// q of `b` and of `v`. Returns false when the two columns are already
// orthogonal to working precision, so that the caller can tell convergence.
bool orthogonalisePair(Mat3& b, Mat3& v, int p, int q) {
    double alpha = 0.0, beta = 0.0, gamma = 0.0;
    for (int r = 0; r < 3; ++r) {
        const double bp = b[3 * r + p];
        const double bq = b[3 * r + q];
        alpha += bp * bp;
        beta += bq * bq;
        gamma += bp * bq;
    }
    if (gamma == 0.0 || std::fabs(gamma) <= kEpsilon * std::sqrt(alpha * beta)) return false;
    // The rotation that zeroes the (p, q) entry of B^T B, taken with the
    // smaller of the two possible angles so that the sweep converges.
    const double zeta = (beta - alpha) / (2.0 * gamma);
    const double t = (zeta >= 0.0 ? 1.0 : -1.0) / (std::fabs(zeta) + std::sqrt(1.0 + zeta * zeta));
    const double c = 1.0 / std::sqrt(1.0 + t * t);
    const double s = c * t;
    for (int r = 0; r < 3; ++r) {
        const double bp = b[3 * r + p];
        const double bq = b[3 * r + q];
        b[3 * r + p] = c * bp - s * bq;
        b[3 * r + q] = s * bp + c * bq;
        const double vp = v[3 * r + p];
        const double vq = v[3 * r + q];
        v[3 * r + p] = c * vp - s * vq;
        v[3 * r + q] = s * vp + c * vq;
    }
    return true;
}

// A unit vector orthogonal to the unit vector `a`.
Vec3 anyPerpendicular(const Vec3& a) {
    // Crossing with the axis least aligned with `a` keeps the result well
    // away from zero length.
    int k = 0;
    if (std::fabs(a[1]) < std::fabs(a[k])) k = 1;
    if (std::fabs(a[2]) < std::fabs(a[k])) k = 2;
    Vec3 axis{0.0, 0.0, 0.0};
    axis[k] = 1.0;
    Vec3 p = cross(a, axis);
    const double n = norm(p);
    return {p[0] / n, p[1] / n, p[2] / n};
}

}  // namespace

// ------------------------------------------------------------------ Matrix

Matrix::Matrix(int32_t rows, int32_t columns, double fill)
    : rows_(rows > 0 ? rows : 0),
      columns_(columns > 0 ? columns : 0),
      values_(static_cast<std::size_t>(rows_) * columns_, fill) {}

Matrix Matrix::identity(int32_t n) {
    Matrix m(n, n);
    for (int32_t i = 0; i < n; ++i) m(i, i) = 1.0;
    return m;
}

Matrix Matrix::transposed() const {
    Matrix t(columns_, rows_);
    for (int32_t r = 0; r < rows_; ++r)
        for (int32_t c = 0; c < columns_; ++c) t(c, r) = (*this)(r, c);
    return t;
}

Matrix Matrix::operator*(const Matrix& other) const {
    if (columns_ != other.rows_) return Matrix();
    Matrix p(rows_, other.columns_);
    for (int32_t r = 0; r < rows_; ++r)
        for (int32_t k = 0; k < columns_; ++k) {
            const double a = (*this)(r, k);
            for (int32_t c = 0; c < other.columns_; ++c) p(r, c) += a * other(k, c);
        }
    return p;
}

bool Matrix::invert() {
    if (rows_ != columns_ || rows_ == 0) return false;
    return invertGaussJordan(values_.data(), rows_);
}

// --------------------------------------------------------------- 3x3 helpers

Mat3 identity3() { return {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0}; }

Mat3 multiply3(const Mat3& a, const Mat3& b) {
    Mat3 p{};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            p[3 * r + c] = a[3 * r] * b[c] + a[3 * r + 1] * b[3 + c] + a[3 * r + 2] * b[6 + c];
    return p;
}

Mat3 transpose3(const Mat3& a) {
    return {a[0], a[3], a[6], a[1], a[4], a[7], a[2], a[5], a[8]};
}

Vec3 multiply3(const Mat3& a, const Vec3& v) {
    return {a[0] * v[0] + a[1] * v[1] + a[2] * v[2],
            a[3] * v[0] + a[4] * v[1] + a[5] * v[2],
            a[6] * v[0] + a[7] * v[1] + a[8] * v[2]};
}

double determinant3(const Mat3& a) {
    return a[0] * (a[4] * a[8] - a[5] * a[7]) - a[1] * (a[3] * a[8] - a[5] * a[6]) +
           a[2] * (a[3] * a[7] - a[4] * a[6]);
}

Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

double dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

double norm(const Vec3& a) { return std::sqrt(dot(a, a)); }

// ----------------------------------------------------------------------- SVD

// One-sided (Hestenes) Jacobi: plane rotations applied from the right make
// the columns of B = A V mutually orthogonal; then B = U diag(w), w being the
// column norms. Working on A itself rather than on A^T A keeps the small
// singular values accurate, which the plane fit depends on (its normal is the
// direction of the smallest one).
bool svd3(const Mat3& a, Mat3& u, Vec3& w, Mat3& v) {
    if (!allFinite(a)) return false;
    Mat3 b = a;
    v = identity3();
    bool converged = false;
    for (int sweep = 0; sweep < kMaxSweeps && !converged; ++sweep) {
        bool rotated = orthogonalisePair(b, v, 0, 1);
        rotated = orthogonalisePair(b, v, 0, 2) || rotated;
        rotated = orthogonalisePair(b, v, 1, 2) || rotated;
        converged = !rotated;
    }
    if (!converged) return false;

    for (int j = 0; j < 3; ++j) {
        w[j] = std::sqrt(column3(b, j, 0) * column3(b, j, 0) + column3(b, j, 1) * column3(b, j, 1) +
                         column3(b, j, 2) * column3(b, j, 2));
    }
    // Descending order by pairwise swaps, carrying the columns along, so that
    // column 2 of V always belongs to the smallest singular value.
    for (int i = 0; i < 2; ++i)
        for (int j = i + 1; j < 3; ++j)
            if (w[j] > w[i]) {
                std::swap(w[i], w[j]);
                swapColumns3(b, i, j);
                swapColumns3(v, i, j);
            }

    // Columns with a (numerically) zero singular value carry no direction of
    // their own; complete U to an orthonormal basis instead, which the rigid
    // fit needs for coplanar or collinear point sets.
    const double tiny = w[0] * 1e-13;
    Vec3 cols[3];
    int rank = 0;
    for (int j = 0; j < 3; ++j) {
        if (w[j] > tiny && w[j] > 0.0) {
            cols[j] = {b[j] / w[j], b[3 + j] / w[j], b[6 + j] / w[j]};
            rank = j + 1;
        }
    }
    if (rank == 0) {
        cols[0] = {1.0, 0.0, 0.0};
        cols[1] = {0.0, 1.0, 0.0};
        cols[2] = {0.0, 0.0, 1.0};
    } else if (rank == 1) {
        cols[1] = anyPerpendicular(cols[0]);
        cols[2] = cross(cols[0], cols[1]);
    } else if (rank == 2) {
        cols[2] = cross(cols[0], cols[1]);
        const double n = norm(cols[2]);
        cols[2] = {cols[2][0] / n, cols[2][1] / n, cols[2][2] / n};
    }
    for (int j = 0; j < 3; ++j)
        for (int r = 0; r < 3; ++r) u[3 * r + j] = cols[j][r];
    return true;
}

// ------------------------------------------------------------- Gauss-Jordan

bool invertGaussJordan(double* a, int32_t n) {
    if (n <= 0) return false;
    const std::size_t size = static_cast<std::size_t>(n);
    double scale = 0.0;
    for (std::size_t i = 0; i < size * size; ++i) {
        if (!std::isfinite(a[i])) return false;
        scale = std::max(scale, std::fabs(a[i]));
    }
    if (scale == 0.0) return false;
    // A pivot this small relative to the entries means the matrix is singular
    // to working precision; the "inverse" would be noise.
    const double threshold = scale * static_cast<double>(n) * kEpsilon;

    std::vector<double> m(a, a + size * size);
    std::vector<double> inv(size * size, 0.0);
    for (std::size_t i = 0; i < size; ++i) inv[i * size + i] = 1.0;

    for (std::size_t col = 0; col < size; ++col) {
        std::size_t pivot = col;
        for (std::size_t r = col + 1; r < size; ++r)
            if (std::fabs(m[r * size + col]) > std::fabs(m[pivot * size + col])) pivot = r;
        if (std::fabs(m[pivot * size + col]) <= threshold) return false;
        if (pivot != col)
            for (std::size_t c = 0; c < size; ++c) {
                std::swap(m[pivot * size + c], m[col * size + c]);
                std::swap(inv[pivot * size + c], inv[col * size + c]);
            }
        const double d = 1.0 / m[col * size + col];
        for (std::size_t c = 0; c < size; ++c) {
            m[col * size + c] *= d;
            inv[col * size + c] *= d;
        }
        for (std::size_t r = 0; r < size; ++r) {
            if (r == col) continue;
            const double f = m[r * size + col];
            if (f == 0.0) continue;
            for (std::size_t c = 0; c < size; ++c) {
                m[r * size + c] -= f * m[col * size + c];
                inv[r * size + c] -= f * inv[col * size + c];
            }
        }
    }
    std::copy(inv.begin(), inv.end(), a);
    return true;
}

}  // namespace nimbra
