// How the module reaches objects of other modules: the global component collection,
// peers loaded by path, and lazily cached creators of the host objects it uses.
#pragma once

#include "frame/ModuleLoader.h"
#include "frame/Object.h"

// The collection handed over by InitializeModule (or loaded on demand).
extern SmartPtr<IComponentCollection> gGlobalComponentCollection;

// Loads "./_binlinux/<module>.so" (relative to the working folder) and asks it for the
// creator of `object`. Null when the module or the object is missing.
CREATORFUNCTION MODULECreateFunction(tagREFString module, tagREFString object);

// The global component collection with a reference for the caller, or null.
IComponentCollection* GLOBALComponents();

// CreateComponent on the global collection; the result owns one reference.
HRESULT CreateObject(const wchar_t* name, const IID& iid, void** object);

template <class I>
SmartPtr<I> CreateHostObject(const wchar_t* name) {
  SmartPtr<I> result;
  void* p = nullptr;
  if (CreateObject(name, I::Iid(), &p) >= 0 && p) result.Attach(static_cast<I*>(p));
  return result;
}

// The component descriptor of a registered object name, or null.
IComponentString* GetComponentString(IString* name);

// Host objects reached through the global collection, each creator cached on first use.
namespace BASEObject {
IParametersCreatable* CreateParameters();
ICreatableSimpleCollection* CreateSimpleCollection();
IDataStream* CreateDataStream();
IDblVector* CreateDBLBuffer();
}  // namespace BASEObject

namespace GEOObject {
IPoint* CreatePoint();
IPointsCollection* CreatePointsCollection();
IPointVector* CreatePointVector();
IPlane* CreatePlane();
ILineSegment* CreateLine();
}  // namespace GEOObject

namespace UIObject {
IPMText* CreatePMText();
IUIGrid* CreateUIGrid();
}  // namespace UIObject
