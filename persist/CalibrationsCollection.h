// "CalibrationsCollection": the calibrations a host keeps for one camera or station, by
// name, plus three slots for the ones in current use (lens correction, alignment,
// location).
//
// Members are parameters (IParametersImpl) with one twist: a member that carries
// calibration info (directly, or as the object a variant holds) is named by its CALIBName.
// Adding names the calibration, a replacement takes over its place's name, reading a name
// asks the calibration, and Rename of such a member only renames the calibration: the
// entry's own name field goes stale until Sort refreshes it.
//
// Pitfalls, all by contract:
//  - The slots hold references of their own: removing, renaming or replacing members
//    leaves them alone, nothing checks that they are members, and Save/Load skip them.
//  - Sort always sorts ascending, whatever the argument.
//  - The stream forms carry one extra key, "Filename" (relative to the install path); a
//    load replaces all members and never keeps a member of that name.
//  - The XML form carries only the members that are persistent objects.
//  - Rename of a calibration member calls put_CALIBName without the collection lock, and
//    the slots are not locked at all.
#pragma once

#include "frame/Object.h"
#include "persist/FileArchiveImpl.h"
#include "persist/ParametersImpl.h"

class CCalibrationsCollection : public CObject<CCalibrationsCollection>,
                                public IObjectInfoImpl<CCalibrationsCollection>,
                                public IParametersImpl<CCalibrationsCollection, ICalibrationsCollection>,
                                public IDataPersist,
                                public IFileArchiveImpl<CCalibrationsCollection, IFileArchive>,
                                public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationsCollection() = default;
  ~CCalibrationsCollection();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // The one mutex, behind CollectionLock/CollectionUnlock.
  void Lock() override { m_ResourceLock.Lock(); }
  void Unlock() override { m_ResourceLock.Unlock(); }

  // The slots, in this order right behind CObject's operations (CalibrationsCollectionSlots
  // in frame/ModuleInterfaces.h is how a host reaches them). get_: E_INVALIDARG for a
  // null place, E_FAIL for an empty slot. put_: stores with a reference; null empties.
  virtual HRESULT get_Location(ICalibration** out);
  virtual HRESULT put_Location(ICalibration* calibration);
  virtual HRESULT get_ActiveLens(ICalibration** out);
  virtual HRESULT put_ActiveLens(ICalibration* calibration);
  virtual HRESULT get_ActiveAlignment(ICalibration** out);
  virtual HRESULT put_ActiveAlignment(ICalibration* calibration);

  // "Calibratons" (so spelled) on the named collection page, then the file page.
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;

  // Folder stream: "Filename" by WriteString, then the members. XML stream: "Filename" by
  // WriteValue, then the persistent members. Anything else, null too: E_FAIL.
  using IFileArchiveImpl<CCalibrationsCollection, IFileArchive>::Save;
  using IFileArchiveImpl<CCalibrationsCollection, IFileArchive>::Load;
  HRESULT Save(IDataStream* stream, int flags) override;
  // Replaces the members with the stream's; a "Filename" key sets the archive's name
  // (absolute again) and never stays as a member.
  HRESULT Load(IDataStream* stream, int flags) override;

  // The twist on the template's operations.
  HRESULT get_ItemNameNOLOCK(int index, IString** name) override;
  HRESULT Rename(int index, IString* name) override;
  HRESULT AddNOLOCK(IString* name, IUnknown* item, IUnknown* descriptor, int flags) override;
  HRESULT Sort(int) override;
  HRESULT put_ItemNOLOCK(int index, IUnknown* item) override;

 private:
  typedef IParametersImpl<CCalibrationsCollection, ICalibrationsCollection> Parameters;

  // The archive's file name, stored without touching its modified/current state.
  void StoreFilename(IString* relative);
  void RemoveFilenameMember();

  CResourceLock m_ResourceLock;
  ICalibration* m_ActiveAlignment = nullptr;
  ICalibration* m_Location = nullptr;
  ICalibration* m_ActiveLens = nullptr;
};
