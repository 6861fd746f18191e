#include "frame/RefString.h"

#include <cwctype>

#include "frame/Object.h"

namespace {

void SetView(CREFString* view, const wchar_t* text, int length) {
  if (!view) return;
  view->m_Text = text;
  view->m_Length = length;
}

// Length of a view that can be read: a null pointer or a negative length reads as empty.
int Usable(const tagREFString& view) { return (view.m_Text && view.m_Length > 0) ? view.m_Length : 0; }

bool IsLineEnd(wchar_t c) { return c == L'\n' || c == L'\r'; }

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

bool InSet(wchar_t c, const wchar_t* set, int length) {
  for (int i = 0; i < length; ++i)
    if (set[i] == c) return true;
  return false;
}

// Index of the last `ch` in the first `length` characters, or -1.
int FindLast(const wchar_t* text, int length, wchar_t ch) {
  for (int i = length - 1; i >= 0; --i)
    if (text[i] == ch) return i;
  return -1;
}

}  // namespace

CREFString::CREFString(IDataStream* stream) : tagREFString{0, nullptr} {
  if (!stream) return;
  SmartPtr<IString> text = QueryAs<IString>(stream);
  if (!text) return;
  const wchar_t* chars = nullptr;
  int length = 0;
  // The view points into the stream's own string, which lives as long as the stream.
  if (text->GetString(&chars, &length) >= 0 && chars && length > 0) {
    m_Text = chars;
    m_Length = length;
  }
}

CREFString::CREFString(IString* text) : tagREFString{0, nullptr} {
  if (!text) return;
  const wchar_t* chars = nullptr;
  int length = 0;
  if (text->GetString(&chars, &length) >= 0 && chars && length > 0) {
    m_Text = chars;
    m_Length = length;
  }
}

HRESULT CREFString::GetLine(CREFString* line, bool advance, wchar_t separator, bool dropSeparator) {
  const int length = Usable(*this);
  if (length == 0) {
    SetView(line, m_Text, 0);
    return E_FAIL;
  }
  int n = length;
  for (int i = 0; i < length; ++i)
    if (m_Text[i] == separator) {
      n = i + 1;
      break;
    }
  const int kept = (dropSeparator && m_Text[n - 1] == separator) ? n - 1 : n;
  SetView(line, m_Text, kept);
  if (!advance) return length > n ? S_OK : E_FAIL;
  m_Text += n;
  m_Length = length - n;
  return m_Length == 0 ? S_FALSE : S_OK;
}

HRESULT CREFString::GetLineCRLF(CREFString* line, bool dropEnd, bool advance) {
  const int length = Usable(*this);
  if (length == 0) {
    SetView(line, m_Text, 0);
    return E_FAIL;
  }
  int end = length;  // index of the first end character
  int endLength = 0;
  for (int i = 0; i < length; ++i)
    if (IsLineEnd(m_Text[i])) {
      end = i;
      endLength = 1;
      // "\r\n" and "\n\r" are one end; "\n\n" are two.
      if (i + 1 < length && IsLineEnd(m_Text[i + 1]) && m_Text[i + 1] != m_Text[i]) endLength = 2;
      break;
    }
  const int n = end + endLength;
  SetView(line, m_Text, dropEnd ? end : n);
  if (!advance) return length > n ? S_OK : E_FAIL;
  m_Text += n;
  m_Length = length - n;
  return m_Length == 0 ? S_FALSE : S_OK;
}

HRESULT CREFString::GetReverseLine(CREFString* line, wchar_t ch, bool advance, bool skip) {
  const int length = Usable(*this);
  const int i = length ? FindLast(m_Text, length, ch) : -1;
  if (i < 0) {
    SetView(line, m_Text, 0);
    return E_FAIL;
  }
  SetView(line, m_Text, i);
  if (i == 0) return E_FAIL;
  if (advance) {
    const int step = skip ? i + 1 : i;
    m_Text += step;
    m_Length = length - step;
  }
  return S_OK;
}

HRESULT CREFString::GetLineRight(CREFString* tail, wchar_t ch, bool cut, bool skip, bool wholeIfNone) {
  const int length = Usable(*this);
  if (length == 0) return E_FAIL;
  const int i = FindLast(m_Text, length, ch);
  if (i < 0) {
    if (!wholeIfNone) {
      SetView(tail, m_Text, 0);
      return E_FAIL;
    }
    SetView(tail, m_Text, length);
    if (cut) m_Length = 0;
    return S_OK;
  }
  const int from = skip ? i + 1 : i;
  SetView(tail, m_Text + from, length - from);
  if (cut) m_Length = skip ? i : i + 1;
  return S_OK;
}

HRESULT CREFString::Crop(CREFString* tail, wchar_t ch, bool cut, bool skip) {
  const int length = Usable(*this);
  // An empty view has no character to look at; it fails like a missing `ch`.
  const int i = length ? FindLast(m_Text, length, ch) : -1;
  if (i < 0) {
    SetView(tail, m_Text, 0);
    return E_FAIL;
  }
  const int from = skip ? i + 1 : i;
  SetView(tail, m_Text + from, length - from);
  if (cut) m_Length = skip ? i : i + 1;
  return S_OK;
}

