// What a calibrated CCamera3DTrinsic reports: conversions both ways, its matrices by id,
// parameters, pages, and its stored forms (folder stream, XML, the write-only text report).
#include "camera/Camera3DTrinsic.h"

#include <cmath>
#include <cstring>
#include <cwctype>

#include "camera/CameraMatrix.h"
#include "camera/CameraTextFile.h"
#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"
#include "persist/ParametricImpl.h"
#include "persist/XmlElements.h"

const tagREFString CCamera3DTrinsic::m_ObjectName = {15, L"Camera3DTrinsic"};

namespace {

const double kEpsilon = 2.220446049250313e-16;
const int kReadOnlyDouble = 0x40005;
const int kSeparatorRow = 0x48003;

typedef ICALIBRATIONInfoImpl<CCamera3DTrinsic, ICalibrationInfo> InfoBlock;

void Report(double* data, int rows, int cols, double** outData, int* outRows, int* outCols) {
  if (outData) *outData = data;
  if (outRows) *outRows = rows;
  if (outCols) *outCols = cols;
}

// Wide text into a stream, 4 bytes a character.
void WriteText(IDataStream* stream, const wchar_t* text) {
  stream->Write(text, static_cast<int>(std::wcslen(text) * 4), 0);
}

// A heading, four lines of twelve doubles taken three at a time, then "\r\n".
void WriteTriples(IDataStream* stream, const wchar_t* heading, const double* values) {
  WriteText(stream, heading);
  CameraWriteTriples(stream, values);
  WriteText(stream, L"\r\n");
}

}  // namespace

CCamera3DTrinsic::CCamera3DTrinsic() {
  m_Filter = ISCreate(L"Calibration (*.csv)|*.csv|All Files (*.*)|*.*||");
}

CCamera3DTrinsic::~CCamera3DTrinsic() {
  if (m_LMModelPoints) m_LMModelPoints->Release();
  if (m_LMImagePoints) m_LMImagePoints->Release();
}

HRESULT CCamera3DTrinsic::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICamera3DTrinsic* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCamera3DTrinsic>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_ICamera3DTrinsic, main, object) ||
      QueryRoute(iid, IID_ICamera3DTransform, static_cast<ICamera3DTransform*>(main), object) ||
      QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(main), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_ITransformBestFit, static_cast<ITransformBestFit*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCamera3DTrinsic::SetNormalizationImageSize(int width, int height) {
  m_NormalizeImageWidth = width;
  m_NormalizeImageHeight = height;
  return S_OK;
}

HRESULT CCamera3DTrinsic::GetNormalizationImageSize(int* width, int* height) {
  // Both outputs are required; a missing one is refused before either is written.
  if (!width || !height) return E_POINTER;
  *width = m_NormalizeImageWidth;
  *height = m_NormalizeImageHeight;
  return S_OK;
}

HRESULT CCamera3DTrinsic::GetMatrix(double** data, int* rows, int* cols) { return GetMatrix(0, data, rows, cols); }

