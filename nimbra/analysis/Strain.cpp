#include "nimbra/analysis/Strain.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "nimbra/analysis/Smoothing.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// Relative determinant threshold of the small linear systems (see the
// smoother): collinear or coincident points fail cleanly instead of giving
// huge or non-finite gradients.
constexpr double kSingularRatio = 1e-9;

// Set on the threads of the parallel first pass of the per-point kernel. That
// pass only records what failed; the warnings are written by the sequential
// second pass, in grid order, as a single-threaded walk would write them.
thread_local bool quiet = false;

// F = I + H as a 2x2 matrix, row-major.
struct Deformation {
    double f11, f12, f21, f22;
    explicit Deformation(const double* h)
        : f11(1.0 + h[0]), f12(h[1]), f21(h[2]), f22(1.0 + h[3]) {}
    double det() const { return f11 * f22 - f12 * f21; }
};

// Symmetric 2x2 tensor [[a, b], [b, c]].
struct Sym2 {
    double a, b, c;
};

Sym2 rightCauchyGreen(const Deformation& f) {  // F^T F
    return {f.f11 * f.f11 + f.f21 * f.f21, f.f11 * f.f12 + f.f21 * f.f22,
            f.f12 * f.f12 + f.f22 * f.f22};
}

Sym2 leftCauchyGreen(const Deformation& f) {  // F F^T
    return {f.f11 * f.f11 + f.f12 * f.f12, f.f11 * f.f21 + f.f12 * f.f22,
            f.f21 * f.f21 + f.f22 * f.f22};
}

// fn(S) for a symmetric positive semi-definite S whose determinant is known
// exactly as (det F)^2. The eigenvector angle comes from atan2, which stays
// well defined for equal eigenvalues, and fn(S) is rebuilt as
// fn(l2) I + (fn(l1) - fn(l2)) v v^T, which never divides by l1 - l2. The
// small eigenvalue is taken from the determinant, not from m - r, so that it
// keeps its relative accuracy when S is nearly singular. False when an
// eigenvalue is outside the domain of fn (not positive for the logarithm).
template <class Fn>
bool applyToEigenvalues(const Sym2& s, double det, bool needPositive, Fn fn, Sym2& out) {
    const double m = 0.5 * (s.a + s.c);
    const double d = 0.5 * (s.a - s.c);
    const double r = std::hypot(d, s.b);
    const double l1 = m + r;
    const double l2 = l1 > 0.0 ? det / l1 : m - r;
    if (!std::isfinite(l1) || !std::isfinite(l2)) return false;
    if (needPositive ? !(l2 > 0.0) : l2 < 0.0) return false;
    const double theta = 0.5 * std::atan2(s.b, d);
    const double cs = std::cos(theta), sn = std::sin(theta);
    const double f1 = fn(l1), f2 = fn(l2);
    const double k = f1 - f2;
    out = {f2 + k * cs * cs, k * cs * sn, f2 + k * sn * sn};
    return true;
}

bool logarithmicStrain(const Sym2& s, double det, double& exx, double& eyy, double& exy) {
    Sym2 l;
    if (!applyToEigenvalues(s, det, true, [](double v) { return std::log(v); }, l)) {
        exx = eyy = exy = 0.0;
        return false;
    }
    exx = 0.5 * l.a;
    eyy = 0.5 * l.c;
    exy = 0.5 * l.b;
    return true;
}

