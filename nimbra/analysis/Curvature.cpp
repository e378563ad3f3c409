#include "nimbra/analysis/Curvature.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "nimbra/analysis/SurfaceGrid.h"
#include "nimbra/analysis/VectorClones.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// Columns per block of the vectorised loops, and per strip (see QuadricFit).
constexpr int kBlock = 4;
constexpr int kStrip = 64;
// A fit is ill-conditioned when a pivot of the L D L^T factorisation of its
// normal matrix falls below this fraction of the matching diagonal entry.
// Windows whose valid points lie on one conic (two lines, one diagonal...)
// give a few rounding units there; usable fits stay far above.
constexpr double kPivotRatio = 1e-10;
constexpr double kDegrees = 57.29577951308232;
// Relative difference of the principal values below which kangle is 0.
constexpr double kUmbilic = 1e-7;

// Basis of the fit: 1, x, y, x^2, xy, y^2 with x the column offset and y the
// row offset, both divided by the half-width so that the normal matrix stays
// well scaled for every window.
constexpr int kTerms = 6;
constexpr int kPowerX[kTerms] = {0, 1, 0, 2, 1, 0};
constexpr int kPowerY[kTerms] = {0, 0, 1, 0, 1, 2};

// Outputs in the order of their variables.
enum Output { Kxx, Kyy, Kxy, Kmean, Kgauss, K1, K2, Kangle, Dkxx, Dkyy, Dkxy, Dk1, Dk2, kOutputs };

// Input channels: reference position and displacement.
enum Channel { ChX, ChY, ChZ, ChU, ChV, ChW, kChannels };

struct Job {
    const float* confidence;
    const float* channel[kChannels];  // null: absent (0 everywhere)
    float* output[kOutputs];          // null: not requested
    int width;
    int height;
    int halfWidth;
    std::vector<double> factors;      // e(t - h), t = 0 .. 2h
};

int roundUp(int n, int to) { return (n + to - 1) / to * to; }

// Row factor of the smoother's kernel (double division, single-precision
// exponentials, as in the multi-channel smoother); 1 when not weighted.
std::vector<double> kernelFactors(int window, bool weighted) {
    const int h = window / 2;
    std::vector<double> e(static_cast<size_t>(2 * h + 1), 1.0);
    if (!weighted) return e;
    const float a = static_cast<float>(6.283 / (static_cast<double>(window) * window));
    for (int i = -h; i <= h; ++i)
        e[static_cast<size_t>(i + h)] = static_cast<double>(std::exp(-a * static_cast<float>(i * i)));
    return e;
}

// Where the principal values agree to single precision (a sphere, a plane)
// every direction is principal: kangle is then 0 rather than noise.
inline double principalAngle(double k00, double k11, double k01) {
    const double m = 0.5 * (k00 + k11), d = 0.5 * (k00 - k11);
    const double r = std::sqrt(d * d + k01 * k01);
    const double a = r > kUmbilic * (std::fabs(m) + r) ? 0.5 * std::atan2(k01, d) * kDegrees : 0.0;
    // Tested as stored: -89.999999999 rounds to -90 in single precision.
    return static_cast<float>(a) <= -90.0f ? a + 180.0 : a;
}

// The geometry of one point from the derivatives of its position with
// respect to the scaled grid offsets (x along columns, y along rows).
//
// The tangent frame: n = P_x x P_y, t1 = global Y x n (the strain
// computation's local x axis), t2 = t1 x n, all normalised. M maps parameter
// offsets to (t1, t2) coordinates; in that orthonormal frame the first
// fundamental form is the identity, and the second fundamental form
// b = [P_xx . n, P_xy . n; P_xy . n, P_yy . n] becomes the curvature tensor
// K = M^-T b M^-1. Straight-line code with selects only, so that the caller's
// loop over the points of a block vectorises. `ok` becomes 0 where the
// surface is degenerate or faces along global Y (no frame).
struct Frame {
    double q00, q01, q10, q11;  // M^-1
    double b0, b1, b2;          // b in parameter space: xx, xy, yy
};

