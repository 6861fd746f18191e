// The host's variant object ("Variant"): empty, an integer, a double, a string or an
// object. Any peer may make one directly through the Create helpers.
#pragma once

#include "frame/Object.h"

class CHostVariant : public CObject<CHostVariant>, public IVariant, public IObjectInfoImpl<CHostVariant> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  ~CHostVariant();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // VARIANT_INTEGER or VARIANT_DOUBLE for numbers; VARIANT_OBJECT for everything else
  // (empty, string, object).
  short get_Type() override;
  // A string, or an object that answers IString, is read as a number (leading blanks
  // allowed); any other object, or empty, gives 0.
  double get_Double() override;
  // A double is truncated toward zero and clamped to the int range.
  int get_Integer() override;
  HRESULT put_Integer(int value) override;
  HRESULT put_Double(double value) override;
  short IsObject() override;
  // The object held (a string counts), with a reference; E_FAIL when there is none.
  HRESULT get_Object(IUnknown** object) override;
  // Holds `object` with a counted reference; null empties the variant.
  HRESULT put_Object(IUnknown* object) override;
  short IsString() override;
  HRESULT get_String(IString** text) override;
  // Takes a copy of the text, so later changes to `text` do not show through.
  HRESULT put_String(IString* text) override;

  // New variants with one reference.
  static CHostVariant* CreateInteger(int value);
  static CHostVariant* CreateDouble(double value);
  static CHostVariant* CreateString(const wchar_t* text, int length = -1);

 private:
  enum Kind { KIND_EMPTY, KIND_INTEGER, KIND_DOUBLE, KIND_STRING, KIND_OBJECT };
  void Clear();

  Kind m_Kind = KIND_EMPTY;
  int m_Integer = 0;
  double m_Double = 0.0;
  // The string (KIND_STRING, an ICreatableString of this host) or object held.
  IUnknown* m_Object = nullptr;
};