void cross(const double* a, const double* b, double* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// In-plane coordinates of a - c and b - c in the frame of the triangle's own
// normal n = (a - c) x (b - c): x axis = global y x n, y axis = x axis x n,
// both normalised. They are returned unscaled, as dot products with the
// axes ex~ = (n_z, 0, -n_x) and ex~ x n, together with the two lengths that
// normalise them (x = x~ / |ex~|, y = y~ / (|ex~| |n|)); the caller folds the
// scales into one division. Working relative to c keeps the precision of data
// far from the origin.
struct Edges {
    double x[2], y[2];
    double xLength;  // |ex~| = sqrt(n_x^2 + n_z^2)
    double nLength;  // |n|
};

Edges localEdges(const double* a, const double* b, const double* c) {
    const double ac[3] = {a[0] - c[0], a[1] - c[1], a[2] - c[2]};
    const double bc[3] = {b[0] - c[0], b[1] - c[1], b[2] - c[2]};
    double n[3];
    cross(ac, bc, n);
    const double xz = n[0] * n[0] + n[2] * n[2];
    const double ex[3] = {n[2], 0.0, -n[0]};
    double ey[3];
    cross(ex, n, ey);
    Edges e;
    e.x[0] = ex[0] * ac[0] + ex[2] * ac[2];
    e.y[0] = ey[0] * ac[0] + ey[1] * ac[1] + ey[2] * ac[2];
    e.x[1] = ex[0] * bc[0] + ex[2] * bc[2];
    e.y[1] = ey[0] * bc[0] + ey[1] * bc[1] + ey[2] * bc[2];
    e.xLength = std::sqrt(xz);
    e.nLength = std::sqrt(xz + n[1] * n[1]);
    return e;
}

// The grid channels the per-point kernel reads.
struct Grid {
    const float* x;
    const float* y;
    const float* z;  // null: planar data, 0 everywhere
    const float* u;
    const float* v;
    const float* w;  // null: planar data, 0 everywhere
    float* confidence;
    int width;
    int height;
    TensorFunction tensor;

    void reference(size_t p, double* out) const {
        out[0] = x[p];
        out[1] = y[p];
        out[2] = z != nullptr ? z[p] : 0.0;
    }
    void deformed(size_t p, double* out) const {
        out[0] = static_cast<double>(x[p]) + u[p];
        out[1] = static_cast<double>(y[p]) + v[p];
        out[2] = (z != nullptr ? static_cast<double>(z[p]) : 0.0) +
                 (w != nullptr ? static_cast<double>(w[p]) : 0.0);
    }
    bool valid(size_t p) const { return confidence[p] >= 0.0f; }
};

// Neighbour pairs (first, second) of the four triangles around a point, in
// the order they are tried. Each pair turns the same way around the centre,
// so all four reference normals agree and the local frames are not mirrored
// against each other.
enum Neighbour { Left, Top, Right, Bottom };
constexpr Neighbour kTriangles[4][2] = {{Left, Top}, {Top, Right}, {Right, Bottom}, {Bottom, Left}};
constexpr const char* kTriangleFailed[4] = {"tl failed.", "tr failed.", "rb failed.", "bl failed."};
constexpr unsigned kTensorFailed = 0x40;

// Mean gradient and mean tensor of the triangles around (r, c). Returns the
// number of triangles that could be evaluated; bit t of `failed` is set when
// triangle t was tried and failed, kTensorFailed when a tensor could not be
// formed.
int pointStrain(const Grid& g, int r, int c, double (&mean)[7], unsigned& failed) {
    const size_t p = static_cast<size_t>(r) * g.width + c;
    size_t neighbour[4];
    bool present[4];
    present[Left] = c > 0 && g.valid(neighbour[Left] = p - 1);
    present[Top] = r > 0 && g.valid(neighbour[Top] = p - g.width);
    present[Right] = c + 1 < g.width && g.valid(neighbour[Right] = p + 1);
    present[Bottom] = r + 1 < g.height && g.valid(neighbour[Bottom] = p + g.width);

    double refC[3], defC[3];
    g.reference(p, refC);
    g.deformed(p, defC);
    // Each neighbour serves two triangles: load its positions once.
    double ref[4][3], def[4][3];
    for (int k = 0; k < 4; ++k) {
        if (!present[k]) continue;
        g.reference(neighbour[k], ref[k]);
        g.deformed(neighbour[k], def[k]);
    }
    double sums[7] = {};
    int count = 0;
    failed = 0;
    for (int t = 0; t < 4; ++t) {
        const Neighbour first = kTriangles[t][0], second = kTriangles[t][1];
        if (!present[first] || !present[second]) continue;
        double h[4];
        const bool ok =
            analyze_triang(h, ref[first], ref[second], refC, def[first], def[second], defC);
        if (!ok) {
            failed |= 1u << t;
            if (!quiet) {
                NIMBRA_LOG(warning) << kTriangleFailed[t];
            }
            continue;
        }
        // A tensor that cannot be formed still counts, with strain 0.
        double e[3] = {0.0, 0.0, 0.0};
        if (!g.tensor(e[0], e[1], e[2], h)) failed |= kTensorFailed;
        for (int k = 0; k < 4; ++k) sums[k] += h[k];
        for (int k = 0; k < 3; ++k) sums[4 + k] += e[k];
        ++count;
    }
    if (count > 0) {
        const double scale = 1.0 / count;
        for (int k = 0; k < 7; ++k) mean[k] = sums[k] * scale;
    }
    return count;
}

void storePoint(float* const* strain, float* const* gradient, size_t p, const double (&mean)[7]) {
    for (int k = 0; k < 4; ++k) gradient[k][p] = static_cast<float>(mean[k]);
    for (int k = 0; k < 3; ++k) strain[k][p] = static_cast<float>(mean[4 + k]);
}

// Status bits of the first pass.
constexpr uint8_t kFailedMask = 0x4f;  // something failed: warnings are due
constexpr uint8_t kNoTriangle = 0x10;  // the point is to be invalidated
constexpr uint8_t kStale = 0x20;       // a neighbour it used was invalidated

}  // namespace

