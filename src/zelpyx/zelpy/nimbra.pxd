# Declarations of the nimbra C++ API used by the zelpy module; the one place
# where the module learns about the library.

from libc.stdint cimport int32_t, int64_t, intptr_t, uint8_t, uint32_t, uint64_t
from libcpp cimport bool
from libcpp.string cimport string
from libcpp.vector cimport vector
from libcpp.memory cimport unique_ptr


# ------------------------------------------------------------------- logging

cdef extern from "nimbra/log/Log.h" namespace "nimbra::log" nogil:
    cdef enum Severity "nimbra::log::Severity":
        log_none "nimbra::log::none"
        log_fatal "nimbra::log::fatal"
        log_error "nimbra::log::error"
        log_warning "nimbra::log::warning"
        log_info "nimbra::log::info"
        log_debug "nimbra::log::debug"
        log_verbose "nimbra::log::verbose"
    void log_init "nimbra::log::init"(Severity) nogil
    bool log_exists "nimbra::log::exists"() nogil
    void log_set_max_severity "nimbra::log::setMaxSeverity"(Severity) nogil
    Severity log_max_severity "nimbra::log::maxSeverity"() nogil
    void log_write "nimbra::log::write"(Severity, const string&) nogil
    uint64_t log_thread_error_count "nimbra::log::threadErrorCount"() nogil
    vector[string] log_thread_errors_since "nimbra::log::threadErrorsSince"(uint64_t) nogil


# ---------------------------------------------------------------- data core

cdef extern from "nimbra/data/ZelDataVariableType.h" namespace "nimbra" nogil:
    cdef enum ZelDataVariableType "nimbra::ZelDataVariableType":
        PixelCoordinate "nimbra::PixelCoordinate"
        GlobalCoordinate "nimbra::GlobalCoordinate"
        PixelDisplacement "nimbra::PixelDisplacement"
        GlobalDisplacement "nimbra::GlobalDisplacement"
        Strain "nimbra::Strain"
        Correlation "nimbra::Correlation"
        Unknown "nimbra::Unknown"
        Disparity "nimbra::Disparity"
        CylinderCoordinate "nimbra::CylinderCoordinate"
        CylinderDisplacement "nimbra::CylinderDisplacement"
        PixelVelocity "nimbra::PixelVelocity"
        GlobalVelocity "nimbra::GlobalVelocity"
        StrainRate "nimbra::StrainRate"
        Curvature "nimbra::Curvature"
        Angle "nimbra::Angle"
        AngularVelocity "nimbra::AngularVelocity"
        GlobalAcceleration "nimbra::GlobalAcceleration"
        PixelAcceleration "nimbra::PixelAcceleration"
        Stress "nimbra::Stress"
        AngularAcceleration "nimbra::AngularAcceleration"


cdef extern from "nimbra/data/ZelData.h" namespace "nimbra" nogil:
    # The reference-counted storage of one variable's values; holding a copy
    # keeps the values alive for a numpy view even after the dataset reloads.
    cdef cppclass SharedValues "std::shared_ptr<float[]>":
        SharedValues()
        float* get()

    cdef cppclass ZelDataVariable:
        string name
        string description
        int32_t type
        SharedValues values
        int32_t count
        # Call after writing values in place through `values`.
        void markChanged()

    cdef cppclass ZelData:
        ZelData() except +
        ZelData(const ZelData&) except +
        void clear()
        int32_t numRows()
        int32_t numColumns()
        int32_t matrixSize()
        int32_t numVariables()
        bool gridIsConsistent()
        void setSize(int32_t rows, int32_t columns)
        const string& name()
        void setName(const string&) except +
        int32_t gridKind()
        void setGridKind(int32_t)
        int32_t variableIndex(const string&)
        int32_t findVariable(ZelDataVariableType, const string&)
        int32_t firstVariableOfType(ZelDataVariableType)
        float* variableValues(int32_t)
        uint64_t revision(int32_t)
        void markChanged(int32_t)
        ZelDataVariable* variable(int32_t)
        int32_t addVariable(ZelDataVariableType, const string&, const string&) except +
        void resizeValues(int32_t, int32_t) except +
        void resizeVariables(int32_t) except +
        bool removeVariable(int32_t)
        void canonicalOrder() except +

    # One value per grid point, rows x columns counted in 64 bits.
    bool holdsGrid(const ZelData&, int32_t)


