// "Registry" (module "System"): settings read from a plain text file.
//
// The file: the environment variable ZELTRIM_REGISTRY names it; without that it is
// "./zeltrim.ini", the file beside _binlinux/ in the working folder. Each new object reads
// the file afresh. UTF-8 text, lines of "[Section]" and "key=value" ('=' first found splits;
// blanks around names and values are dropped), '#' starts a comment line, other lines are
// ignored. Names of sections and keys compare without regard to case; the first of equal
// keys wins. A missing or unreadable file is an empty registry.
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <string>
#include <vector>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"

namespace {

struct Setting {
  std::wstring key;
  std::wstring value;
};

struct Section {
  std::wstring name;
  std::vector<Setting> settings;
};

bool EqualI(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::towlower(static_cast<wint_t>(a[i])) != std::towlower(static_cast<wint_t>(b[i]))) return false;
  return true;
}

std::wstring Trim(const std::wstring& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && std::iswspace(static_cast<wint_t>(text[begin]))) ++begin;
  while (end > begin && std::iswspace(static_cast<wint_t>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

// UTF-8 to wide; a byte that does not start a valid sequence stands for itself.
std::wstring DecodeUTF8(const std::string& bytes) {
  std::wstring out;
  size_t i = 0;
  const size_t n = bytes.size();
  while (i < n) {
    const unsigned char lead = static_cast<unsigned char>(bytes[i]);
    const int extra = (lead >= 0xC2 && lead <= 0xDF) ? 1 : (lead >= 0xE0 && lead <= 0xEF) ? 2
                      : (lead >= 0xF0 && lead <= 0xF4)                        ? 3
                                                                              : 0;
    if (extra == 0 || i + static_cast<size_t>(extra) >= n) {
      out.push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    }
    uint32_t value = lead & (0x3Fu >> extra);
    bool valid = true;
    for (int k = 1; k <= extra; ++k) {
      const unsigned char c = static_cast<unsigned char>(bytes[i + static_cast<size_t>(k)]);
      if ((c & 0xC0) != 0x80) {
        valid = false;
        break;
      }
      value = (value << 6) | (c & 0x3Fu);
    }
    if (!valid) {
      out.push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    }
    out.push_back(static_cast<wchar_t>(value));
    i += static_cast<size_t>(extra) + 1;
  }
  return out;
}


std::string DefaultRegistryFile() {
  const char* named = std::getenv("ZELTRIM_REGISTRY");
  if (named && *named) return named;
  return "./zeltrim.ini";
}

}  // namespace

class CRegistry : public CObject<CRegistry>,
                  public IRegistry,
                  public IRegistryEx,
                  public IObjectInfoImpl<CRegistry> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT FinalConstruct() override {
    m_File = DefaultRegistryFile();
    Read();
    return S_OK;
  }

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CRegistry>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IRegistry, static_cast<IRegistry*>(this), object) ||
        QueryRoute(iid, IID_IRegistryEx, static_cast<IRegistryEx*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // IRegistry

  // Reads another settings file instead (UTF-8 name); E_FAIL when it cannot be read.
  HRESULT Open(IString* file) override {
    const std::wstring name = HostText(file);
    if (name.empty()) return E_INVALIDARG;
    m_File = HostUtf8(name);
    return Read() ? S_OK : E_FAIL;
  }

  // Writes the settings back to the file they came from.
  HRESULT Save() override {
    std::string text;
    for (const Section& section : m_Sections) {
      if (!section.name.empty() || !section.settings.empty()) {
        if (!text.empty()) text += "\n";
        text += "[" + HostUtf8(section.name) + "]\n";
      }
      for (const Setting& setting : section.settings)
        text += HostUtf8(setting.key) + "=" + HostUtf8(setting.value) + "\n";
    }
    FILE* file = std::fopen(m_File.c_str(), "wb");
    if (!file) return E_FAIL;
    const size_t written = std::fwrite(text.data(), 1, text.size(), file);
    const bool closed = std::fclose(file) == 0;
    return written == text.size() && closed ? S_OK : E_FAIL;
  }

  HRESULT GetValue(IString* section, IString* key, IString** value) override {
    if (!value) return E_POINTER;
    *value = nullptr;
    const Setting* found = Find(HostText(section), HostText(key));
    if (!found) return E_FAIL;
    *value = static_cast<ICreatableString*>(CHostString::Create(found->value));
    return S_OK;
  }

  // Replaces or adds a value in memory; Save writes it.
  HRESULT SetValue(IString* section, IString* key, IString* value) override {
    const std::wstring keyText = HostText(key);
    if (keyText.empty()) return E_INVALIDARG;
    const std::wstring sectionText = HostText(section);
    Section* target = FindSection(sectionText);
    if (!target) {
      m_Sections.push_back(Section{sectionText, {}});
      target = &m_Sections.back();
    }
    for (Setting& setting : target->settings)
      if (EqualI(setting.key, keyText)) {
        setting.value = HostText(value);
        return S_OK;
      }
    target->settings.push_back(Setting{keyText, HostText(value)});
    return S_OK;
  }

  HRESULT RemoveValue(IString* section, IString* key) override {
    Section* target = FindSection(HostText(section));
    if (!target) return E_FAIL;
    const std::wstring keyText = HostText(key);
    for (size_t i = 0; i < target->settings.size(); ++i)
      if (EqualI(target->settings[i].key, keyText)) {
        target->settings.erase(target->settings.begin() + static_cast<long>(i));
        return S_OK;
      }
    return E_FAIL;
  }

  HRESULT get_Filename(IString** file) override {
    if (!file) return E_POINTER;
    *file = static_cast<ICreatableString*>(CHostString::Create(DecodeUTF8(m_File)));
    return S_OK;
  }

  HRESULT Reserved_IR3() override { return E_NOTIMPL; }

  // The section as a host "ParametersCreatable" of named strings, in file order.
  // E_FAIL for a section that is not in the file, or when there is no such host object.
  HRESULT GetSection(IString* section, INamedCollection** items) override {
    if (!items) return E_POINTER;
    *items = nullptr;
    const Section* found = FindSection(HostText(section));
    if (!found) return E_FAIL;
    SmartPtr<IParametersCreatable> collection = PeerCreate<IParametersCreatable>(L"ParametersCreatable");
    if (!collection) return E_FAIL;
    for (const Setting& setting : found->settings) {
      SmartPtr<IString> name;
      name.Attach(static_cast<ICreatableString*>(CHostString::Create(setting.key)));
      SmartPtr<IString> value;
      value.Attach(static_cast<ICreatableString*>(CHostString::Create(setting.value)));
      collection->Add(name, value.get(), nullptr, 0);
    }
    *items = collection.Detach();
    return S_OK;
  }

  // IRegistryEx

  HRESULT Reserved_IRX0() override { return E_NOTIMPL; }
  HRESULT Reserved_IRX1() override { return E_NOTIMPL; }

  // Fills at most REGISTRY_VALUE_CHARS characters, terminator included; a longer value is
  // cut. A missing value leaves the buffer alone.
  HRESULT GetValue(const wchar_t* section, const wchar_t* key, wchar_t* buffer) override {
    if (!section || !key || !buffer) return E_POINTER;
    const Setting* found = Find(section, key);
    if (!found) return E_FAIL;
    const size_t n = found->value.size() < static_cast<size_t>(REGISTRY_VALUE_CHARS - 1)
                         ? found->value.size()
                         : static_cast<size_t>(REGISTRY_VALUE_CHARS - 1);
    for (size_t i = 0; i < n; ++i) buffer[i] = found->value[i];
    buffer[n] = L'\0';
    return S_OK;
  }

 private:
  bool Read() {
    m_Sections.clear();
    m_Sections.push_back(Section{});  // settings before any section header
    FILE* file = std::fopen(m_File.c_str(), "rb");
    if (!file) return false;
    std::string bytes;
    char chunk[4096];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
    std::fclose(file);
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) bytes.erase(0, 3);

    const std::wstring text = DecodeUTF8(bytes);
    size_t current = 0;  // index of the section being read
    size_t start = 0;
    while (start <= text.size()) {
      size_t end = text.find(L'\n', start);
      if (end == std::wstring::npos) end = text.size();
      const std::wstring line = Trim(text.substr(start, end - start));
      start = end + 1;
      if (line.empty() || line[0] == L'#') continue;
      if (line[0] == L'[') {
        const size_t close = line.find(L']');
        if (close == std::wstring::npos) continue;
        const std::wstring name = Trim(line.substr(1, close - 1));
        if (!FindSection(name)) m_Sections.push_back(Section{name, {}});
        current = static_cast<size_t>(FindSection(name) - m_Sections.data());
        continue;
      }
      const size_t equals = line.find(L'=');
      if (equals == std::wstring::npos) continue;
      const std::wstring key = Trim(line.substr(0, equals));
      if (key.empty()) continue;
      Section* target = &m_Sections[current];
      bool known = false;
      for (const Setting& setting : target->settings) known = known || EqualI(setting.key, key);
      if (!known) target->settings.push_back(Setting{key, Trim(line.substr(equals + 1))});
    }
    return true;
  }

  Section* FindSection(const std::wstring& name) {
    for (Section& section : m_Sections)
      if (EqualI(section.name, name)) return &section;
    return nullptr;
  }

  const Setting* Find(const std::wstring& section, const std::wstring& key) {
    const Section* found = FindSection(section);
    if (!found) return nullptr;
    for (const Setting& setting : found->settings)
      if (EqualI(setting.key, key)) return &setting;
    return nullptr;
  }

  std::string m_File;
  std::vector<Section> m_Sections;
};

ZELTRIM_PEER_OBJECT(L"Registry", CRegistry);

const tagREFString CRegistry::m_ObjectName = {8, L"Registry"};