NIMBRA_ALWAYS_INLINE Frame tangentFrame(const double (&px)[3], const double (&py)[3],
                                        const double (&pxx)[3], const double (&pxy)[3],
                                        const double (&pyy)[3], double& ok) {
    const double n0 = px[1] * py[2] - px[2] * py[1];
    const double n1 = px[2] * py[0] - px[0] * py[2];
    const double n2 = px[0] * py[1] - px[1] * py[0];
    const double xz = n0 * n0 + n2 * n2;
    const double length2 = xz + n1 * n1;
    // Bitwise, not short-circuit: a branch here would keep the loop scalar.
    const bool usable = (length2 > 0.0) & (xz > 1e-24 * length2) & (length2 < 1e300);
    ok = usable ? ok : 0.0;
    const double inv = 1.0 / std::sqrt(usable ? length2 : 1.0);
    const double invXz = 1.0 / std::sqrt(usable ? xz : 1.0);
    const double u0 = n0 * inv, u1 = n1 * inv, u2 = n2 * inv;
    const double t10 = n2 * invXz, t12 = -n0 * invXz;  // t1 = (t10, 0, t12)
    const double t20 = -t12 * u1, t21 = t12 * u0 - t10 * u2, t22 = t10 * u1;  // t1 x u
    const double m00 = t10 * px[0] + t12 * px[2], m01 = t10 * py[0] + t12 * py[2];
    const double m10 = t20 * px[0] + t21 * px[1] + t22 * px[2];
    const double m11 = t20 * py[0] + t21 * py[1] + t22 * py[2];
    const double det = m00 * m11 - m01 * m10;
    const bool invertible = det != 0.0;
    ok = invertible ? ok : 0.0;
    const double invDet = 1.0 / (invertible ? det : 1.0);
    return {m11 * invDet, -m01 * invDet, -m10 * invDet, m00 * invDet,
            pxx[0] * u0 + pxx[1] * u1 + pxx[2] * u2, pxy[0] * u0 + pxy[1] * u1 + pxy[2] * u2,
            pyy[0] * u0 + pyy[1] * u1 + pyy[2] * u2};
}

// M^-T b M^-1 for the symmetric b = [[b0, b1], [b1, b2]]: (k00, k11, k01).
NIMBRA_ALWAYS_INLINE void toFrame(const Frame& f, double b0, double b1, double b2, double& k00,
                                  double& k11, double& k01) {
    k00 = f.q00 * f.q00 * b0 + 2.0 * f.q00 * f.q10 * b1 + f.q10 * f.q10 * b2;
    k11 = f.q01 * f.q01 * b0 + 2.0 * f.q01 * f.q11 * b1 + f.q11 * f.q11 * b2;
    k01 = f.q00 * f.q01 * b0 + (f.q00 * f.q11 + f.q10 * f.q01) * b1 + f.q10 * f.q11 * b2;
}

// Principal values of the symmetric (k00, k11, k01), larger first.
NIMBRA_ALWAYS_INLINE void principalValues(double k00, double k11, double k01, double& first,
                                          double& second) {
    const double m = 0.5 * (k00 + k11), d = 0.5 * (k00 - k11);
    const double r = std::sqrt(d * d + k01 * k01);
    first = m + r;
    second = m - r;
}

// The separable sums of a weighted quadric fit. With w(i, j) = e(i) e(j), all
// sums over a window factor into a column sum of row sums:
//   sum_i sum_j e(i) e(j) y^b x^a m v = sum_i e(i) y^b [sum_j e(j) x^a m v].
// The row pass computes, per grid row, the bracket for every column (a <= 4
// for the validity mask m, a <= 2 for each channel value m v, plus the plain
// count of valid points); the column pass combines 2h + 1 such rows. Row
// results live in a ring of 2h + 1 slots, so each grid row's row pass runs
// once per band and strip. Zero padding outside the grid clips the window
// exactly as the direct sums do. The grid is walked in strips of kStrip
// columns so that the ring stays in the core's own cache.
class QuadricFit {
public:
    explicit QuadricFit(const Job& job)
        : job_(job),
          h_(job.halfWidth),
          slots_(2 * job.halfWidth + 1),
          paddedWidth_(roundUp(std::min(job.width, kStrip), kBlock)),
          span_(paddedWidth_ + 2 * job.halfWidth) {
        for (int c = 0; c < kChannels; ++c)
            if (job.channel[c] != nullptr) active_.push_back(c);
        arrays_ = 6 + 3 * static_cast<int>(active_.size());
        ring_.assign(static_cast<size_t>(slots_) * arrays_ * paddedWidth_, 0.0);
        ringRow_.assign(static_cast<size_t>(slots_), -1);
        mask_.assign(static_cast<size_t>(span_), 0.0);
        values_.assign(static_cast<size_t>(span_), 0.0);
        prefix_.assign(static_cast<size_t>(span_ + 1), 0);
        columnCount_.assign(static_cast<size_t>(span_), 0);
        columnsHit_.assign(static_cast<size_t>(paddedWidth_), 0);
        zeroRow_.assign(static_cast<size_t>(arrays_) * paddedWidth_, 0.0);
        above_.assign(static_cast<size_t>(h_ + 1), nullptr);
        below_.assign(static_cast<size_t>(h_ + 1), nullptr);
        for (int a = 0; a < 5; ++a) {
            moment_[a].resize(static_cast<size_t>(slots_));
            for (int t = 0; t < slots_; ++t) {
                const double x = static_cast<double>(t - h_) / h_;
                moment_[a][static_cast<size_t>(t)] = job.factors[static_cast<size_t>(t)] * std::pow(x, a);
            }
            // The centre row is both rows of its "pair": half its factor each.
            pairFactor_[a].resize(static_cast<size_t>(h_ + 1));
            for (int o = 0; o <= h_; ++o)
                pairFactor_[a][static_cast<size_t>(o)] =
                    moment_[a][static_cast<size_t>(h_ + o)] * (o == 0 ? 0.5 : 1.0);
        }
    }

