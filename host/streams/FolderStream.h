// "FolderStream": a tree of named entries with typed values, held in memory, saved to
// and loaded from a binary file through IFileArchive. The stream object is in
// FolderStream.cpp, its IFileArchive side in FolderArchive.cpp, and the file format
// (host/README.md, section "Folder stream file format") in FolderCodec.cpp.
//
// Names and keys: a key handed in as IString* may also be a variant; one holding an
// integer addresses the entry of that index. WriteObject with a null name names the
// entry "Item<n>" (the first unused n from 1). Writing an existing name replaces that
// entry in place. INamedCollection lists the entries: get_Item gives a sub-stream as the
// IFolderStream object, a string or number as a string object, raw data as a DataStream.
// QueryInterface(IString) gives a readable listing of the tree, one entry a line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/Object.h"
#include "host/streams/FolderCodec.h"

class CFolderStream : public CObject<CFolderStream>,
                      public IFolderStream,
                      public IFileArchive,
                      public INamedCollection,
                      public IString,
                      public IObjectInfo {
 public:
  // An entry of the tree. The entries below a sub-stream or an object live in the child
  // stream object `folder`, which callers hold and write into; `children` stays empty.
  struct Entry : folder_codec::Entry {
    SmartPtr<CFolderStream> folder;  // TYPE_FOLDER and TYPE_OBJECT
  };

  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // IDataStream: Open(null, n, 1) empties the tree; Open(image, size, 0) parses a file
  // image; GetBuffer gives the file image of the tree, which Read and Seek walk.
  HRESULT Open(void* buffer, unsigned long size, int writable) override;
  HRESULT Read(void* data, int bytes, int* read) override;
  HRESULT Seek(long bytes, int origin, int) override;
  HRESULT GetBuffer(void** data, unsigned long* size) override;
  HRESULT GetPosition(unsigned long* position) override;
  HRESULT Write(const void*, int, int) override { return E_NOTIMPL; }

  // IFolderStream
  HRESULT CreateSubStream(IString* name, int, IDataStream** out) override;
  HRESULT RemoveEntry(IString* name) override;
  HRESULT WriteData(IString* name, const void* data, int size, int) override;
  HRESULT WriteString(IString* name, IString* value) override;
  HRESULT WriteObject(IString* name, IUnknown* object, int options) override;
  HRESULT WriteValue(IString* name, void* value, int type) override;
  HRESULT GetEntryInfo(IString* name, int* type, int* size) override;
  HRESULT ReadData(IString* name, void* data, int size, int) override;
  HRESULT ReadString(IString* name, IString* out) override;
  HRESULT OpenSubStream(IString* name, int, IDataStream** out) override;
  HRESULT ReadObject(IString* name, void** out, int options) override;
  HRESULT ReadValue(IString* name, void* value, int type) override;

  // IFileArchive (FolderArchive.cpp)
  HRESULT get_Filename(IString** name) override;
  HRESULT put_Filename(IString* name) override;
  HRESULT get_Filter(IString** filter, short) override;
  HRESULT get_Name(IString** name) override;
  HRESULT Load() override;
  HRESULT Save() override;
  HRESULT Control(int code, int value) override;
  HRESULT Inquire(int code, int* value) override;
  HRESULT Unload() override;
  HRESULT SaveFolderStream() override { return E_NOTIMPL; }
  HRESULT LoadFolderStream() override { return E_NOTIMPL; }

  // INamedCollection
  HRESULT get_Count(int* count) override;
  HRESULT get_Item(int index, IUnknown** item) override;
  HRESULT get_Index(IUnknown* key, int* index) override;
  HRESULT get_ItemName(int index, IString** name) override;
  HRESULT Rename(int index, IString* name) override;
  HRESULT CollectionLock() override;
  HRESULT CollectionUnlock() override;
  int IsCollectionLocked() override { return m_LockCount > 0; }

  // IString
  HRESULT GetString(const wchar_t** text, int* length) override;

  // IObjectInfo
  HRESULT GetName(int, tagREFString* name) override;

  // The file image of the tree (header, payload, checksum); false beyond the limits.
  bool SaveImage(std::vector<uint8_t>* image) const;
  // Replaces the tree with the one of a file image; on failure the tree is unchanged.
  bool LoadImage(const uint8_t* image, size_t size);

  const std::vector<Entry>& Entries() const { return m_Entries; }

 private:
  int Find(IUnknown* key) const;
  Entry* Place(IUnknown* key, HRESULT* hr);
  CFolderStream* NewChild() const;
  void Dump(std::wstring* out, int indent) const;
  // The tree as codec entries, sub-streams copied in; false on a sub-stream entry
  // without its stream.
  static bool Export(const std::vector<Entry>& entries, std::vector<folder_codec::Entry>* out);
  // Entries from decoded ones, each sub-tree moved into a new child stream one level
  // below `depth`.
  static bool Adopt(std::vector<folder_codec::Entry>* decoded, int depth, std::vector<Entry>* out);

  std::vector<Entry> m_Entries;
  int m_Depth = 0;  // nesting of this stream below the root
  std::wstring m_Filename;
  int m_Controls[5] = {0, 0, 0, 0, -1};
  int m_LockCount = 0;
  std::vector<uint8_t> m_Image;
  size_t m_ImagePosition = 0;
  std::wstring m_Listing;
};
