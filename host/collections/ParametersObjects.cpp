// The host's parameter collections: "ParametersCreatable" and "SuperCollection", both the
// module's own IParametersImpl. Neither has a real lock: they are used by one thread.
#include "host/common/PeerModule.h"
#include "persist/ParametersImpl.h"

namespace {

// Routes shared by both classes: every interface of the family is a prefix of the
// next, so they all hand out the same pointer.
template <class Family>
bool QueryFamily(const IID& iid, Family* self, void** object) {
  return QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(self), object) ||
         QueryRoute(iid, IID_INamedCollection, static_cast<INamedCollection*>(self), object) ||
         QueryRoute(iid, IID_IParameters, static_cast<IParameters*>(self), object) ||
         QueryRoute(iid, IID_IParametersCreatable, static_cast<IParametersCreatable*>(self), object);
}

}  // namespace

// A parameter collection that saves and loads itself. Unlike the module's collections,
// loading without the replace bit also adds the items the collection lacks, so that
// named parameters loaded into a new, empty collection all arrive.
// One class under two object names (Kind picks the name): "ParametersCreatable" and
// "GeometryCollection", the named collection of geometry objects (camera locations,
// image points) that the module fills and hands out.
template <int Kind>
class CHostParametersOf : public CObject<CHostParametersOf<Kind>>,
                          public IParametersImpl<CHostParametersOf<Kind>, IParametersCreatable>,
                          public IDataPersist,
                          public IObjectInfoImpl<CHostParametersOf<Kind>> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    IParametersCreatable* family = static_cast<IParametersCreatable*>(this);
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CHostParametersOf>*>(this)), object) ||
        QueryFamily(iid, family, object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // A folder stream gets the folder form, an XML stream the XML form.
  HRESULT Save(IDataStream* stream, int options) override {
    if (QueryAs<IFolderStream>(stream)) return this->Params_SaveFolderStream(stream, options);
    if (QueryAs<IXMLStream>(stream)) return this->Params_SaveXML(stream, options);
    return E_FAIL;
  }

  HRESULT Load(IDataStream* stream, int options) override {
    if (QueryAs<IFolderStream>(stream)) {
      if (options & PERSIST_REPLACE) return this->Params_LoadFolderStream(stream, options);
      return LoadFolderAddingMissing(stream);
    }
    if (QueryAs<IXMLStream>(stream)) return this->LoadXMLElements(stream, options, true);
    return E_FAIL;
  }

 private:
  // Every key of the stream: a held name is updated, an unknown one added.
  HRESULT LoadFolderAddingMissing(IDataStream* stream) {
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(stream);
    if (!folder || !keys) return S_OK;
    int count = 0;
    keys->get_Count(&count);
    for (int k = 0; k < count; ++k) {
      SmartPtr<IString> name;
      SmartPtr<IUnknown> entry;
      if (keys->get_ItemName(k, name.Out()) < 0 || !name) continue;
      keys->get_Item(k, entry.Out());
      int index = -1;
      if (this->get_Index(name, &index) < 0 || !this->ValidIndex(index)) index = -1;
      this->LoadFolderEntry(folder, name, entry, index);
    }
    return S_OK;
  }
};

typedef CHostParametersOf<0> CHostParameters;
typedef CHostParametersOf<1> CGeometryCollection;
template <>
const tagREFString CHostParameters::m_ObjectName = {19, L"ParametersCreatable"};
template <>
const tagREFString CGeometryCollection::m_ObjectName = {18, L"GeometryCollection"};

// Collections of collections (page lists and the like).
class CHostSuperCollection : public CObject<CHostSuperCollection>,
                             public IParametersImpl<CHostSuperCollection, ISuperCollection>,
                             public IObjectInfoImpl<CHostSuperCollection> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    ISuperCollection* family = static_cast<ISuperCollection*>(this);
    if (QueryRoute(iid, IID_IUnknown,
                   static_cast<IUnknown*>(static_cast<CObject<CHostSuperCollection>*>(this)), object) ||
        QueryFamily(iid, family, object) ||
        QueryRoute(iid, IID_ISuperCollection, family, object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
};

const tagREFString CHostSuperCollection::m_ObjectName = {15, L"SuperCollection"};

ZELTRIM_PEER_OBJECT(L"ParametersCreatable", CHostParameters);
ZELTRIM_PEER_OBJECT(L"GeometryCollection", CGeometryCollection);
ZELTRIM_PEER_OBJECT(L"SuperCollection", CHostSuperCollection);