    void fitRows(int first, int last) {
        for (stripStart_ = 0; stripStart_ < job_.width; stripStart_ += kStrip) {
            stripWidth_ = std::min(kStrip, job_.width - stripStart_);
            std::fill(ringRow_.begin(), ringRow_.end(), -1);
            std::fill(columnCount_.begin(), columnCount_.end(), 0);
            for (int row = std::max(0, first - h_); row <= std::min(job_.height - 1, first + h_ - 1); ++row)
                countColumns(row, +1);
            for (int r = first; r < last; ++r) {
                // The column counts cover rows r - h .. r + h.
                if (r > first && r - h_ - 1 >= 0) countColumns(r - h_ - 1, -1);
                if (r + h_ < job_.height) countColumns(r + h_, +1);
                const int top = std::max(0, r - h_);
                const int bottom = std::min(job_.height - 1, r + h_);
                for (int row = top; row <= bottom; ++row) ensureRow(row);
                fitRow(r, top, bottom);
            }
        }
    }

private:
    double* slot(int row) {
        return ring_.data() + static_cast<size_t>(row % slots_) * arrays_ * paddedWidth_;
    }

    // Padded entry j stands for grid column stripStart_ - h + j.
    int firstPadded() const { return std::max(0, h_ - stripStart_); }
    int lastPadded() const { return std::min(stripWidth_ + 2 * h_, job_.width - stripStart_ + h_); }

    void countColumns(int row, int delta) {
        const float* conf = job_.confidence + static_cast<size_t>(row) * job_.width;
        const int shift = stripStart_ - h_;
        for (int j = firstPadded(); j < lastPadded(); ++j)
            columnCount_[static_cast<size_t>(j)] += conf[j + shift] >= 0.0f ? delta : 0;
    }

    void ensureRow(int row) {
        if (ringRow_[static_cast<size_t>(row % slots_)] == row) return;
        ringRow_[static_cast<size_t>(row % slots_)] = row;
        double* out = slot(row);
        const int from = firstPadded(), to = lastPadded();
        const int shift = stripStart_ - h_;
        const size_t offset = static_cast<size_t>(row) * job_.width;
        const float* conf = job_.confidence + offset;
        std::fill(mask_.begin(), mask_.end(), 0.0);
        padRow(conf + shift, nullptr, mask_.data(), from, to);
        maskPass(mask_.data(), out);
        // Plain count of valid points per window row, from prefix sums.
        for (int j = 0; j < span_; ++j)
            prefix_[static_cast<size_t>(j + 1)] =
                prefix_[static_cast<size_t>(j)] + (mask_[static_cast<size_t>(j)] != 0.0);
        double* count = out + 5 * static_cast<size_t>(paddedWidth_);
        for (int c = 0; c < paddedWidth_; ++c)
            count[c] = prefix_[static_cast<size_t>(c + slots_)] - prefix_[static_cast<size_t>(c)];
        for (size_t k = 0; k < active_.size(); ++k) {
            const float* values = job_.channel[active_[k]] + offset;
            std::fill(values_.begin(), values_.end(), 0.0);
            padRow(conf + shift, values + shift, values_.data(), from, to);
            valuePass(values_.data(), out + (6 + 3 * k) * static_cast<size_t>(paddedWidth_));
        }
    }

