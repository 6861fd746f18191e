// The "EventLogGlobal" that a host using ModuleHost offers the module: each line the
// module logs is kept for the caller that asked for them (zeltrim calibrate builds its
// view table from them) or, when nobody asked, printed to standard error as
// "log: SOURCE: TEXT".
#pragma once

#include <string>
#include <vector>

#include "frame/Object.h"

class EventLog : public IUILineDisplayable {
 public:
  HRESULT QueryInterface(const IID& iid, void** object) override;
  // The log lives as long as the host that registers it; counts only keep the contract.
  int AddRef() override { return ++m_Refs; }
  int Release() override { return --m_Refs; }
  HRESULT AddLine(IString* source, IString* text, int flags) override;

  // From now on lines are kept instead of printed.
  void Keep() { m_Keeping = true; }
  // The lines kept so far, which are handed over.
  std::vector<std::wstring> Take();

 private:
  int m_Refs = 1;
  bool m_Keeping = false;
  std::vector<std::wstring> m_Lines;
};
