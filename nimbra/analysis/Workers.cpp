#include "nimbra/analysis/Workers.h"

#include <atomic>

namespace nimbra {
namespace {

std::atomic<int> forcedWorkers{0};

}  // namespace

int analysisWorkerCount() {
    const int forced = forcedWorkers.load();
    if (forced > 0) return forced;
    const unsigned hardware = std::thread::hardware_concurrency();
    return hardware > 0 ? static_cast<int>(hardware) : 1;
}

int setAnalysisWorkerCount(int count) { return forcedWorkers.exchange(count > 0 ? count : 0); }

}  // namespace nimbra
