// CCamera3DTransform: the fit of a projective camera, its conversions and inverse
// questions, parameters, pages and stored forms.
#include "camera/Camera3DTransform.h"

#include <cmath>
#include <cstring>

#include "camera/CameraMatrix.h"
#include "camera/CameraTextFile.h"
#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/MatrixLevenbergMarquardt.h"
#include "persist/ParametricImpl.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

const tagREFString CCamera3DTransform::m_ObjectName = {17, L"Camera3DTransform"};

namespace {

const int kReadOnlyDouble = 0x40005;
const int kUnknowns = 11;  // p0 to p10 of the linear solve; p11 is fixed to 1
const int kEntries = 12;

typedef ICALIBRATIONInfoImpl<CCamera3DTransform, ICalibrationInfo> InfoBlock;

// The counts of two collections and the smaller of them; a failing count is returned.
HRESULT SmallerCount(ISimpleCollection* a, ISimpleCollection* b, int* n) {
  int na = 0, nb = 0;
  HRESULT hr = a->get_Count(&na);
  if (hr < 0) return hr;
  hr = b->get_Count(&nb);
  if (hr < 0) return hr;
  *n = na < nb ? na : nb;
  return S_OK;
}

}  // namespace

ZELTRIM_EXPORT void CCamera3DTransform_LevenbergMarquardt_Evaluate(const double* p, int m, const void* self,
                                                                   double* residuals, int*) {
  if (!self || !p || !residuals) return;
  static_cast<CCamera3DTransform*>(const_cast<void*>(self))->EvaluateResiduals(p, m, residuals);
}

CCamera3DTransform::CCamera3DTransform() {
  m_Filter = ISCreate(L"Calibration (*.csv)|*.csv|All Files (*.*)|*.*||");
}

CCamera3DTransform::~CCamera3DTransform() { CLSFree(); }