// ------------------------------------------------------------ tensor kinds

const char* tensorDisplayName(TensorType tensorType) {
    switch (tensorType) {
        case HenckyStrainTensor: return "Hencky";
        case EulerStrainTensor: return "Euler";
        case LogarithmicEulerTensor: return "Log. Euler";
        case EngineeringStrain: return "engr.";
        case BiotStrainTensor: return "Biot";
        default: return "Lagrange";
    }
}

TensorFunction tensorFunction(TensorType tensorType) {
    switch (tensorType) {
        case HenckyStrainTensor: return tensor_hencky;
        case EulerStrainTensor: return tensor_euler;
        case LogarithmicEulerTensor: return tensor_log_euler;
        case EngineeringStrain: return tensor_engineering;
        case BiotStrainTensor: return tensor_biot;
        default: return tensor_lagrange;
    }
}

bool tensor_lagrange(double& exx, double& eyy, double& exy, const double* h) {
    exx = h[0] + (h[0] * h[0] + h[2] * h[2]) / 2.0;
    eyy = h[3] + (h[1] * h[1] + h[3] * h[3]) / 2.0;
    exy = (h[1] + h[2] + h[0] * h[1] + h[2] * h[3]) / 2.0;
    return true;
}

bool tensor_engineering(double& exx, double& eyy, double& exy, const double* h) {
    double lxx, lyy, lxy;
    tensor_lagrange(lxx, lyy, lxy, h);
    const float ex = static_cast<float>(lxx), ey = static_cast<float>(lyy),
                es = static_cast<float>(lxy);
    const float sx = 1.0f + 2.0f * ex, sy = 1.0f + 2.0f * ey;
    exx = std::sqrt(sx) - 1.0f;
    eyy = std::sqrt(sy) - 1.0f;
    exy = std::asin(2.0f * es / std::sqrt(sx * sy));
    return true;
}

bool tensor_euler(double& exx, double& eyy, double& exy, const double* h) {
    const Deformation f(h);
    const Sym2 b = leftCauchyGreen(f);
    const double det = f.det() * f.det();  // det(F F^T), without cancellation
    if (!(det > kSingularRatio * b.a * b.c) || !std::isfinite(det)) {
        if (!quiet) {
            NIMBRA_LOG(warning) << "Can't get right Cauchy tensor.";
        }
        return false;
    }
    const double g11 = b.c / det, g22 = b.a / det, g12 = -b.b / det;
    exx = -0.5 * (g11 - 1.0);
    eyy = -0.5 * (g22 - 1.0);
    exy = -0.5 * g12;
    return true;
}

bool tensor_hencky(double& exx, double& eyy, double& exy, const double* h) {
    const Deformation f(h);
    return logarithmicStrain(rightCauchyGreen(f), f.det() * f.det(), exx, eyy, exy);
}

bool tensor_log_euler(double& exx, double& eyy, double& exy, const double* h) {
    const Deformation f(h);
    return logarithmicStrain(leftCauchyGreen(f), f.det() * f.det(), exx, eyy, exy);
}

