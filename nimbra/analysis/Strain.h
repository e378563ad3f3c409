#pragma once
// Surface strain from reference coordinates and displacements: the
// displacement gradient of the small triangles around each grid point, six
// strain tensor kinds, smoothing, and principal, Tresca and von Mises values.

#include <cstdint>
#include <string>
#include <vector>

namespace nimbra {

class ZelData;
class ZelDataSet;

enum TensorType : int32_t {
    LagrangeStrainTensor = 0,
    HenckyStrainTensor = 1,
    EulerStrainTensor = 2,
    LogarithmicEulerTensor = 3,
    EngineeringStrain = 4,
    BiotStrainTensor = 5,
};

// Display name used in variable descriptions; unknown kinds are Lagrange.
const char* tensorDisplayName(TensorType tensorType);

// Indices of the variables exx, eyy, exy, fxx, fxy, fyx, fyy of one AOI as
// they were created or reused; -1 where none.
struct StrainVariableIndices {
    int32_t index[7] = {-1, -1, -1, -1, -1, -1, -1};
};

// (exx, eyy, exy) from the displacement gradient H = F - I given as
// (Hxx, Hxy, Hyx, Hyy). False (nothing written) when the tensor cannot be
// formed.
using TensorFunction = bool (*)(double& exx, double& eyy, double& exy, const double* h);

bool tensor_lagrange(double& exx, double& eyy, double& exy, const double* h);
bool tensor_engineering(double& exx, double& eyy, double& exy, const double* h);
bool tensor_euler(double& exx, double& eyy, double& exy, const double* h);
bool tensor_hencky(double& exx, double& eyy, double& exy, const double* h);
bool tensor_log_euler(double& exx, double& eyy, double& exy, const double* h);
bool tensor_biot(double& exx, double& eyy, double& exy, const double* h);

TensorFunction tensorFunction(TensorType tensorType);

// Displacement gradient (Hxx, Hxy, Hyx, Hyy) of the triangle (a, b, c), each
// flattened into its own tangent plane in the reference and the deformed
// state. False (with a warning) when the affine fit is singular.
bool analyze_triang(double* gradient, const double* refA, const double* refB,
                    const double* refC, const double* defA, const double* defB,
                    const double* defC);

// Per-point strains and gradients of one grid: for every valid point the mean
// of the tensors of the triangles around it, written into `strain` (three
// width x height channels exx, eyy, exy) and `gradient` (four channels Hxx,
// Hxy, Hyx, Hyy). A valid point without any usable triangle gets confidence
// -1 (the confidence array is written). `workers` as in smoothChannels().
void compute_strain(float* const* strain, float* const* gradient, const float* x,
                    const float* y, const float* z, const float* u, const float* v,
                    const float* w, float* confidence, TensorFunction tensor, int width,
                    int height, int workers = 0);

// Strain of one grid AOI, stored as variables of kind Strain.
bool computeStrain(ZelData& data, int window, bool principal, bool reuse, bool weighted,
                   TensorType tensorType, bool tresca, bool vonMises, bool gradient,
                   bool flipShear, StrainVariableIndices* indices = nullptr,
                   bool filterNote = false);

// Strain of every grid AOI of a dataset, in index order; stops with false at
// the first AOI that fails. `indices`, when given, is cleared and receives one
// record per AOI.
bool computeStrain(ZelDataSet& dataSet, int window, bool principal, bool reuse, bool weighted,
                   TensorType tensorType, bool tresca, bool vonMises, bool gradient,
                   bool flipShear, std::vector<StrainVariableIndices>* indices = nullptr,
                   bool filterNote = false);

}  // namespace nimbra
