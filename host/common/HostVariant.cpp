#include "host/common/HostVariant.h"

#include <cmath>
#include <climits>
#include <cwchar>
#include <cwctype>

#include "host/common/HostString.h"

const tagREFString CHostVariant::m_ObjectName = {7, L"Variant"};

namespace {

// Text as a double: leading blanks, an optional sign, digits and a fraction; no match gives 0.
double TextToDouble(const std::wstring& text) {
  if (text.empty()) return 0.0;
  const wchar_t* start = text.c_str();
  wchar_t* end = nullptr;
  const double value = std::wcstod(start, &end);
  return end == start ? 0.0 : value;
}

int Clamp(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace

CHostVariant::~CHostVariant() { Clear(); }

HRESULT CHostVariant::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CHostVariant>*>(this)), object) ||
      QueryRoute(iid, IID_IVariant, static_cast<IVariant*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

void CHostVariant::Clear() {
  IUnknown* old = m_Object;
  m_Object = nullptr;
  m_Kind = KIND_EMPTY;
  m_Integer = 0;
  m_Double = 0.0;
  if (old) old->Release();
}

short CHostVariant::get_Type() {
  if (m_Kind == KIND_INTEGER) return VARIANT_INTEGER;
  if (m_Kind == KIND_DOUBLE) return VARIANT_DOUBLE;
  return VARIANT_OBJECT;
}

double CHostVariant::get_Double() {
  switch (m_Kind) {
    case KIND_INTEGER:
      return m_Integer;
    case KIND_DOUBLE:
      return m_Double;
    case KIND_STRING:
    case KIND_OBJECT: {
      // An object that is a string (a parameter collection wraps text items this way)
      // reads as its text; any other object as 0.
      SmartPtr<IString> text = QueryAs<IString>(m_Object);
      return text ? TextToDouble(HostText(text.get())) : 0.0;
    }
    default:
      return 0.0;
  }
}

int CHostVariant::get_Integer() {
  switch (m_Kind) {
    case KIND_INTEGER:
      return m_Integer;
    case KIND_DOUBLE:
      return Clamp(m_Double);
    case KIND_STRING:
    case KIND_OBJECT:
      return Clamp(get_Double());
    default:
      return 0;
  }
}

HRESULT CHostVariant::put_Integer(int value) {
  Clear();
  m_Kind = KIND_INTEGER;
  m_Integer = value;
  return S_OK;
}

HRESULT CHostVariant::put_Double(double value) {
  Clear();
  m_Kind = KIND_DOUBLE;
  m_Double = value;
  return S_OK;
}

short CHostVariant::IsObject() { return m_Kind == KIND_OBJECT ? 1 : 0; }

HRESULT CHostVariant::get_Object(IUnknown** object) {
  if (!object) return E_POINTER;
  *object = m_Object;
  if (!m_Object) return E_FAIL;
  m_Object->AddRef();
  return S_OK;
}

HRESULT CHostVariant::put_Object(IUnknown* object) {
  if (object) object->AddRef();  // before the old value goes: `object` may be the one held
  Clear();
  if (object) {
    m_Object = object;
    m_Kind = KIND_OBJECT;
  }
  return S_OK;
}

short CHostVariant::IsString() { return m_Kind == KIND_STRING ? 1 : 0; }

HRESULT CHostVariant::get_String(IString** text) {
  if (!text) return E_POINTER;
  *text = nullptr;
  if (m_Kind != KIND_STRING || !m_Object) return E_FAIL;
  void* p = nullptr;
  if (m_Object->QueryInterface(IID_IString, &p) < 0 || !p) return E_FAIL;
  *text = static_cast<IString*>(p);
  return S_OK;
}

HRESULT CHostVariant::put_String(IString* text) {
  if (!text) return E_POINTER;
  CHostString* copy = CHostString::Create(HostText(text));
  Clear();
  m_Object = static_cast<ICreatableString*>(copy);
  m_Kind = KIND_STRING;
  return S_OK;
}

CHostVariant* CHostVariant::CreateInteger(int value) {
  CHostVariant* v = new CHostVariant();
  v->put_Integer(value);
  return v;
}

CHostVariant* CHostVariant::CreateDouble(double value) {
  CHostVariant* v = new CHostVariant();
  v->put_Double(value);
  return v;
}

CHostVariant* CHostVariant::CreateString(const wchar_t* text, int length) {
  CHostVariant* v = new CHostVariant();
  CHostString* s = CHostString::Create(text ? text : L"", text ? length : 0);
  v->m_Object = static_cast<ICreatableString*>(s);
  v->m_Kind = KIND_STRING;
  return v;
}