bool tensor_biot(double& exx, double& eyy, double& exy, const double* h) {
    // Right stretch U = sqrt(F^T F) of the polar decomposition F = R U.
    const Deformation f(h);
    Sym2 u;
    if (!applyToEigenvalues(rightCauchyGreen(f), f.det() * f.det(), false,
                            [](double v) { return std::sqrt(v); }, u))
        return false;
    exx = u.a - 1.0;
    eyy = u.c - 1.0;
    exy = u.b;
    return true;
}

// ------------------------------------------------------------- triangles

bool analyze_triang(double* gradient, const double* refA, const double* refB, const double* refC,
                    const double* defA, const double* defB, const double* defC) {
    const Edges r = localEdges(refA, refB, refC);
    const Edges d = localEdges(defA, defB, defC);

    // The least-squares affine map through three points is their exact
    // interpolation, so the gradient is E' E^-1 with the edge matrices
    // E = [a - c, b - c] in the local frames. The singularity test is that of
    // the normal matrix M = sum [1, x, y]^T [1, x, y] over the centred
    // points: det M = det(E)^2 and its diagonal is (3, Sxx, Syy). The test is
    // unchanged by scaling x or y, so it runs on the unscaled coordinates; a
    // degenerate triangle (no normal, or a normal along y) gives 0 there.
    const double det = r.x[0] * r.y[1] - r.x[1] * r.y[0];
    const double mx = (r.x[0] + r.x[1]) * 0.3333333333333333;
    const double my = (r.y[0] + r.y[1]) * 0.3333333333333333;
    const double sxx = (r.x[0] - mx) * (r.x[0] - mx) + (r.x[1] - mx) * (r.x[1] - mx) + mx * mx;
    const double syy = (r.y[0] - my) * (r.y[0] - my) + (r.y[1] - my) * (r.y[1] - my) + my * my;
    if (!(det * det > kSingularRatio * 3.0 * sxx * syy)) {
        if (!quiet) {
            NIMBRA_LOG(warning) << "Could not invert matrix!!! " << refC[0] - refB[0] << ' '
                                << refC[1] - refB[1] << ' ' << refC[2] - refB[2];
        }
        return false;
    }
    // E' E^-1 with the scales of both frames folded into one division.
    const double a = r.xLength, b = r.nLength;
    const double q = 1.0 / (d.xLength * d.nLength * det);
    gradient[0] = a * d.nLength * q * (d.x[0] * r.y[1] - d.x[1] * r.y[0]) - 1.0;  // dx'/dx - 1
    gradient[1] = a * b * d.nLength * q * (d.x[1] * r.x[0] - d.x[0] * r.x[1]);     // dx'/dy
    gradient[2] = a * q * (d.y[0] * r.y[1] - d.y[1] * r.y[0]);                     // dy'/dx
    gradient[3] = a * b * q * (d.y[1] * r.x[0] - d.y[0] * r.x[1]) - 1.0;           // dy'/dy - 1
    return true;
}

// ------------------------------------------------------- per-point kernel

