#include "persist/FileName.h"

#include <cwctype>
#include <string>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "frame/StringRefs.h"

namespace {

CREFString View(IString* text) { return ViewOf(text); }

bool SameI(wchar_t a, wchar_t b) { return std::towlower(static_cast<wint_t>(a)) == std::towlower(static_cast<wint_t>(b)); }

// `prefix` is not empty, not longer than `text`, and equal to its beginning ignoring case.
bool StartsWithI(const CREFString& text, const CREFString& prefix) {
  if (prefix.m_Length <= 0 || prefix.m_Length > text.m_Length) return false;
  for (int i = 0; i < prefix.m_Length; ++i)
    if (!SameI(text.m_Text[i], prefix.m_Text[i])) return false;
  return true;
}

// "//x" counts as "/x".
void DropDoubleSlash(CREFString& view, int minimumLength) {
  if (view.m_Length >= minimumLength && view.m_Length >= 2 && view.m_Text[0] == L'/' && view.m_Text[1] == L'/') {
    ++view.m_Text;
    --view.m_Length;
  }
}

bool IsSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

// Rewrites every '\' of a string's own text to '/', from index `from` on.
void RepairSeparators(IString* text, int from) {
  CREFString view = View(text);
  wchar_t* p = const_cast<wchar_t*>(view.m_Text);
  for (int i = from; i < view.m_Length; ++i)
    if (p[i] == L'\\') p[i] = L'/';
}

IString* NewString(const std::wstring& text) {
  ICreatableString* s = CREFString::CreateString();
  if (s) s->SetString(static_cast<int>(text.size()), text.c_str());
  return s;
}

IString* Share(IString* text) {
  if (text) text->AddRef();
  return text;
}

SmartPtr<IString> Literal(const wchar_t* text) {
  SmartPtr<IString> s;
  s.Attach(ISCreate(text));
  return s;
}

// The install path through IRegistry (null when absent).
SmartPtr<IString> InstallPath(IRegistry* registry) {
  SmartPtr<IString> section = Literal(L"Workspace");
  SmartPtr<IString> key = Literal(L"InstallPath");
  SmartPtr<IString> path;
  if (registry->GetValue(section, key, path.Out()) < 0) path.Clear();
  return path;
}

}  // namespace

HRESULT FILENAMEGetInstallPath(IString** path) {
  wchar_t buffer[REGISTRY_VALUE_CHARS] = {};
  HRESULT hr = E_FAIL;
  SmartPtr<IRegistryEx> registry = CreateHostObject<IRegistryEx>(L"Registry");
  if (registry) hr = registry->GetValue(L"Workspace", L"InstallPath", buffer);
  buffer[REGISTRY_VALUE_CHARS - 1] = L'\0';
  if (path) *path = ISCreate(buffer);
  return hr;
}

HRESULT FILENAMEMap(IString* file, IString** mapped, short plain) {
  SmartPtr<IRegistry> registry = CreateHostObject<IRegistry>(L"Registry");
  if (!registry) return E_NOREGISTRY;
  if (!mapped) return E_POINTER;
  SmartPtr<IString> pathString = InstallPath(registry);

  CREFString name = View(file);
  CREFString path = View(pathString);
  DropDoubleSlash(name, 3);
  DropDoubleSlash(path, 2);

  if (StartsWithI(name, path)) {
    const std::wstring rest(name.m_Text + path.m_Length, static_cast<size_t>(name.m_Length - path.m_Length));
    std::wstring text;
    if (!plain) {
      text = L"[InstallPath]" + rest;
    } else {
      text = rest;
      if (!text.empty() && IsSeparator(text[0])) text.erase(0, 1);
      if (text.empty()) text = L"[InstallPath]";
    }
    *mapped = NewString(text);
    return S_OK;
  }

  SmartPtr<IString> sectionName = Literal(L"Mappings");
  SmartPtr<INamedCollection> items;
  HRESULT hr = registry->GetSection(sectionName, items.Out());
  if (hr < 0) return hr;
  if (!items) return E_FAIL;
  int count = 0;
  if (items->get_Count(&count) < 0 || count <= 0) return E_FAIL;

  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    if (items->get_Item(i, item.Out()) < 0 || !item) continue;
    SmartPtr<IString> folder = QueryAs<IString>(item);
    CREFString folderView = View(folder);
    if (!StartsWithI(name, folderView)) continue;
    SmartPtr<IString> itemName;
    items->get_ItemName(i, itemName.Out());
    CREFString key = View(itemName);
    std::wstring text = L"[";
    text.append(key.m_Text ? key.m_Text : L"", static_cast<size_t>(key.m_Length));
    text += L"]";
    text.append(name.m_Text + folderView.m_Length, static_cast<size_t>(name.m_Length - folderView.m_Length));
    *mapped = NewString(text);
    return S_OK;
  }
  return E_FAIL;
}

