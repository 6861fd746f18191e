// CCamera3DCalibrationPlane: image points to world points on a plane through a camera,
// the forwarded fit, parameters, pages, stored forms and the plane's model function.
#include "camera/Camera3DCalibrationPlane.h"

#include <cmath>
#include <cstdio>

#include "camera/CameraTextFile.h"
#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"
#include "persist/FileName.h"
#include "persist/XmlElements.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

const tagREFString CCamera3DCalibrationPlane::m_ObjectName = {24, L"Camera3DCalibrationPlane"};

namespace {

typedef ICALIBRATIONInfoImpl<CCamera3DCalibrationPlane, ICalibrationInfo> InfoBlock;

const double kEpsilon = 2.220446049250313e-16;
// The pseudo-inverse route's third equation, -Z = -0.001: a fixed height, as this literal.
const double kPseudoInverseHeight = 0.001;
const int kParameterFlags = 19;
const int kRigidFit = 1;  // TransformBestFit's covariance route, rotation and translation

// Writes wide text into a stream at four bytes a character.
void WriteWide(IDataStream* stream, const wchar_t* text, int length) {
  if (length > 0) stream->Write(text, length * 4, 0);
}

}  // namespace

ZELTRIM_EXPORT void CCamera3DCalibrationPlane_LevenbergMarquardt_Evaluate(const double* p, int m, const void* self,
                                                                         double* residuals, int*) {
  if (!self || !p || !residuals) return;
  static_cast<CCamera3DCalibrationPlane*>(const_cast<void*>(self))->EvaluatePlane(p, m, residuals);
}

CCamera3DCalibrationPlane::CCamera3DCalibrationPlane() {
  SetCamera(CreateHostObject<ICamera3DTransform>(L"Camera3DTransform"));
  m_Plane.Attach(GEOObject::CreatePlane());
  m_Filter = ISCreate(L"Calibration *.csv|*.csv|All Files (*.*)|*.*||");
  put_CALIBName(NewString(L"3D Camera/Plane"));
  put_CALIBType(NewString(L"3D Camera/Plane"));
}

CCamera3DCalibrationPlane::~CCamera3DCalibrationPlane() { CLSFree(); }

HRESULT CCamera3DCalibrationPlane::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICamera3DCalibrationPlane* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCamera3DCalibrationPlane>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_ICamera3DCalibrationPlane, main, object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

void CCamera3DCalibrationPlane::SetCamera(ICamera3DTransform* camera) {
  m_ReverseTransform = camera;
  m_CameraIsTrinsic = QueryAs<ICamera3DTrinsic>(camera).get() != nullptr;
}