HRESULT CCamera3DTrinsic::GetMatrix(int id, double** data, int* rows, int* cols) {
  CMatrixUtils utils;
  switch (id) {
    case 1:
      Report(m_Intrinsic, 4, 3, data, rows, cols);
      return S_OK;
    case 2:
      Report(m_Extrinsic, 4, 4, data, rows, cols);
      return S_OK;
    case 3: {
      // [R^T | -R^T t] by columns.
      const double* e = m_Extrinsic;
      const double* t = e + 12;
      double* out = m_ExtrinsicInverse;
      for (int c = 0; c < 3; ++c) {
        for (int r = 0; r < 3; ++r) out[4 * c + r] = e[4 * r + c];
        out[4 * c + 3] = 0.0;
      }
      for (int r = 0; r < 3; ++r) out[12 + r] = -(e[4 * r] * t[0] + e[4 * r + 1] * t[1] + e[4 * r + 2] * t[2]);
      out[15] = 1.0;
      Report(m_ExtrinsicInverse, 4, 4, data, rows, cols);
      return S_OK;
    }
    case 4: {
      // The twelve doubles of P read row-major as 4 x 3 are P^T; its pseudo-inverse
      // V D U^T (3 x 4, row-major) with D the reciprocals of the non-zero singular values.
      double u[12], w[3] = {0, 0, 0}, v[9] = {};
      std::memcpy(u, m_Combined, sizeof(u));
      CMatrixSVD().svdcmp(u, 4, 3, w, v);
      double d[3];
      for (int k = 0; k < 3; ++k) d[k] = w[k] == 0.0 ? 0.0 : 1.0 / w[k];
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
          double sum = 0.0;
          for (int k = 0; k < 3; ++k) sum += v[3 * i + k] * d[k] * u[3 * j + k];
          m_PseudoInverse[4 * i + j] = sum;
        }
      Report(m_PseudoInverse, 3, 4, data, rows, cols);
      return S_OK;
    }
    case 5:
      if (!m_NormalizedInverseValid) {
        utils.Inverse3(m_IntrinsicNormalized, m_IntrinsicNormalizedInverse);
        m_NormalizedInverseValid = 1;
      }
      Report(m_IntrinsicNormalizedInverse, 3, 3, data, rows, cols);
      return S_OK;
    case 6: {
      double n[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
      utils.Inverse3(m_IntrinsicNormalized, n);
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
          m_AbsoluteConic[3 * r + c] = n[3 * r] * n[3 * c] + n[3 * r + 1] * n[3 * c + 1] + n[3 * r + 2] * n[3 * c + 2];
      Report(m_AbsoluteConic, 3, 3, data, rows, cols);
      return S_OK;
    }
    case 7:
      // A singular A gives zeros.
      std::memset(m_IntrinsicInverse, 0, sizeof(m_IntrinsicInverse));
      utils.Inverse3(m_Intrinsic, m_IntrinsicInverse);
      Report(m_IntrinsicInverse, 3, 3, data, rows, cols);
      return S_OK;
    case 9: {
      // P = A [R t], scaled so that P[2][3] = 1 when it is not too small.
      m_CombinedChanged = 0;
      for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 3; ++r) {
          double sum = 0.0;
          for (int k = 0; k < 3; ++k) sum += m_Intrinsic[3 * k + r] * m_Extrinsic[4 * c + k];
          m_Combined[3 * c + r] = sum;
        }
      if (std::fabs(m_Combined[11]) > kEpsilon) {
        const double scale = 1.0 / m_Combined[11];
        for (double& value : m_Combined) value *= scale;
      }
      m_fSx = m_Intrinsic[0];
      m_Skew = m_Intrinsic[3];
      m_fSy = m_Intrinsic[4];
      m_CenterX = m_Intrinsic[6];
      m_CenterY = m_Intrinsic[7];
      return S_OK;
    }
    case 1111:
      Report(m_IntrinsicNormalizedInverse, 3, 3, data, rows, cols);
      return S_OK;
    default:
      Report(m_Combined, 4, 3, data, rows, cols);
      return S_OK;
  }
}

HRESULT CCamera3DTrinsic::Convert(double* x, double* y, double* z) {
  CameraProject(m_Combined, *x, *y, *z, x, y);
  *z = 0.0;
  return S_OK;
}

HRESULT CCamera3DTrinsic::Revert(double* x, double* y, double* z) {
  double* m = nullptr;
  static_cast<ICamera3DTrinsic*>(this)->GetMatrix(4, &m, nullptr, nullptr);
  double w[4];
  for (int i = 0; i < 4; ++i) w[i] = *x * m[i] + *y * m[4 + i] + m[8 + i];
  *x = w[0] / w[3];
  *y = w[1] / w[3];
  *z = w[2] / w[3];
  return S_OK;
}

HRESULT CCamera3DTrinsic::SolveMatrix(double* out, double u, double v) {
  if (!out) return E_POINTER;
  CameraRayPlanes(m_Combined, u, v, out);
  return S_OK;
}

