// Object base templates shared by every class of the module (and by the reference host):
// the reference-counted object, object names, the smart pointer for statics, and the lock.
#pragma once

#include <pthread.h>

#include <new>

#include "frame/ModuleInterfaces.h"

// Base of every creatable class. AddRef/Release are written by the concrete class
// (ZELTRIM_OBJECT_REFCOUNT), so that every interface of the class shares one count.
template <class T>
class CObject : public IUnknown {
 public:
  HRESULT QueryInterface(const IID&, void** object) override {
    if (object) *object = nullptr;
    return E_NOINTERFACE;
  }
  virtual HRESULT FinalConstruct() { return S_OK; }
  virtual void FinalRelease() {}
  virtual void Lock() {}
  virtual void Unlock() {}

  // The creator handed out by CreateFunction. `outer` is never read.
  static HRESULT _CreateInstance(void* outer, IID* iid, void** object) {
    (void)outer;
    if (!iid || !object) return E_POINTER;
    T* created = nullptr;
    try {
      created = new T();
    } catch (...) {
      return E_FAIL;
    }
    created->m_RefCount = 1;
    HRESULT hr = created->FinalConstruct();
    if (hr == 0) {
      *object = nullptr;
      hr = created->QueryInterface(*iid, object);
      if (SUCCEEDED(hr)) {
        // The query's reference stands, the creation one goes. Dropped in place rather
        // than by Release, so a query that took no reference cannot free the object here
        // before the clean-up below.
        __atomic_sub_fetch(&created->m_RefCount, 1, __ATOMIC_SEQ_CST);
        if (hr == S_OK) return hr;
      }
    }
    created->FinalRelease();
    Destroy(created);
    return hr;
  }

  int m_RefCount = 1;

 protected:
  // Not virtual: a destructor slot would stand between Unlock and the class's own
  // operations in the table of the IUnknown route, where hosts expect those operations.
  // Objects are only ever destroyed as their concrete class, by Destroy.
  ~CObject() = default;

  static void Destroy(T* self) {
    self->~T();
    ::operator delete(self);
  }

  int IncrementRef() {
    return __atomic_add_fetch(&m_RefCount, 1, __ATOMIC_SEQ_CST);
  }
  int DecrementRef() {
    // The count this thread's decrement left, not a second read: two threads releasing
    // the last two references would otherwise both see 0.
    const int count = __atomic_sub_fetch(&m_RefCount, 1, __ATOMIC_SEQ_CST);
    if (count == 0) {
      T* self = static_cast<T*>(this);
      self->FinalRelease();
      Destroy(self);
      return 0;
    }
    return count;
  }
};

// In the concrete class: one AddRef/Release behind every interface it derives from.
#define ZELTRIM_OBJECT_REFCOUNT                          \
  int AddRef() override { return this->IncrementRef(); } \
  int Release() override { return this->DecrementRef(); }

// Hands out `route` for a matching identifier, with a reference.
inline bool QueryRoute(const IID& asked, const IID& route, void* pointer, void** object) {
  if (asked != route) return false;
  *object = pointer;
  static_cast<IUnknown*>(pointer)->AddRef();
  return true;
}

// Object name of a class: one static per class, handed out by GetName.
template <class T>
class IObjectInfoImpl : public IObjectInfo {
 public:
  HRESULT GetName(int, tagREFString* name) override {
    if (!name) return E_POINTER;
    *name = T::m_ObjectName;
    return S_OK;
  }
};

// Holds one counted interface pointer. Assignment takes the new reference before it
// drops the old one, so assigning the held pointer to itself is safe.
template <class T>
class SmartPtr {
 public:
  SmartPtr() = default;
  explicit SmartPtr(T* p) : m_Ptr(p) { if (m_Ptr) m_Ptr->AddRef(); }
  SmartPtr(const SmartPtr& other) : SmartPtr(other.m_Ptr) {}
  ~SmartPtr() { Clear(); }
  SmartPtr& operator=(T* p) {
    if (p) p->AddRef();
    T* old = m_Ptr;
    m_Ptr = nullptr;
    if (old) old->Release();
    m_Ptr = p;
    return *this;
  }
  SmartPtr& operator=(const SmartPtr& other) { return *this = other.m_Ptr; }
  void Clear() {
    T* old = m_Ptr;
    m_Ptr = nullptr;
    if (old) old->Release();
  }
  // Takes over a reference the caller already owns.
  void Attach(T* p) {
    Clear();
    m_Ptr = p;
  }
  T* Detach() {
    T* p = m_Ptr;
    m_Ptr = nullptr;
    return p;
  }
  // Releases the held pointer and gives its place, for out-parameters.
  T** Out() {
    Clear();
    return &m_Ptr;
  }
  T* get() const { return m_Ptr; }
  T* operator->() const { return m_Ptr; }
  operator T*() const { return m_Ptr; }

 private:
  T* m_Ptr = nullptr;
};

// Queries `from` for interface I; the result owns its reference (null when absent).
template <class I>
SmartPtr<I> QueryAs(IUnknown* from) {
  SmartPtr<I> result;
  if (from) {
    void* p = nullptr;
    if (from->QueryInterface(I::Iid(), &p) >= 0 && p) result.Attach(static_cast<I*>(p));
  }
  return result;
}

// One mutex, of the error-checking kind: a second lock by the owner returns an error
// that is ignored, and the first Unlock frees it.
class CResourceLock {
 public:
  CResourceLock() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, 2);
    pthread_mutex_init(&m_Mutex, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  virtual ~CResourceLock() { Delete(); }
  virtual void Lock() { pthread_mutex_lock(&m_Mutex); }
  virtual void Unlock() { pthread_mutex_unlock(&m_Mutex); }
  virtual void Delete() {
    if (!m_Deleted) {
      pthread_mutex_destroy(&m_Mutex);
      m_Deleted = true;
    }
  }

 private:
  pthread_mutex_t m_Mutex;
  bool m_Deleted = false;
};
