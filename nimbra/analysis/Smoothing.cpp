#include "nimbra/analysis/Smoothing.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <system_error>
#include <vector>

#include "nimbra/analysis/VectorClones.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// A fit counts as singular when its determinant falls below this fraction of
// the product of the diagonal (Hadamard's bound for the positive
// semi-definite normal matrix). Windows without slope information (one
// valid point, valid points on one line) give exactly 0 or a few rounding
// units there; genuine fits stay many orders of magnitude above.
constexpr double kSingularRatio = 1e-9;

// Columns are processed in blocks of this many so that the inner loops have
// a fixed trip count the compiler turns into vector code at -O2.
constexpr int kBlock = 4;
// Columns per strip (see PlaneFit).
constexpr int kStrip = 128;

int roundUp(int n, int to) { return (n + to - 1) / to * to; }

// Row factor e(i) of the kernel w(i, j) = e(i) * e(j), i = -h .. h. The
// single-variable form works in single precision, the multi-channel form
// divides in double and rounds; both take the exponentials in single
// precision. A product of two floats is exact in double, so the double
// kernel of the multi-channel form is exactly separable.
std::vector<double> kernelFactors(int window, bool weighted, bool singlePrecisionDivide) {
    const int h = window / 2;
    std::vector<double> e(static_cast<size_t>(2 * h + 1), 1.0);
    if (!weighted) return e;
    const float a = singlePrecisionDivide
                        ? 6.283f / static_cast<float>(window * window)
                        : static_cast<float>(6.283 / (static_cast<double>(window) * window));
    for (int i = -h; i <= h; ++i)
        e[static_cast<size_t>(i + h)] = static_cast<double>(std::exp(-a * static_cast<float>(i * i)));
    return e;
}

// The weighted sums of the plane fit over a clipped window factor into a
// column sum of row sums: sum_i sum_j e(i) e(j) i^l j^k m v. The row pass
// computes, per grid row, sum_j e(j) j^k m v for every column (k = 0, 1, 2 for
// the validity mask m, k = 0, 1 for each channel value m v); the column pass
// combines 2h + 1 such rows. Row results live in a ring of 2h + 1 slots, so
// each grid row's row pass runs once per band. Zero padding outside the grid
// clips the window exactly as the direct sums do. The grid is walked in
// strips of kStrip columns so that the ring (2h + 1 rows of 3 + 2 * channels
// sums) stays in the core's own cache while the column pass re-reads it.
class PlaneFit {
public:
    PlaneFit(const float* confidence, int width, int height, int halfWidth,
             const std::vector<double>& factors, const std::vector<const float*>& input)
        : confidence_(confidence),
          width_(width),
          height_(height),
          h_(halfWidth),
          channels_(static_cast<int>(input.size())),
          input_(input),
          paddedWidth_(roundUp(std::min(width, kStrip), kBlock)),
          slots_(2 * halfWidth + 1),
          arrays_(3 + 2 * channels_),
          ring_(static_cast<size_t>(slots_) * arrays_ * paddedWidth_),
          ringRow_(static_cast<size_t>(slots_), -1),
          padded_(static_cast<size_t>(paddedWidth_ + 2 * halfWidth), 0.0),
          paddedMask_(static_cast<size_t>(paddedWidth_ + 2 * halfWidth), 0.0),
          rowPointers_(static_cast<size_t>(slots_), nullptr) {
        for (int k = 0; k < 3; ++k) moment_[k].resize(static_cast<size_t>(slots_));
        for (int t = 0; t < slots_; ++t) {
            const double offset = t - h_;
            moment_[0][static_cast<size_t>(t)] = factors[static_cast<size_t>(t)];
            moment_[1][static_cast<size_t>(t)] = factors[static_cast<size_t>(t)] * offset;
            moment_[2][static_cast<size_t>(t)] = factors[static_cast<size_t>(t)] * offset * offset;
        }
    }