HRESULT CCamera3DTransform::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICamera3DTransform* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCamera3DTransform>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICamera3DTransform, main, object) ||
      QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(main), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_ITransformBestFit, static_cast<ITransformBestFit*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCamera3DTransform::SolveLine(double* direction, double* point, double u, double v, double) {
  if (!direction) return E_POINTER;
  // a = row 0, b = row 1 of SolveMatrix; the ninth cell k is 0.
  double work[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
  SolveMatrix(work, u, v);
  const double a0 = work[0], a1 = work[1], a2 = work[2];
  const double b0 = work[4], b1 = work[5], b2 = work[6];
  const double k = work[8];
  direction[0] = a1 * b2 - b1 * a2;
  direction[1] = a2 * b0 - a0 * b2;
  direction[2] = b1 * a0 - a1 * b0;
  if (!point) return S_OK;
  point[0] = (a1 * k + b1 * b0) / direction[2];
  point[1] = (b0 * b0 + a0 * k) / direction[2];
  point[2] = 0.0;
  return S_OK;
}

HRESULT CCamera3DTransform::EstimatePlanarZ(double u1, double v1, double u2, double v2, double distance, double* z) {
  if (!z) return E_POINTER;
  double d1[3], q1[3], d2[3], q2[3];
  SolveLine(d1, q1, u1, v1, 0.0);
  SolveLine(d2, q2, u2, v2, 0.0);
  const double a = d1[0] / d1[2] - d2[0] / d2[2];
  const double b = d1[1] / d1[2] - d2[1] / d2[2];
  const double c = q1[0] - q2[0];
  const double e = q1[1] - q2[1];
  const double A = a * a + b * b;
  const double B = 2.0 * a * c + 2.0 * b * e;
  const double C = c * c + e * e - distance * distance;
  const double D = B * B - 4.0 * A * C;
  *z = 0.0;
  if (D >= 0.0) {
    const double r1 = (std::sqrt(D) - B) / (2.0 * A);
    const double r2 = (-B - std::sqrt(D)) / (2.0 * A);
    *z = r2 > r1 ? r2 : r1;
  }
  return S_OK;
}

HRESULT CCamera3DTransform::GetFitErrors(ISimpleCollection* world, IUnknown* image, double* error2, double* error,
                                         double* sdError) {
  SmartPtr<ISimpleCollection> imagePoints = QueryAs<ISimpleCollection>(image);
  if (!imagePoints || !world) return E_FAIL;
  int n = 0;
  const HRESULT hr = SmallerCount(world, imagePoints, &n);
  if (hr < 0) return hr;
  if (n < 1) {
    if (sdError) *sdError = 0.0;
    if (error2) *error2 = 0.0;
    if (error) *error = 0.0;
  } else {
    double sum = 0.0, largest = 0.0;
    for (int i = 0; i < n; ++i) {
      double w[3] = {0, 0, 0}, m[3] = {0, 0, 0};
      ReadPoint(world, i, w);
      ReadPoint(imagePoints, i, m);
      static_cast<ICamera3DTransform*>(this)->Convert(&w[0], &w[1], &w[2]);
      const double dx = w[0] - m[0], dy = w[1] - m[1];
      const double q = dx * dx + dy * dy;
      sum += q;
      if (q > largest) largest = q;
    }
    if (sdError) *sdError = n > 1 ? std::sqrt(sum / (n - 1)) : 0.0;
    const double distance = std::sqrt(largest);
    if (error2) *error2 = distance;
    if (error) *error = distance;
  }
  SetCalibrationTime();
  return S_OK;
}

HRESULT CCamera3DTransform::GetFitErrors(double* error2, double* error, double* sdError) {
  if (error2) *error2 = m_Error2;
  if (error) *error = m_Error;
  if (sdError) *sdError = m_SDError;
  return S_OK;
}

HRESULT CCamera3DTransform::BestFit(ISimpleCollection* image, ISimpleCollection* world, int) {
  SmartPtr<ISimpleCollection> target = QueryAs<ISimpleCollection>(world);
  if (!image || !target) return E_FAIL;
  int n = 0;
  HRESULT hr = SmallerCount(image, target, &n);
  if (hr < 0) return hr;

  // The direct solve: two rows of eleven unknowns per point, p11 = 1. The solution buffer
  // starts at zero, so a skipped or failed solve leaves a defined matrix.
  double x[kUnknowns] = {};
  if (n > 0) {
    const size_t rows = 2 * static_cast<size_t>(n);
    std::vector<double> design(rows * kUnknowns, 0.0), right(rows, 0.0);
    for (int i = 0; i < n; ++i) {
      double m[3] = {0, 0, 0}, w[3] = {0, 0, 0};
      ReadPoint(image, i, m);
      ReadPoint(target, i, w);
      const double u = m[0], v = m[1], X = w[0], Y = w[1], Z = w[2];
      double* r0 = &design[2 * static_cast<size_t>(i) * kUnknowns];
      double* r1 = r0 + kUnknowns;
      r0[0] = X, r0[1] = Y, r0[2] = Z, r0[3] = 1.0;
      r0[8] = -u * X, r0[9] = -u * Y, r0[10] = -u * Z;
      r1[4] = X, r1[5] = Y, r1[6] = Z, r1[7] = 1.0;
      r1[8] = -v * X, r1[9] = -v * Y, r1[10] = -v * Z;
      right[2 * static_cast<size_t>(i)] = u;
      right[2 * static_cast<size_t>(i) + 1] = v;
    }
    // The row count goes to the solver as a signed 16-bit value.
    hr = CLSCholeski(design.data(), right.data(), x, kUnknowns, static_cast<short>(rows));
  } else {
    hr = E_POINTER;
  }
  // p_k is row k / 4, column k % 4, held at 3 (k % 4) + k / 4.
  for (int k = 0; k < kUnknowns; ++k) m_Matrix[3 * (k % 4) + k / 4] = x[k];
  m_Matrix[11] = 1.0;

  m_SrcPoints = image;
  m_TargetPoints = target;

  // All twelve entries refined on one squared distance per point. Below twelve points the
  // minimiser refuses at once and the direct solution stands; its end code is not kept.
  m_LMPoints.assign(static_cast<size_t>(n) * 5, 0.0);
  for (int i = 0; i < n; ++i) {
    double m[3] = {0, 0, 0}, w[3] = {0, 0, 0};
    ReadPoint(image, i, m);
    ReadPoint(target, i, w);
    double* out = &m_LMPoints[5 * static_cast<size_t>(i)];
    out[0] = m[0], out[1] = m[1], out[2] = w[0], out[3] = w[1], out[4] = w[2];
  }
  CMatrixLevenbergMarquardt minimiser;
  lm_status_struct status{};
  minimiser.lmmin(kEntries, m_Matrix, n, this, &CCamera3DTransform_LevenbergMarquardt_Evaluate, &status);
  m_LMPoints.clear();
  m_LMPoints.shrink_to_fit();

  GetFitErrors(target, image, &m_Error2, &m_Error, &m_SDError);
  return hr;
}

void CCamera3DTransform::EvaluateResiduals(const double* p, int m, double* residuals) {
  const bool cached = m > 0 && m_LMPoints.size() >= static_cast<size_t>(m) * 5;
  for (int i = 0; i < m; ++i) {
    double point[5] = {0, 0, 0, 0, 0};
    if (cached) {
      std::memcpy(point, &m_LMPoints[5 * static_cast<size_t>(i)], sizeof(point));
    } else {
      double image[3] = {0, 0, 0}, world[3] = {0, 0, 0};
      ReadPoint(m_SrcPoints, i, image);
      ReadPoint(m_TargetPoints, i, world);
      point[0] = image[0], point[1] = image[1], point[2] = world[0], point[3] = world[1], point[4] = world[2];
    }
    double u = 0, v = 0;
    CameraProject(p, point[2], point[3], point[4], &u, &v);
    const double du = point[0] - u, dv = point[1] - v;
    residuals[i] = du * du + dv * dv;
  }
}

HRESULT CCamera3DTransform::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  // The page names go bare, without the module's prefix.
  AddPage(list, L"", L"CalibrationInfoPropPage");
  AddPage(list, nullptr, L"UIParametricObjectPropPage", NewString(m_ObjectName.m_Text));
  AddPage(list, nullptr, L"CalibrationMatrixPropPage", NewString(m_ObjectName.m_Text));
  AddPage(list, L"", L"UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCamera3DTransform::SolveMatrix(double* out, double u, double v) {
  if (!out) return E_POINTER;
  CameraRayPlanes(m_Matrix, u, v, out);
  return S_OK;
}

HRESULT CCamera3DTransform::GetMatrix(double** data, int* rows, int* cols) {
  if (data) *data = m_Matrix;
  if (rows) *rows = 4;
  if (cols) *cols = 3;
  return S_OK;
}

HRESULT CCamera3DTransform::Convert(double* x, double* y, double* z) {
  if (!x || !y || !z) return E_POINTER;
  CameraProject(m_Matrix, *x, *y, *z, x, y);
  *z = 0.0;
  return S_OK;
}

HRESULT CCamera3DTransform::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  AddDoubleParameter(list, L"SDError", m_SDError, kReadOnlyDouble);
  AddDoubleParameter(list, L"MaxError", m_Error, kReadOnlyDouble);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCamera3DTransform::PersistSave(IDataStream* stream, int) {
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    folder->WriteData(NewString(L"Transform"), m_Matrix, sizeof(m_Matrix), 0);
    folder->WriteData(NewString(L"Error"), &m_Error, sizeof(m_Error), 0);
    folder->WriteData(NewString(L"SDError"), &m_SDError, sizeof(m_SDError), 0);
    folder->WriteString(NewString(L"FileName"), m_Filename);
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  // The text form: the matrix only, one column of P a line, no heading.
  CameraWriteTriples(stream, m_Matrix);
  return S_OK;
}

HRESULT CCamera3DTransform::PersistLoad(IDataStream* stream, int) {
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (!folder) return E_FAIL;
  folder->ReadData(NewString(L"Transform"), m_Matrix, sizeof(m_Matrix), 0);
  folder->ReadData(NewString(L"Error"), &m_Error, sizeof(m_Error), 0);
  folder->ReadData(NewString(L"SDError"), &m_SDError, sizeof(m_SDError), 0);
  SmartPtr<IString> name;
  name.Attach(CREFString::CreateString());
  if (name) folder->ReadString(NewString(L"FileName"), name);
  ArchiveStore(m_Filename, name.get());
  SmartPtr<IDataStream> info;
  folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
  if (info) InfoBlock::Load(info, 0);
  return S_OK;
}

HRESULT CCamera3DTransform::Save() { return CameraArchiveSave<CCamera3DTransform>(this, this); }

// The text form is read through a stream sized at two bytes a character, and refused.
HRESULT CCamera3DTransform::Load() { return CameraArchiveLoad<CCamera3DTransform>(this, this, 2); }
