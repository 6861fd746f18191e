// Shared parts of the module's property pages: the page interface's defaults and the
// listener list of an event source.
#pragma once

#include "frame/Object.h"

// Releases a counted field and leaves it null (the field is cleared before the release, so
// whatever the release sets off finds it empty).
template <class I>
void ReleaseField(I*& field) {
  I* old = field;
  field = nullptr;
  if (old) old->Release();
}

// IUIPropertyPage with the page state and the operations a page does not offer.
template <class T, class I>
class IUIPropertyPageImpl : public I {
 public:
  int GetState() override { return m_PageState; }
  HRESULT GetHelp(IString**) override { return E_FAIL; }
  HRESULT Cancel() override { return E_FAIL; }
  HRESULT GetTitle(IString**) override { return E_FAIL; }

 protected:
  int m_PageState = 0;
};

// The listeners of an event source, guarded by the object's Lock and Unlock. The array of
// record pointers grows by 8 entries at a time; records are allocated one at a time.
//
// Advise rules (both forms, and AddAdvise, which skips the interface test): kind 0 removes
// the listener; kind 2 replaces the listener of the first kind-2 record, when there is
// one; otherwise a null listener gives E_POINTER, a listener already listed (by IUnknown
// identity) gives 1, and a new one is appended with its kind (0).
template <class T, const IID* EventIid>
class IEventSourceImpl : public IEventSource {
 public:
  IEventSourceImpl() = default;
  IEventSourceImpl(const IEventSourceImpl&) = delete;
  IEventSourceImpl& operator=(const IEventSourceImpl&) = delete;
  ~IEventSourceImpl() {
    for (int i = 0; i < m_AdviseCount; ++i) {
      if (m_Advise[i]->Listener) m_Advise[i]->Listener->Release();
      delete m_Advise[i];
    }
    delete[] m_Advise;
  }

  HRESULT Advise(IUnknown* listener, int kind) override { return Advise(listener, kind, *EventIid); }

  int GetAdviseCount() override {
    Owner()->Lock();
    const int count = m_AdviseCount;
    Owner()->Unlock();
    return count;
  }

  HRESULT GetAdviseItem(unsigned int index, IUnknown** listener) override {
    if (!listener) return E_POINTER;
    *listener = nullptr;
    Owner()->Lock();
    HRESULT hr = E_INVALIDARG;
    if (index < static_cast<unsigned int>(m_AdviseCount)) {
      *listener = m_Advise[index]->Listener;
      if (*listener) (*listener)->AddRef();
      hr = S_OK;
    }
    Owner()->Unlock();
    return hr;
  }

  HRESULT Advise(IUnknown* listener, int kind, const IID& iid) override { return Enlist(listener, kind, &iid); }

  // Removes the listener's record (by IUnknown identity); a null listener removes all.
  // S_FALSE when nothing was listed.
  HRESULT ClearAdvise(IUnknown* listener) override {
    SmartPtr<IUnknown> identity = QueryAs<IUnknown>(listener);
    Owner()->Lock();
    HRESULT hr = S_FALSE;
    for (int i = 0; i < m_AdviseCount;) {
      ADVISERECORD* record = m_Advise[i];
      if (listener && !SameObject(record->Listener, identity.get())) {
        ++i;
        continue;
      }
      if (record->Listener) record->Listener->Release();
      delete record;
      for (int k = i; k + 1 < m_AdviseCount; ++k) m_Advise[k] = m_Advise[k + 1];
      m_Advise[--m_AdviseCount] = nullptr;
      hr = S_OK;
    }
    Owner()->Unlock();
    return hr;
  }

  HRESULT AddAdvise(IUnknown* listener, int kind) override { return Enlist(listener, kind, nullptr); }

 protected:
  // The listener at `index` with a reference, taken under the lock so that an event can
  // be delivered outside it. False past the end of the list.
  bool AdviseAt(int index, SmartPtr<IUnknown>* listener) {
    Owner()->Lock();
    const bool listed = index >= 0 && index < m_AdviseCount;
    if (listed) *listener = m_Advise[index]->Listener;
    Owner()->Unlock();
    return listed;
  }

 private:
  struct ADVISERECORD {
    IUnknown* Listener;
    int Kind;
  };

  T* Owner() { return static_cast<T*>(this); }

  static bool SameObject(IUnknown* listed, IUnknown* identity) {
    if (!listed || !identity) return listed == identity;
    SmartPtr<IUnknown> other = QueryAs<IUnknown>(listed);
    return other.get() == identity;
  }

  // The Advise rules; `iid` null skips the test that the listener offers it.
  HRESULT Enlist(IUnknown* listener, int kind, const IID* iid) {
    if (kind == 0) return ClearAdvise(listener);
    if (kind == 2 && ReplaceKindTwo(listener)) return S_OK;
    if (!listener) return E_POINTER;
    if (iid) {
      void* answer = nullptr;
      const HRESULT hr = listener->QueryInterface(*iid, &answer);
      if (hr < 0) return hr;
      if (answer) static_cast<IUnknown*>(answer)->Release();
    }
    Owner()->Lock();
    HRESULT hr = S_OK;
    if (Listed(listener)) {
      hr = 1;
    } else {
      if (m_AdviseCount == m_AdviseCapacity) Grow();
      listener->AddRef();
      m_Advise[m_AdviseCount++] = new ADVISERECORD{listener, kind};
    }
    Owner()->Unlock();
    return hr;
  }

  // Puts `listener` into the first record of kind 2; false when there is none.
  bool ReplaceKindTwo(IUnknown* listener) {
    Owner()->Lock();
    for (int i = 0; i < m_AdviseCount; ++i) {
      if (m_Advise[i]->Kind != 2) continue;
      if (listener) listener->AddRef();
      IUnknown* old = m_Advise[i]->Listener;
      m_Advise[i]->Listener = listener;
      Owner()->Unlock();
      if (old) old->Release();
      return true;
    }
    Owner()->Unlock();
    return false;
  }

  bool Listed(IUnknown* listener) {
    SmartPtr<IUnknown> identity = QueryAs<IUnknown>(listener);
    for (int i = 0; i < m_AdviseCount; ++i)
      if (SameObject(m_Advise[i]->Listener, identity.get())) return true;
    return false;
  }

  void Grow() {
    ADVISERECORD** grown = new ADVISERECORD*[m_AdviseCapacity + 8]();
    for (int i = 0; i < m_AdviseCount; ++i) grown[i] = m_Advise[i];
    delete[] m_Advise;
    m_Advise = grown;
    m_AdviseCapacity += 8;
  }

  int m_AdviseCount = 0;
  int m_AdviseCapacity = 0;
  ADVISERECORD** m_Advise = nullptr;
};