cdef extern from "nimbra/data/ZelDataSet.h" namespace "nimbra" nogil:
    cdef cppclass FilePiece:
        int64_t offset
        int64_t length

    cdef cppclass ZelDataSet:
        ZelDataSet() except +
        ZelDataSet(const ZelDataSet&) except +
        ZelDataSet& assign "operator="(const ZelDataSet&) except +
        void clear()
        int32_t numData()
        ZelData* data(int32_t)
        ZelData* addData(int32_t rows, int32_t columns, const string& name) except +
        const string& referenceImage()
        void setReferenceImage(const string&) except +
        const string& deformedImage()
        void setDeformedImage(const string&) except +
        bool decode(const uint8_t*, int32_t, bool) except + nogil
        bool load(const string&) except + nogil
        bool load(const string&, const vector[FilePiece]&) except + nogil
        int64_t encodedSize()
        bool encodeInto(uint8_t*, int64_t, bool) nogil
        bool save(const string&) except + nogil
        bool readsBack(const uint8_t*, int32_t) nogil


cdef extern from "nimbra/data/FileNames.h" namespace "nimbra" nogil:
    cdef cppclass optional_string "std::optional<std::string>":
        bool has_value()
        string& value()
    optional_string changeFileExtension(const string&, const string&) except +


# ----------------------------------------------------------------- analysis

cdef extern from "nimbra/analysis/Workers.h" namespace "nimbra":
    int analysisWorkerCount() nogil
    int setAnalysisWorkerCount(int) nogil


cdef extern from "nimbra/analysis/Smoothing.h" namespace "nimbra":
    bool smoothVariable(ZelDataSet&, const string&, int, bool, uint32_t*) except + nogil
    void smoothChannels(const vector[float*]&, const vector[const float*]&, const float*,
                        int, int, int, bool, int) except + nogil


cdef extern from "nimbra/analysis/Strain.h" namespace "nimbra":
    cdef enum TensorType "nimbra::TensorType":
        LagrangeStrainTensor "nimbra::LagrangeStrainTensor"
        HenckyStrainTensor "nimbra::HenckyStrainTensor"
        EulerStrainTensor "nimbra::EulerStrainTensor"
        LogarithmicEulerTensor "nimbra::LogarithmicEulerTensor"
        EngineeringStrain "nimbra::EngineeringStrain"
        BiotStrainTensor "nimbra::BiotStrainTensor"
    cdef cppclass StrainVariableIndices:
        int32_t index[7]
    bool computeStrain(ZelDataSet&, int, bool, bool, bool, TensorType, bool, bool, bool, bool,
                       vector[StrainVariableIndices]*, bool) except + nogil


cdef extern from "nimbra/analysis/Triangulation.h" namespace "nimbra":
    cdef cppclass GridTriangulation:
        GridTriangulation(const ZelDataSet&, int, int) except + nogil
        bool valid() nogil
        int64_t size() nogil
        void write(uint32_t*) nogil



# ----------------------------------------------------------------- geometry

cdef extern from "nimbra/geometry/Matrix.h" namespace "nimbra" nogil:
    cdef cppclass Vec3 "std::array<double, 3>":
        Vec3()
        double& operator[](size_t)
    cdef cppclass Mat3 "std::array<double, 9>":
        Mat3()
        double& operator[](size_t)
        double* data()
    cdef cppclass Quat "std::array<double, 4>":
        Quat()
        double& operator[](size_t)
    cdef cppclass Mat4 "std::array<double, 16>":
        Mat4()
        double& operator[](size_t)


cdef extern from "nimbra/geometry/Rotation.h" namespace "nimbra" nogil:
    # Signed in the library, so any int value converts and only values beyond
    # its range raise OverflowError.
    cdef enum RotationAngleType "nimbra::Rotation::AngleType":
        RotationRad "nimbra::Rotation::Rad"
        RotationDeg "nimbra::Rotation::Deg"

    cdef cppclass Rotation:
        Rotation() except +
        Rotation(const Rotation&) except +
        Rotation(double, double, double, RotationAngleType) except +
        Rotation(const Rotation&, const Rotation&) except +
        Rotation& assign "operator="(const Rotation&)
        void setAngles(double, double, double, RotationAngleType)
        Vec3 angles(RotationAngleType)
        void setMatrix(const double*)
        Mat3 matrix()
        void setRotationVector(const Vec3&)
        Vec3 rotationVector()
        void setQuaternion(const Quat&)
        Quat quaternion()
        void loadIdentity()
        void invert()
        Vec3 apply(const Vec3&)