void compute_strain(float* const* strain, float* const* gradient, const float* x,
                    const float* y, const float* z, const float* u, const float* v,
                    const float* w, float* confidence, TensorFunction tensor, int width,
                    int height, int workers) {
    if (width <= 0 || height <= 0) return;
    const Grid g{x, y, z, u, v, w, confidence, width, height, tensor};
    const size_t size = static_cast<size_t>(width) * height;
    std::vector<uint8_t> status(size, 0);

    // The walk is defined row by row, and a point left without triangles is
    // invalidated on the spot, which changes what its right and bottom
    // neighbours (visited later) see. The first pass evaluates every point in
    // parallel against the confidence as it was on entry; the second pass
    // walks the grid in order and redoes only the points whose outcome can
    // differ from that walk: points to be invalidated, points next to one
    // that was, and, when warnings are written, points with failures so that
    // their warnings come out in grid order.
    const int count = std::min(resolveWorkerCount(workers), height);
    // Contiguous bands of rows: a point reads the rows above and below it,
    // which then are in the worker's cache already.
    runWorkers(count, [&](int k, int n) {
        // Private copies: the originals live on the caller's stack, and
        // reading them through cache lines that worker 0 keeps writing
        // halved the speed of two workers.
        const Grid grid = g;
        float* out[7];
        std::copy(strain, strain + 3, out);
        std::copy(gradient, gradient + 4, out + 3);
        uint8_t* const flags = status.data();
        const int columns = grid.width, rows = grid.height;
        quiet = true;
        const int last = static_cast<int>(static_cast<int64_t>(rows) * (k + 1) / n);
        for (int r = static_cast<int>(static_cast<int64_t>(rows) * k / n); r < last; ++r) {
            for (int c = 0; c < columns; ++c) {
                const size_t p = static_cast<size_t>(r) * columns + c;
                if (!grid.valid(p)) continue;
                double mean[7];
                unsigned failed = 0;
                if (pointStrain(grid, r, c, mean, failed) > 0)
                    storePoint(out, out + 3, p, mean);
                else
                    flags[p] |= kNoTriangle;
                flags[p] |= static_cast<uint8_t>(failed);
            }
        }
        quiet = false;
    });

    const bool warnings = log::enabled(log::warning);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const size_t p = static_cast<size_t>(r) * width + c;
            const uint8_t s = status[p];
            if (s == 0 || !g.valid(p)) continue;
            if (!(s & (kNoTriangle | kStale)) && !(warnings && (s & kFailedMask))) continue;
            double mean[7];
            unsigned failed = 0;
            if (pointStrain(g, r, c, mean, failed) > 0) {
                storePoint(strain, gradient, p, mean);
            } else {
                confidence[p] = -1.0f;
                const double zero[7] = {};
                storePoint(strain, gradient, p, zero);
                if (c + 1 < width) status[p + 1] |= kStale;
                if (r + 1 < height) status[p + width] |= kStale;
            }
        }
    }
}

// ---------------------------------------------------------- one AOI

namespace {

// The coordinate channels, in the order of the conventions tried.
struct CoordinateSet {
    ZelDataVariableType position;
    const char* x;
    const char* y;
    const char* z;  // null: planar
    ZelDataVariableType displacement;
    const char* u;
    const char* v;
    const char* w;
};
constexpr CoordinateSet kCoordinateSets[4] = {
    {GlobalCoordinate, "X", "Y", "Z", GlobalDisplacement, "U", "V", "W"},
    {GlobalCoordinate, "x_c", "y_c", nullptr, GlobalDisplacement, "u_c", "v_c", nullptr},
    {PixelCoordinate, "x_c", "y_c", nullptr, PixelDisplacement, "u_c", "v_c", nullptr},
    {PixelCoordinate, "x", "y", nullptr, PixelDisplacement, "u", "v", nullptr},
};

// Values of a variable found by kind and name that covers the whole grid.
const float* channel(ZelData& data, ZelDataVariableType type, const char* name) {
    const int32_t index = data.findVariable(type, name);
    if (index < 0) return nullptr;
    const ZelDataVariable* var = data.variable(index);
    return var->count >= data.matrixSize() ? var->values.get() : nullptr;
}

bool findCoordinates(ZelData& data, const float* (&out)[6]) {
    for (const CoordinateSet& set : kCoordinateSets) {
        const float* found[6] = {
            channel(data, set.position, set.x),
            channel(data, set.position, set.y),
            set.z != nullptr ? channel(data, set.position, set.z) : nullptr,
            channel(data, set.displacement, set.u),
            channel(data, set.displacement, set.v),
            set.w != nullptr ? channel(data, set.displacement, set.w) : nullptr,
        };
        bool complete = found[0] && found[1] && found[3] && found[4];
        if (set.z != nullptr) complete = complete && found[2] && found[5];
        if (complete) {
            std::copy(found, found + 6, out);
            return true;
        }
    }
    return false;
}

// An output variable of kind Strain: with `reuse`, the first one of that
// name gets the reuse description; otherwise a new one is appended. Either
// way it ends with one value per grid point.
int32_t outputVariable(ZelData& data, const std::string& name, const std::string& created,
                       const std::string& reused, bool reuse) {
    if (reuse) {
        for (int32_t i = 0; i < data.numVariables(); ++i) {
            ZelDataVariable* var = data.variable(i);
            if (var->type == Strain && var->name == name) {
                var->description = reused;
                data.resizeValues(i, data.matrixSize());
                return i;
            }
        }
    }
    return data.addVariable(Strain, name, created);
}

// Runs fn(p) for every point, the points split in contiguous ranges over the
// workers (each point is independent). Each worker runs its own copy of fn
// (capture by value), so that no worker reads through cache lines of the
// caller's stack that worker 0 keeps writing.
template <class Fn>
void forEachPoint(size_t size, const Fn& fn) {
    const int count = static_cast<int>(std::min<size_t>(resolveWorkerCount(0), size / 65536 + 1));
    runWorkers(count, [&fn, size](int k, int n) {
        const Fn body = fn;
        const size_t begin = size * k / n, end = size * (k + 1) / n;
        for (size_t p = begin; p < end; ++p) body(p);
    });
}

// Centre, half difference and radius of the in-plane Mohr circle. The
// principal, Tresca and von Mises values differ only in the shear they pass:
// the engineering kind halves its shear angle except for Tresca.
struct MohrCircle {
    double mean, half, radius;
};

inline MohrCircle mohrCircle(float exx, float eyy, double shear) {
    const double m = 0.5 * (static_cast<double>(exx) + eyy);
    const double d = 0.5 * (static_cast<double>(exx) - eyy);
    return {m, d, std::sqrt(d * d + shear * shear)};
}

}  // namespace