    // out[j] for j in [from, to): the value (1 without `values`) where the
    // point is valid, else 0 - a select, not a product: invalid points may
    // hold NaN or inf. In blocks of fixed length, which vectorise.
    NIMBRA_VECTOR_CLONES static void padRow(const float* conf, const float* values, double* out,
                                            int from, int to) {
        int j = from;
        if (values == nullptr) {
            for (; j + kBlock <= to; j += kBlock)
                for (int q = 0; q < kBlock; ++q) out[j + q] = conf[j + q] >= 0.0f ? 1.0 : 0.0;
            for (; j < to; ++j) out[j] = conf[j] >= 0.0f ? 1.0 : 0.0;
            return;
        }
        for (; j + kBlock <= to; j += kBlock)
            for (int q = 0; q < kBlock; ++q)
                out[j + q] = conf[j + q] >= 0.0f ? static_cast<double>(values[j + q]) : 0.0;
        for (; j < to; ++j) out[j] = conf[j] >= 0.0f ? static_cast<double>(values[j]) : 0.0;
    }

    // out[a][c] = sum_t moment_a[t] * in[c + t] for a < Moments.
    template <int Moments>
    NIMBRA_ALWAYS_INLINE void rowPassOf(const double* __restrict in,
                                                         double* __restrict out) const {
        const size_t stride = static_cast<size_t>(paddedWidth_);
        for (int c = 0; c < paddedWidth_; c += kBlock) {
            double s[Moments][kBlock] = {};
            for (int t = 0; t < slots_; ++t) {
                const double* x = in + c + t;
#pragma GCC unroll 8
                for (int a = 0; a < Moments; ++a) {
                    const double m = moment_[a][static_cast<size_t>(t)];
#pragma GCC unroll 8
                    for (int q = 0; q < kBlock; ++q) s[a][q] += m * x[q];
                }
            }
            for (int a = 0; a < Moments; ++a)
                for (int q = 0; q < kBlock; ++q) out[a * stride + c + q] = s[a][q];
        }
    }
    NIMBRA_VECTOR_CLONES void maskPass(const double* __restrict in, double* __restrict out) const {
        rowPassOf<5>(in, out);
    }
    NIMBRA_VECTOR_CLONES void valuePass(const double* __restrict in, double* __restrict out) const {
        rowPassOf<3>(in, out);
    }

    // Column sums of several ring arrays in one walk over the window rows:
    // for array a (at `offset` + a * stride) and b < Terms - a,
    //   out[k][q] = sum_i e(y_i) y_i^b row_i[a][q],
    // packed by a then b (y the scaled row offset). The rows at +o and -o
    // are taken together: the factor of y^b is even or odd in o, so the sum
    // or the difference of the two rows is multiplied once. Rows outside the
    // grid are a zero row. The sums stay in locals, so in vector registers.
    template <int Arrays, int Terms>
    NIMBRA_ALWAYS_INLINE void columnSums(size_t offset, double (*out)[kBlock]) const {
        constexpr int kSums = Arrays * Terms - Arrays * (Arrays - 1) / 2;
        const size_t stride = static_cast<size_t>(paddedWidth_);
        double acc[kSums][kBlock] = {};
        for (int o = 0; o <= h_; ++o) {
            const double* down = below_[static_cast<size_t>(o)] + offset;
            const double* up = above_[static_cast<size_t>(o)] + offset;
            double f[Terms];
#pragma GCC unroll 8
            for (int b = 0; b < Terms; ++b) f[b] = pairFactor_[b][static_cast<size_t>(o)];
            int k = 0;
#pragma GCC unroll 8
            for (int a = 0; a < Arrays; ++a) {
                double plus[kBlock], minus[kBlock];
#pragma GCC unroll 8
                for (int q = 0; q < kBlock; ++q) {
                    plus[q] = down[a * stride + q] + up[a * stride + q];
                    minus[q] = down[a * stride + q] - up[a * stride + q];
                }
#pragma GCC unroll 8
                for (int b = 0; b < Terms - a; ++b, ++k)
#pragma GCC unroll 8
                    for (int q = 0; q < kBlock; ++q) acc[k][q] += f[b] * (b % 2 == 0 ? plus[q] : minus[q]);
            }
        }
        for (int k = 0; k < kSums; ++k)
            for (int q = 0; q < kBlock; ++q) out[k][q] = acc[k][q];
    }