HRESULT CCamera3DCalibrationPlane::get_Plane(IUnknown** plane) {
  if (plane) *plane = m_Plane.get();
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::put_Plane(IUnknown* plane) {
  m_Plane = QueryAs<IPlane>(plane);
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::SetReverseTransform(ICamera3DTransform* camera) {
  SetCamera(camera);
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::GetReverseTransform(ITransform** camera) {
  if (!camera || !m_ReverseTransform) return E_FAIL;
  *camera = m_ReverseTransform.get();
  (*camera)->AddRef();
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::GetFitErrors(double* error2, double* error, double* sdError) {
  SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(m_ReverseTransform);
  if (!errors) return E_FAIL;
  return errors->GetFitErrors(error2, error, sdError);
}

HRESULT CCamera3DCalibrationPlane::BestFit(ISimpleCollection* image, ISimpleCollection* world, int flags) {
  SetCalibrationTime();
  if (flags == kStoreViews) {
    m_ImagePoints = image;
    m_ModelPoints = world;
    if (!image || !world) return E_POINTER;
    int count = 0;
    HRESULT hr = image->get_Count(&count);
    if (hr < 0) return hr;
    hr = world->get_Count(&count);
    return hr < 0 ? hr : S_OK;
  }
  SmartPtr<ITransformBestFit> fit = QueryAs<ITransformBestFit>(m_ReverseTransform);
  if (!fit) return E_FAIL;
  return fit->BestFit(image, world, flags);
}

HRESULT CCamera3DCalibrationPlane::UsePseudoInverse(short use) {
  m_UsePseudoInverse = use;
  return m_ReverseTransform && m_CameraIsTrinsic ? S_OK : E_FAIL;
}

HRESULT CCamera3DCalibrationPlane::IsUsingPseudoInverse() {
  if (m_UsePseudoInverse == 0) return 0;
  return m_ReverseTransform && m_CameraIsTrinsic ? 1 : E_FAIL;
}

HRESULT CCamera3DCalibrationPlane::Revert(double* x, double* y, double* z) {
  if (!m_ReverseTransform) return E_FAIL;
  return m_ReverseTransform->Convert(x, y, z);
}

void CCamera3DCalibrationPlane::Solve(double* m, double* r, double* p) {
  double inverse[9];
  const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                     m[2] * (m[3] * m[7] - m[4] * m[6]);
  if (std::fabs(det) >= kEpsilon) {
    CMatrixUtils().Inverse3(m, inverse);
  } else {
    // V W^-1 U^T; a singular value of exactly 0 leaves its column of V undivided.
    double u[9], w[3] = {0, 0, 0}, v[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 9; ++i) u[i] = m[i];
    CMatrixSVD().svdcmp(u, 3, 3, w, v);
    for (int k = 0; k < 3; ++k)
      if (w[k] != 0.0)
        for (int i = 0; i < 3; ++i) v[3 * i + k] /= w[k];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) {
        double sum = 0.0;
        for (int k = 0; k < 3; ++k) sum += v[3 * i + k] * u[3 * j + k];
        inverse[3 * i + j] = sum;
      }
  }
  CMatrixUtils().Multiply(inverse, r, p, 3, 3, 1);
}

HRESULT CCamera3DCalibrationPlane::Convert(double* x, double* y, double* z) {
  if (!x || !y || !z) return E_POINTER;
  if (!m_ReverseTransform) return E_FAIL;
  const bool pseudoInverse = m_CameraIsTrinsic && m_UsePseudoInverse != 0;
  if (!pseudoInverse && !m_Plane) return E_FAIL;

  // Rows 0 and 1: the two planes through the viewing ray, a0..a3 and b0..b3.
  double rows[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  m_ReverseTransform->SolveMatrix(rows, *x, *y);
  double m[9] = {rows[0], rows[1], rows[2], rows[4], rows[5], rows[6], 0.0, 0.0, -1.0};
  double r[3] = {rows[3], rows[7], -kPseudoInverseHeight};
  if (!pseudoInverse) {
    double a = 0.0, b = 0.0, c = 0.0, d = 0.0;
    m_Plane->GetCoefficients(&a, &b, &c, &d);
    m[6] = a, m[7] = b, m[8] = c;
    r[2] = -d;
  }
  double p[3] = {0, 0, 0};
  Solve(m, r, p);
  if (m_Negate != 0) {
    *x = -p[0], *y = -p[1], *z = -p[2];
  } else {
    *x = p[0], *y = p[1], *z = p[2];
  }
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  if (QueryAs<IParametricObject>(m_ReverseTransform)) {
    AddPage(list, nullptr, L"UIParametricObjectPropPage");
    AddPage(list, nullptr, L"CalibrationMatrixPropPage");
    AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  } else {
    AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
    AddPage(list, nullptr, L"CalibrationMatrixPropPage");
  }
  AddPage(list, L"", L"UIPropPages.UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::GetParameters(INamedCollection** parameters, int level) {
  SmartPtr<IParametricObject> camera = QueryAs<IParametricObject>(m_ReverseTransform);
  if (!camera) return E_FAIL;
  if (!parameters) return E_POINTER;
  const HRESULT hr = camera->GetParameters(parameters, level);
  if (SmartPtr<IParametersCreatable> list = QueryAs<IParametersCreatable>(*parameters)) {
    AddIntegerParameter(list, L"Negate", m_Negate, kParameterFlags);
    AddIntegerParameter(list, L"UsePseudoInverse", m_UsePseudoInverse, kParameterFlags);
  }
  return hr;
}

HRESULT CCamera3DCalibrationPlane::SetParameters(INamedCollection* parameters) {
  PARAMInteger(parameters, L"UsePseudoInverse", &m_UsePseudoInverse);
  PARAMInteger(parameters, L"Negate", &m_Negate);
  return S_OK;
}

void CCamera3DCalibrationPlane::StoreFilename(IString* stored) {
  SmartPtr<IString> install, absolute;
  FILENAMEGetInstallPath(install.Out());
  // The absolute form repairs separators in place: it works on a copy of the text.
  const CREFString text = ViewOf(stored);
  SmartPtr<IString> copy;
  copy.Attach(archive_detail::NewString(text.Text() ? text.Text() : L"", text.Length()));
  FILENAMECreateAbsolute(install, copy, absolute.Out());
  ArchiveStore(m_Filename, absolute.get());
}

HRESULT CCamera3DCalibrationPlane::PersistSave(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    if (m_ReverseTransform) folder->WriteObject(NewString(L"Transform"), m_ReverseTransform, 0);
    if (m_Plane) folder->WriteObject(NewString(L"Plane"), m_Plane, 0);
    SmartPtr<IString> install, relative;
    FILENAMEGetInstallPath(install.Out());
    FILENAMECreateRelative(install, m_Filename, relative.Out());
    folder->WriteString(NewString(L"Filename"), relative);
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  const struct {
    const wchar_t* tag;
    IUnknown* part;
  } parts[] = {{L"Transform", m_ReverseTransform.get()}, {L"Plane", m_Plane.get()}};
  for (const auto& part : parts) {
    xml->OpenTag(NewString(part.tag), 0, 0);
    if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(part.part)) persist->Save(xml, flags);
    xml->CloseTag();
  }
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::PersistLoad(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    // A null place: the stream makes the object it holds, of whichever class it is.
    void* place = nullptr;
    folder->ReadObject(NewString(L"Transform"), &place, 0);
    SmartPtr<IUnknown> read;
    read.Attach(static_cast<IUnknown*>(place));
    SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(read);
    if (!camera) camera = CreateHostObject<ICamera3DTransform>(L"Camera3DTransform");
    SetCamera(camera);

    place = nullptr;
    folder->ReadObject(NewString(L"Plane"), &place, 0);
    read.Attach(static_cast<IUnknown*>(place));
    m_Plane = QueryAs<IPlane>(read);
    if (!m_Plane) m_Plane.Attach(GEOObject::CreatePlane());

    SmartPtr<IString> name;
    name.Attach(CREFString::CreateString());
    if (name) folder->ReadString(NewString(L"Filename"), name);
    StoreFilename(name);
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    if (IsTag(name, L"Transform")) {
      SmartPtr<IUnknown> read;
      tagREFString first{0, nullptr};
      SmartPtr<IXMLStream> inner = QueryAs<IXMLStream>(content);
      if (inner && inner->NextTag(&first) >= 0) inner->ReadNamedObject(first.m_Length, first.m_Text, read.Out());
      SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(read);
      if (!camera) camera = CreateHostObject<ICamera3DTransform>(L"Camera3DTransform");
      SetCamera(camera);
    } else if (IsTag(name, L"Plane")) {
      if (!m_Plane) m_Plane.Attach(GEOObject::CreatePlane());
      SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(m_Plane);
      SmartPtr<IDataStream> part = QueryAs<IDataStream>(content);
      if (persist && part) persist->Load(part, flags);
    } else if (IsTag(name, L"Info")) {
      if (SmartPtr<IDataStream> part = QueryAs<IDataStream>(content)) InfoBlock::Load(part, 0);
    } else if (IsTag(name, L"Filename")) {
      StoreFilename(QueryAs<IString>(content));
    }
  });
  return S_OK;
}

HRESULT CCamera3DCalibrationPlane::Save() {
  SmartPtr<IString> filename;
  get_Filename(filename.Out());
  if (CameraArchiveSaveStream<CCamera3DCalibrationPlane>(this, filename.get()) >= 0) return S_OK;

  // The text report: the camera's own text form, then the plane, made 8-bit.
  SmartPtr<IDataStream> wide, narrow;
  wide.Attach(BASEObject::CreateDataStream());
  SmartPtr<IDataPersist> camera = QueryAs<IDataPersist>(m_ReverseTransform);
  if (!wide || !camera) return E_FAIL;
  wide->Open(nullptr, 1000, 1);
  camera->Save(wide, 0);
  if (m_Plane) {
    double a = 0.0, b = 0.0, c = 0.0, d = 0.0;
    m_Plane->GetCoefficients(&a, &b, &c, &d);
    static const wchar_t kHeading[] = L"\r\nPlane\r\n";
    WriteWide(wide, kHeading, static_cast<int>(sizeof(kHeading) / sizeof(wchar_t)) - 1);
    // Room for four of the widest doubles "%.8f" prints (over 300 digits each).
    wchar_t line[1400];
    WriteWide(wide, line, _swprintf(line, 1400, L"%.8f,%.8f,%.8f,%.8f\r\n", a, b, c, d));
  }
  narrow.Attach(BASEObject::CreateDataStream());
  SmartPtr<IStreamTransform> ascii = CreateHostObject<IStreamTransform>(L"ASCIIStream");
  if (!narrow || !ascii) return E_FAIL;
  narrow->Open(nullptr, 1000, 1);
  ascii->Transform(wide, narrow, 0);
  void* bytes = nullptr;
  unsigned long size = 0;
  narrow->GetBuffer(&bytes, &size);
  return FileArchiveSave(ViewOf(filename), static_cast<unsigned char*>(bytes), size, 0, 0);
}

void CCamera3DCalibrationPlane::EvaluatePlane(const double* p, int m, double* residuals) {
  if (!m_ImagePoints || !m_ModelPoints || !m_ReverseTransform || !m_Plane) return;
  int total = 0, n = 0;
  if (m_ImagePoints->get_Count(&total) < 0 || m_ModelPoints->get_Count(&n) < 0 || n < 1) return;

  SmartPtr<IPointsCollection> converted, model;
  converted.Attach(GEOObject::CreatePointsCollection());
  model.Attach(GEOObject::CreatePointsCollection());
  SmartPtr<ITransformBestFit> fit = CreateHostObject<ITransformBestFit>(L"TransformBestFit");
  SmartPtr<ITransform> transform = QueryAs<ITransform>(fit);
  SmartPtr<IHomogeneousTransform> homogeneous = QueryAs<IHomogeneousTransform>(fit);
  SmartPtr<ITransformResidualErrors> residualErrors =
      CreateHostObject<ITransformResidualErrors>(L"TransformResidualErrors");
  SmartPtr<ITransformableObject> movable = QueryAs<ITransformableObject>(converted);
  if (!converted || !model || !transform || !homogeneous || !residualErrors || !movable) return;

  // The plane route, on the plane given: its normal normalised by the plane object, its
  // offset kept as given.
  UsePseudoInverse(0);
  double a = 0.0, b = 0.0, c = 0.0, d = 0.0;
  m_Plane->SetCoefficients(p[0], p[1], p[2], p[3]);
  m_Plane->GetCoefficients(&a, &b, &c, &d);
  m_Plane->SetCoefficients(a, b, c, p[3]);

  int view = 0, inView = 0;
  for (int i = 0; i < total; ++i) {
    double image[3] = {0, 0, 0}, world[3] = {0, 0, 0};
    ReadPoint(m_ImagePoints, i, image);
    static_cast<ICamera3DCalibrationPlane*>(this)->Convert(&image[0], &image[1], &image[2]);
    converted->AddPoint(image[0], image[1], image[2]);
    ReadPoint(m_ModelPoints, inView, world);
    model->AddPoint(world[0], world[1], world[2]);
    if (++inView < n) continue;

    fit->BestFit(converted, model, kRigidFit);
    movable->Transform(homogeneous);
    SmartPtr<IDblVector> errors;
    residualErrors->GetResidualErrorVector(transform, converted, model, errors.Out());
    int count = 0;
    if (errors) errors->get_Count(&count);
    for (int k = 0; k < count && k < n; ++k) {
      const long index = static_cast<long>(view) * n + k;
      double value = 0.0;
      if (index < m && errors->get_Item(k, &value) >= 0) residuals[index] = std::fabs(value);
    }
    converted->Clear();
    model->Clear();
    inView = 0;
    ++view;
  }
}