    // Fits the valid points of grid rows [first, last) into `output`.
    void fitRows(int first, int last, const std::vector<float*>& output, uint32_t* progress) {
        for (stripStart_ = 0; stripStart_ < width_; stripStart_ += kStrip) {
            stripWidth_ = std::min(kStrip, width_ - stripStart_);
            std::fill(ringRow_.begin(), ringRow_.end(), -1);
            for (int r = first; r < last; ++r) {
                const int top = std::max(0, r - h_);
                const int bottom = std::min(height_ - 1, r + h_);
                for (int row = top; row <= bottom; ++row) ensureRow(row);
                fitRow(r, top, bottom, output);
                if (progress != nullptr) *progress += static_cast<uint32_t>(stripWidth_);
            }
        }
    }

private:
    double* slot(int row) {
        return ring_.data() + static_cast<size_t>(row % slots_) * arrays_ * paddedWidth_;
    }

    void ensureRow(int row) {
        if (ringRow_[static_cast<size_t>(row % slots_)] == row) return;
        ringRow_[static_cast<size_t>(row % slots_)] = row;
        double* out = slot(row);
        // Padded entry j stands for grid column stripStart_ - h + j; the
        // columns outside the grid (and beyond the strip's reach) stay 0.
        const int from = std::max(0, h_ - stripStart_);
        const int to = std::min(stripWidth_ + 2 * h_, width_ - stripStart_ + h_);
        const int shift = stripStart_ - h_;
        const float* conf = confidence_ + static_cast<size_t>(row) * width_;
        double* mask = paddedMask_.data();
        std::fill(paddedMask_.begin(), paddedMask_.end(), 0.0);
        for (int j = from; j < to; ++j) mask[j] = conf[j + shift] >= 0.0f ? 1.0 : 0.0;
        rowPass(paddedMask_.data(), out, 3);
        for (int ch = 0; ch < channels_; ++ch) {
            const float* values = input_[static_cast<size_t>(ch)] + static_cast<size_t>(row) * width_;
            double* v = padded_.data();
            std::fill(padded_.begin(), padded_.end(), 0.0);
            // A select, not a product: invalid points may hold NaN or inf.
            for (int j = from; j < to; ++j) v[j] = conf[j + shift] >= 0.0f ? values[j + shift] : 0.0;
            rowPass(padded_.data(), out + static_cast<size_t>(3 + 2 * ch) * paddedWidth_, 2);
        }
    }

    // out[k][c] = sum_t moment_k[t] * in[c + t] for k < moments.
    NIMBRA_VECTOR_CLONES void rowPass(const double* __restrict in, double* __restrict out, int moments) const {
        const double* m0 = moment_[0].data();
        const double* m1 = moment_[1].data();
        const double* m2 = moment_[2].data();
        double* o0 = out;
        double* o1 = out + paddedWidth_;
        double* o2 = out + 2 * static_cast<size_t>(paddedWidth_);
        for (int c = 0; c < paddedWidth_; c += kBlock) {
            double s0[kBlock] = {}, s1[kBlock] = {}, s2[kBlock] = {};
            if (moments == 3) {
                for (int t = 0; t < slots_; ++t) {
                    const double* x = in + c + t;
                    for (int q = 0; q < kBlock; ++q) {
                        s0[q] += m0[t] * x[q];
                        s1[q] += m1[t] * x[q];
                        s2[q] += m2[t] * x[q];
                    }
                }
                for (int q = 0; q < kBlock; ++q) o2[c + q] = s2[q];
            } else {
                for (int t = 0; t < slots_; ++t) {
                    const double* x = in + c + t;
                    for (int q = 0; q < kBlock; ++q) {
                        s0[q] += m0[t] * x[q];
                        s1[q] += m1[t] * x[q];
                    }
                }
            }
            for (int q = 0; q < kBlock; ++q) {
                o0[c + q] = s0[q];
                o1[c + q] = s1[q];
            }
        }
    }

