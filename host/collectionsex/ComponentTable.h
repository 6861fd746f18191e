// Which object name lives in which module. One table for the whole host, the module's
// own objects included (it creates some of them through the global collection).
#pragma once

struct ComponentRow {
  const wchar_t* object;
  const wchar_t* module;
};

extern const ComponentRow kComponentTable[];
extern const int kComponentTableSize;
