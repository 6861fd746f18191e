// "DblBuffer": a growing vector of doubles. Resize only makes room; values arrive by
// put_Value(-1, v), which appends, or replace one already held.
#pragma once

#include <vector>

#include "frame/Object.h"

class CDblBuffer : public CObject<CDblBuffer>, public IDblVector, public IObjectInfoImpl<CDblBuffer> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // The number of values held (not the room made by Resize).
  HRESULT get_Count(int* count) override;
  // Makes room for `size` values; the count stays. Negative sizes are refused.
  HRESULT Resize(int size) override;
  HRESULT get_Item(int index, double* value) override;
  // index -1 appends; 0..count-1 replaces; anything else is E_INVALIDARG.
  HRESULT put_Value(int index, double value) override;

  const std::vector<double>& Values() const { return m_Values; }

 private:
  std::vector<double> m_Values;
};
