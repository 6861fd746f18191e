#include "host/geometry/Curve.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <new>
#include <string>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"

namespace curve {

namespace {

SmartPtr<IString> Name(const wchar_t* text) {
  SmartPtr<IString> s;
  s.Attach(CHostString::Create(text));
  return s;
}

// One finite number at *p, blanks before it allowed; *p moves past it.
bool NextNumber(const wchar_t** p, double* value) {
  wchar_t* end = nullptr;
  errno = 0;
  const double v = std::wcstod(*p, &end);
  if (end == *p || errno == ERANGE || !std::isfinite(v)) return false;
  *value = v;
  *p = end;
  return true;
}

bool OnlyBlanks(const wchar_t* p) {
  while (*p && std::iswspace(static_cast<wint_t>(*p))) ++p;
  return *p == 0;
}

// "x y", blanks around and between allowed, nothing else.
bool ParseSample(IString* text, Sample* s) {
  const std::wstring t = HostText(text);
  const wchar_t* p = t.c_str();
  return NextNumber(&p, &s->x) && NextNumber(&p, &s->y) && OnlyBlanks(p);
}

bool ParseOrder(IString* text, int* order) {
  const std::wstring t = HostText(text);
  const wchar_t* start = t.c_str();
  wchar_t* end = nullptr;
  errno = 0;
  const long v = std::wcstol(start, &end, 10);
  if (end == start || errno == ERANGE || v < INT_MIN || v > INT_MAX || !OnlyBlanks(end)) return false;
  *order = static_cast<int>(v);
  return true;
}

bool Finite(const std::vector<Sample>& samples) {
  for (const Sample& s : samples)
    if (!std::isfinite(s.x) || !std::isfinite(s.y)) return false;
  return true;
}

}  // namespace

void Prepare(std::vector<Sample>* samples) {
  std::stable_sort(samples->begin(), samples->end(), [](const Sample& a, const Sample& b) { return a.x < b.x; });
  size_t kept = 0;
  for (size_t i = 0; i < samples->size();) {
    size_t j = i + 1;
    double sum = (*samples)[i].y;
    while (j < samples->size() && (*samples)[j].x == (*samples)[i].x) sum += (*samples)[j++].y;
    // A single sample keeps its y exactly; a merged one gets the mean.
    const double y = j - i == 1 ? (*samples)[i].y : sum / static_cast<double>(j - i);
    (*samples)[kept++] = {(*samples)[i].x, y};
    i = j;
  }
  samples->resize(kept);
}

HRESULT ReadSamples(IPointsCollection* points, std::vector<Sample>* out) {
  if (!points) return E_POINTER;
  int count = 0;
  HRESULT hr = points->get_Count(&count);
  if (FAILED(hr)) return hr;
  if (count < 0) return E_FAIL;
  if (static_cast<size_t>(count) > kMaxSamples) return E_INVALIDARG;
  std::vector<Sample> samples;
  try {
    samples.reserve(static_cast<size_t>(count));
  } catch (const std::bad_alloc&) {
    return E_FAIL;
  }
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    hr = points->get_Item(i, item.Out());
    if (FAILED(hr)) return hr;
    SmartPtr<IPoint> point = QueryAs<IPoint>(item);
    if (!point) return E_INVALIDARG;
    double x = 0, y = 0, z = 0;
    hr = point->GetXYZ(&x, &y, &z);
    if (FAILED(hr)) return hr;
    if (!std::isfinite(x) || !std::isfinite(y)) return E_INVALIDARG;
    samples.push_back({x, y});
  }
  Prepare(&samples);
  out->swap(samples);
  return S_OK;
}

HRESULT SaveSamples(IDataStream* stream, const std::vector<Sample>& samples, const int* order) {
  if (!stream) return E_POINTER;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    if (order) {
      int value = *order;
      const HRESULT hr = folder->WriteValue(Name(L"Order"), &value, FOLDER_INT32);
      if (hr < 0) return hr;
    }
    std::vector<double> block;
    try {
      block.reserve(2 * samples.size());
    } catch (const std::bad_alloc&) {
      return E_FAIL;
    }
    for (const Sample& s : samples) block.push_back(s.x), block.push_back(s.y);
    const HRESULT hr = folder->WriteData(Name(L"Samples"), block.data(), static_cast<int>(block.size() * 8), 0);
    return hr < 0 ? hr : S_OK;
  }
  if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
    if (order) {
      wchar_t text[32];
      std::swprintf(text, 32, L"%d", *order);
      const HRESULT hr = xml->WriteValue(Name(L"Order"), 0, Name(text), 0);
      if (hr < 0) return hr;
    }
    for (const Sample& s : samples) {
      wchar_t text[80];
      std::swprintf(text, 80, L"%.17g %.17g", s.x, s.y);
      const HRESULT hr = xml->WriteValue(Name(L"Sample"), 0, Name(text), 0);
      if (hr < 0) return hr;
    }
    return S_OK;
  }
  return E_FAIL;
}

HRESULT LoadSamples(IDataStream* stream, std::vector<Sample>* samples, int* order) {
  if (!stream) return E_POINTER;
  std::vector<Sample> read;
  int readOrder = order ? *order : 0;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    // A missing order keeps the caller's; one of another type is refused.
    if (order && folder->GetEntryInfo(Name(L"Order"), nullptr, nullptr) >= 0 &&
        folder->ReadValue(Name(L"Order"), &readOrder, FOLDER_INT32) < 0)
      return E_FAIL;
    int type = 0, size = -1;
    SmartPtr<IString> key = Name(L"Samples");
    if (folder->GetEntryInfo(key, &type, &size) < 0 || size <= 0 || size % 16 != 0 ||
        static_cast<size_t>(size) / 16 > kMaxSamples)
      return E_FAIL;
    try {
      read.resize(static_cast<size_t>(size) / 16);
    } catch (const std::bad_alloc&) {
      return E_FAIL;
    }
    std::vector<double> block(2 * read.size());
    if (folder->ReadData(key, block.data(), size, 0) < 0) return E_FAIL;
    for (size_t i = 0; i < read.size(); ++i) read[i] = {block[2 * i], block[2 * i + 1]};
  } else if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
    tagREFString tag{0, nullptr};
    while (xml->NextTag(&tag) >= 0) {
      const std::wstring name(tag.m_Text, static_cast<size_t>(std::max(tag.m_Length, 0)));
      SmartPtr<IUnknown> content;
      if (xml->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0) return E_FAIL;
      SmartPtr<IString> text = QueryAs<IString>(content);
      if (name == L"Sample") {
        Sample s{0, 0};
        if (!text || !ParseSample(text, &s) || read.size() >= kMaxSamples) return E_FAIL;
        read.push_back(s);
      } else if (name == L"Order" && order) {
        if (!text || !ParseOrder(text, &readOrder)) return E_FAIL;
      }
    }
  } else {
    return E_FAIL;
  }
  if (read.empty() || !Finite(read)) return E_FAIL;
  Prepare(&read);
  samples->swap(read);
  if (order) *order = readOrder;
  return S_OK;
}

}  // namespace curve
