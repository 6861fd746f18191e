// "Camera3DCalibrationPlane": a camera (ICamera3DTransform, world to image) and a plane
// a X + b Y + c Z + d = 0 (a host "Plane"), which together turn an image point into the
// world point where its viewing ray meets the plane. Convert is image to world, Revert
// world to image (the camera's own Convert); fitting is forwarded to the camera.
//
// Convert solves the 3 x 3 system of the camera's two viewing planes (SolveMatrix) and a
// third row: the plane (a, b, c) with right side -d, or, for a Camera3DTrinsic with the
// pseudo-inverse flag set, (0, 0, -1) with right side -0.001. The first two right sides
// are taken with the wrong sign, so the solution is the true point mirrored through the
// origin; "Negate" (1 by default) negates all three coordinates back. The result lies on
// the true viewing ray and on the plane with the sign of d reversed: a X + b Y + c Z = d.
//
// Ownership: the camera and the plane are counted references. get_Plane lends the plane
// without a reference; GetReverseTransform hands out the camera with one.
//
// A BestFit with flags 153 only keeps the two collections, for the exported model
// function CCamera3DCalibrationPlane_LevenbergMarquardt_Evaluate, which fits the plane's
// four coefficients (it reads the collections through the object: one thread at a time).
#pragma once

#include "frame/Object.h"
#include "numeric/CholeskiLeastSquares.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/ParametricImpl.h"
#include "persist/PersistRoute.h"

class CCamera3DCalibrationPlane : public CObject<CCamera3DCalibrationPlane>,
                                  public IObjectInfoImpl<CCamera3DCalibrationPlane>,
                                  public ICamera3DCalibrationPlane,
                                  public IFileArchiveImpl<CCamera3DCalibrationPlane, IFileArchive>,
                                  public ICALIBRATIONInfoImpl<CCamera3DCalibrationPlane, ICalibrationInfo>,
                                  public ITransformFitErrors,
                                  public IDataPersistRoute<CCamera3DCalibrationPlane>,
                                  public IUIPropertyPageSpecify,
                                  public IParametricImpl<CCamera3DCalibrationPlane>,
                                  private CholeskiLeastSquares {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  // The flags of BestFit that keep the collections for the model function.
  static constexpr int kStoreViews = 153;

  CCamera3DCalibrationPlane();
  ~CCamera3DCalibrationPlane();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Borrowed: no reference is added. A null place is accepted.
  HRESULT get_Plane(IUnknown** plane) override;
  // The argument's IPlane, or null, becomes the plane. Always S_OK.
  HRESULT put_Plane(IUnknown* plane) override;
  // Null is accepted (Convert, Revert and BestFit then give E_FAIL).
  HRESULT SetReverseTransform(ICamera3DTransform* camera) override;
  // The camera with a reference; E_FAIL for a null place or no camera.
  HRESULT GetReverseTransform(ITransform** camera) override;
  // Leaves its output alone.
  virtual HRESULT GetForwardTransform(ITransform**) { return S_OK; }
  // The camera's; E_FAIL without a camera or its ITransformFitErrors.
  HRESULT GetFitErrors(double* error2, double* error, double* sdError) override;
  // Stamps the calibration time. Flags 153: keeps both collections and asks their counts
  // (the first failing count is the result), nothing is fitted. Any other flags go to the
  // camera's ITransformBestFit unchanged (E_FAIL without one).
  HRESULT BestFit(ISimpleCollection* image, ISimpleCollection* world, int flags) override;
  // Stores the flag first; E_FAIL unless the camera is a Camera3DTrinsic.
  HRESULT UsePseudoInverse(short use) override;
  // 0 when the flag is clear; else 1 for a Camera3DTrinsic, E_FAIL otherwise.
  HRESULT IsUsingPseudoInverse() override;
  // World to image through the camera; z becomes 0.
  HRESULT Revert(double* x, double* y, double* z) override;
  // Image to world (see the head of this file). E_FAIL without a camera, and on the plane
  // route without a plane. Allocates nothing unless the system is singular (|det| below
  // 2.220446049250313e-16), when a decomposition gives the pseudo-inverse.
  HRESULT Convert(double* x, double* y, double* z) override;
  // A camera with parameters: its parametric page, the matrix page, then the info page;
  // otherwise the info page and the matrix page. The file page last.
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  // By extension: 'x' XML, 't' folder stream; anything else (or a failed archive save) the
  // text report: the camera's text form and the plane, as 8-bit text without a mark.
  HRESULT Save() override;
  // Folder stream: the camera and the plane as objects, "Filename" relative to the
  // install path, the info block. XML: the camera's and the plane's own forms in
  // "Transform" and "Plane" elements (no file name, no info block). Neither: E_FAIL.
  HRESULT PersistSave(IDataStream* stream, int flags);
  // Folder stream: the stored objects replace the camera and the plane (a missing or
  // unsuitable one gives a new Camera3DTransform or Plane). XML: a "Transform" element
  // yields the object named by its first child element, so the cameras' own XML forms
  // (which write no such element) come back as a new Camera3DTransform; "Plane" loads
  // into the plane held. Neither: E_FAIL.
  HRESULT PersistLoad(IDataStream* stream, int flags);
  // The camera's parameters, then "Negate" and "UsePseudoInverse" (integers, flags 19).
  // E_FAIL when the camera has no IParametricObject.
  HRESULT GetParameters(INamedCollection** parameters, int level) override;
  // Reads "UsePseudoInverse", then "Negate"; the camera is not told. Always S_OK.
  HRESULT SetParameters(INamedCollection* parameters) override;

  // The model function's work, for the plane (p[0], p[1], p[2], p[3]) over the views
  // kept by BestFit(..., 153): each view's image points are converted onto the plane,
  // fitted to the model by a rigid TransformBestFit (method 1), moved by the fit, and
  // |residual i of view k| goes to residuals[k n + i] (n model points). The residual
  // component applies the fit once more to the moved points: that is the model. Leaves
  // the plane set as given (normal normalised, d as given) and the pseudo-inverse flag
  // cleared. Writes nothing at or beyond index m, and nothing at all without stored views,
  // a camera or a plane.
  void EvaluatePlane(const double* p, int m, double* residuals);

 private:
  // Every change of camera goes through here, so the cached answer stays true.
  void SetCamera(ICamera3DTransform* camera);
  // Solves M p = r for the 3 x 3 row-major M: by the adjugate, or by the pseudo-inverse
  // when M is singular.
  static void Solve(double* m, double* r, double* p);
  // "Filename" text made absolute against the install path, kept as the archive's name.
  void StoreFilename(IString* stored);

  SmartPtr<ICamera3DTransform> m_ReverseTransform;
  SmartPtr<IPlane> m_Plane;
  int m_UsePseudoInverse = 0;
  int m_Negate = 1;
  SmartPtr<ISimpleCollection> m_ImagePoints;
  SmartPtr<ISimpleCollection> m_ModelPoints;
  // Whether m_ReverseTransform answers ICamera3DTrinsic: Convert's route choice without a
  // query per point.
  bool m_CameraIsTrinsic = false;
};
