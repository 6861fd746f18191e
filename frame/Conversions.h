// Conversions between numbers, variants and host strings. These fix the exact text of
// every number the module writes, and how it reads numbers back.
#pragma once

#include "frame/RefString.h"

// Each ISCreate returns a new host string with one reference for the caller.
IString* ISCreate(const wchar_t* text);
// Bytes decoded from UTF-8; length 0 gives an empty string.
IString* ISCreate(const char* text, int length);
IString* ISCreate(int value);
// decimals < 0: as few decimals as the value needs, at most 9.
IString* ISCreate(double value, short decimals);
IString* ISCreate(IVariant* value);
IString* ISCreate(IVariant* value, short decimals);
// "#%06X", or "#%X" above 0xFFFFFF.
IString* ISCreateHex(unsigned int value);
// "%ls%c%0*d": ISLabel(L"Cam", 3, L'_', 3) is "Cam_003".
IString* ISLabel(const wchar_t* prefix, int value, wchar_t separator, int width);

// Bounded wide format; stores a terminator at the index the formatter returned
// (-1 when the buffer is too small, so the text is then cut off at the start).
int _swprintf(wchar_t* buffer, unsigned long size, const wchar_t* format, ...);

int _IS2Integer(CREFString text, int base);
double _IS2Double(CREFString text);
// A new variant from the text: integer, double or string. Leading blanks, control
// characters and byte order mark remnants are taken off the view.
IVariant* IVCreateConvert(CREFString& text);

// Decodes one UTF-8 byte sequence starting at `bytes` (at most `left` bytes available);
// *used gets the bytes consumed.
wchar_t UTF8Decode(const unsigned char* bytes, int left, int* used);