bool computeStrain(ZelData& data, int window, bool principal, bool reuse, bool weighted,
                   TensorType tensorType, bool tresca, bool vonMises, bool gradient,
                   bool flipShear, StrainVariableIndices* indices, bool filterNote) {
    if (window < 3) {
        NIMBRA_LOG(error) << "Smoothing window too small in computeStrain()";
        return false;
    }
    if (window % 2 == 0) {
        NIMBRA_LOG(error)
            << "Even smoothing window in computeStrain(). Proceeding with next valid size.";
        window |= 1;
    }
    if (data.gridKind() != 2) return false;
    const int32_t confIndex = data.firstVariableOfType(Correlation);
    if (confIndex < 0) return false;
    // The kernel and the smoother walk rows and columns: they must be what
    // the variables hold.
    if (!requireConsistentGrid(data, "computeStrain()")) return false;
    const int width = data.numColumns();
    const int height = data.numRows();
    const size_t size = static_cast<size_t>(data.matrixSize());
    if (data.variable(confIndex)->count < data.matrixSize()) return false;
    float* confidence = data.variableValues(confIndex);
    const float* xyz[6];
    if (!findCoordinates(data, xyz)) {
        NIMBRA_LOG(error) << "Could not find coordinates for strain computation.";
        return false;
    }

    std::string label = tensorDisplayName(tensorType);
    if (filterNote) label += " (" + std::to_string(window) + " filter)";

    // Work channels: exx, eyy, exy, then Hxx, Hxy, Hyx, Hyy.
    // Left uninitialised: the kernel writes every point that is valid after
    // it, and the smoother reads nothing else. Its first touch then happens
    // on the workers.
    std::unique_ptr<float[]> work(new float[7 * size]);
    float* channels[7];
    for (int k = 0; k < 7; ++k) channels[k] = work.get() + k * size;
    compute_strain(channels, channels + 3, xyz[0], xyz[1], xyz[2], xyz[3], xyz[4], xyz[5],
                   confidence, tensorFunction(tensorType), width, height);

    StrainVariableIndices local;
    StrainVariableIndices& record = indices != nullptr ? *indices : local;
    static const char* const kStrainNames[3] = {"exx", "eyy", "exy"};
    for (int k = 0; k < 3; ++k) {
        const std::string description = std::string(kStrainNames[k]) + " [1] - " + label;
        record.index[k] = outputVariable(data, kStrainNames[k], description, description, reuse);
    }
    if (gradient) {
        static const char* const kNames[4] = {"fxx", "fxy", "fyx", "fyy"};
        static const char* const kDescriptions[4] = {"Fxx [1]", "Fxy [1]", "Fyx [1]", "Fyy [1]"};
        for (int k = 0; k < 4; ++k)
            record.index[3 + k] =
                outputVariable(data, kNames[k], kDescriptions[k], kDescriptions[k], reuse);
    }

    // One smoothing pass for all channels shares the normal matrix of each
    // point between them.
    std::vector<float*> output;
    std::vector<const float*> input;
    for (int k = 0; k < (gradient ? 7 : 3); ++k) {
        output.push_back(data.variableValues(record.index[k]));
        input.push_back(channels[k]);
    }
    smoothChannels(output, input, confidence, width, height, window, weighted);
    work.reset();

    float* exx = data.variableValues(record.index[0]);
    float* eyy = data.variableValues(record.index[1]);
    float* exy = data.variableValues(record.index[2]);
    if (flipShear)
        for (size_t p = 0; p < size; ++p) exy[p] = -exy[p];

    // Principal values: the engineering kind stores the shear angle, twice
    // the tensor shear.
    const double shearScale = tensorType == EngineeringStrain ? 0.5 : 1.0;
    if (principal) {
        const int32_t i1 = outputVariable(data, "e1", "e1 [1] - %0", "e1 [1] - " + label, reuse);
        const int32_t i2 = outputVariable(data, "e2", "e2 [1] - %0", "e2 [1] - " + label, reuse);
        const int32_t ig =
            outputVariable(data, "gamma", "gamma [1] - %0", "gamma [1] - " + label, reuse);
        float* e1 = data.variableValues(i1);
        float* e2 = data.variableValues(i2);
        float* gamma = data.variableValues(ig);
        forEachPoint(size, [=](size_t p) {
            if (!(confidence[p] >= 0.0f)) {
                e1[p] = e2[p] = gamma[p] = 0.0f;
                return;
            }
            const double s = shearScale * exy[p];
            const MohrCircle c = mohrCircle(exx[p], eyy[p], s);
            e1[p] = static_cast<float>(c.mean + c.radius);
            e2[p] = static_cast<float>(c.mean - c.radius);
            gamma[p] = static_cast<float>(0.5 * std::atan2(s, c.half));
        });
    }
    if (tresca) {
        const int32_t it = outputVariable(data, "e_tresca", "Tresca Strain [1] - %0",
                                          "Tresca Strain [1] - " + label, reuse);
        float* out = data.variableValues(it);
        forEachPoint(size, [=](size_t p) {
            if (!(confidence[p] >= 0.0f)) {
                out[p] = 0.0f;
                return;
            }
            // The full shear for every kind, the engineering one included.
            const MohrCircle c = mohrCircle(exx[p], eyy[p], exy[p]);
            const double e1 = c.mean + c.radius, e2 = c.mean - c.radius;
            double value;
            if (e1 > 0.0)
                value = e2 < 0.0 ? (e1 - e2) / 2.0 : e1 / 2.0;
            else
                value = -e2 / 2.0;
            out[p] = static_cast<float>(value);
        });
    }
    if (vonMises) {
        const std::string description = "Von Mises Strain [1] - " + label;
        const int32_t iv = outputVariable(data, "e_vonmises", description, description, reuse);
        float* out = data.variableValues(iv);
        forEachPoint(size, [=](size_t p) {
            if (!(confidence[p] >= 0.0f)) {
                out[p] = 0.0f;
                return;
            }
            const MohrCircle c = mohrCircle(exx[p], eyy[p], shearScale * exy[p]);
            const double e1 = c.mean + c.radius, e2 = c.mean - c.radius;
            out[p] = static_cast<float>(2.0 / 3.0 * std::sqrt(e1 * e1 - e1 * e2 + e2 * e2));
        });
    }
    // Done writing: the confidence (points without a triangle became
    // invalid) and the outputs, all of kind Strain, are marked changed once
    // more for readers on other threads.
    data.markChanged(confIndex);
    for (int32_t i = 0; i < data.numVariables(); ++i)
        if (data.variable(i)->type == Strain) data.markChanged(i);
    return true;
}

bool computeStrain(ZelDataSet& dataSet, int window, bool principal, bool reuse, bool weighted,
                   TensorType tensorType, bool tresca, bool vonMises, bool gradient,
                   bool flipShear, std::vector<StrainVariableIndices>* indices,
                   bool filterNote) {
    if (indices != nullptr) indices->clear();
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        StrainVariableIndices* record = nullptr;
        if (indices != nullptr) {
            indices->emplace_back();
            record = &indices->back();
        }
        ZelData* data = dataSet.data(i);
        if (data == nullptr || data->gridKind() != 2) continue;
        if (!computeStrain(*data, window, principal, reuse, weighted, tensorType, tresca,
                           vonMises, gradient, flipShear, record, filterNote))
            return false;
    }
    return true;
}

}  // namespace nimbra
