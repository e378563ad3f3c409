#pragma once
// Local weighted plane fit over a square window of grid points. Only valid
// points (confidence >= 0) take part; the smoothed value is the fitted plane
// at the centre point.

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace nimbra {

class ZelData;
class ZelDataSet;

// Smooths one variable of one AOI on the calling thread. Invalid points and
// points whose fit is singular end with 0. An even window is widened to the
// next odd size. False when the AOI is not a grid (kind 2), has no confidence
// variable, has no variable of that name, or the window is below 1.
bool smoothVariable(ZelData& data, const std::string& variable, int window, bool weighted,
                    uint32_t* progress = nullptr);

// Smooths the variable in every grid AOI, in index order; stops with false at
// the first AOI that fails.
bool smoothVariable(ZelDataSet& dataSet, const std::string& variable, int window,
                    bool weighted, uint32_t* progress = nullptr);

// Smooths several width x height channels at once into `output` (one array
// per input channel, distinct from the inputs). Output values of invalid
// points and of points whose fit is singular are left untouched. `window`
// must be odd. Uses `workers` threads, or analysisWorkerCount() when 0.
void smoothChannels(const std::vector<float*>& output, const std::vector<const float*>& input,
                    const float* confidence, int width, int height, int window, bool weighted,
                    int workers = 0);

// One worker of smoothChannels(): fits every valid point of its share of the
// grid rows. Rows are handed out in bands dealt round-robin (band k, k +
// count, ...), so that border bands and interior bands spread over the
// workers.
class SmoothThread {
public:
    SmoothThread(std::vector<float*> output, std::vector<const float*> input,
                 std::vector<double> kernel, const float* confidence, int width, int height,
                 int halfWidth, int index, int count);
    SmoothThread(const SmoothThread&) = delete;
    SmoothThread& operator=(const SmoothThread&) = delete;
    // Joins a running thread: a worker is never destroyed while it runs.
    ~SmoothThread();

    // Launches the worker's thread; logs an error and does nothing when one is
    // already running.
    void start();
    // Waits for the thread (if any) and returns the worker to idle.
    void join();
    bool running() const { return thread_.joinable(); }

    // The worker routine itself, run on the calling thread.
    void run();

private:
    std::vector<float*> output_;
    std::vector<const float*> input_;
    std::vector<double> kernel_;  // row factor; the 2-D kernel is its outer product
    const float* confidence_;
    int width_;
    int height_;
    int halfWidth_;
    int index_;
    int count_;
    std::thread thread_;
};

}  // namespace nimbra