cdef extern from "nimbra/geometry/RigidTransform.h" namespace "nimbra" nogil:
    cdef cppclass RigidTransform:
        RigidTransform() except +
        RigidTransform(const RigidTransform&) except +
        RigidTransform(const Rotation&, const Vec3&) except +
        RigidTransform(const RigidTransform&, const RigidTransform&) except +
        RigidTransform& assign "operator="(const RigidTransform&)
        void setRotation(const Rotation&)
        const Rotation& rotation()
        void setTranslation(const Vec3&)
        const Vec3& translation()
        Vec3 apply(const Vec3&)
        void invert()
        Mat4 matrix4()


cdef extern from "nimbra/geometry/Fit.h" namespace "nimbra" nogil:
    bool fitRigidTransform(RigidTransform&, double&, const vector[Vec3]&,
                           const vector[Vec3]&, int32_t) except +
    bool planeFit(RigidTransform&, const ZelDataSet&, bool) except +
    bool rigidTransformFromDisplacement(RigidTransform&, double&, const ZelDataSet&) except +
    void transformDataSet(ZelDataSet&, const RigidTransform&, bool, int32_t)



cdef extern from "nimbra/geometry/SplineImageMap.h" namespace "nimbra" nogil:
    cdef cppclass SplineImageMap:
        SplineImageMap() except +
        bool empty()
        double originX()
        double originY()
        double spacingX()
        double spacingY()
        int32_t nx()
        int32_t ny()
        const vector[double]& dx()
        const vector[double]& dy()
    cdef cppclass optional_spline_image_map "std::optional<nimbra::SplineImageMap>":
        bool has_value()
        SplineImageMap& value()
    optional_spline_image_map SplineImageMap_create "nimbra::SplineImageMap::create"(
        double, double, double, double, int32_t, int32_t, vector[double], vector[double]) except +
    double SplineImageMap_gradientBound "nimbra::SplineImageMap::gradientBound"(
        double, double, int32_t, int32_t, const double*, const double*)


cdef extern from "nimbra/geometry/Camera.h" namespace "nimbra" nogil:
    cdef cppclass CameraDistortion "nimbra::Camera::Distortion":
        CameraDistortion()
        double& operator[](size_t)
    cdef cppclass Camera:
        Camera() except +
        Camera(const Camera&) except +
        Camera& assign "operator="(const Camera&) except +
        const string& name()
        void setName(const string&) except +
        int32_t width()
        int32_t height()
        bool setImageSize(int32_t, int32_t)
        double fx()
        double fy()
        double cx()
        double cy()
        double skew()
        bool setIntrinsics(double, double, double, double, double)
        const CameraDistortion& distortion()
        bool setDistortion(const CameraDistortion&)
        const Mat3& rotation()
        const Vec3& translation()
        bool setExtrinsics(const Mat3&, const Vec3&)
        Vec3 centre()
        const SplineImageMap& splineImageMap()
        void setSplineImageMap(const SplineImageMap&)
        bool isValid()


cdef extern from "nimbra/geometry/StereoCalibration.h" namespace "nimbra" nogil:
    cdef cppclass StereoCalibration:
        StereoCalibration() except +
        StereoCalibration(const StereoCalibration&) except +
        StereoCalibration& assign "operator="(const StereoCalibration&) except +
        int32_t numCameras()
        Camera* camera(int32_t)
        int32_t addCamera(const Camera&) except +
        bool setCamera(int32_t, const Camera&) except +
        bool removeCamera(int32_t)
        void clear()
        bool isValid()
        const string& worldFrame()
        void setWorldFrame(const string&) except +
        double reprojectionRms()
        double epipolarRms()
        void setQuality(double, double)
        bool projectPoints(int32_t, const double*, int64_t, double*) except + nogil
        bool undistortPoints(int32_t, const double*, int64_t, bool, double*) except + nogil
        bool distortPoints(int32_t, const double*, int64_t, bool, double*) except + nogil
        bool triangulatePoints(const double*, const double*, int64_t, bool, double*, double*) except + nogil
        bool stereoTransform(RigidTransform&)
        bool projectionMatrix(int32_t, double*)

