#pragma once
// Small dense linear algebra for the geometry code: row-major doubles
// throughout, 3-vectors as std::array, a general matrix class for the few
// places that need a run-time size, the 3x3 singular value decomposition used
// by the fits and an in-place Gauss-Jordan inversion.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nimbra {

using Vec3 = std::array<double, 3>;
// Row-major: element (r, c) is at 3 * r + c.
using Mat3 = std::array<double, 9>;

// A rows x columns matrix of doubles, row-major.
class Matrix {
public:
    Matrix() = default;
    Matrix(int32_t rows, int32_t columns, double fill = 0.0);

    int32_t rows() const { return rows_; }
    int32_t columns() const { return columns_; }
    bool empty() const { return values_.empty(); }

    double& operator()(int32_t r, int32_t c) { return values_[static_cast<std::size_t>(r) * columns_ + c]; }
    double operator()(int32_t r, int32_t c) const {
        return values_[static_cast<std::size_t>(r) * columns_ + c];
    }
    double* data() { return values_.data(); }
    const double* data() const { return values_.data(); }

    static Matrix identity(int32_t n);
    Matrix transposed() const;
    // Empty matrix when the inner sizes do not agree.
    Matrix operator*(const Matrix& other) const;
    // In place; false (matrix unchanged) when it is not square or singular.
    bool invert();

private:
    int32_t rows_ = 0;
    int32_t columns_ = 0;
    std::vector<double> values_;
};

Mat3 identity3();
Mat3 multiply3(const Mat3& a, const Mat3& b);
Mat3 transpose3(const Mat3& a);
Vec3 multiply3(const Mat3& a, const Vec3& v);
double determinant3(const Mat3& a);
Vec3 cross(const Vec3& a, const Vec3& b);
double dot(const Vec3& a, const Vec3& b);
double norm(const Vec3& a);

// A = U * diag(w) * V^T with U and V orthogonal and w[0] >= w[1] >= w[2] >= 0;
// column j of U and of V belongs to w[j]. False for non-finite input or when
// the iteration does not converge (outputs then unspecified).
bool svd3(const Mat3& a, Mat3& u, Vec3& w, Mat3& v);

// Inverts the n x n row-major matrix `a` in place by Gauss-Jordan elimination
// with partial pivoting. False, with `a` unchanged, when a pivot vanishes
// relative to the size of the matrix entries.
bool invertGaussJordan(double* a, int32_t n);

}  // namespace nimbra