HRESULT CCamera3DTrinsic::GetFitErrors(double* error2, double* error, double* sdError) {
  if (error2) *error2 = m_Error2;
  if (error) *error = m_Error;
  if (sdError) *sdError = m_SDError;
  return S_OK;
}

HRESULT CCamera3DTrinsic::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, nullptr, L"UIParametricObjectPropPage", NewString(m_ObjectName.m_Text));
  AddPage(list, nullptr, L"CalibrationMatrixPropPage", NewString(m_ObjectName.m_Text));
  AddPage(list, L"", L"CalibrationInfoPropPage");
  AddPage(list, L"", L"UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCamera3DTrinsic::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  const struct {
    const wchar_t* name;
    double value;
  } before[] = {{L"fSx", m_fSx},
                {L"fSy", m_fSy},
                {L"Skew", m_Skew},
                {L"CenterX", m_CenterX},
                {L"CenterY", m_CenterY},
                {L"DistortionK1(NotUsed)", m_Distortion1},
                {L"DistortionK2(NotUsed)", m_Distortion2}};
  for (const auto& item : before) AddDoubleParameter(list, item.name, item.value, kReadOnlyDouble);
  // A blank row between the camera and its errors.
  list->Add(NewString(L" "), nullptr, nullptr, kSeparatorRow);
  AddDoubleParameter(list, L"SDError", m_SDError, kReadOnlyDouble);
  AddDoubleParameter(list, L"MaxError", m_Error, kReadOnlyDouble);
  *parameters = list.Detach();
  return S_OK;
}

std::array<CCamera3DTrinsic::StoredValue, 15> CCamera3DTrinsic::StoredValues() {
  return {{{L"fSx", &m_fSx, 8},
           {L"fSy", &m_fSy, 8},
           {L"Skew", &m_Skew, 8},
           {L"CenterX", &m_CenterX, 8},
           {L"CenterY", &m_CenterY, 8},
           {L"Distortion1", &m_Distortion1, 8},
           {L"Distortion2", &m_Distortion2, 8},
           {L"NormalizeImageWidth", &m_NormalizeImageWidth, 4},
           {L"NormalizeImageHeight", &m_NormalizeImageHeight, 4},
           {L"Error", &m_Error, 8},
           {L"SDError", &m_SDError, 8},
           {L"Transform", m_Combined, 96},
           {L"Intrinsic", m_Intrinsic, 96},
           {L"IntrinsicNormalized", m_IntrinsicNormalized, 72},
           {L"Extrinsic", m_Extrinsic, 128}}};
}

HRESULT CCamera3DTrinsic::PersistSave(IDataStream* stream, int) {
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    for (const StoredValue& value : StoredValues()) folder->WriteData(NewString(value.key), value.data, value.bytes, 0);
    folder->WriteString(NewString(L"FileName"), m_Filename);
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
    const struct {
      const wchar_t* key;
      IString* text;
    } values[] = {{L"fSx", ISCreate(m_fSx, -1)},
                  {L"fSy", ISCreate(m_fSy, -1)},
                  {L"Skew", ISCreate(m_Skew, -1)},
                  {L"CenterX", ISCreate(m_CenterX, -1)},
                  {L"CenterY", ISCreate(m_CenterY, -1)},
                  {L"NormalizeImageWidth", ISCreate(m_NormalizeImageWidth)},
                  {L"NormalizeImageHeight", ISCreate(m_NormalizeImageHeight)},
                  {L"Error", ISCreate(m_Error, -1)},
                  {L"SDError", ISCreate(m_SDError, -1)}};
    for (const auto& value : values) {
      SmartPtr<IString> text;
      text.Attach(value.text);
      xml->WriteValue(NewString(value.key), 0, text, 0);
    }
    xml->WriteValue(NewString(L"FileName"), 0, m_Filename, 0);
    const struct {
      const wchar_t* tag;
      double* data;
      int cols;
    } matrices[] = {{L"Intrinsic", m_Intrinsic, 3}, {L"Extrinsic", m_Extrinsic, 4}, {L"Transform", m_Combined, 3}};
    for (const auto& matrix : matrices) {
      xml->OpenTag(NewString(matrix.tag), 0, 0);
      SmartPtr<IString> text;
      text.Attach(CMatrixUtils().toString(matrix.data, 4, matrix.cols));
      const CREFString view = ViewOf(text);
      xml->Write(view.Text(), view.Length() * static_cast<int>(sizeof(wchar_t)), 0);
      xml->CloseTag();
    }
    xml->OpenTag(NewString(L"Info"), 0, 0);
    InfoBlock::Save(xml, 0);
    xml->CloseTag();
    return S_OK;
  }
  if (stream) WriteReport(stream);
  return S_OK;
}

