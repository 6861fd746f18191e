#include "host/collectionsex/ComponentTable.h"

#include "frame/ModuleObjects.h"

#define ZELTRIM_COMPONENT_BUILT_(Name, Class) {ZELTRIM_OBJECT_TEXT(Name), L"Zeltrim"},
#define ZELTRIM_COMPONENT_NOT_BUILT_(Name) {ZELTRIM_OBJECT_TEXT(Name), L"Zeltrim"},

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
    {L"GeometryCollection", L"Collections"},
    {L"DblBuffer", L"Collections"},
    // Geometry and transforms.
    {L"Point", L"Geometry"},
    {L"PointsCollection", L"Geometry"},
    {L"PointVector", L"Geometry"},
    {L"Plane", L"Geometry"},
    {L"LineSegment", L"Geometry"},
    {L"CurveLagrange", L"Geometry"},
    {L"CurveSpline", L"Geometry"},
    {L"LinearTransform", L"Geometry"},
    {L"LinearCalibration", L"Geometry"},
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
    {L"UIPropertyPageCollection", L"UserInterface"},
    {L"UIParamEdit", L"UserInterface"},
    {L"PMRenderStyle", L"UserInterface"},
    // The calibration module's own objects, from its table, whether built or not: a name
    // whose class is missing fails when its module is asked for it.
    ZELTRIM_MODULE_OBJECTS(ZELTRIM_COMPONENT_BUILT_, ZELTRIM_COMPONENT_NOT_BUILT_)
};

const int kComponentTableSize = static_cast<int>(sizeof(kComponentTable) / sizeof(kComponentTable[0]));