HRESULT CREFString::Split(CREFString* left, CREFString* right, CREFString separators, int stopAtControl) {
  const int length = Usable(*this);
  const int setLength = Usable(separators);
  if (length > 0 && setLength > 0) {
    for (int i = 0; i < length; ++i) {
      const wchar_t c = m_Text[i];
      if (InSet(c, separators.m_Text, setLength) || (stopAtControl && c < 32)) {
        SetView(left, m_Text, i);
        SetView(right, m_Text + i, length - i);
        return S_OK;
      }
    }
  }
  SetView(left, m_Text, length);
  SetView(right, m_Text + length, 0);
  return E_FAIL;
}

HRESULT CREFString::GetFirstWord(CREFString* word, bool advance) {
  const int length = Usable(*this);
  if (length == 0) {
    SetView(word, m_Text, 0);
    return E_FAIL;
  }
  const wchar_t* p = m_Text;
  const wchar_t first = p[0];
  const bool minusNumber = first == L'-' && length > 1 && IsDigit(p[1]);
  int token = 0;  // characters the token takes from the view
  const wchar_t* start = p;
  int wordLength = 0;
  if (first == L'"') {
    // A quoted text: the word is what lies between the quotes.
    if (length == 1 || p[1] == L'"') {
      token = 1;
      start = p + 1;
      wordLength = 0;
    } else {
      int close = 1;
      while (close < length && p[close] != L'"') ++close;
      start = p + 1;
      wordLength = close - 1;
      token = close < length ? close + 1 : length;
    }
  } else if (IsDigit(first) || minusNumber) {
    int i = first == L'-' ? 1 : 0;
    while (i < length && IsDigit(p[i])) ++i;
    if (i + 1 < length && p[i] == L'.' && IsDigit(p[i + 1])) {
      i += 1;
      while (i < length && IsDigit(p[i])) ++i;
      // An exponent only after a fraction: 'e', an optional sign, then a digit.
      if (i < length && (p[i] == L'e' || p[i] == L'E')) {
        int j = i + 1;
        if (j < length && (p[j] == L'+' || p[j] == L'-')) ++j;
        if (j < length && IsDigit(p[j])) {
          i = j;
          while (i < length && IsDigit(p[i])) ++i;
        }
      }
    }
    token = wordLength = i;
  } else if (std::iswpunct(static_cast<wint_t>(first)) && first != L'-') {
    token = wordLength = 1;
  } else {
    int i = 0;
    while (i < length) {
      const wint_t c = static_cast<wint_t>(p[i]);
      if (std::iswspace(c) || (std::iswpunct(c) && p[i] != L'_')) break;
      ++i;
    }
    token = wordLength = i;
  }
  SetView(word, start, wordLength);
  if (token == 0) return E_FAIL;
  if (advance) {
    m_Text += token;
    m_Length = length - token;
  }
  return S_OK;
}

int CREFString::GetWord(CREFString* word, bool advance, tagREFString stops) {
  const int length = Usable(*this);
  if (length == 0) {
    SetView(word, m_Text, 0);
    return E_FAIL;
  }
  const int stopLength = Usable(stops);
  int i = 0;
  while (i < length && !InSet(m_Text[i], stops.m_Text, stopLength)) ++i;
  SetView(word, m_Text, i);
  if (advance) {
    m_Text += i;
    m_Length = length - i;
  }
  return i < length ? i + 1 : 0;
}

HRESULT CREFString::Contains(tagREFString text) {
  const int length = Usable(*this);
  const int wanted = Usable(text);
  if (length == 0 || wanted == 0) return E_FAIL;
  // The simple scan: a mismatch starts over at the next character, never going back.
  int matched = 0;
  for (int i = 0; i < length; ++i) {
    if (m_Text[i] == text.m_Text[matched]) {
      if (++matched == wanted) {
        const int start = i - wanted + 1;
        return (start == 0 && wanted >= 2) ? 1 : start;
      }
    } else {
      matched = 0;
    }
  }
  return E_FAIL;
}

HRESULT CREFString::ContainsChar(tagREFString set) {
  const int length = Usable(*this);
  const int setLength = Usable(set);
  if (length == 0 || setLength == 0) return E_FAIL;
  for (int i = 0; i < length; ++i)
    if (InSet(m_Text[i], set.m_Text, setLength)) return i;
  return E_FAIL;
}

HRESULT CREFString::CompareI(tagREFString other, short prefix) const {
  const int length = Usable(*this);
  const int otherLength = Usable(other);
  int n;
  if (prefix) {
    if (length < otherLength) return E_FAIL;
    n = otherLength;
  } else {
    n = length < otherLength ? length : otherLength;
  }
  if (n == 0 || length == 0) return E_FAIL;
  for (int i = 0; i < n; ++i)
    if (std::towlower(static_cast<wint_t>(m_Text[i])) != std::towlower(static_cast<wint_t>(other.m_Text[i])))
      return E_FAIL;
  return length == otherLength ? S_OK : S_FALSE;
}
