// What every peer module of the reference host shares: its entry points (CreateFunction,
// InitializeModule), a self-registering table of the objects it creates, and its
// reference to the global component collection.
#pragma once

#include "frame/Object.h"

typedef HRESULT (*PeerCreator)(void* outer, IID* iid, void** object);

struct PeerObject {
  const wchar_t* name;
  PeerCreator creator;
  PeerObject* next;
};

// Adds a row to this module's object table at load time.
struct PeerRegistrar {
  explicit PeerRegistrar(PeerObject* row);
};

// Registers class `Class` under object name `Name` (a wide literal) in this module.
#define ZELTRIM_PEER_OBJECT(Name, Class)                                                    \
  static PeerObject s_PeerRow_##Class{Name, &CObject<Class>::_CreateInstance, nullptr};     \
  static PeerRegistrar s_PeerRegistrar_##Class(&s_PeerRow_##Class)

// The global collection handed to this module by InitializeModule (or null).
IComponentCollection* PeerGlobalComponents();

// Creates an object by name through the global collection; null when it cannot.
HRESULT PeerCreateObject(const wchar_t* name, const IID& iid, void** object);

template <class I>
SmartPtr<I> PeerCreate(const wchar_t* name) {
  SmartPtr<I> result;
  void* p = nullptr;
  if (PeerCreateObject(name, I::Iid(), &p) >= 0 && p) result.Attach(static_cast<I*>(p));
  return result;
}

// Registers a hand-written creator (for objects that are not made fresh each time).
#define ZELTRIM_PEER_CREATOR(Name, Id, Function)                  \
  static PeerObject s_PeerRow_##Id{Name, &Function, nullptr};     \
  static PeerRegistrar s_PeerRegistrar_##Id(&s_PeerRow_##Id)