    NIMBRA_VECTOR_CLONES void fitRow(int r, int top, int bottom, const std::vector<float*>& output) {
        const float* conf = confidence_ + static_cast<size_t>(r) * width_ + stripStart_;
        const size_t stride = static_cast<size_t>(paddedWidth_);
        const int taps = bottom - top + 1;
        const double** rows = rowPointers_.data();
        const double* f0s = moment_[0].data() + (top - r + h_);
        const double* f1s = moment_[1].data() + (top - r + h_);
        const double* f2s = moment_[2].data() + (top - r + h_);
        for (int i = 0; i < taps; ++i) rows[i] = slot(top + i);
        for (int c = 0; c < stripWidth_; c += kBlock) {
            const int n = std::min(kBlock, stripWidth_ - c);
            bool any = false;
            for (int q = 0; q < n; ++q) any = any || conf[c + q] >= 0.0f;
            if (!any) continue;

            // Mask sums: s[k][l] = sum w x^k y^l m (x column, y row offset).
            double s00[kBlock] = {}, s01[kBlock] = {}, s02[kBlock] = {};
            double s10[kBlock] = {}, s11[kBlock] = {}, s20[kBlock] = {};
            for (int i = 0; i < taps; ++i) {
                const double f0 = f0s[i], f1 = f1s[i], f2 = f2s[i];
                const double* base = rows[i] + c;
                const double* h0 = base;
                const double* h1 = base + stride;
                const double* h2 = base + 2 * stride;
                for (int q = 0; q < kBlock; ++q) {
                    s00[q] += f0 * h0[q];
                    s01[q] += f1 * h0[q];
                    s02[q] += f2 * h0[q];
                    s10[q] += f0 * h1[q];
                    s11[q] += f1 * h1[q];
                    s20[q] += f0 * h2[q];
                }
            }
            // First row of the inverse normal matrix, or NaN for a singular fit.
            double w0[kBlock], w1[kBlock], w2[kBlock];
            for (int q = 0; q < kBlock; ++q) {
                const double c00 = s20[q] * s02[q] - s11[q] * s11[q];
                const double c01 = s11[q] * s01[q] - s10[q] * s02[q];
                const double c02 = s10[q] * s11[q] - s20[q] * s01[q];
                const double det = s00[q] * c00 + s10[q] * c01 + s01[q] * c02;
                if (det > kSingularRatio * s00[q] * s20[q] * s02[q]) {
                    const double inv = 1.0 / det;
                    w0[q] = c00 * inv;
                    w1[q] = c01 * inv;
                    w2[q] = c02 * inv;
                } else {
                    w0[q] = w1[q] = w2[q] = std::nan("");
                }
            }
            for (int ch = 0; ch < channels_; ++ch) {
                double t00[kBlock] = {}, t01[kBlock] = {}, t10[kBlock] = {};
                const size_t offset = static_cast<size_t>(3 + 2 * ch) * stride;
                for (int i = 0; i < taps; ++i) {
                    const double f0 = f0s[i], f1 = f1s[i];
                    const double* v0 = rows[i] + offset + c;
                    const double* v1 = v0 + stride;
                    for (int q = 0; q < kBlock; ++q) {
                        t00[q] += f0 * v0[q];
                        t01[q] += f1 * v0[q];
                        t10[q] += f0 * v1[q];
                    }
                }
                float* out = output[static_cast<size_t>(ch)] + static_cast<size_t>(r) * width_ + stripStart_;
                for (int q = 0; q < n; ++q) {
                    if (conf[c + q] >= 0.0f && !std::isnan(w0[q]))
                        out[c + q] = static_cast<float>(w0[q] * t00[q] + w1[q] * t10[q] +
                                                        w2[q] * t01[q]);
                }
            }
        }
    }

    const float* confidence_;
    int width_;
    int height_;
    int h_;
    int channels_;
    std::vector<const float*> input_;
    int paddedWidth_;  // strip width rounded up to whole blocks
    int stripStart_ = 0;
    int stripWidth_ = 0;
    int slots_;
    int arrays_;
    std::vector<double> moment_[3];  // e(t - h) * (t - h)^k
    std::vector<double> ring_;
    std::vector<int> ringRow_;
    std::vector<double> padded_;
    std::vector<double> paddedMask_;
    std::vector<const double*> rowPointers_;  // ring rows of the current window
};

// Bands of rows dealt round-robin to the workers: two bands per worker keep
// the overlap of the ring (2h rows per band) small while still spreading the
// top and bottom borders over different workers.
int bandHeight(int height, int halfWidth, int count) {
    const int bands = std::max(1, 2 * count);
    return std::max({(height + bands - 1) / bands, 4 * (2 * halfWidth + 1), 1});
}

}  // namespace

