#include "nimbra/analysis/KDPointStorage.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "nimbra/analysis/Workers.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr float kFloatInf = std::numeric_limits<float>::infinity();

// The nearest float not above (below) v, so that float bounds still enclose.
float floatDown(double v) {
    const float f = static_cast<float>(v);
    return static_cast<double>(f) > v ? std::nextafter(f, -kFloatInf) : f;
}
float floatUp(double v) {
    const float f = static_cast<float>(v);
    return static_cast<double>(f) < v ? std::nextafter(f, kFloatInf) : f;
}

}  // namespace

bool KDPointStorage::build(const std::vector<double>& x, const std::vector<double>& y,
                           const std::vector<int32_t>& ids, const std::vector<double>& reach,
                           int workers) {
    points_.clear();
    nodes_.clear();
    firstLeaf_ = 0;
    const size_t n = x.size();
    if (y.size() != n || (!ids.empty() && ids.size() != n) || (!reach.empty() && reach.size() != n) ||
        n > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        NIMBRA_LOG(error) << "KDPointStorage::build(): sizes of coordinates, ids and reach differ.";
        return false;
    }
    points_.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        const double r = reach.empty() ? 0.0 : reach[i];
        if (!std::isfinite(x[i]) || !std::isfinite(y[i]) || !std::isfinite(r)) continue;
        points_.push_back({x[i], y[i], floatUp(std::max(r, 0.0)),
                           ids.empty() ? static_cast<int32_t>(i) : ids[i]});
    }
    if (points_.empty()) return true;
    // Levels below the root until the leaves hold at most kLeafSize points
    // (median splits keep every leaf within one point of the others).
    int levels = 0;
    while ((points_.size() + (size_t{1} << levels) - 1) >> levels > static_cast<size_t>(kLeafSize))
        ++levels;
    firstLeaf_ = (size_t{1} << levels) - 1;
    nodes_.resize((size_t{1} << (levels + 1)) - 1);
    int parallelLevels = 0;
    while ((1 << parallelLevels) < resolveWorkerCount(workers) && parallelLevels < levels) ++parallelLevels;
    buildNode(0, 0, static_cast<int32_t>(points_.size()), parallelLevels);
    return true;
}

void KDPointStorage::buildNode(size_t index, int32_t begin, int32_t end, int parallelLevels) {
    double minX = std::numeric_limits<double>::infinity(), maxX = -minX, minY = minX, maxY = -minX;
    float maxReach = 0.0f;
    for (int32_t i = begin; i < end; ++i) {
        const Point& p = points_[static_cast<size_t>(i)];
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
        maxReach = std::max(maxReach, p.reach);
    }
    Node& node = nodes_[index];
    // An empty node has an empty box, which every query prunes.
    node.minX = begin < end ? floatDown(minX) : kFloatInf;
    node.maxX = begin < end ? floatUp(maxX) : -kFloatInf;
    node.minY = begin < end ? floatDown(minY) : kFloatInf;
    node.maxY = begin < end ? floatUp(maxY) : -kFloatInf;
    node.maxReach = maxReach;
    node.begin = begin;
    node.end = end;
    node.unused = 0;
    if (leaf(index)) return;

    // Median split across the wider side; ties in the coordinate are ordered
    // by id so that the tree does not depend on the input order's accidents.
    const bool alongX = maxX - minX >= maxY - minY;
    const int32_t middle = begin + (end - begin) / 2;
    std::nth_element(points_.begin() + begin, points_.begin() + middle, points_.begin() + end,
                     [alongX](const Point& a, const Point& b) {
                         const double ka = alongX ? a.x : a.y, kb = alongX ? b.x : b.y;
                         return ka < kb || (ka == kb && a.id < b.id);
                     });
    if (parallelLevels > 0) {
        runWorkers(2, [&](int k, int) {
            if (k == 0)
                buildNode(2 * index + 1, begin, middle, parallelLevels - 1);
            else
                buildNode(2 * index + 2, middle, end, parallelLevels - 1);
        });
    } else {
        buildNode(2 * index + 1, begin, middle, 0);
        buildNode(2 * index + 2, middle, end, 0);
    }
}

int32_t KDPointStorage::nearest(double x, double y, double* distance) const {
    if (nodes_.empty() || !std::isfinite(x) || !std::isfinite(y)) {
        if (distance != nullptr) *distance = std::numeric_limits<double>::quiet_NaN();
        return -1;
    }
    double best = std::numeric_limits<double>::infinity();
    int32_t bestId = -1;
    size_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const size_t index = stack[--depth];
        const Node& node = nodes_[index];
        // Equal distance is not pruned: a point there may still win on its id.
        if (boxDistance2(node, x, y) > best) continue;
        if (leaf(index)) {
            for (int32_t i = node.begin; i < node.end; ++i) {
                const Point& p = points_[static_cast<size_t>(i)];
                const double dx = p.x - x, dy = p.y - y;
                const double d = dx * dx + dy * dy;
                if (d < best || (d == best && p.id < bestId)) {
                    best = d;
                    bestId = p.id;
                }
            }
            continue;
        }
        // The nearer child goes on top of the stack, so it is searched first
        // and shrinks `best` before the other one is looked at.
        const size_t left = 2 * index + 1, right = left + 1;
        const bool leftFirst = boxDistance2(nodes_[left], x, y) <= boxDistance2(nodes_[right], x, y);
        stack[depth++] = leftFirst ? right : left;
        stack[depth++] = leftFirst ? left : right;
    }
    if (distance != nullptr) *distance = std::sqrt(best);
    return bestId;
}

void KDPointStorage::withinRadius(double x, double y, double radius,
                                  std::vector<int32_t>& out) const {
    out.clear();
    if (nodes_.empty() || !(radius >= 0.0)) return;
    const double r2 = radius * radius;
    size_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const size_t index = stack[--depth];
        const Node& node = nodes_[index];
        if (boxDistance2(node, x, y) > r2) continue;
        if (leaf(index)) {
            for (int32_t i = node.begin; i < node.end; ++i) {
                const Point& p = points_[static_cast<size_t>(i)];
                const double dx = p.x - x, dy = p.y - y;
                if (dx * dx + dy * dy <= r2) out.push_back(p.id);
            }
            continue;
        }
        stack[depth++] = 2 * index + 1;
        stack[depth++] = 2 * index + 2;
    }
    std::sort(out.begin(), out.end());
}

}  // namespace nimbra
