#include "host/collectionsex/ComponentTable.h"

const ComponentRow kComponentTable[] = {
    // The component frame itself.
    {L"GlobalComponentCollection", L"CollectionsEx"},
    {L"ComponentString", L"CollectionsEx"},
    // Strings, variants and collections.
    {L"CreatableString", L"Collections"},
    {L"Variant", L"Collections"},
    {L"SuperCollection", L"Collections"},
    {L"SimpleCollection", L"Collections"},
    {L"ParametersCreatable", L"Collections"},
    {L"DblBuffer", L"Collections"},
    // Geometry and transforms.
    {L"Point", L"Geometry"},
    {L"PointsCollection", L"Geometry"},
    {L"PointVector", L"Geometry"},
    {L"Plane", L"Geometry"},
    {L"LineSegment", L"Geometry"},
    {L"CurveLagrange", L"Geometry"},
    {L"CurveSpline", L"Geometry"},
    {L"GeometryCollection", L"Geometry"},
    {L"LinearTransform", L"Geometry"},
    {L"HomogeneousTransform", L"Geometry"},
    {L"HomogeneousCalibration", L"Geometry"},
    // Streams and files.
    {L"DataStream", L"Streams"},
    {L"XMLStream", L"Streams"},
    {L"XMLStreamEx", L"Streams"},
    {L"FolderStream", L"Streams"},
    {L"CSVStream", L"Streams"},
    {L"ASCIIStream", L"Streams"},
    {L"FileInfo", L"Streams"},
    // Settings.
    {L"Registry", L"System"},
    // User interface.
    {L"UIGrid", L"UserInterface"},
    {L"PMText", L"UserInterface"},
    {L"UIParametersSlidePropPage", L"UserInterface"},
    // The calibration module's own objects.
    {L"CalibrationBestFit", L"Zeltrim"},
    {L"CalibrationDistortionRadial", L"Zeltrim"},
    {L"CalibrationFitAndFilter", L"Zeltrim"},
    {L"CalibrationFisheye", L"Zeltrim"},
    {L"CalibrationInfoPropPage", L"Zeltrim"},
    {L"CalibrationMatrixPropPage", L"Zeltrim"},
    {L"CalibrationPolynomial", L"Zeltrim"},
    {L"CalibrationsCollection", L"Zeltrim"},
    {L"Camera3DCalibration", L"Zeltrim"},
    {L"Camera3DCalibrationPlane", L"Zeltrim"},
    {L"Camera3DTransform", L"Zeltrim"},
    {L"Camera3DTrinsic", L"Zeltrim"},
    {L"CameraLinearCalibration", L"Zeltrim"},
    {L"SingleViewGeometry", L"Zeltrim"},
    {L"MultiViewGeometry", L"Zeltrim"},
    {L"TransformBestFit", L"Zeltrim"},
    {L"TransformInterrogate", L"Zeltrim"},
    {L"TransformResidualErrors", L"Zeltrim"},
};

const int kComponentTableSize = static_cast<int>(sizeof(kComponentTable) / sizeof(kComponentTable[0]));
