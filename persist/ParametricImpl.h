// Named parameters of the module's classes: readers of one named value from a parameter
// collection, the IParametricObject route, and Save/Load by way of the parameter
// collection for classes whose whole state is their parameters.
#pragma once

#include "frame/Components.h"
#include "frame/StringRefs.h"

namespace parametric {

// The value of item `name`, unpacked to a variant or a string; false when absent.
bool FindItem(INamedCollection* params, IString* name, SmartPtr<IUnknown>* item);

// Skips white space, control characters and byte-order-mark remnants (239, 254).
CREFString SkipLeadingNoise(CREFString text);

}  // namespace parametric

// Base of every parametric class: IParametricObject plus the readers of named values.
// A missing or unreadable name leaves the value as it was and gives E_FAIL.
template <class T>
class IParametricImpl : public IParametricObject {
 public:
  // Variant: get_Double. Text: "#hex" through the integer parser, else an optional sign,
  // digits, one '.', more digits; no exponent ("1e3" reads as 1).
  static HRESULT PARAMDouble(INamedCollection* params, IString* name, double* value) {
    SmartPtr<IUnknown> item;
    if (!value || !parametric::FindItem(params, name, &item)) return E_FAIL;
    if (SmartPtr<IVariant> variant = QueryAs<IVariant>(item)) {
      *value = variant->get_Double();
      return S_OK;
    }
    SmartPtr<IString> text = QueryAs<IString>(item);
    if (!text) return E_FAIL;
    const CREFString view = parametric::SkipLeadingNoise(ViewOf(text));
    if (view.Length() <= 0) return E_FAIL;
    if (view.Text()[0] == L'#')
      *value = static_cast<double>(_IS2Integer(view, 10));
    else
      *value = _IS2Double(view);
    return S_OK;
  }

  // Variant: get_Integer. Text: optional sign, '#' for base 16, digits as far as they go.
  static HRESULT PARAMInteger(INamedCollection* params, IString* name, int* value) {
    SmartPtr<IUnknown> item;
    if (!value || !parametric::FindItem(params, name, &item)) return E_FAIL;
    if (SmartPtr<IVariant> variant = QueryAs<IVariant>(item)) {
      *value = variant->get_Integer();
      return S_OK;
    }
    SmartPtr<IString> text = QueryAs<IString>(item);
    if (!text) return E_FAIL;
    const CREFString view = parametric::SkipLeadingNoise(ViewOf(text));
    if (view.Length() <= 0) return E_FAIL;
    *value = _IS2Integer(view, 10);
    return S_OK;
  }

  static HRESULT PARAMDouble(INamedCollection* params, const wchar_t* name, double* value) {
    return PARAMDouble(params, NewString(name), value);
  }
  static HRESULT PARAMInteger(INamedCollection* params, const wchar_t* name, int* value) {
    return PARAMInteger(params, NewString(name), value);
  }
};

// A named value read through the item's variant alone (get_Index, get_ItemVariant, then
// get_Double or get_Integer); no text is parsed. `present` when any step fails.
double PARAMDbl(IParameters* params, const wchar_t* name, double present);
int PARAMInt(IParameters* params, const wchar_t* name, int present);

// Appends (name, double) and (name, integer) items to a parameter collection.
HRESULT AddDoubleParameter(IParameters* list, const wchar_t* name, double value, int flags = 0);
HRESULT AddIntegerParameter(IParameters* list, const wchar_t* name, int value, int flags = 0);

// Save and Load of a class whose state is its parameters: the parameter collection is
// written in compact form on an XML or folder stream, and read back into a fresh host
// collection that SetParameters takes over.
template <class T>
class IDataPersistParametricImpl : public IDataPersist {
 public:
  HRESULT Save(IDataStream* stream, int flags) override {
    if (!QueryAs<IXMLStream>(stream) && !QueryAs<IFolderStream>(stream)) return S_OK;
    SmartPtr<INamedCollection> params;
    static_cast<T*>(this)->GetParameters(params.Out(), 0);
    if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(params)) persist->Save(stream, flags | PERSIST_COMPACT);
    return S_OK;
  }

  HRESULT Load(IDataStream* stream, int) override {
    if (!QueryAs<IXMLStream>(stream) && !QueryAs<IFolderStream>(stream)) return E_FAIL;
    SmartPtr<IParametersCreatable> params;
    params.Attach(BASEObject::CreateParameters());
    if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(params)) persist->Load(stream, 0);
    static_cast<T*>(this)->SetParameters(params);
    return S_OK;
  }
};

// Adds one page entry to a page list: a null title means "no title".
HRESULT AddPage(ISuperCollection* pages, const wchar_t* title, const wchar_t* page, IUnknown* third = nullptr,
                int flags = 0);
