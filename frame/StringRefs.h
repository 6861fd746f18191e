// Small conveniences over host strings for the module's own code: owned string
// references from literals, and views of a string's text.
#pragma once

#include "frame/Conversions.h"
#include "frame/Object.h"

// A new host string holding `text`, owned by the SmartPtr.
inline SmartPtr<IString> NewString(const wchar_t* text) {
  SmartPtr<IString> s;
  s.Attach(ISCreate(text));
  return s;
}

// A view of the text of a host string (empty for null or a failing string).
inline CREFString ViewOf(IString* text) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!text || text->GetString(&p, &n) < 0 || !p || n < 0) return CREFString();
  return CREFString(p, n);
}

// Reads point i of a collection of IPoint items into xyz; false when it is no point.
inline bool ReadPoint(ISimpleCollection* points, int i, double* xyz) {
  if (!points) return false;
  SmartPtr<IUnknown> item;
  if (points->get_Item(i, item.Out()) < 0 || !item) return false;
  SmartPtr<IPoint> point = QueryAs<IPoint>(item);
  if (!point) return false;
  return point->GetXYZ(&xyz[0], &xyz[1], &xyz[2]) >= 0;
}