// ------------------------------------------------------------- SmoothThread

SmoothThread::SmoothThread(std::vector<float*> output, std::vector<const float*> input,
                           std::vector<double> kernel, const float* confidence, int width,
                           int height, int halfWidth, int index, int count)
    : output_(std::move(output)),
      input_(std::move(input)),
      kernel_(std::move(kernel)),
      confidence_(confidence),
      width_(width),
      height_(height),
      halfWidth_(halfWidth),
      index_(index),
      count_(count) {}

SmoothThread::~SmoothThread() { join(); }

void SmoothThread::start() {
    if (thread_.joinable()) {
        NIMBRA_LOG(error) << "There is already a thread running.";
        return;
    }
    try {
        thread_ = std::thread(&SmoothThread::run, this);
    } catch (const std::system_error&) {
        // The worker stays idle; the caller runs it inline when it joins.
    }
}

void SmoothThread::join() {
    if (thread_.joinable()) thread_.join();
}

void SmoothThread::run() {
    if (width_ <= 0 || height_ <= 0) return;
    PlaneFit fit(confidence_, width_, height_, halfWidth_, kernel_, input_);
    const int band = bandHeight(height_, halfWidth_, count_);
    for (int first = index_ * band; first < height_; first += count_ * band)
        fit.fitRows(first, std::min(height_, first + band), output_, nullptr);
}

// ------------------------------------------------------------ entry points

void smoothChannels(const std::vector<float*>& output, const std::vector<const float*>& input,
                    const float* confidence, int width, int height, int window, bool weighted,
                    int workers) {
    if (width <= 0 || height <= 0 || input.empty() || output.size() != input.size()) return;
    const int halfWidth = std::max(window, 1) / 2;
    const std::vector<double> kernel = kernelFactors(2 * halfWidth + 1, weighted, false);
    const int count = resolveWorkerCount(workers);
    std::vector<std::unique_ptr<SmoothThread>> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int k = 0; k < count; ++k) {
        threads.push_back(std::make_unique<SmoothThread>(output, input, kernel, confidence, width,
                                                         height, halfWidth, k, count));
        threads.back()->start();
    }
    for (auto& worker : threads) {
        if (worker->running())
            worker->join();
        else
            worker->run();  // its thread could not be launched
    }
}

bool smoothVariable(ZelData& data, const std::string& variable, int window, bool weighted,
                    uint32_t* progress) {
    if (data.gridKind() != 2 || window < 1) return false;
    const int confIndex = data.firstVariableOfType(Correlation);
    if (confIndex < 0) return false;
    const int index = data.variableIndex(variable);
    if (index < 0) return false;
    // Rows and columns index the values below: they must be what the
    // variables hold.
    if (!requireConsistentGrid(data, "smoothVariable()")) return false;
    const int width = data.numColumns();
    const int height = data.numRows();
    const int size = data.matrixSize();
    if (size <= 0) return true;
    const ZelDataVariable* conf = data.variable(confIndex);
    const ZelDataVariable* var = data.variable(index);
    if (conf->count < size || var->count < size) return false;

    const int halfWidth = window / 2;
    const std::vector<double> kernel = kernelFactors(2 * halfWidth + 1, weighted, true);
    std::vector<float> result(static_cast<size_t>(size), 0.0f);
    {
        PlaneFit fit(conf->values.get(), width, height, halfWidth, kernel, {var->values.get()});
        fit.fitRows(0, height, {result.data()}, progress);
    }
    std::copy(result.begin(), result.end(), data.variableValues(index));
    data.markChanged(index);
    return true;
}

bool smoothVariable(ZelDataSet& dataSet, const std::string& variable, int window, bool weighted,
                    uint32_t* progress) {
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        ZelData* data = dataSet.data(i);
        if (data == nullptr || data->gridKind() != 2) continue;
        if (!smoothVariable(*data, variable, window, weighted, progress)) return false;
    }
    return true;
}

}  // namespace nimbra