    // The six fit-term sums of one channel: t[term][ch] for the terms 1, x,
    // y, x^2, xy, y^2, from the ring arrays sum e(x) x^a m v (a = 0, 1, 2),
    // rows paired as in columnSums().
    NIMBRA_ALWAYS_INLINE void channelSums(size_t offset,
                                                           double (&t)[kTerms][kChannels][kBlock],
                                                           int ch) const {
        const size_t stride = static_cast<size_t>(paddedWidth_);
        double s0[kBlock] = {}, s1[kBlock] = {}, s2[kBlock] = {};
        double s3[kBlock] = {}, s4[kBlock] = {}, s5[kBlock] = {};
        const double* f0 = pairFactor_[0].data();
        const double* f1 = pairFactor_[1].data();
        const double* f2 = pairFactor_[2].data();
        for (int o = 0; o <= h_; ++o) {
            const double* down = below_[static_cast<size_t>(o)] + offset;
            const double* up = above_[static_cast<size_t>(o)] + offset;
            const double e0 = f0[o], e1 = f1[o], e2 = f2[o];
            for (int q = 0; q < kBlock; ++q) {
                const double p0 = down[q] + up[q], m0 = down[q] - up[q];
                const double p1 = down[stride + q] + up[stride + q];
                const double m1 = down[stride + q] - up[stride + q];
                const double p2 = down[2 * stride + q] + up[2 * stride + q];
                s0[q] += e0 * p0;  // 1
                s1[q] += e0 * p1;  // x
                s2[q] += e1 * m0;  // y
                s3[q] += e0 * p2;  // x^2
                s4[q] += e1 * m1;  // xy
                s5[q] += e2 * p0;  // y^2
            }
        }
        for (int q = 0; q < kBlock; ++q) {
            t[0][ch][q] = s0[q];
            t[1][ch][q] = s1[q];
            t[2][ch][q] = s2[q];
            t[3][ch][q] = s3[q];
            t[4][ch][q] = s4[q];
            t[5][ch][q] = s5[q];
        }
    }

    NIMBRA_VECTOR_CLONES void fitRow(int r, int top, int bottom) {
        const int width = job_.width;
        const float* conf = job_.confidence + static_cast<size_t>(r) * width + stripStart_;
        const size_t stride = static_cast<size_t>(paddedWidth_);
        for (int o = 0; o <= h_; ++o) {
            above_[static_cast<size_t>(o)] = r - o >= top ? slot(r - o) : zeroRow_.data();
            below_[static_cast<size_t>(o)] = r + o <= bottom ? slot(r + o) : zeroRow_.data();
        }

        // Distinct valid columns of each point's window.
        prefix_[0] = 0;
        for (int j = 0; j < span_; ++j)
            prefix_[static_cast<size_t>(j + 1)] =
                prefix_[static_cast<size_t>(j)] + (columnCount_[static_cast<size_t>(j)] > 0);
        for (int c = 0; c < paddedWidth_; ++c)
            columnsHit_[static_cast<size_t>(c)] =
                prefix_[static_cast<size_t>(c + slots_)] - prefix_[static_cast<size_t>(c)];

        const int channels = static_cast<int>(active_.size());
        for (int c = 0; c < stripWidth_; c += kBlock) {
            const int n = std::min(kBlock, stripWidth_ - c);
            bool any = false;
            for (int q = 0; q < n; ++q) any = any || conf[c + q] >= 0.0f;
            if (!any) {
                for (int q = 0; q < n; ++q) writeZero(static_cast<size_t>(r) * width + stripStart_ + c + q);
                continue;
            }
            // Mask moments s[a][b] = sum w x^a y^b m, a + b <= 4, packed by
            // a then b; plus the plain count and the rows that hold points.
            double s[15][kBlock];
            columnSums<2, 5>(c, s + 0);               // a = 0, 1
            columnSums<3, 3>(c + 2 * stride, s + 9);  // a = 2, 3, 4
            double count[kBlock] = {}, rows[kBlock] = {};
            for (int q = 0; q < kBlock; ++q) {
                const double centre = below_[0][c + 5 * stride + q];
                count[q] = centre;
                rows[q] = centre > 0.0 ? 1.0 : 0.0;
            }
            for (int o = 1; o <= h_; ++o) {
                const double* down = below_[static_cast<size_t>(o)] + c + 5 * stride;
                const double* up = above_[static_cast<size_t>(o)] + c + 5 * stride;
                for (int q = 0; q < kBlock; ++q) {
                    count[q] += down[q] + up[q];
                    rows[q] += (down[q] > 0.0 ? 1.0 : 0.0) + (up[q] > 0.0 ? 1.0 : 0.0);
                }
            }
            // Channel moments per fit term (1, x, y, x^2, xy, y^2); absent
            // channels stay 0.
            double t[kTerms][kChannels][kBlock] = {};
            for (int k = 0; k < channels; ++k) {
                const size_t offset = (6 + 3 * static_cast<size_t>(k)) * stride + c;
                const int ch = active_[static_cast<size_t>(k)];
                channelSums(offset, t, ch);
            }
            // Points with too few valid neighbours, and invalid points, get 0.
            double good[kBlock];
            for (int q = 0; q < kBlock; ++q)
                good[q] = q < n && conf[c + q] >= 0.0f && count[q] >= 6.0 && rows[q] >= 3.0 &&
                                  columnsHit_[static_cast<size_t>(c + q)] >= 3
                              ? 1.0
                              : 0.0;
            double out[kOutputs][kBlock];
            solveBlock(s, t, good, out);
            const size_t p = static_cast<size_t>(r) * width + stripStart_ + c;
            if (job_.output[Kangle] != nullptr) {
                for (int q = 0; q < n; ++q)
                    out[Kangle][q] =
                        good[q] != 0.0 ? principalAngle(out[Kxx][q], out[Kyy][q], out[Kxy][q]) : 0.0;
            }
            for (int o = 0; o < kOutputs; ++o) {
                float* target = job_.output[o];
                if (target == nullptr) continue;
                float values[kBlock];
                for (int q = 0; q < kBlock; ++q)
                    values[q] = good[q] != 0.0 ? static_cast<float>(out[o][q]) : 0.0f;
                std::copy(values, values + n, target + p);
            }
        }
    }

