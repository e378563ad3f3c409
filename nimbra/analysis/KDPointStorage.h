#pragma once
// A static two-dimensional kd-tree over points with integer ids. Built once
// (median splits on the wider side of each box), then queried for the
// nearest point, for the points within a radius, or for the points whose own
// reach covers a position (the look-ups of grid triangles use that last one:
// a point's reach is the longest edge of the triangles it is a corner of).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nimbra {

class KDPointStorage {
public:
    KDPointStorage() = default;

    // Replaces the content. `ids` may be empty (the ids are then 0 .. n-1);
    // `reach` may be empty (every reach 0). Points with a non-finite
    // coordinate or reach are left out. False when the array sizes disagree.
    bool build(const std::vector<double>& x, const std::vector<double>& y,
               const std::vector<int32_t>& ids = {}, const std::vector<double>& reach = {});

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
        double x, y, reach;
        int32_t id;
    };
    struct Node {
        double minX, maxX, minY, maxY;
        double maxReach;
        int32_t begin, end;    // points_[begin, end)
        int32_t left, right;   // children, -1 for a leaf
    };
    static constexpr int kLeafSize = 8;

    int32_t buildNode(int32_t begin, int32_t end);
    static double boxDistance2(const Node& n, double x, double y) {
        const double dx = x < n.minX ? n.minX - x : (x > n.maxX ? x - n.maxX : 0.0);
        const double dy = y < n.minY ? n.minY - y : (y > n.maxY ? y - n.maxY : 0.0);
        return dx * dx + dy * dy;
    }

    std::vector<Point> points_;
    std::vector<Node> nodes_;
};

template <class Fn>
void KDPointStorage::withinReach(double x, double y, Fn&& fn) const {
    if (nodes_.empty()) return;
    int32_t stack[64];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const Node& node = nodes_[static_cast<size_t>(stack[--depth])];
        if (boxDistance2(node, x, y) > node.maxReach * node.maxReach) continue;
        if (node.left < 0) {
            for (int32_t i = node.begin; i < node.end; ++i) {
                const Point& p = points_[static_cast<size_t>(i)];
                const double dx = p.x - x, dy = p.y - y;
                if (dx * dx + dy * dy <= p.reach * p.reach) fn(p.id);
            }
            continue;
        }
        stack[depth++] = node.left;
        stack[depth++] = node.right;
    }
}

}  // namespace nimbra
