// An IDataPersist route of its own for classes whose other bases (the calibration info
// block) also have Save(IDataStream*, int) and Load(IDataStream*, int): the class writes
// PersistSave/PersistLoad, and each interface keeps its own meaning.
#pragma once

#include "frame/Object.h"

template <class T>
class IDataPersistRoute : public IDataPersist {
 public:
  HRESULT Save(IDataStream* stream, int options) override { return static_cast<T*>(this)->PersistSave(stream, options); }
  HRESULT Load(IDataStream* stream, int options) override { return static_cast<T*>(this)->PersistLoad(stream, options); }
};
