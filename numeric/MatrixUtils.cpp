#include "numeric/MatrixUtils.h"

#include <cmath>
#include <cstdint>
#include <cwchar>
#include <cwctype>

#include "frame/RefString.h"

namespace {
const double kEpsilon = 2.220446049250313e-16;
}

void CMatrixUtils::Inverse3(double* src, double* dst) {
  if (!src || !dst) return;
  const double* m = src;
  const double d = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                   m[2] * (m[3] * m[7] - m[4] * m[6]);
  if (std::fabs(d) < kEpsilon) return;
  dst[0] = (m[4] * m[8] - m[5] * m[7]) / d;
  dst[1] = -(m[1] * m[8] - m[7] * m[2]) / d;
  dst[2] = (m[1] * m[5] - m[4] * m[2]) / d;
  dst[3] = -(m[3] * m[8] - m[6] * m[5]) / d;
  dst[4] = (m[0] * m[8] - m[6] * m[2]) / d;
  dst[5] = -(m[0] * m[5] - m[3] * m[2]) / d;
  dst[6] = (m[3] * m[7] - m[6] * m[4]) / d;
  dst[7] = -(m[0] * m[7] - m[6] * m[1]) / d;
  dst[8] = (m[0] * m[4] - m[3] * m[1]) / d;
}

void CMatrixUtils::Multiply(double* a, double* b, double* c, int rows, int inner, int cols) {
  if (rows < 1 || cols < 1 || !c) return;
  if (inner < 1 || !a || !b) {
    for (int i = 0; i < rows * cols; ++i) c[i] = 0.0;
    return;
  }
  for (int r = 0; r < rows; ++r) {
    const double* ar = a + static_cast<size_t>(r) * inner;
    for (int k = 0; k < cols; ++k) {
      double sum = 0.0;
      for (int i = 0; i < inner; ++i) sum += ar[i] * b[static_cast<size_t>(i) * cols + k];
      c[static_cast<size_t>(r) * cols + k] = sum;
    }
  }
}

int CMatrixUtils::SetHomogeneousRotation(double* matrix, double* from, double* to) {
  if (!matrix || !from || !to) return -1;
  const double lf = std::sqrt(from[0] * from[0] + from[1] * from[1] + from[2] * from[2]);
  if (lf > kEpsilon) {
    from[0] /= lf;
    from[1] /= lf;
    from[2] /= lf;
  }
  const double lt = std::sqrt(to[0] * to[0] + to[1] * to[1] + to[2] * to[2]);
  if (lt > kEpsilon) {
    to[0] /= lt;
    to[1] /= lt;
    to[2] /= lt;
  }
  if (lf == 0.0 || lt == 0.0) return -1;

  // The dot product is not clamped: a value a rounding step beyond 1 gives NaN here,
  // which the parallel branch below never reads.
  const double theta = std::acos(from[0] * to[0] + from[1] * to[1] + from[2] * to[2]);
  double ax = to[1] * from[2] - to[2] * from[1];
  double ay = to[2] * from[0] - to[0] * from[2];
  double az = to[0] * from[1] - to[1] * from[0];
  const double la = std::sqrt(ax * ax + ay * ay + az * az);
  if (la > kEpsilon) {
    ax /= la;
    ay /= la;
    az /= la;
  }
  if (la == 0.0) {
    for (int i = 0; i < 16; ++i) matrix[i] = (i % 5 == 0) ? 1.0 : 0.0;
    return 1;
  }
  const double c = std::cos(theta);
  const double s = std::sin(-theta);
  const double k = 1.0 - c;
  double* r = matrix;
  r[0] = k * ax * ax + c;
  r[1] = k * ax * ay + s * az;
  r[2] = k * ax * az - s * ay;
  r[3] = 0.0;
  r[4] = k * ax * ay - s * az;
  r[5] = k * ay * ay + c;
  r[6] = k * ay * az + s * ax;
  r[7] = 0.0;
  r[8] = k * ax * az + s * ay;
  r[9] = k * ay * az - s * ax;
  r[10] = k * az * az + c;
  r[11] = 0.0;
  r[12] = 0.0;
  r[13] = 0.0;
  r[14] = 0.0;
  r[15] = 1.0;
  return 0;
}