    // Index of s[a][b] in the packing used above (by a, then b, a + b <= 4).
    static constexpr int maskIndex(int a, int b) {
        constexpr int kStart[5] = {0, 5, 9, 12, 14};
        return kStart[a] + b;
    }

    // The fits of a block of points (every channel: absent ones have a zero
    // right-hand side and get zero coefficients) and their geometry. All
    // loops over the block's points are innermost and free of branches, so
    // that they run as vector code. `good` becomes 0 for an ill-conditioned
    // fit or a degenerate frame.
    NIMBRA_VECTOR_CLONES void solveBlock(const double (&s)[15][kBlock],
                                         double (&beta)[kTerms][kChannels][kBlock],
                                         double (&good)[kBlock],
                                         double (&out)[kOutputs][kBlock]) const {
        // L D L^T factorisation of the normal matrix; ill-conditioned where a
        // pivot falls below kPivotRatio of its diagonal entry.
        double l[kTerms][kTerms][kBlock], invD[kTerms][kBlock];
#pragma GCC unroll 6
        for (int k = 0; k < kTerms; ++k) {
            const int kk = maskIndex(2 * kPowerX[k], 2 * kPowerY[k]);
            double d[kBlock];
            for (int q = 0; q < kBlock; ++q) d[q] = s[kk][q];
#pragma GCC unroll 6
            for (int j = 0; j < k; ++j)
                for (int q = 0; q < kBlock; ++q) d[q] -= l[k][j][q] * l[k][j][q] * invD[j][q];
            for (int q = 0; q < kBlock; ++q) {
                const bool pivot = d[q] > kPivotRatio * s[kk][q];
                good[q] = pivot ? good[q] : 0.0;
                invD[k][q] = 1.0 / (pivot ? d[q] : 1.0);
            }
#pragma GCC unroll 6
            for (int i = k + 1; i < kTerms; ++i) {
                const int ik = maskIndex(kPowerX[i] + kPowerX[k], kPowerY[i] + kPowerY[k]);
                double v[kBlock];
                for (int q = 0; q < kBlock; ++q) v[q] = s[ik][q];
#pragma GCC unroll 6
                for (int j = 0; j < k; ++j)
                    for (int q = 0; q < kBlock; ++q) v[q] -= l[i][j][q] * l[k][j][q] * invD[j][q];
                // Stored as L D, which the solves below use directly.
                for (int q = 0; q < kBlock; ++q) l[i][k][q] = v[q];
            }
        }
        // L y = rhs with unit-diagonal L = (L D) D^-1, then L^T beta = D^-1 y.
#pragma GCC unroll 6
        for (int i = 0; i < kTerms; ++i)
#pragma GCC unroll 6
            for (int j = 0; j < i; ++j)
                for (int ch = 0; ch < kChannels; ++ch)
                    for (int q = 0; q < kBlock; ++q)
                        beta[i][ch][q] -= l[i][j][q] * invD[j][q] * beta[j][ch][q];
#pragma GCC unroll 6
        for (int i = kTerms - 1; i >= 0; --i) {
            for (int ch = 0; ch < kChannels; ++ch)
                for (int q = 0; q < kBlock; ++q) beta[i][ch][q] *= invD[i][q];
#pragma GCC unroll 6
            for (int j = i + 1; j < kTerms; ++j)
                for (int ch = 0; ch < kChannels; ++ch)
                    for (int q = 0; q < kBlock; ++q)
                        beta[i][ch][q] -= l[j][i][q] * invD[i][q] * beta[j][ch][q];
        }
        for (int q = 0; q < kBlock; ++q) {
            // Derivatives of the reference and the deformed position.
            double px[3], py[3], pxx[3], pxy[3], pyy[3];
            double dx[3], dy[3], dxx[3], dxy[3], dyy[3];
#pragma GCC unroll 3
            for (int c = 0; c < 3; ++c) {
                px[c] = beta[1][ChX + c][q];
                py[c] = beta[2][ChX + c][q];
                pxx[c] = 2.0 * beta[3][ChX + c][q];
                pxy[c] = beta[4][ChX + c][q];
                pyy[c] = 2.0 * beta[5][ChX + c][q];
                dx[c] = px[c] + beta[1][ChU + c][q];
                dy[c] = py[c] + beta[2][ChU + c][q];
                dxx[c] = pxx[c] + 2.0 * beta[3][ChU + c][q];
                dxy[c] = pxy[c] + beta[4][ChU + c][q];
                dyy[c] = pyy[c] + 2.0 * beta[5][ChU + c][q];
            }
            double ok = good[q];
            const Frame reference = tangentFrame(px, py, pxx, pxy, pyy, ok);
            // Without displacement the deformed surface is the reference one.
            const Frame deformed = tangentFrame(dx, dy, dxx, dxy, dyy, ok);
            double k00, k11, k01;
            toFrame(deformed, deformed.b0, deformed.b1, deformed.b2, k00, k11, k01);
            out[Kxx][q] = k00;
            out[Kyy][q] = k11;
            out[Kxy][q] = k01;
            out[Kmean][q] = 0.5 * (k00 + k11);
            out[Kgauss][q] = k00 * k11 - k01 * k01;
            principalValues(k00, k11, k01, out[K1][q], out[K2][q]);
            out[Kangle][q] = 0.0;  // written by the caller, for valid points only
            toFrame(reference, deformed.b0 - reference.b0, deformed.b1 - reference.b1,
                    deformed.b2 - reference.b2, k00, k11, k01);
            out[Dkxx][q] = k00;
            out[Dkyy][q] = k11;
            out[Dkxy][q] = k01;
            principalValues(k00, k11, k01, out[Dk1][q], out[Dk2][q]);
            good[q] = ok;
        }
    }

