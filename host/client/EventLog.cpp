#include "host/client/EventLog.h"

#include <cstdio>

namespace {

std::wstring TextOf(IString* text) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!text || text->GetString(&p, &n) < 0 || !p || n <= 0) return std::wstring();
  return std::wstring(p, static_cast<size_t>(n));
}

}  // namespace

HRESULT EventLog::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid != IID_IUnknown && iid != IID_IUILineDisplayable) return E_NOINTERFACE;
  *object = static_cast<IUILineDisplayable*>(this);
  AddRef();
  return S_OK;
}

HRESULT EventLog::AddLine(IString* source, IString* text, int) {
  const std::wstring line = TextOf(text);
  if (m_Keeping)
    m_Lines.push_back(line);
  else
    std::fprintf(stderr, "log: %ls: %ls\n", TextOf(source).c_str(), line.c_str());
  return S_OK;
}

std::vector<std::wstring> EventLog::Take() {
  std::vector<std::wstring> lines;
  lines.swap(m_Lines);
  return lines;
}
