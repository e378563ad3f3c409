#pragma once
// A static two-dimensional kd-tree over points with integer ids. Built once
// (median splits on the wider side of each box), then queried for the
// nearest point, for the points within a radius, or for the points whose own
// reach covers a position (the look-ups of grid triangles use that last one:
// a point's reach is the longest edge of the triangles it is a corner of).
//
// The tree is complete and stored in heap order (the children of node i are
// 2i + 1 and 2i + 2, all leaves on the last level), so nodes need no links,
// the two halves of every split can be built on different threads, and the
// upper levels of a query's path share cache lines.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nimbra {

class KDPointStorage {
public:
    KDPointStorage() = default;

    // Replaces the content. `ids` may be empty (the ids are then 0 .. n-1);
    // `reach` may be empty (every reach 0). Points with a non-finite
    // coordinate or reach are left out. `workers` as in smoothChannels().
    // False (logged) when the array sizes disagree.
    bool build(const std::vector<double>& x, const std::vector<double>& y,
               const std::vector<int32_t>& ids = {}, const std::vector<double>& reach = {},
               int workers = 0);

    int64_t size() const { return static_cast<int64_t>(points_.size()); }
    bool empty() const { return points_.empty(); }

    // Id of the point nearest to (x, y), the lowest id among equally near
    // ones; -1 when the tree is empty. `distance` receives the Euclidean
    // distance when given.
    int32_t nearest(double x, double y, double* distance = nullptr) const;

    // Ids of the points at distance <= radius from (x, y), ascending.
    void withinRadius(double x, double y, double radius, std::vector<int32_t>& out) const;

    // Calls fn(id) for every point whose distance from (x, y) is at most its
    // reach, in no particular order.
    template <class Fn>
    void withinReach(double x, double y, Fn&& fn) const;

private:
    struct Point {
        double x, y;
        float reach;  // rounded up from the double given
        int32_t id;
    };
    // Bounds in single precision, rounded outwards.
    struct Node {
        float minX, maxX, minY, maxY;
        float maxReach;
        int32_t begin, end;  // points_[begin, end)
        int32_t unused;
    };
    static constexpr int kLeafSize = 8;

    bool leaf(size_t node) const { return node >= firstLeaf_; }
    void buildNode(size_t node, int32_t begin, int32_t end, int parallelLevels);
    static double boxDistance2(const Node& n, double x, double y) {
        const double dx = x < n.minX ? n.minX - x : (x > n.maxX ? x - n.maxX : 0.0);
        const double dy = y < n.minY ? n.minY - y : (y > n.maxY ? y - n.maxY : 0.0);
        return dx * dx + dy * dy;
    }

    std::vector<Point> points_;
    std::vector<Node> nodes_;
    size_t firstLeaf_ = 0;
};

template <class Fn>
void KDPointStorage::withinReach(double x, double y, Fn&& fn) const {
    if (nodes_.empty()) return;
    size_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const size_t index = stack[--depth];
        const Node& node = nodes_[index];
        const double reach = node.maxReach;
        if (boxDistance2(node, x, y) > reach * reach) continue;
        if (leaf(index)) {
            for (int32_t i = node.begin; i < node.end; ++i) {
                const Point& p = points_[static_cast<size_t>(i)];
                const double dx = p.x - x, dy = p.y - y, r = p.reach;
                if (dx * dx + dy * dy <= r * r) fn(p.id);
            }
            continue;
        }
        stack[depth++] = 2 * index + 1;
        stack[depth++] = 2 * index + 2;
    }
}

}  // namespace nimbra