HRESULT FILENAMEUnmap(IString* mapped, IString** file) {
  CREFString text = View(mapped);
  if (text.m_Length <= 0 || text.m_Text[0] != L'[') return E_FAIL;
  SmartPtr<IRegistry> registry = CreateHostObject<IRegistry>(L"Registry");
  if (!registry) return E_NOREGISTRY;
  if (!file) return E_POINTER;

  int close = -1;
  for (int i = 1; i < text.m_Length; ++i)
    if (text.m_Text[i] == L']') {
      close = i;
      break;
    }
  if (close < 0) return E_FAIL;

  const std::wstring key(text.m_Text + 1, static_cast<size_t>(close - 1));
  SmartPtr<IString> value;
  const CREFString keyView(key.c_str(), static_cast<int>(key.size()));
  if (key.size() == 11 && StartsWithI(keyView, CREFString(L"InstallPath", 11))) {
    value = InstallPath(registry);
  } else {
    SmartPtr<IString> section = Literal(L"Mappings");
    SmartPtr<IString> keyString;
    keyString.Attach(NewString(key));
    if (registry->GetValue(section, keyString, value.Out()) < 0) value.Clear();
  }
  if (!value) return E_FAIL;

  CREFString valueView = View(value);
  std::wstring result(valueView.m_Text ? valueView.m_Text : L"", static_cast<size_t>(valueView.m_Length));
  result.append(text.m_Text + close + 1, static_cast<size_t>(text.m_Length - close - 1));
  for (wchar_t& c : result)
    if (c == L'\\') c = L'/';
  *file = NewString(result);
  return S_OK;
}

HRESULT FILENAMECreateRelative(IString* base, IString* file, IString** relative) {
  if (!relative) return E_POINTER;
  const CREFString baseView = View(base);
  const CREFString fileView = View(file);
  const int shorter = baseView.m_Length < fileView.m_Length ? baseView.m_Length : fileView.m_Length;
  if (shorter == 0) {
    *relative = Share(file);
    return 0;
  }

  int d = -1;  // last index at which the two agree
  while (d + 1 < shorter && SameI(baseView.m_Text[d + 1], fileView.m_Text[d + 1])) ++d;
  if (d < 1) {
    *relative = Share(file);
    return S_FALSE;
  }

  int separators = 0;
  int k = -1;
  for (int i = 1; i <= d; ++i)
    if (IsSeparator(fileView.m_Text[i])) {
      ++separators;
      k = i;
    }
  if (separators < 2) {
    *relative = Share(file);
    return S_FALSE;
  }

  int levels = 0;
  for (int i = k + 1; i < baseView.m_Length; ++i)
    if (IsSeparator(baseView.m_Text[i])) ++levels;
  if (k < baseView.m_Length - 1) ++levels;

  std::wstring text;
  for (int i = 0; i < levels; ++i) text += L"..\\";
  text.append(fileView.m_Text + k + 1, static_cast<size_t>(fileView.m_Length - k - 1));
  *relative = NewString(text);
  return S_OK;
}

HRESULT FILENAMECreateAbsolute(IString* base, IString* relative, IString** absolute) {
  if (!absolute) return E_POINTER;
  const CREFString rel = View(relative);
  if (rel.m_Length <= 0) {
    *absolute = Share(relative);
    return S_OK;
  }
  for (int i = 0; i < rel.m_Length; ++i)
    if (rel.m_Text[i] == L':') {
      RepairSeparators(relative, 0);
      *absolute = Share(relative);
      return S_OK;
    }
  if (rel.m_Text[0] == L'/') {
    RepairSeparators(relative, 1);
    *absolute = Share(relative);
    return S_OK;
  }

  int count = 0;
  while ((count + 1) * 3 <= rel.m_Length && rel.m_Text[count * 3] == L'.' && rel.m_Text[count * 3 + 1] == L'.' &&
         rel.m_Text[count * 3 + 2] == L'\\')
    ++count;
  if (count == 0 && rel.m_Length < 3) {
    RepairSeparators(relative, 0);
    *absolute = Share(relative);
    return S_OK;
  }

  CREFString baseView = View(base);
  if (count >= 1) {
    int seen = 0;
    for (int i = baseView.m_Length - 1; i >= 1; --i) {
      if (baseView.m_Text[i] != L'/') continue;
      if (++seen == count) {
        if (i > 2) baseView.m_Length = i;
        break;
      }
    }
  }

  RepairSeparators(relative, count * 3);
  std::wstring text(baseView.m_Text ? baseView.m_Text : L"", static_cast<size_t>(baseView.m_Length));
  text += L"/";
  text.append(rel.m_Text + count * 3, static_cast<size_t>(rel.m_Length - count * 3));
  *absolute = NewString(text);
  return S_OK;
}
