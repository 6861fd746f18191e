#include "frame/Components.h"

#include <string>

#include "frame/Conversions.h"

SmartPtr<IComponentCollection> gGlobalComponentCollection;

namespace {

tagREFString Ref(const wchar_t* text) { return RefOf(text); }

}  // namespace

CREATORFUNCTION MODULECreateFunction(tagREFString module, tagREFString object) {
  return ModuleCreator(ModulePath(module), gGlobalComponentCollection.get(), object);
}

IComponentCollection* GLOBALComponents() {
  if (!gGlobalComponentCollection) {
    CREATORFUNCTION creator = MODULECreateFunction(Ref(L"CollectionsEx"), Ref(L"GlobalComponentCollection"));
    if (creator) {
      IID iid = IID_IComponentCollection;
      void* collection = nullptr;
      if (creator(nullptr, &iid, &collection) >= 0 && collection)
        gGlobalComponentCollection.Attach(static_cast<IComponentCollection*>(collection));
    }
  }
  IComponentCollection* components = gGlobalComponentCollection.get();
  if (components) components->AddRef();
  return components;
}

HRESULT CreateObject(const wchar_t* name, const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  IComponentCollection* components = GLOBALComponents();
  if (!components) return E_FAIL;
  const tagREFString ref = Ref(name);
  const HRESULT hr = components->CreateComponent(ref.m_Length, ref.m_Text, &iid, object);
  components->Release();
  return hr;
}

IComponentString* GetComponentString(IString* name) {
  if (!name) return nullptr;
  IComponentCollection* components = GLOBALComponents();
  if (!components) return nullptr;
  IComponentString* result = nullptr;
  int index = -1;
  if (components->get_Index(name, &index) >= 0) {
    IUnknown* component = nullptr;
    if (components->get_Item(index, &component) >= 0 && component) {
      void* p = nullptr;
      if (component->QueryInterface(IID_IComponentString, &p) >= 0) result = static_cast<IComponentString*>(p);
      component->Release();
    }
  }
  components->Release();
  return result;
}

namespace {

// The string, variant and collection creators: the component comes from the global
// collection when there is one, else from a descriptor made directly by "CollectionsEx"
// that points at the "Collections" module, so they work before InitializeModule.
void* CreateThroughComponent(SmartPtr<IComponentString>& cache, const wchar_t* objectName, const IID& iid) {
  if (!cache) {
    const tagREFString name = Ref(objectName);
    if (gGlobalComponentCollection) {
      void* component = nullptr;
      if (gGlobalComponentCollection->CreateComponent(name.m_Length, name.m_Text, nullptr, &component) >= 0 &&
          component)
        cache.Attach(static_cast<IComponentString*>(component));
    }
    if (!cache) {
      CREATORFUNCTION creator = MODULECreateFunction(Ref(L"CollectionsEx"), Ref(L"ComponentString"));
      if (creator) {
        IID componentIid = IID_IComponentString;
        void* component = nullptr;
        if (creator(nullptr, &componentIid, &component) >= 0 && component) {
          IComponentString* descriptor = static_cast<IComponentString*>(component);
          const tagREFString module = Ref(L"Collections");
          descriptor->put_Field(COMPONENT_MODULE, module.m_Length, module.m_Text);
          descriptor->put_Field(COMPONENT_OBJECT, name.m_Length, name.m_Text);
          cache.Attach(descriptor);
        }
      }
    }
  }
  if (!cache) return nullptr;
  void* object = nullptr;
  if (cache->CreateInstance(iid, &object) < 0) return nullptr;
  return object;
}

// The other creators find the component by name in the global collection. A name that
// is unknown caches nothing, so the next call tries again.
void* CreateThroughGlobal(SmartPtr<IComponentString>& cache, const char* objectName, const IID& iid) {
  if (!cache) {
    IString* name = ISCreate(objectName, static_cast<int>(std::char_traits<char>::length(objectName)));
    IComponentString* component = GetComponentString(name);
    if (name) name->Release();
    if (component) cache.Attach(component);
  }
  if (!cache) return nullptr;
  void* object = nullptr;
  if (cache->CreateInstance(iid, &object) < 0) return nullptr;
  return object;
}

}  // namespace

ICreatableString* CREFString::CreateString() {
  static SmartPtr<IComponentString> gStringComponent;
  return static_cast<ICreatableString*>(CreateThroughComponent(gStringComponent, L"CreatableString", IID_ICreatableString));
}

IVariant* CREFString::CreateVariant() {
  static SmartPtr<IComponentString> gVariantComponent;
  return static_cast<IVariant*>(CreateThroughComponent(gVariantComponent, L"Variant", IID_IVariant));
}

ISuperCollection* CREFString::CreateCollection() {
  static SmartPtr<IComponentString> gCollectionComponent;
  return static_cast<ISuperCollection*>(
      CreateThroughComponent(gCollectionComponent, L"SuperCollection", IID_ISuperCollection));
}

#define ZELTRIM_CACHED_CREATOR(Space, Function, Cache, Name, Interface)                   \
  Interface* Space::Function() {                                                          \
    static SmartPtr<IComponentString> Cache;                                              \
    return static_cast<Interface*>(CreateThroughGlobal(Cache, Name, IID_##Interface));    \
  }

ZELTRIM_CACHED_CREATOR(BASEObject, CreateParameters, gParametersCreatable, "ParametersCreatable", IParametersCreatable)
ZELTRIM_CACHED_CREATOR(BASEObject, CreateSimpleCollection, gSimpleCollection, "SimpleCollection", ICreatableSimpleCollection)
ZELTRIM_CACHED_CREATOR(BASEObject, CreateDataStream, gDataStream, "DataStream", IDataStream)
ZELTRIM_CACHED_CREATOR(BASEObject, CreateDBLBuffer, gDblBuffer, "DblBuffer", IDblVector)
ZELTRIM_CACHED_CREATOR(GEOObject, CreatePoint, gPoint, "Point", IPoint)
ZELTRIM_CACHED_CREATOR(GEOObject, CreatePointsCollection, gPointsCollection, "PointsCollection", IPointsCollection)
ZELTRIM_CACHED_CREATOR(GEOObject, CreatePointVector, gPointVector, "PointVector", IPointVector)
ZELTRIM_CACHED_CREATOR(GEOObject, CreatePlane, gPlane, "Plane", IPlane)
ZELTRIM_CACHED_CREATOR(GEOObject, CreateLine, gLineSegment, "LineSegment", ILineSegment)
ZELTRIM_CACHED_CREATOR(UIObject, CreatePMText, gPMText, "PMText", IPMText)
ZELTRIM_CACHED_CREATOR(UIObject, CreateUIGrid, gUIGrid, "UIGrid", IUIGrid)