    void writeZero(size_t p) {
        for (int o = 0; o < kOutputs; ++o)
            if (job_.output[o] != nullptr) job_.output[o][p] = 0.0f;
    }

    const Job& job_;
    int h_;
    int slots_;
    int paddedWidth_;
    int span_;  // padded width plus the window's reach on both sides
    int arrays_ = 0;
    int stripStart_ = 0;
    int stripWidth_ = 0;
    std::vector<int> active_;  // channels present, in Channel order
    std::vector<double> moment_[5];  // e(t - h) * ((t - h) / h)^a
    std::vector<double> ring_;
    std::vector<int> ringRow_;
    std::vector<double> mask_;
    std::vector<double> values_;
    std::vector<int> prefix_;
    std::vector<int> columnCount_;  // valid points per padded column in rows r - h .. r + h
    std::vector<int> columnsHit_;   // distinct valid columns of each strip column's window
    std::vector<double> pairFactor_[5];  // moment at row offset +o, halved at o = 0 (see columnSums)
    std::vector<double> zeroRow_;        // stands for the rows outside the grid
    std::vector<const double*> above_;   // ring rows r - o, o = 0 .. h
    std::vector<const double*> below_;   // ring rows r + o
};

// Bands of rows dealt round-robin to the workers, as in the smoother.
int bandHeight(int height, int halfWidth, int count) {
    const int bands = std::max(1, 2 * count);
    return std::max({(height + bands - 1) / bands, 4 * (2 * halfWidth + 1), 1});
}

