#include "persist/ParametricImpl.h"

#include <cwctype>

namespace parametric {

bool FindItem(INamedCollection* params, IString* name, SmartPtr<IUnknown>* item) {
  if (!params || !name) return false;
  int index = -1;
  if (params->get_Index(name, &index) < 0) return false;
  if (params->get_Item(index, item->Out()) < 0 || !*item) return false;
  return true;
}

CREFString SkipLeadingNoise(CREFString text) {
  const wchar_t* p = text.Text();
  int n = text.Length();
  while (n > 0 && p && (std::iswspace(*p) || std::iswcntrl(*p) || *p == 239 || *p == 254)) {
    ++p;
    --n;
  }
  return CREFString(p, n);
}

}  // namespace parametric

namespace {

HRESULT AddValue(IParameters* list, const wchar_t* name, IVariant* value, int flags) {
  if (!list || !value) return E_FAIL;
  return list->Add(NewString(name), value, nullptr, flags);
}

}  // namespace

HRESULT AddDoubleParameter(IParameters* list, const wchar_t* name, double value, int flags) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  if (variant) variant->put_Double(value);
  return AddValue(list, name, variant, flags);
}

HRESULT AddIntegerParameter(IParameters* list, const wchar_t* name, int value, int flags) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  if (variant) variant->put_Integer(value);
  return AddValue(list, name, variant, flags);
}

namespace {

SmartPtr<IVariant> NamedVariant(IParameters* params, const wchar_t* name) {
  SmartPtr<IVariant> variant;
  int index = -1;
  if (!params || params->get_Index(NewString(name), &index) < 0) return variant;
  if (params->get_ItemVariant(index, variant.Out()) < 0) variant.Clear();
  return variant;
}

}  // namespace

double PARAMDbl(IParameters* params, const wchar_t* name, double present) {
  SmartPtr<IVariant> variant = NamedVariant(params, name);
  return variant ? variant->get_Double() : present;
}

int PARAMInt(IParameters* params, const wchar_t* name, int present) {
  SmartPtr<IVariant> variant = NamedVariant(params, name);
  return variant ? variant->get_Integer() : present;
}

HRESULT AddPage(ISuperCollection* pages, const wchar_t* title, const wchar_t* page, IUnknown* third, int flags) {
  if (!pages) return E_FAIL;
  SmartPtr<IString> titleText;
  if (title) titleText = NewString(title);
  return pages->Add(titleText, NewString(page), third, flags);
}
