#pragma once
// What the surface analyses (look-ups, area, statistics, curvature) read of
// an AOI: the coordinate channels and the triangles of one grid cell in mesh
// order. The point count every variable must really hold is checked by the
// grid checks of ZelData.h, shared with the other analyses.

#include <cstdint>
#include <string>

namespace nimbra {

class ZelData;

// Reference positions and, when present, displacements of an AOI, found by
// the first complete convention: X, Y, Z / U, V, W (global kinds); x_c, y_c /
// u_c, v_c of the global kinds, then of the pixel kinds; x, y / u, v (pixel
// kinds). The planar sets have no z or w channel (taken as 0). Indices are -1
// where absent; displacement is all or nothing.
struct SurfaceChannels {
    int32_t confidence = -1;
    int32_t position[3] = {-1, -1, -1};
    int32_t displacement[3] = {-1, -1, -1};
    bool found = false;          // a complete position set
    bool planar = false;         // no z channel
    bool hasDisplacement = false;
    std::string unit;            // length unit of the positions ("mm", "pixel", ...)
};
SurfaceChannels findSurfaceChannels(const ZelData& data);

// The triangles the grid mesh emits for one cell, by which of its corners
// are valid, in emission order; corners are given as TL, TR, BL, BR and the
// result is written as point indices. Returns the number of triangles (0, 1
// or 2). The vertex orders are those of the mesh (they fix its winding).
inline int cellTriangles(bool tl, bool tr, bool bl, bool br, const int64_t (&corner)[4],
                         int64_t (&out)[2][3]) {
    enum { TL, TR, BL, BR };
    auto put = [&](int t, int a, int b, int c) {
        out[t][0] = corner[a];
        out[t][1] = corner[b];
        out[t][2] = corner[c];
    };
    switch ((tl ? 8 : 0) | (tr ? 4 : 0) | (bl ? 2 : 0) | (br ? 1 : 0)) {
        case 15: put(0, TL, TR, BL); put(1, TR, BR, BL); return 2;
        case 14: put(0, TL, TR, BL); return 1;
        case 13: put(0, TL, TR, BR); return 1;
        case 11: put(0, BR, BL, TL); return 1;
        case 7: put(0, BR, BL, TR); return 1;
        default: return 0;
    }
}

}  // namespace nimbra
