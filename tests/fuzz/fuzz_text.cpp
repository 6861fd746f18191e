// libFuzzer target: the module's text readers on arbitrary text. UTF8Decode over the
// bytes; then, with each byte a character, the tokeniser (CREFString) walking the text
// line by line, field by field and word by word as the parameter and matrix readers do,
// and every piece read as a number (_IS2Double, _IS2Integer) and as a variant
// (IVCreateConvert). Every view a reader returns must stay inside the text, and every
// walk must end. The first byte picks the separator, the stop set and the number base.
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "frame/Conversions.h"
#include "frame/Object.h"

namespace {

const wchar_t* g_Begin = nullptr;
const wchar_t* g_End = nullptr;

// A view inside the text (or empty): anything else is an out-of-bounds result.
void Inside(const tagREFString& view) {
  if (view.m_Length < 0) __builtin_trap();
  if (view.m_Length == 0) return;
  if (view.m_Text < g_Begin || view.m_Text + view.m_Length > g_End) __builtin_trap();
}

void Numbers(const CREFString& piece, int base) {
  Inside(piece);
  volatile double d = _IS2Double(piece);
  volatile int i = _IS2Integer(piece, base);
  (void)d;
  (void)i;
  CREFString copy = piece;
  if (IVariant* v = IVCreateConvert(copy)) {
    Inside(copy);
    const int type = v->get_Type();
    if (type == VARIANT_INTEGER || type == VARIANT_DOUBLE) {
      volatile double value = v->get_Double();
      (void)value;
    }
    v->Release();
  }
}

// Words of one field, as the parameter reader takes them.
void Words(CREFString field, int base) {
  for (int guard = 0; guard < 4096; ++guard) {
    CREFString word;
    const int before = field.m_Length;
    if (field.GetFirstWord(&word, true) < 0) break;
    Inside(word);
    Inside(field);
    Numbers(word, base);
    if (field.m_Length >= before) __builtin_trap();  // a word read must move on
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Variants come from the peer modules under ./_binlinux of the fuzz build, when there.
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n > 0) {
    std::string folder(path, static_cast<size_t>(n));
    folder.resize(folder.rfind('/') + 1);
    if (chdir(folder.c_str()) != 0) return 0;
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  const uint8_t control = data[0];
  const uint8_t* bytes = data + 1;
  const int count = static_cast<int>(size - 1);

  // UTF-8: each sequence takes 1 to the bytes left.
  for (int at = 0; at < count;) {
    int used = 0;
    UTF8Decode(bytes + at, count - at, &used);
    if (used < 1 || used > count - at) __builtin_trap();
    at += used;
  }

  // Exactly the characters, so that a read past the end is caught.
  std::vector<wchar_t> text(bytes, bytes + count);
  g_Begin = text.data();
  g_End = text.data() + text.size();
  const CREFString whole(text.data(), count);
  static const wchar_t kSeparators[] = {L',', L';', L'\t', L' ', L'=', L'\n'};
  const wchar_t separator = kSeparators[control % 6];
  const int base = (control >> 3) % 5 == 0 ? 10 : ((control >> 3) % 5 == 1 ? 16 : ((control >> 3) % 5 == 2 ? 8 : (control >> 3) % 5 == 3 ? 2 : 0));
  Numbers(whole, base);

  // Lines, then fields of each line, then words.
  CREFString rest = whole;
  for (int guard = 0; guard <= count + 1; ++guard) {
    CREFString line;
    const HRESULT hr = rest.GetLineCRLF(&line, (control & 0x40) != 0, true);
    Inside(line);
    Inside(rest);
    if (hr < 0) break;
    CREFString fields = line;
    for (int g = 0; g <= line.m_Length + 1; ++g) {
      CREFString field;
      const HRESULT f = fields.GetLine(&field, true, separator, true);
      Inside(field);
      Inside(fields);
      Numbers(field, base);
      Words(field, base);
      CREFString left, right;
      field.Split(&left, &right, CREFString(L"=:", 2), control & 1);
      Inside(left);
      Inside(right);
      Numbers(right, base);
      if (f != S_OK) break;
    }
    if (hr == S_FALSE) break;
  }

  // Tails and heads by a last character, words up to stops, searches.
  const tagREFString stops{3, L" ,\t"};
  CREFString walk = whole;
  for (int guard = 0; guard <= count + 1; ++guard) {
    CREFString word;
    const int stop = walk.GetWord(&word, true, stops);
    Inside(word);
    Inside(walk);
    if (stop <= 0) break;
    walk.m_Text += 1;
    walk.m_Length -= 1;
  }
  for (const wchar_t ch : {L'.', L'\\', L'/', separator}) {
    CREFString a = whole, b = whole, c = whole, tail;
    a.GetLineRight(&tail, ch, true, (control & 2) != 0, (control & 4) != 0);
    Inside(tail);
    Inside(a);
    b.Crop(&tail, ch, true, (control & 8) != 0);
    Inside(tail);
    Inside(b);
    for (int guard = 0; guard <= count + 1; ++guard) {
      CREFString head;
      const int before = c.m_Length;
      const HRESULT hr = c.GetReverseLine(&head, ch, true, (control & 16) != 0);
      Inside(head);
      Inside(c);
      if (hr < 0 || c.m_Length >= before) break;
    }
  }
  CREFString probe = whole;
  const HRESULT found = probe.Contains(tagREFString{2, L"\r\n"});
  if (found >= 0 && found >= count) __builtin_trap();
  const HRESULT at = probe.ContainsChar(tagREFString{2, L",="});
  if (at >= 0 && at >= count) __builtin_trap();
  whole.CompareI(tagREFString{3, L"csv"}, static_cast<short>(control & 1));
  return 0;
}
