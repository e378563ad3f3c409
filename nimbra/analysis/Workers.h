#pragma once
// Worker count shared by the threaded analyses, and a helper that runs one
// function per worker on its own thread.

#include <thread>
#include <vector>

namespace nimbra {

// Number of workers the threaded analyses start: the override set with
// setAnalysisWorkerCount() when it is positive, otherwise the number of
// hardware threads (at least 1).
int analysisWorkerCount();

// Forces the worker count of later calls (tests compare one worker with
// many); 0 or less goes back to one worker per hardware thread. Returns the
// previous override.
int setAnalysisWorkerCount(int count);

// Resolves an explicit request: positive counts are taken as they are.
inline int resolveWorkerCount(int requested) {
    return requested > 0 ? requested : analysisWorkerCount();
}

// Runs fn(k, count) for k = 0 .. count-1, worker 0 on the calling thread and
// the others on their own threads; returns when all have finished. The
// threads are jthreads, so every path out of here joins them.
template <class Fn>
void runWorkers(int count, Fn&& fn) {
    if (count <= 1) {
        fn(0, 1);
        return;
    }
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<size_t>(count - 1));
    for (int k = 1; k < count; ++k) threads.emplace_back([&fn, k, count] { fn(k, count); });
    fn(0, count);
}

}  // namespace nimbra
