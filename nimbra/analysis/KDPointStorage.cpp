#include "nimbra/analysis/KDPointStorage.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "nimbra/log/Log.h"

namespace nimbra {

bool KDPointStorage::build(const std::vector<double>& x, const std::vector<double>& y,
                           const std::vector<int32_t>& ids, const std::vector<double>& reach) {
    points_.clear();
    nodes_.clear();
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
        points_.push_back({x[i], y[i], std::max(r, 0.0),
                           ids.empty() ? static_cast<int32_t>(i) : ids[i]});
    }
    if (points_.empty()) return true;
    nodes_.reserve(2 * (points_.size() / kLeafSize + 1));
    buildNode(0, static_cast<int32_t>(points_.size()));
    return true;
}

int32_t KDPointStorage::buildNode(int32_t begin, int32_t end) {
    const int32_t index = static_cast<int32_t>(nodes_.size());
    Node node{};
    node.minX = node.minY = std::numeric_limits<double>::infinity();
    node.maxX = node.maxY = -std::numeric_limits<double>::infinity();
    node.maxReach = 0.0;
    for (int32_t i = begin; i < end; ++i) {
        const Point& p = points_[static_cast<size_t>(i)];
        node.minX = std::min(node.minX, p.x);
        node.maxX = std::max(node.maxX, p.x);
        node.minY = std::min(node.minY, p.y);
        node.maxY = std::max(node.maxY, p.y);
        node.maxReach = std::max(node.maxReach, p.reach);
    }
    node.begin = begin;
    node.end = end;
    node.left = node.right = -1;
    nodes_.push_back(node);
    if (end - begin <= kLeafSize) return index;

    // Median split across the wider side; ties in the coordinate are ordered
    // by id so that the tree does not depend on the input order's accidents.
    const bool alongX = node.maxX - node.minX >= node.maxY - node.minY;
    const int32_t middle = begin + (end - begin) / 2;
    auto first = points_.begin() + begin;
    std::nth_element(first, points_.begin() + middle, points_.begin() + end,
                     [alongX](const Point& a, const Point& b) {
                         const double ka = alongX ? a.x : a.y, kb = alongX ? b.x : b.y;
                         return ka < kb || (ka == kb && a.id < b.id);
                     });
    const int32_t left = buildNode(begin, middle);
    const int32_t right = buildNode(middle, end);
    nodes_[static_cast<size_t>(index)].left = left;
    nodes_[static_cast<size_t>(index)].right = right;
    return index;
}

int32_t KDPointStorage::nearest(double x, double y, double* distance) const {
    if (nodes_.empty() || !std::isfinite(x) || !std::isfinite(y)) {
        if (distance != nullptr) *distance = std::numeric_limits<double>::quiet_NaN();
        return -1;
    }
    double best = std::numeric_limits<double>::infinity();
    int32_t bestId = -1;
    int32_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const Node& node = nodes_[static_cast<size_t>(stack[--depth])];
        // Equal distance is not pruned: a point there may still win on its id.
        if (boxDistance2(node, x, y) > best) continue;
        if (node.left < 0) {
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
        const Node& l = nodes_[static_cast<size_t>(node.left)];
        const Node& r = nodes_[static_cast<size_t>(node.right)];
        if (boxDistance2(l, x, y) <= boxDistance2(r, x, y)) {
            stack[depth++] = node.right;
            stack[depth++] = node.left;
        } else {
            stack[depth++] = node.left;
            stack[depth++] = node.right;
        }
    }
    if (distance != nullptr) *distance = std::sqrt(best);
    return bestId;
}

void KDPointStorage::withinRadius(double x, double y, double radius,
                                  std::vector<int32_t>& out) const {
    out.clear();
    if (nodes_.empty() || !(radius >= 0.0)) return;
    const double r2 = radius * radius;
    int32_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const Node& node = nodes_[static_cast<size_t>(stack[--depth])];
        if (boxDistance2(node, x, y) > r2) continue;
        if (node.left < 0) {
            for (int32_t i = node.begin; i < node.end; ++i) {
                const Point& p = points_[static_cast<size_t>(i)];
                const double dx = p.x - x, dy = p.y - y;
                if (dx * dx + dy * dy <= r2) out.push_back(p.id);
            }
            continue;
        }
        stack[depth++] = node.left;
        stack[depth++] = node.right;
    }
    std::sort(out.begin(), out.end());
}

}  // namespace nimbra
