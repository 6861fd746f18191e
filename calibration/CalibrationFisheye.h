// "CalibrationFisheye": the mapping from a virtual perspective image to a fisheye image,
// set by hand. A caller resamples a fisheye picture by calling Revert for every pixel of
// the perspective picture; Convert does nothing and there is no fit.
//
// Geometry: the virtual pinhole looks along +y at an image plane at distance 1, x to the
// right and z upwards; the plane spans the horizontal field PerspectiveFOV. A pixel's ray
// has angle theta from the axis and bearing phi about it; theta gives the fisheye radius
// (theta / HalfFOV, or the lens polynomial in theta when fUseKorrection is set), phi the
// direction, scaled by the two radii about the fisheye centre.
//
// Pitfalls kept on purpose: Reset's two radius checks overwrite the centre, not the
// radius; a parameter collection without the radius names copies the centre into the
// radii; PerspectiveFOV reads back as an integer; the XML Save reports E_FAIL after
// writing everything. A new object has zero derived fields until the first Reset, so its
// Revert sends every point to NaN in the linear branch (0 / 0) and to the fisheye centre
// in the polynomial one.
#pragma once

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/PersistRoute.h"

class CCalibrationFisheye : public CObject<CCalibrationFisheye>,
                            public IObjectInfoImpl<CCalibrationFisheye>,
                            public ICalibrationFisheye,
                            public ITransformFitErrors,
                            public ITransformBestFit,
                            public IDataPersistRoute<CCalibrationFisheye>,
                            public ICALIBRATIONInfoImpl<CCalibrationFisheye, ICalibrationInfo>,
                            public IParametricObject,
                            public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationFisheye();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Does nothing; S_OK.
  HRESULT Convert(double* x, double* y, double* z) override;
  // Perspective pixel (x, y) to fisheye pixel, in place; z is not touched (and may be
  // null; a null x or y leaves the point alone). Always S_OK.
  // Reads only the fields, allocates nothing: safe from many threads while nothing
  // changes the parameters.
  HRESULT Revert(double* x, double* y, double* z) override;
  // Stubs: the class is not fitted. E_FAIL.
  HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) override;
  HRESULT GetFitErrors(double* a, double* b, double* c) override;

  // Clamps and mends the parameters and computes the derived fields. S_OK.
  HRESULT Reset();

  // The fifteen parameters, descriptor null and flags 0.
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  // Reads the fifteen names (a missing or unreadable one keeps the present value; the
  // radii default to the centre), then Reset. S_OK.
  HRESULT SetParameters(INamedCollection* parameters) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;

  // Folder stream: the parameters (compact), then the info block in sub-stream "Info";
  // S_OK. XML: the parameters, then element "Info"; E_FAIL after writing all of it.
  HRESULT PersistSave(IDataStream* stream, int flags);
  // Folder stream: the parameters and the info block. XML: element "Info" to the info
  // block, every other element a text parameter. S_OK; E_FAIL for a null stream or one of
  // neither kind.
  HRESULT PersistLoad(IDataStream* stream, int flags);

 private:
  int PerspectiveImageWidth = 1000;  // W, pixels
  int PerspectiveImageHeight = 700;  // H, pixels
  double PerspectiveFOV = 100;       // horizontal, degrees
  double FisheyeFOV = 180;           // full field of the lens, degrees
  double FisheyeCenterX = 500, FisheyeCenterY = 250;
  double FisheyeRadiusX = 350, FisheyeRadiusY = 350;
  int FisheyeImageWidth = 5000, FisheyeImageHeight = 5000;
  int fUseKorrection = 0;  // non-zero: lens polynomial in theta; zero: theta / HalfFOV
  double k1 = 1, k2 = 0, k3 = 0, k4 = 0;
  // Derived by Reset only.
  // The ray of pixel (x, y) is ViewOrigin + a ViewAxisX + b ViewAxisY with a = x / W and
  // b = (H - 1 - y) / H: the last row has b = 0 and looks upwards (+z), the first row
  // downwards, and the fisheye's y (sin phi, image rows downwards) turns it back.
  double ViewOrigin[3] = {0, 0, 0};
  double ViewAxisX[3] = {0, 0, 0};
  double ViewAxisY[3] = {0, 0, 0};
  double HalfFOV = 0;                // radians
  double RadiusRatio = 0;            // computed, never read
};
