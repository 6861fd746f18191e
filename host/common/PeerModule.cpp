#include "host/common/PeerModule.h"

#include <mutex>

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

PeerObject*& PeerTable() {
  static PeerObject* head = nullptr;
  return head;
}

SmartPtr<IComponentCollection>& PeerGlobal() {
  static SmartPtr<IComponentCollection> global;
  return global;
}

// Guards PeerGlobal: a module is initialised again by every loader call, and objects of
// one module may be created from several threads at once.
std::mutex& PeerGlobalMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

PeerRegistrar::PeerRegistrar(PeerObject* row) {
  row->next = PeerTable();
  PeerTable() = row;
}

IComponentCollection* PeerGlobalComponents() {
  std::lock_guard<std::mutex> hold(PeerGlobalMutex());
  return PeerGlobal().get();
}

HRESULT PeerCreateObject(const wchar_t* name, const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  IComponentCollection* global = PeerGlobalComponents();
  if (!global || !name) return E_FAIL;
  return global->CreateComponent(static_cast<int>(std::wcslen(name)), name, &iid, object);
}

ZELTRIM_EXPORT HRESULT CreateFunction(tagREFString name, void** creator) {
  if (name.m_Length <= 0 || !name.m_Text) return E_FAIL;
  for (PeerObject* row = PeerTable(); row; row = row->next) {
    const size_t length = std::wcslen(row->name);
    if (length != static_cast<size_t>(name.m_Length)) continue;
    if (std::wmemcmp(row->name, name.m_Text, length) != 0) continue;
    if (!creator) return E_FAIL;
    *creator = reinterpret_cast<void*>(row->creator);
    return S_OK;
  }
  return E_FAIL;
}

ZELTRIM_EXPORT HRESULT InitializeModule(void*, IComponentCollection* components) {
  std::lock_guard<std::mutex> hold(PeerGlobalMutex());
  if (PeerGlobal().get() != components) PeerGlobal() = components;
  return 0;
}