void CCamera3DTrinsic::WriteReport(IDataStream* stream) {
  // The headings are spelled as the report has always spelled them. The normalised
  // block has nine doubles, so its fourth line shows the first three of its inverse.
  WriteTriples(stream, L"Instrinsic\r\n", m_Intrinsic);
  double normalized[12];
  std::memcpy(normalized, m_IntrinsicNormalized, sizeof(m_IntrinsicNormalized));
  std::memcpy(normalized + 9, m_IntrinsicNormalizedInverse, 3 * sizeof(double));
  WriteTriples(stream, L"InstrinsicNormalized\r\n", normalized);
  // Across the pose's columns of four: the translation does not appear.
  WriteTriples(stream, L"Extrinsic\r\n", m_Extrinsic);
  WriteTriples(stream, L"Combined\r\n", m_Combined);
  // The coefficients' line is formatted but never written: the report ends here.
  WriteText(stream, L"Distortion\r\n");
}

HRESULT CCamera3DTrinsic::PersistLoad(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    for (const StoredValue& value : StoredValues()) folder->ReadData(NewString(value.key), value.data, value.bytes, 0);
    SmartPtr<IString> name;
    name.Attach(CREFString::CreateString());
    if (name) folder->ReadString(NewString(L"FileName"), name);
    ArchiveStore(m_Filename, name.get());
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  double* const doubles[] = {&m_fSx, &m_fSy, &m_Skew, &m_CenterX, &m_CenterY};
  const wchar_t* const doubleNames[] = {L"fSx", L"fSy", L"Skew", L"CenterX", L"CenterY"};
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    SmartPtr<IString> text = QueryAs<IString>(content);
    const CREFString value = ViewOf(text);
    auto is = [&name](const wchar_t* key) { return IsTag(name, key); };
    for (int i = 0; i < 5; ++i)
      if (is(doubleNames[i])) {
        *doubles[i] = _IS2Double(value);
        return;
      }
    if (is(L"NormalizeImageWidth"))
      m_NormalizeImageWidth = _IS2Integer(value, 10);
    else if (is(L"NormalizeImageHeight"))
      m_NormalizeImageHeight = _IS2Integer(value, 10);
    else if (is(L"Error"))
      m_Error = _IS2Double(value);
    else if (is(L"SDError"))
      m_SDError = _IS2Double(value);
    else if (is(L"Intrinsic"))
      CMatrixUtils().fromString(value, m_Intrinsic, 4, 3);
    else if (is(L"Extrinsic"))
      CMatrixUtils().fromString(value, m_Extrinsic, 4, 4);
    else if (is(L"Info")) {
      if (SmartPtr<IDataStream> part = QueryAs<IDataStream>(content)) InfoBlock::Load(part, 0);
    }
  });
  // P and the five scalars follow from A and the pose; K stays as it was.
  m_NormalizedInverseValid = 0;
  GetMatrix(9, nullptr, nullptr, nullptr);
  return S_OK;
}

// By extension: 'x' XML, 't' folder stream, anything else the text report (which does
// not read back; its reading stream is sized at four bytes a character).
HRESULT CCamera3DTrinsic::Save() { return CameraArchiveSave<CCamera3DTrinsic>(this, this); }

HRESULT CCamera3DTrinsic::Load() { return CameraArchiveLoad<CCamera3DTrinsic>(this, this, 4); }
