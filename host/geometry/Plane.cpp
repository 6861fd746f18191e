// "Plane": the plane a X + b Y + c Z + d = 0, kept with a unit normal (a, b, c).
// Stream forms: folder stream doubles "A", "B", "C", "D"; XML elements of the same names
// holding the numbers as "%.17g" text, so that both forms give back every bit.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cwchar>
#include <cwctype>
#include <string>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"

class CPlane : public CObject<CPlane>, public IPlane, public IDataPersist, public IObjectInfoImpl<CPlane> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPlane>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IPlane, static_cast<IPlane*>(this), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT GetCoefficients(double* a, double* b, double* c, double* d) override {
    if (!a || !b || !c || !d) return E_POINTER;
    *a = m_A;
    *b = m_B;
    *c = m_C;
    *d = m_D;
    return S_OK;
  }

  // Divides all four by the length of (a, b, c). A zero or non-finite normal, a
  // non-finite d, or a d that overflows when scaled is refused; the plane then stays.
  HRESULT SetCoefficients(double a, double b, double c, double d) override {
    if (!std::isfinite(a) || !std::isfinite(b) || !std::isfinite(c) || !std::isfinite(d)) return E_INVALIDARG;
    // Scaled by the largest component first, so huge or tiny normals neither overflow
    // nor underflow when squared.
    const double largest = std::max({std::fabs(a), std::fabs(b), std::fabs(c)});
    if (largest == 0.0) return E_INVALIDARG;
    const double sa = a / largest, sb = b / largest, sc = c / largest;
    const double scaledLength = std::sqrt(sa * sa + sb * sb + sc * sc);  // 1 .. sqrt(3)
    const double scaledD = d / largest / scaledLength;
    if (!std::isfinite(scaledD)) return E_INVALIDARG;  // a tiny normal with a large d
    m_A = sa / scaledLength;
    m_B = sb / scaledLength;
    m_C = sc / scaledLength;
    m_D = scaledD;
    return S_OK;
  }

  HRESULT Save(IDataStream* stream, int) override {
    if (!stream) return E_POINTER;
    double values[4] = {m_A, m_B, m_C, m_D};
    if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
      for (int i = 0; i < 4; ++i) {
        const HRESULT hr = folder->WriteValue(Key(i), &values[i], FOLDER_DOUBLE);
        if (hr < 0) return hr;
      }
      return S_OK;
    }
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      for (int i = 0; i < 4; ++i) {
        wchar_t text[64];
        std::swprintf(text, 64, L"%.17g", values[i]);
        SmartPtr<CHostString> value;
        value.Attach(CHostString::Create(text));
        const HRESULT hr = xml->WriteValue(Key(i), 0, value.get(), 0);
        if (hr < 0) return hr;
      }
      return S_OK;
    }
    return E_FAIL;
  }

  // All four values must be there and readable, else E_FAIL and the plane stays. A stored
  // unit normal is taken as it is; any other goes through SetCoefficients.
  HRESULT Load(IDataStream* stream, int) override {
    if (!stream) return E_POINTER;
    double values[4] = {0, 0, 0, 0};
    if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
      for (int i = 0; i < 4; ++i)
        if (folder->ReadValue(Key(i), &values[i], FOLDER_DOUBLE) < 0) return E_FAIL;
      return Assign(values);
    }
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      bool found[4] = {false, false, false, false};
      tagREFString tag{0, nullptr};
      while (xml->NextTag(&tag) >= 0) {
        const std::wstring name(tag.m_Text, static_cast<size_t>(tag.m_Length));
        SmartPtr<IUnknown> content;
        if (xml->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0) break;
        for (int i = 0; i < 4; ++i)
          if (name == kNames[i]) found[i] = Number(QueryAs<IString>(content), &values[i]);
      }
      for (bool f : found)
        if (!f) return E_FAIL;
      return Assign(values);
    }
    return E_FAIL;
  }

 private:
  static constexpr const wchar_t* kNames[4] = {L"A", L"B", L"C", L"D"};

  // The key of value i as a new host string, released when the call that gets it ends.
  struct Key {
    explicit Key(int i) { text.Attach(CHostString::Create(kNames[i])); }
    operator IString*() const { return text.get(); }
    SmartPtr<CHostString> text;
  };

  // The whole text must be one finite number, blanks around it allowed.
  static bool Number(IString* text, double* value) {
    const std::wstring s = HostText(text);
    const wchar_t* start = s.c_str();
    wchar_t* end = nullptr;
    errno = 0;
    const double v = std::wcstod(start, &end);
    if (end == start || errno == ERANGE || !std::isfinite(v)) return false;
    while (*end && std::iswspace(static_cast<wint_t>(*end))) ++end;
    if (*end) return false;
    *value = v;
    return true;
  }

  HRESULT Assign(const double* v) {
    const double lengthSquared = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
    const bool finite = std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]) && std::isfinite(v[3]);
    if (finite && std::fabs(lengthSquared - 1.0) <= 64 * 2.220446049250313e-16) {
      m_A = v[0], m_B = v[1], m_C = v[2], m_D = v[3];
      return S_OK;
    }
    return SetCoefficients(v[0], v[1], v[2], v[3]);
  }

  // The plane Z = 0.
  double m_A = 0.0, m_B = 0.0, m_C = 1.0, m_D = 0.0;
};

ZELTRIM_PEER_OBJECT(L"Plane", CPlane);

const tagREFString CPlane::m_ObjectName = {5, L"Plane"};