void runCurvature(const Job& job, int workers) {
    const int count = std::max(1, std::min(resolveWorkerCount(workers), job.height));
    const int band = bandHeight(job.height, job.halfWidth, count);
    runWorkers(count, [&job, band](int k, int n) {
        QuadricFit fit(job);
        for (int first = k * band; first < job.height; first += n * band)
            fit.fitRows(first, std::min(job.height, first + band));
    });
}

// An output variable of kind Curvature: with `reuse`, the first one of that
// name gets the new description; otherwise a new one is appended.
int32_t outputVariable(ZelData& data, const std::string& name, const std::string& description,
                       bool reuse) {
    if (reuse) {
        for (int32_t i = 0; i < data.numVariables(); ++i) {
            ZelDataVariable* var = data.variable(i);
            if (var->type == Curvature && var->name == name) {
                var->description = description;
                data.resizeValues(i, data.matrixSize());
                return i;
            }
        }
    }
    return data.addVariable(Curvature, name, description);
}

}  // namespace

bool computeCurvature(ZelData& data, int window, bool principal, bool reuse, bool weighted,
                      int workers) {
    if (window < 3) {
        NIMBRA_LOG(error) << "Smoothing window too small in computeCurvature()";
        return false;
    }
    if (window % 2 == 0) {
        NIMBRA_LOG(error)
            << "Even smoothing window in computeCurvature(). Proceeding with next valid size.";
        window |= 1;
    }
    if (data.gridKind() != 2) return false;
    const int32_t confidence = data.firstVariableOfType(Correlation);
    if (confidence < 0) return false;
    const SurfaceChannels ch = findSurfaceChannels(data);
    if (!ch.found) {
        NIMBRA_LOG(error) << "Could not find coordinates for curvature computation.";
        return false;
    }
    for (int32_t v : {confidence, ch.position[0], ch.position[1], ch.position[2], ch.displacement[0],
                      ch.displacement[1], ch.displacement[2]}) {
        if (v >= 0 && !holdsGrid(data, v)) {
            NIMBRA_LOG(error) << "Variables do not hold one value per grid point in computeCurvature().";
            return false;
        }
    }

    // Outputs first: adding variables never moves existing value arrays,
    // but it may move the records.
    static const char* const kNames[kOutputs] = {"kxx", "kyy", "kxy", "kmean", "kgauss", "k1", "k2",
                                                 "kangle", "dkxx", "dkyy", "dkxy", "dk1", "dk2"};
    const std::string perLength = " [1/" + ch.unit + "]";
    const std::string perArea = " [1/" + ch.unit + "^2]";
    int32_t index[kOutputs];
    for (int o = 0; o < kOutputs; ++o) {
        index[o] = -1;
        const bool principalOutput = o == K1 || o == K2 || o == Kangle || o == Dk1 || o == Dk2;
        const bool changeOutput = o >= Dkxx;
        if ((principalOutput && !principal) || (changeOutput && !ch.hasDisplacement)) continue;
        const std::string unit = o == Kgauss ? perArea : (o == Kangle ? std::string(" [deg]") : perLength);
        index[o] = outputVariable(data, kNames[o], kNames[o] + unit, reuse);
    }

    // Inputs through the const view (reading marks nothing changed), outputs
    // through write access.
    const ZelData& input = data;
    Job job;
    job.confidence = input.variableValues(confidence);
    for (int c = 0; c < 3; ++c) {
        job.channel[ChX + c] = ch.position[c] >= 0 ? input.variableValues(ch.position[c]) : nullptr;
        job.channel[ChU + c] = ch.displacement[c] >= 0 ? input.variableValues(ch.displacement[c]) : nullptr;
    }
    for (int o = 0; o < kOutputs; ++o)
        job.output[o] = index[o] >= 0 ? data.variableValues(index[o]) : nullptr;
    job.width = data.numColumns();
    job.height = data.numRows();
    job.halfWidth = window / 2;
    job.factors = kernelFactors(window, weighted);
    if (gridPointCount(data) > 0) runCurvature(job, workers);
    for (int o = 0; o < kOutputs; ++o)
        if (index[o] >= 0) data.markChanged(index[o]);
    return true;
}

bool computeCurvature(ZelDataSet& dataSet, int window, bool principal, bool reuse, bool weighted) {
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        ZelData* data = dataSet.data(i);
        if (data == nullptr || data->gridKind() != 2) continue;
        if (!computeCurvature(*data, window, principal, reuse, weighted)) return false;
    }
    return true;
}

}  // namespace nimbra