void CMatrixUtils::AppendText(ICreatableString* text, const double* m, int rows, int cols) {
  if (!text || !m || rows < 1 || cols < 1) return;
  wchar_t buffer[256];
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      int n = std::swprintf(buffer, 256, L"%f", m[static_cast<size_t>(r) * cols + c]);
      // A value too long for the buffer (beyond about 1e248) is left out.
      if (n < 0) n = 0;
      text->Append(n, buffer);
      if (c + 1 < cols)
        text->Append(2, L", ");
      else
        text->Append(1, L"\n");
    }
  }
}

IString* CMatrixUtils::toString(double* m, int rows, int cols) {
  ICreatableString* text = CREFString::CreateString();
  if (!text) return nullptr;
  AppendText(text, m, rows, cols);
  return text;
}

namespace {

bool IsSeparator(wchar_t ch) {
  return ch == L'\t' || ch == L'\f' || ch == L'\v' || ch == L'\n' || ch == L'\r' || ch == L' ';
}

bool IsSkipped(wchar_t ch) {
  // 239 and 254 are what is left of a byte-order mark read byte by byte.
  return std::iswspace(static_cast<wint_t>(ch)) || std::iswcntrl(static_cast<wint_t>(ch)) ||
         ch == 239 || ch == 254;
}

double ParseHex(const wchar_t* p, const wchar_t* end) {
  uint32_t value = 0;  // wraps like a signed 32-bit accumulator, without overflow
  for (; p < end; ++p) {
    const wchar_t ch = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(*p)));
    uint32_t digit;
    if (ch >= L'0' && ch <= L'9')
      digit = static_cast<uint32_t>(ch - L'0');
    else if (ch >= L'A' && ch <= L'F')
      digit = static_cast<uint32_t>(ch - L'A' + 10);
    else
      break;
    value = value * 16u + digit;
  }
  return static_cast<double>(static_cast<int32_t>(value));
}

double ParseDecimal(const wchar_t* p, const wchar_t* end) {
  double sign = 1.0;
  if (p < end && *p == L'-') {
    sign = -1.0;
    ++p;
  } else if (p < end && *p == L'+') {
    ++p;
  }
  uint64_t whole = 0;
  uint64_t fraction = 0;
  uint64_t divisor = 1;
  bool point = false;
  for (; p < end; ++p) {
    const wchar_t ch = *p;
    if (ch == L'.') {
      if (point) break;
      point = true;
      continue;
    }
    if (ch < L'0' || ch > L'9') break;
    const uint64_t digit = static_cast<uint64_t>(ch - L'0');
    if (!point) {
      whole = whole * 10u + digit;
    } else {
      fraction = fraction * 10u + digit;
      divisor *= 10u;
      if (divisor > 999999999999999999ull) break;
    }
  }
  if (!point) return sign * static_cast<double>(whole);
  return sign * (static_cast<double>(whole) +
                 static_cast<double>(fraction) / static_cast<double>(divisor));
}

}  // namespace

HRESULT CMatrixUtils::fromString(tagREFString text, double* m, int rows, int cols) {
  if (!m || rows < 1 || cols < 1) return S_OK;
  const wchar_t* p = text.m_Text;
  const wchar_t* end = (p && text.m_Length > 0) ? p + text.m_Length : p;
  const long count = static_cast<long>(rows) * cols;
  for (long e = 0; e < count; ++e) {
    while (p < end && IsSkipped(*p)) ++p;
    if (p >= end) break;
    const wchar_t* start = p;
    while (p < end && !IsSeparator(*p)) ++p;
    if (p == start)
      m[e] = 0.0;
    else if (*start == L'#')
      m[e] = ParseHex(start + 1, p);
    else
      m[e] = ParseDecimal(start, p);
  }
  return S_OK;
}