# ------------------------------------------------------------------ data io

cdef extern from "nimbra/io/DirectoryListing.h" namespace "nimbra":
    cdef cppclass PathList:
        string text
        vector[size_t] ends
    cdef cppclass optional_path_list "std::optional<nimbra::PathList>":
        bool has_value()
        PathList& value()
    optional_path_list listDirectory(const string& directory, const string& suffix) except + nogil


# ------------------------------------------------------- surface analyses

cdef extern from "nimbra/analysis/KDPointStorage.h" namespace "nimbra":
    cdef cppclass KDPointStorage:
        KDPointStorage() except +
        bool build(const vector[double]&, const vector[double]&, const vector[int32_t]&,
                   const vector[double]&) except + nogil
        int64_t size() nogil
        int32_t nearest(double, double, double*) nogil
        void withinRadius(double, double, double, vector[int32_t]&) except + nogil


cdef extern from "nimbra/analysis/Lookup.h" namespace "nimbra":
    # Every call that finds an AOI's channels may allocate: except + turns a
    # bad_alloc into MemoryError instead of ending the process.
    cdef enum class CoordinateSpace "nimbra::CoordinateSpace":
        Global
        Pixel
    cdef cppclass PointLocation:
        PointLocation()
        int64_t corner[3]
        double weight[3]
        int64_t triangle
        bool found()
    cdef cppclass PointLocator:
        @staticmethod
        unique_ptr[PointLocator] prepare(const ZelData&, CoordinateSpace) except + nogil
        void build() except + nogil
        bool current(const ZelData&) except + nogil
        void locate(double, double, PointLocation&) except + nogil
        const float* x() nogil
        const float* y() nogil
        const float* confidence() nogil
    bool locatePoint(const ZelData&, CoordinateSpace, double, double, PointLocation&) except + nogil
    bool interpolate(const ZelData&, const PointLocation&, const vector[int32_t]&, double*) except + nogil
    bool arcLength(const ZelData&, const PointLocator&, double, double, double, double, int32_t,
                   double&) except + nogil


cdef extern from "nimbra/analysis/SurfaceGrid.h" namespace "nimbra":
    cdef cppclass SurfaceChannels:
        int32_t position[3]
        bool found
    SurfaceChannels findSurfaceChannels(const ZelData&) except + nogil


cdef extern from "nimbra/analysis/Statistics.h" namespace "nimbra":
    cdef cppclass ValueExtreme:
        double value
        int64_t index
        bool found()
    bool findMinimum(const ZelData&, int32_t, ValueExtreme&) except + nogil
    bool findMaximum(const ZelData&, int32_t, ValueExtreme&) except + nogil
    bool valueRange(const ZelDataSet&, const string&, double&, double&) except + nogil
    bool sumRange(const ZelDataSet&, const string&, const string&, double&, double&) except + nogil
    cdef cppclass SurfaceArea:
        double area
        int64_t triangles
    bool surfaceArea(const ZelDataSet&, int32_t, SurfaceArea&) except + nogil


cdef extern from "nimbra/analysis/Curvature.h" namespace "nimbra":
    bool computeCurvature(ZelDataSet&, int, bool, bool, bool) except + nogil


# ------------------------------------------------------------ real-time client

cdef extern from "nimbra/io/SocketWatch.h" namespace "nimbra" nogil:
    cdef enum class SocketWaitResult "nimbra::SocketWatch::Result":
        Readable "nimbra::SocketWatch::Result::Readable"
        Stopped "nimbra::SocketWatch::Result::Stopped"
        TimedOut "nimbra::SocketWatch::Result::TimedOut"
        Failed "nimbra::SocketWatch::Result::Failed"
    cdef cppclass SocketWatch:
        SocketWatch()
        void stop()
        bool stopped()
        SocketWaitResult pollReadable(intptr_t fd, int sliceMs)
        SocketWaitResult waitReadable(intptr_t fd, int timeoutMs)
        int error()
