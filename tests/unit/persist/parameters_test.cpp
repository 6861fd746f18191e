// The parameter collection template: keys, growth, Get/Set/Copy/Sort/Remove, and the
// exact calls its stream forms make (recorded by fake streams).
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "frame/Components.h"
#include "persist/ParametersImpl.h"

namespace {

std::wstring TextOf(IString* s) { return params_detail::Text(s); }

std::wstring Take(IString* s) {
  const std::wstring text = TextOf(s);
  if (s) s->Release();
  return text;
}

SmartPtr<IString> Str(const wchar_t* text) {
  SmartPtr<IString> s;
  s.Attach(ISCreate(text));
  return s;
}

SmartPtr<IVariant> Int(int value) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_Integer(value);
  return v;
}

SmartPtr<IVariant> Dbl(double value) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_Double(value);
  return v;
}

SmartPtr<IVariant> StrVariant(const wchar_t* text) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_String(Str(text));
  return v;
}

// The collection under test, counting the calls of its outer Lock/Unlock.
class CTestParameters : public CObject<CTestParameters>,
                        public IParametersImpl<CTestParameters, IParametersCreatable>,
                        public IObjectInfoImpl<CTestParameters> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    IParametersCreatable* family = this;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CTestParameters>*>(this)), object) ||
        QueryRoute(iid, IID_IParameters, family, object) || QueryRoute(iid, IID_INamedCollection, family, object) ||
        QueryRoute(iid, IID_IParametersCreatable, family, object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
  void Lock() override { ++m_Locks; }
  void Unlock() override { ++m_Unlocks; }
  int m_Locks = 0;
  int m_Unlocks = 0;
};
const tagREFString CTestParameters::m_ObjectName = {14, L"TestParameters"};

SmartPtr<CTestParameters> NewParameters() {
  SmartPtr<CTestParameters> p;
  p.Attach(new CTestParameters());
  return p;
}

// Adds name = integer value.
void AddInt(CTestParameters* p, const wchar_t* name, int value, int flags = 0, IUnknown* descriptor = nullptr) {
  ASSERT_EQ(p->Add(Str(name), Int(value), descriptor, flags), S_OK);
}

std::wstring NameAt(CTestParameters* p, int i) {
  IString* name = nullptr;
  p->get_ItemName(i, &name);
  return Take(name);
}

int IntAt(CTestParameters* p, int i) {
  SmartPtr<IVariant> v;
  p->get_ItemVariant(i, v.Out());
  return v ? v->get_Integer() : -99999;
}

int FlagsAt(CTestParameters* p, int i) {
  int flags = -1;
  p->get_ItemFlags(i, &flags);
  return flags;
}

// A plain object with a name, to be stored, matched and saved.
class CNamedThing : public CObject<CNamedThing>, public IObjectInfoImpl<CNamedThing> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CNamedThing>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
};
const tagREFString CNamedThing::m_ObjectName = {5, L"Thing"};

SmartPtr<IUnknown> NewThing() {
  SmartPtr<IUnknown> t;
  t.Attach(static_cast<CObject<CNamedThing>*>(new CNamedThing()));
  return t;
}

// A descriptor that is an input parameter: its value overrides the stored one.
class CFakeInput : public CObject<CFakeInput>, public IInputParameter {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CFakeInput>*>(this)), object) ||
        QueryRoute(iid, IID_IInputParameter, static_cast<IInputParameter*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
  HRESULT get_Value(IUnknown** value) override {
    if (!m_Value) return E_FAIL;
    m_Value->AddRef();
    *value = m_Value;
    return S_OK;
  }
  SmartPtr<IUnknown> m_Value;
};

// ------------------------------------------------------------------ keys and growth

TEST(ParametersCollection, CapacityGrowsByTenAtATime) {
  auto p = NewParameters();
  EXPECT_EQ(p->m_Capacity, 0);
  AddInt(p, L"p0", 0);
  EXPECT_EQ(p->m_Capacity, 10);
  for (int i = 1; i < 10; ++i) AddInt(p, L"p", i);
  EXPECT_EQ(p->m_Capacity, 10);
  AddInt(p, L"p10", 10);
  EXPECT_EQ(p->m_Capacity, 20);
  EXPECT_EQ(p->m_Count, 11);
  // The pointers survive the move to the new array.
  EXPECT_EQ(NameAt(p, 0), L"p0");
  EXPECT_EQ(IntAt(p, 9), 9);
  EXPECT_EQ(IntAt(p, 10), 10);
  // RemoveAll keeps the capacity.
  EXPECT_EQ(p->RemoveAll(), S_OK);
  EXPECT_EQ(p->m_Count, 0);
  EXPECT_EQ(p->m_Capacity, 20);
}

TEST(ParametersCollection, NumericVariantKeyIsTheIndexWithoutRangeTest) {
  auto p = NewParameters();
  int index = -1;
  EXPECT_EQ(p->get_Index(Int(7), &index), S_OK);
  EXPECT_EQ(index, 7);
  EXPECT_EQ(p->get_Index(Dbl(2.9), &index), S_OK);
  EXPECT_EQ(index, 2);
}

TEST(ParametersCollection, NameKeysFoldOnlyAsciiLetters) {
  auto p = NewParameters();
  int index = 5;
  EXPECT_EQ(p->get_Index(Str(L"abc"), &index), E_FAIL);  // empty collection
  EXPECT_EQ(index, -1);
  AddInt(p, L"first", 1);
  AddInt(p, L"abc", 2);
  AddInt(p, L"\u00e9t\u00e9", 3);
  AddInt(p, L"ABC", 4);  // a duplicate in other case: the first match wins
  EXPECT_EQ(p->get_Index(Str(L"ABC"), &index), S_OK);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(p->get_Index(Str(L"\u00e9t\u00e9"), &index), S_OK);
  EXPECT_EQ(index, 2);
  // Only 'A'..'Z' fold: an accented capital does not find its small letter.
  EXPECT_EQ(p->get_Index(Str(L"\u00c9T\u00c9"), &index), E_FAIL);
  EXPECT_EQ(index, -1);
  // Prefixes and longer names are no match; an empty name never matches.
  EXPECT_EQ(p->get_Index(Str(L"ab"), &index), E_FAIL);
  EXPECT_EQ(p->get_Index(Str(L"abcd"), &index), E_FAIL);
  EXPECT_EQ(p->get_Index(Str(L""), &index), E_FAIL);
  EXPECT_EQ(index, -1);
  // A variant holding a string counts as that string.
  EXPECT_EQ(p->get_Index(StrVariant(L"FIRST"), &index), S_OK);
  EXPECT_EQ(index, 0);
}

TEST(ParametersCollection, ObjectKeysMatchValuesThenDescriptorsByIdentity) {
  auto p = NewParameters();
  auto valueThing = NewThing();
  auto descriptorThing = NewThing();
  auto stranger = NewThing();
  AddInt(p, L"number", 1);
  ASSERT_EQ(p->Add(Str(L"holder"), valueThing, nullptr, 0), S_OK);
  AddInt(p, L"described", 2, 0, descriptorThing);
  int index = 42;
  EXPECT_EQ(p->get_Index(valueThing, &index), S_OK);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(p->get_Index(descriptorThing, &index), S_OK);
  EXPECT_EQ(index, 2);
  // Through another interface of the same object, and through a variant holding it.
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(valueThing);
  EXPECT_EQ(p->get_Index(info.get(), &index), S_OK);
  EXPECT_EQ(index, 1);
  SmartPtr<IVariant> wrapped;
  wrapped.Attach(CREFString::CreateVariant());
  wrapped->put_Object(descriptorThing);
  EXPECT_EQ(p->get_Index(wrapped, &index), S_OK);
  EXPECT_EQ(index, 2);
  // No match leaves the index alone.
  index = 42;
  EXPECT_EQ(p->get_Index(stranger, &index), E_FAIL);
  EXPECT_EQ(index, 42);
  EXPECT_EQ(p->get_Index(nullptr, &index), E_FAIL);
  EXPECT_EQ(index, 42);
  EXPECT_EQ(p->get_Index(stranger, nullptr), E_POINTER);
}

// ------------------------------------------------------------------ items

TEST(ParametersCollection, IndexOutsideTheItemsIsInvalid) {
  auto p = NewParameters();
  AddInt(p, L"a", 1);
  IUnknown* out = nullptr;
  IString* name = nullptr;
  int flags = 0;
  EXPECT_EQ(p->get_Item(1, &out), E_INVALIDARG);
  EXPECT_EQ(p->get_Item(-1, &out), E_INVALIDARG);
  EXPECT_EQ(p->get_ItemName(1, &name), E_INVALIDARG);
  EXPECT_EQ(p->get_ItemFlags(1, &flags), E_INVALIDARG);
  EXPECT_EQ(p->put_ItemFlags(-1, 3), E_INVALIDARG);
  EXPECT_EQ(p->put_Item(1, nullptr), E_INVALIDARG);
  EXPECT_EQ(p->put_ItemDescriptor(1, nullptr), E_INVALIDARG);
  EXPECT_EQ(p->Rename(1, Str(L"x")), E_INVALIDARG);
  EXPECT_EQ(p->Remove(1), E_INVALIDARG);
  EXPECT_EQ(p->Iterate(1, &name, nullptr, nullptr, &flags), E_INVALIDARG);
  EXPECT_EQ(p->get_Item(0, nullptr), E_POINTER);
}

TEST(ParametersCollection, LockGoesToTheOuterObjectAndIsAFlag) {
  auto p = NewParameters();
  EXPECT_EQ(p->IsCollectionLocked(), 0);
  p->CollectionLock();
  EXPECT_NE(p->IsCollectionLocked(), 0);
  EXPECT_EQ(p->m_Locks, 1);
  // An operation under the lock clears the flag on its way out: a flag, not a count.
  AddInt(p, L"a", 1);
  EXPECT_EQ(p->IsCollectionLocked(), 0);
  EXPECT_EQ(p->m_Locks, 2);
  EXPECT_EQ(p->m_Unlocks, 1);
  p->CollectionUnlock();
  // get_Count and the flags take no lock; an index test fails before the lock.
  int n = 0, flags = 0;
  p->get_Count(&n);
  p->get_ItemFlags(0, &flags);
  p->put_ItemFlags(0, 1);
  p->Remove(5);
  EXPECT_EQ(p->m_Locks, 2);
  // get_Item and get_ItemName lock before they test the index.
  IUnknown* out = nullptr;
  p->get_Item(5, &out);
  EXPECT_EQ(p->m_Locks, 3);
  EXPECT_EQ(p->m_Unlocks, p->m_Locks);
}

TEST(ParametersCollection, AddOfNullItemStoresAnEmptyStringObject) {
  auto p = NewParameters();
  ASSERT_EQ(p->Add(Str(L"empty"), nullptr, nullptr, 0), S_OK);
  SmartPtr<IVariant> v;
  EXPECT_EQ(p->get_ItemVariant(0, v.Out()), S_OK);
  ASSERT_TRUE(v);
  EXPECT_TRUE(v->IsObject());
  SmartPtr<IUnknown> held;
  v->get_Object(held.Out());
  SmartPtr<IString> text = QueryAs<IString>(held);
  ASSERT_TRUE(text);
  EXPECT_EQ(TextOf(text), L"");
  // A null name is stored as it stands and reported as a failure.
  ASSERT_EQ(p->Add(nullptr, Int(1), nullptr, 0), S_OK);
  IString* name = reinterpret_cast<IString*>(1);
  EXPECT_EQ(p->get_ItemName(1, &name), E_FAIL);
  EXPECT_EQ(name, nullptr);
}

TEST(ParametersCollection, AVariantItemIsStoredItselfAndObjectsAreUnpacked) {
  auto p = NewParameters();
  auto v = Int(3);
  auto thing = NewThing();
  ASSERT_EQ(p->Add(Str(L"v"), v, nullptr, 0), S_OK);
  ASSERT_EQ(p->Add(Str(L"t"), thing, nullptr, 0), S_OK);
  ASSERT_EQ(p->Add(Str(L"s"), StrVariant(L"text"), nullptr, 0), S_OK);
  SmartPtr<IVariant> stored;
  p->get_ItemVariant(0, stored.Out());
  EXPECT_EQ(stored.get(), v.get());
  SmartPtr<IUnknown> item;
  // A numeric variant comes back as the variant, an object variant as the object, a
  // string variant as the string.
  EXPECT_EQ(p->get_Item(0, item.Out()), S_OK);
  EXPECT_TRUE(params_detail::SameObject(item, v));
  EXPECT_EQ(p->get_Item(1, item.Out()), S_OK);
  EXPECT_TRUE(params_detail::SameObject(item, thing));
  EXPECT_EQ(p->get_Item(2, item.Out()), S_OK);
  SmartPtr<IString> s = QueryAs<IString>(item);
  ASSERT_TRUE(s);
  EXPECT_EQ(TextOf(s), L"text");
  // put_Item of null holds a null object; Rename swaps the name.
  EXPECT_EQ(p->put_Item(0, nullptr), S_OK);
  p->get_ItemVariant(0, stored.Out());
  ASSERT_TRUE(stored);
  EXPECT_NE(stored.get(), v.get());
  EXPECT_FALSE(stored->IsObject());
  EXPECT_EQ(p->Rename(0, Str(L"renamed")), S_OK);
  EXPECT_EQ(NameAt(p, 0), L"renamed");
}

TEST(ParametersCollection, AnInputParameterDescriptorOverridesTheValue) {
  auto p = NewParameters();
  SmartPtr<CFakeInput> input;
  input.Attach(new CFakeInput());
  IUnknown* inputUnknown = static_cast<IInputParameter*>(input.get());
  AddInt(p, L"live", 1, 0, inputUnknown);
  // No value from the input yet: the stored one, S_OK.
  SmartPtr<IVariant> v;
  EXPECT_EQ(p->get_ItemVariant(0, v.Out()), S_OK);
  EXPECT_EQ(v->get_Integer(), 1);
  input->m_Value = Int(99).get();
  EXPECT_EQ(p->get_ItemVariant(0, v.Out()), S_FALSE);
  EXPECT_EQ(v->get_Integer(), 99);
  SmartPtr<IUnknown> value;
  EXPECT_EQ(p->getParameter(p->m_Items[0], value.Out()), S_FALSE);
  // Get reads the stored value unless bit 0 asks for the input's.
  EXPECT_EQ(p->Get(Str(L"live"), value.Out(), nullptr, nullptr, 0), 0);
  EXPECT_EQ(QueryAs<IVariant>(value)->get_Integer(), 1);
  EXPECT_EQ(p->Get(Str(L"live"), value.Out(), nullptr, nullptr, 1), 0);
  EXPECT_EQ(QueryAs<IVariant>(value)->get_Integer(), 99);
  EXPECT_EQ(p->getParameter(nullptr, value.Out()), E_POINTER);
}

TEST(ParametersCollection, IterateGivesEveryPartAndLeavesAbsentDescriptorsAlone) {
  auto p = NewParameters();
  auto thing = NewThing();
  AddInt(p, L"plain", 4, 0x11);
  AddInt(p, L"described", 5, 0, thing);
  SmartPtr<IString> name;
  SmartPtr<IVariant> value;
  IUnknown* descriptor = reinterpret_cast<IUnknown*>(8);
  int flags = 0;
  EXPECT_EQ(p->Iterate(0, name.Out(), value.Out(), &descriptor, &flags), S_OK);
  EXPECT_EQ(TextOf(name), L"plain");
  EXPECT_EQ(value->get_Integer(), 4);
  EXPECT_EQ(flags, 0x11);
  EXPECT_EQ(descriptor, reinterpret_cast<IUnknown*>(8));
  SmartPtr<IUnknown> d;
  EXPECT_EQ(p->Iterate(1, nullptr, nullptr, d.Out(), nullptr), S_OK);
  EXPECT_TRUE(params_detail::SameObject(d, thing));
  IUnknown* none = nullptr;
  EXPECT_EQ(p->get_ItemDescriptor(0, &none), E_FAIL);
}

// ------------------------------------------------------------------ Get and Set

TEST(ParametersGetSet, GetReturnsTheIndexOrMinusOneAndWritesNothingWhenMissing) {
  auto p = NewParameters();
  auto thing = NewThing();
  AddInt(p, L"a", 1, 0x20);
  ASSERT_EQ(p->Add(Str(L"b"), thing, thing, 7), S_OK);
  IUnknown* value = reinterpret_cast<IUnknown*>(8);
  IUnknown* descriptor = reinterpret_cast<IUnknown*>(8);
  int flags = 5;
  EXPECT_EQ(p->Get(Str(L"zzz"), &value, &descriptor, &flags, 3), -1);
  EXPECT_EQ(value, reinterpret_cast<IUnknown*>(8));
  EXPECT_EQ(descriptor, reinterpret_cast<IUnknown*>(8));
  EXPECT_EQ(flags, 5);
  // A numeric key beyond the items finds no item either.
  EXPECT_EQ(p->Get(Int(9), &value, &descriptor, &flags, 0), -1);
  EXPECT_EQ(flags, 5);

  SmartPtr<IUnknown> got, gotDescriptor;
  EXPECT_EQ(p->Get(Str(L"B"), got.Out(), gotDescriptor.Out(), &flags, 0), 1);
  EXPECT_TRUE(QueryAs<IVariant>(got));  // the stored variant
  EXPECT_TRUE(params_detail::SameObject(gotDescriptor, thing));
  EXPECT_EQ(flags, 7);
  EXPECT_EQ(p->Get(Int(1), got.Out(), nullptr, nullptr, 2), 1);
  EXPECT_TRUE(params_detail::SameObject(got, thing));  // unpacked
  EXPECT_EQ(p->Get(Str(L"a"), got.Out(), gotDescriptor.Out(), nullptr, 2), 0);
  EXPECT_EQ(QueryAs<IVariant>(got)->get_Integer(), 1);  // a number stays a variant
  EXPECT_EQ(gotDescriptor.get(), nullptr);
}

TEST(ParametersGetSet, SetKeepsOrReplacesFlagsAndDescriptorsByOption) {
  auto p = NewParameters();
  auto thing = NewThing();
  AddInt(p, L"gain", 1, 0x11, thing);
  // Flags 0, options 0: value replaced, flags and descriptor kept.
  EXPECT_EQ(p->Set(Str(L"GAIN"), Int(2), nullptr, 0, 0), S_OK);
  EXPECT_EQ(IntAt(p, 0), 2);
  EXPECT_EQ(FlagsAt(p, 0), 0x11);
  SmartPtr<IUnknown> d;
  EXPECT_EQ(p->get_ItemDescriptor(0, d.Out()), S_OK);
  // Non-zero flags replace them.
  EXPECT_EQ(p->Set(Str(L"gain"), Int(3), nullptr, 0x4, 0), S_OK);
  EXPECT_EQ(FlagsAt(p, 0), 0x4);
  // Options bit 1 replaces them with 0; bit 0 clears the descriptor.
  EXPECT_EQ(p->Set(Str(L"gain"), Int(4), nullptr, 0, 2), S_OK);
  EXPECT_EQ(FlagsAt(p, 0), 0);
  EXPECT_EQ(p->get_ItemDescriptor(0, d.Out()), S_OK);
  EXPECT_EQ(p->Set(Str(L"gain"), Int(5), nullptr, 0, 1), S_OK);
  EXPECT_EQ(p->get_ItemDescriptor(0, d.Out()), E_FAIL);
  EXPECT_EQ(p->m_Count, 1);
}

TEST(ParametersGetSet, SetOfAnUnknownKeyAddsByNameOrFails) {
  auto p = NewParameters();
  EXPECT_EQ(p->Set(Str(L"new"), Int(1), nullptr, 6, 0), S_OK);
  EXPECT_EQ(p->Set(StrVariant(L"fromVariant"), Int(2), nullptr, 0, 0), S_OK);
  ASSERT_EQ(p->m_Count, 2);
  EXPECT_EQ(NameAt(p, 0), L"new");
  EXPECT_EQ(FlagsAt(p, 0), 6);
  EXPECT_EQ(NameAt(p, 1), L"fromVariant");
  // An object key that is not held names nothing.
  EXPECT_EQ(p->Set(NewThing(), Int(3), nullptr, 0, 0), E_FAIL);
  // A numeric key is always "found", and past the end it is refused.
  EXPECT_EQ(p->Set(Int(5), Int(3), nullptr, 0, 0), E_INVALIDARG);
  EXPECT_EQ(p->Set(Int(1), Int(3), nullptr, 0, 0), S_OK);
  EXPECT_EQ(IntAt(p, 1), 3);
  EXPECT_EQ(p->m_Count, 2);
}

TEST(ParametersGetSet, CopyNestsValuesOneLevelAndOverwritesByName) {
  auto source = NewParameters();
  auto target = NewParameters();
  auto thing = NewThing();
  AddInt(source, L"shared", 5, 0x3, thing);
  AddInt(source, L"onlySource", 6);
  AddInt(target, L"SHARED", 1, 0x40);
  AddInt(target, L"onlyTarget", 2);
  EXPECT_EQ(target->Copy(source.get()), S_OK);
  EXPECT_EQ(target->Copy(nullptr), S_OK);
  ASSERT_EQ(target->m_Count, 3);
  EXPECT_EQ(NameAt(target, 0), L"SHARED");  // the name of the existing item stays
  EXPECT_EQ(FlagsAt(target, 0), 0x3);
  SmartPtr<IUnknown> d;
  EXPECT_EQ(target->get_ItemDescriptor(0, d.Out()), S_OK);
  EXPECT_TRUE(params_detail::SameObject(d, thing));
  // The stored variant holds the source's variant as its object.
  SmartPtr<IVariant> outer;
  target->get_ItemVariant(0, outer.Out());
  ASSERT_TRUE(outer);
  EXPECT_TRUE(outer->IsObject());
  SmartPtr<IUnknown> inner;
  outer->get_Object(inner.Out());
  SmartPtr<IVariant> innerVariant = QueryAs<IVariant>(inner);
  ASSERT_TRUE(innerVariant);
  EXPECT_EQ(innerVariant->get_Integer(), 5);
  EXPECT_EQ(IntAt(target, 1), 2);
  EXPECT_EQ(NameAt(target, 2), L"onlySource");
}

// ------------------------------------------------------------------ Sort and Remove

std::wstring Names(CTestParameters* p) {
  std::wstring all;
  for (int i = 0; i < p->m_Count; ++i) all += NameAt(p, i) + L" ";
  return all;
}

TEST(ParametersOrder, SortIsByCharacterValueAndBitOneReverses) {
  auto p = NewParameters();
  AddInt(p, L"b", 1);
  AddInt(p, L"a", 2);
  AddInt(p, L"B", 3);
  AddInt(p, L"ab", 4);
  EXPECT_EQ(p->Sort(0), S_OK);
  EXPECT_EQ(Names(p), L"B a ab b ");
  EXPECT_EQ(IntAt(p, 0), 3);  // values travel with their names
  // Other bits are not read.
  EXPECT_EQ(p->Sort(1 | 4 | 8), S_OK);
  EXPECT_EQ(Names(p), L"B a ab b ");
}

TEST(ParametersOrder, ReversedSortOfAnOddCountLeavesTheMiddle) {
  auto p = NewParameters();
  auto thing = NewThing();
  AddInt(p, L"c", 3, 0x30);
  AddInt(p, L"a", 1, 0x10, thing);
  AddInt(p, L"b", 2, 0x20);
  PARAMETEROBJECT* middle = nullptr;
  EXPECT_EQ(p->Sort(2), S_OK);
  EXPECT_EQ(Names(p), L"c b a ");
  middle = p->m_Items[1];
  EXPECT_EQ(FlagsAt(p, 2), 0x10);
  SmartPtr<IUnknown> d;
  EXPECT_EQ(p->get_ItemDescriptor(2, d.Out()), S_OK);
  EXPECT_EQ(p->Sort(2), S_OK);
  EXPECT_EQ(p->m_Items[1], middle);
  EXPECT_EQ(NameAt(p, 1), L"b");
  // An empty or single collection sorts to itself.
  auto empty = NewParameters();
  EXPECT_EQ(empty->Sort(2), S_OK);
}

TEST(ParametersOrder, RemoveMovesLaterItemsDownAndTheLastMovesNothing) {
  auto p = NewParameters();
  for (int i = 0; i < 4; ++i) AddInt(p, (L"p" + std::to_wstring(i)).c_str(), i);
  PARAMETEROBJECT* first = p->m_Items[0];
  PARAMETEROBJECT* second = p->m_Items[1];
  PARAMETEROBJECT* third = p->m_Items[2];
  EXPECT_EQ(p->Remove(3), S_OK);
  EXPECT_EQ(p->m_Count, 3);
  EXPECT_EQ(p->m_Items[0], first);
  EXPECT_EQ(p->m_Items[1], second);
  EXPECT_EQ(p->m_Items[2], third);
  EXPECT_EQ(p->Remove(0), S_OK);
  EXPECT_EQ(p->m_Items[0], second);
  EXPECT_EQ(p->m_Items[1], third);
  EXPECT_EQ(Names(p), L"p1 p2 ");
}

// ------------------------------------------------------------------ stream forms

// Records the calls of the stream forms as short lines, e.g. "<Gain>", "Value=2", "</>".
typedef std::vector<std::wstring> CallLog;

std::wstring ValueOf(IUnknown* value) {
  // A folder stream is handed strings and variants in the same place.
  if (SmartPtr<IVariant> v = QueryAs<IVariant>(value)) return Take(ISCreate(v.get()));
  return TextOf(QueryAs<IString>(value));
}

std::wstring NameOfObject(IUnknown* object) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  tagREFString name{0, nullptr};
  if (!info || info->GetName(0, &name) < 0) return L"?";
  return std::wstring(name.m_Text, static_cast<size_t>(name.m_Length));
}

// A stream that records what is written to it. Kind picks the interface it answers.
class CFakeStream : public CObject<CFakeStream>, public IXMLStream, public IFolderStream {
 public:
  enum Kind { CSV, XML, FOLDER };
  CFakeStream(Kind kind, CallLog* log, std::wstring prefix = L"") : m_Kind(kind), m_Log(log), m_Prefix(prefix) {}
  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    IDataStream* data = m_Kind == FOLDER ? static_cast<IDataStream*>(static_cast<IFolderStream*>(this))
                                         : static_cast<IDataStream*>(static_cast<IXMLStream*>(this));
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CFakeStream>*>(this)), object) ||
        QueryRoute(iid, IID_IDataStream, data, object) ||
        (m_Kind == CSV && QueryRoute(iid, IID_ICSVStream, data, object)) ||
        (m_Kind == XML && QueryRoute(iid, IID_IXMLStream, static_cast<IXMLStream*>(this), object)) ||
        (m_Kind == FOLDER && QueryRoute(iid, IID_IFolderStream, static_cast<IFolderStream*>(this), object)))
      return S_OK;
    return E_NOINTERFACE;
  }
  void Log(const std::wstring& line) { m_Log->push_back(m_Prefix + line); }
  // IDataStream: Write records the byte count and the characters those bytes cover.
  HRESULT Open(void*, unsigned long, int) override { return S_OK; }
  HRESULT Read(void*, int, int*) override { return E_NOTIMPL; }
  HRESULT Seek(long, int, int) override { return E_NOTIMPL; }
  HRESULT GetBuffer(void**, unsigned long*) override { return E_NOTIMPL; }
  HRESULT GetPosition(unsigned long*) override { return E_NOTIMPL; }
  HRESULT Write(const void* data, int bytes, int) override {
    Log(std::to_wstring(bytes) + L":" + std::wstring(static_cast<const wchar_t*>(data), static_cast<size_t>(bytes) / sizeof(wchar_t)) +
        (bytes % sizeof(wchar_t) ? L"+" : L""));
    return S_OK;
  }
  // IXMLStream
  HRESULT get_Depth(int*) override { return E_NOTIMPL; }
  HRESULT OpenTag(IString* name, int, int) override { Log(L"<" + TextOf(name) + L">"); return S_OK; }
  HRESULT BeginObject(IUnknown* object, int, int) override { Log(L"<object " + NameOfObject(object) + L">"); return S_OK; }
  HRESULT WriteValue(IString* name, int, IString* value, int) override {
    Log(TextOf(name) + L"=" + TextOf(value));
    return S_OK;
  }
  HRESULT CloseTag() override { Log(L"</>"); return S_OK; }
  HRESULT NextTag(tagREFString*) override { return E_FAIL; }
  HRESULT ReadElement(int, const wchar_t*, tagREFString*, IUnknown**, int) override { return E_FAIL; }
  HRESULT ReadObject(IUnknown**) override { return E_FAIL; }
  HRESULT ReadNamedObject(int, const wchar_t*, IUnknown**) override { return E_FAIL; }
  HRESULT ReadValue(int, const wchar_t*, IString**) override { return E_FAIL; }
  HRESULT get_Text(IString**) override { return E_NOTIMPL; }
  HRESULT Reserved_IXS2() override { return E_NOTIMPL; }
  HRESULT Reserved_IXS3() override { return E_NOTIMPL; }
  HRESULT Reserved_IXS4() override { return E_NOTIMPL; }
  HRESULT SetOptions(int, int) override { return S_OK; }
  // IFolderStream: a sub-stream logs with its name as prefix.
  HRESULT CreateSubStream(IString* name, int, IDataStream** out) override {
    Log(L"sub " + TextOf(name));
    CFakeStream* sub = new CFakeStream(FOLDER, m_Log, m_Prefix + TextOf(name) + L"/");
    *out = static_cast<IFolderStream*>(sub);
    return S_OK;
  }
  HRESULT RemoveEntry(IString*) override { return E_NOTIMPL; }
  HRESULT WriteData(IString* name, const void* data, int size, int) override {
    int value = 0;
    std::memcpy(&value, data, size == 4 ? 4 : 0);
    Log(TextOf(name) + L"#" + std::to_wstring(size) + L":" + Take(ISCreateHex(static_cast<unsigned>(value))));
    return S_OK;
  }
  HRESULT WriteString(IString* name, IString* value) override {
    Log(TextOf(name) + L"=" + ValueOf(reinterpret_cast<IUnknown*>(value)));
    return S_OK;
  }
  HRESULT WriteObject(IString* name, IUnknown* object, int) override {
    Log(TextOf(name) + L":" + NameOfObject(object));
    return S_OK;
  }
  HRESULT WriteValue(IString*, void*, int) override { return E_NOTIMPL; }
  HRESULT GetEntryInfo(IString*, int*, int*) override { return E_NOTIMPL; }
  HRESULT ReadData(IString*, void*, int, int) override { return E_FAIL; }
  HRESULT ReadString(IString*, IString*) override { return E_FAIL; }
  HRESULT OpenSubStream(IString*, int, IDataStream**) override { return E_FAIL; }
  HRESULT ReadObject(IString*, void**, int) override { return E_FAIL; }
  HRESULT ReadValue(IString*, void*, int) override { return E_FAIL; }

 private:
  Kind m_Kind;
  CallLog* m_Log;
  std::wstring m_Prefix;
};

// A descriptor that saves itself by logging the options it was given.
class CFakePersist : public CObject<CFakePersist>, public IDataPersist, public IObjectInfoImpl<CFakePersist> {
 public:
  explicit CFakePersist(CallLog* log) : m_Log(log) {}
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CFakePersist>*>(this)), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
  HRESULT Save(IDataStream*, int options) override {
    m_Log->push_back(L"save " + Take(ISCreateHex(static_cast<unsigned>(options))));
    return S_OK;
  }
  HRESULT Load(IDataStream*, int) override { return S_OK; }
  CallLog* m_Log;
};
const tagREFString CFakePersist::m_ObjectName = {4, L"Fake"};

struct Recorder {
  CallLog log;
  SmartPtr<IDataStream> stream;
  explicit Recorder(CFakeStream::Kind kind) {
    stream.Attach(static_cast<IXMLStream*>(new CFakeStream(kind, &log)));
    if (kind == CFakeStream::FOLDER) stream = QueryAs<IFolderStream>(stream).get();
  }
  SmartPtr<IUnknown> Persist() {
    SmartPtr<IUnknown> p;
    p.Attach(static_cast<IDataPersist*>(new CFakePersist(&log)));
    return p;
  }
};

CallLog Lines(std::initializer_list<const wchar_t*> lines) { return CallLog(lines.begin(), lines.end()); }

TEST(ParametersCSV, WritesHalfTheBytesOfEveryText) {
  auto p = NewParameters();
  AddInt(p, L"a", 1);
  ASSERT_EQ(p->Add(Str(L"bb"), Dbl(2.5), nullptr, 0), S_OK);
  Recorder r(CFakeStream::CSV);
  EXPECT_EQ(p->Params_SaveCSV(r.stream, PERSIST_CSV_NAME_VALUE), S_OK);
  // Byte counts are twice the characters: with 4-byte characters the tail half is lost
  // ("2.5" goes out as 6 bytes, the '2' and half of the '.').
  EXPECT_EQ(r.log, Lines({L"2:+", L"2:+", L"2:+", L"2:+", L"4:b", L"2:+", L"6:2+"}));
  r.log.clear();
  EXPECT_EQ(p->Params_SaveCSV(r.stream, 0), S_OK);
  EXPECT_EQ(r.log, Lines({L"2:+", L"2:+", L"6:2+"}));
}

TEST(ParametersCSV, CompactLeavesOutFlaggedItemsAndOtherStreamsGetNothing) {
  auto p = NewParameters();
  AddInt(p, L"hidden", 12, 0x40000);
  AddInt(p, L"shown", 34);
  Recorder r(CFakeStream::CSV);
  EXPECT_EQ(p->Params_SaveCSV(r.stream, PERSIST_COMPACT), S_OK);
  // The separator goes before every item but the first by position.
  EXPECT_EQ(r.log, Lines({L"2:+", L"4:3"}));
  Recorder xml(CFakeStream::XML);
  EXPECT_EQ(p->Params_SaveCSV(xml.stream, 0), S_OK);
  EXPECT_TRUE(xml.log.empty());
}

TEST(ParametersXMLSave, SimpleAndFullForms) {
  auto p = NewParameters();
  Recorder r(CFakeStream::XML);
  AddInt(p, L"Gain", 2);
  AddInt(p, L"Framed", 2, 0x11);
  AddInt(p, L"Described", 3, 0, r.Persist());
  AddInt(p, L"Hidden", 4, 0x8000000);
  ASSERT_EQ(p->Add(Str(L"Text"), StrVariant(L"a<b"), nullptr, 0), S_OK);
  EXPECT_EQ(p->Params_SaveXML(r.stream, 0x10), S_OK);
  EXPECT_EQ(r.log, Lines({L"Gain=2",
                          L"<Framed>", L"Value=2", L"Flags=#000011", L"</>",
                          L"<Described>", L"Value=3", L"<object Fake>", L"save #000010", L"</>", L"</>",
                          L"Hidden=4", L"Text=a<b"}));
}

TEST(ParametersXMLSave, CompactDropsEditorFlagsAndWritesColoursAsOneHexText) {
  auto p = NewParameters();
  Recorder r(CFakeStream::XML);
  AddInt(p, L"Colour", 0x112233, 0x23);
  AddInt(p, L"Editor", 1, 0x40 | 0x1, r.Persist());
  AddInt(p, L"Dropped", 2, 0x40000 | 0x3);
  AddInt(p, L"DroppedDescribed", 3, 0x40000 | 0x3, r.Persist());
  AddInt(p, L"Kind5", 4, 0x15);
  AddInt(p, L"Nine", 5, 9);
  AddInt(p, L"Nineteen", 6, 0x19);
  EXPECT_EQ(p->Params_SaveXML(r.stream, PERSIST_COMPACT), S_OK);
  EXPECT_EQ(r.log, Lines({L"Colour=#332211",
                          L"<Editor>", L"Value=1", L"Flags=#000001", L"</>",
                          L"Dropped=2", L"DroppedDescribed=3", L"Kind5=4", L"Nine=5",
                          L"<Nineteen>", L"Value=6", L"Flags=#000019", L"</>"}));
  // Without the compact bit the same flags make full forms.
  r.log.clear();
  auto q = NewParameters();
  AddInt(q, L"Kind5", 4, 0x15);
  EXPECT_EQ(q->Params_SaveXML(r.stream, 0), S_OK);
  EXPECT_EQ(r.log, Lines({L"<Kind5>", L"Value=4", L"Flags=#000015", L"</>"}));
}

TEST(ParametersXMLSave, PersistentItemsWithLabelsFlagsAndDescriptors) {
  auto p = NewParameters();
  Recorder r(CFakeStream::XML);
  ASSERT_EQ(p->Add(Str(L"First"), r.Persist(), r.Persist(), 0x1234567), S_OK);
  AddInt(p, L"NotPersistent", 1);
  ASSERT_EQ(p->Add(nullptr, r.Persist(), nullptr, 0), S_OK);
  EXPECT_EQ(p->Params_SaveXMLUnk(r.stream, 5), S_OK);
  EXPECT_EQ(r.log, Lines({L"<First>", L"Flags=#1234567", L"<object Fake>", L"save #000005", L"</>",
                          L"<ItemDescriptor>", L"<object Fake>", L"save #000005", L"</>", L"</>", L"</>",
                          L"<Item3>", L"<object Fake>", L"save #000005", L"</>", L"</>"}));
}

TEST(ParametersFolderSave, PlainKeysSubStreamsAndSelfReference) {
  auto p = NewParameters();
  Recorder r(CFakeStream::FOLDER);
  auto thing = NewThing();
  AddInt(p, L"plain", 5);
  AddInt(p, L"flagged", 6, 0x11);
  AddInt(p, L"described", 7, 0, r.Persist());
  ASSERT_EQ(p->Add(Str(L"object"), thing, nullptr, 0), S_OK);
  AddInt(p, L"skipped", 8, 0x4000000);
  ASSERT_EQ(p->Add(nullptr, Dbl(0.5), nullptr, 0), S_OK);
  IUnknown* self = static_cast<IParametersCreatable*>(p.get());
  ASSERT_EQ(p->Add(Str(L"self"), self, self, 0), S_OK);
  EXPECT_EQ(p->Params_SaveFolderStream(r.stream, 0), S_OK);
  EXPECT_EQ(r.log, Lines({L"plain=5",
                          L"sub flagged", L"flagged/Value=6", L"flagged/Flags#4:#000011",
                          L"sub described", L"described/Value=7", L"described/Descriptor:Fake",
                          L"sub object", L"object/Unknown:Thing",
                          L"Item6=0.5",
                          L"sub self"}));
  p->Remove(6);  // breaks the reference cycle
}

TEST(ParametersFolderSave, CompactRules) {
  auto p = NewParameters();
  Recorder r(CFakeStream::FOLDER);
  SmartPtr<CFakeInput> input;
  input.Attach(new CFakeInput());
  AddInt(p, L"editor", 1, 0x41, r.Persist());
  AddInt(p, L"input", 2, 0x41, static_cast<IInputParameter*>(input.get()));
  AddInt(p, L"dropped", 3, 0x40000);
  AddInt(p, L"kind3", 4, 0x3);
  AddInt(p, L"keptDescribed", 5, 0x40000, r.Persist());
  EXPECT_EQ(p->Params_SaveFolderStream(r.stream, PERSIST_COMPACT), S_OK);
  EXPECT_EQ(r.log, Lines({L"editor=1",
                          L"sub input", L"input/Value=2", L"input/Flags#4:#000041", L"input/Descriptor:?",
                          L"kind3=4",
                          L"sub keptDescribed", L"keptDescribed/Value=5", L"keptDescribed/Flags#4:#040000",
                          L"keptDescribed/Descriptor:Fake"}));
}

// ------------------------------------------------------------------ read back through host streams

SmartPtr<IParametersCreatable> NewHostParameters() {
  return CreateHostObject<IParametersCreatable>(L"ParametersCreatable");
}

SmartPtr<IUnknown> Value(IParameters* p, const wchar_t* name) {
  SmartPtr<IUnknown> value;
  if (p->Get(Str(name), value.Out(), nullptr, nullptr, 0) < 0) return SmartPtr<IUnknown>();
  return value;
}

int IntNamed(IParameters* p, const wchar_t* name) {
  SmartPtr<IVariant> v = QueryAs<IVariant>(Value(p, name));
  return v && v->get_Type() == VARIANT_INTEGER ? v->get_Integer() : -99999;
}

int FlagsNamed(IParameters* p, const wchar_t* name) {
  int flags = -1;
  p->Get(Str(name), nullptr, nullptr, &flags, 0);
  return flags;
}

// A new XML stream over the text, at the content of its one top-level element.
SmartPtr<IDataStream> XMLContent(const std::wstring& text) {
  SmartPtr<IXMLStream> reader = CreateHostObject<IXMLStream>(L"XMLStream");
  if (!reader) return SmartPtr<IDataStream>();
  reader->Attach(const_cast<wchar_t*>(text.c_str()), static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0);
  tagREFString tag{0, nullptr}, name{0, nullptr};
  SmartPtr<IUnknown> content;
  if (reader->NextTag(&tag) < 0 || reader->ReadElement(tag.m_Length, tag.m_Text, &name, content.Out(), 0) < 0)
    return SmartPtr<IDataStream>();
  return QueryAs<IDataStream>(content);
}

// What `save` writes inside a <P> element, read back as that element's content.
template <class Save>
SmartPtr<IDataStream> XMLRoundTrip(Save save) {
  SmartPtr<IXMLStream> writer = CreateHostObject<IXMLStream>(L"XMLStreamEx");
  if (!writer) return SmartPtr<IDataStream>();
  writer->Attach(nullptr, 0, 0);
  writer->OpenTag(Str(L"P"), 0, 0);
  save(static_cast<IDataStream*>(writer.get()));
  writer->CloseTag();
  return XMLContent(TextOf(QueryAs<IString>(writer)));
}

// A folder stream written by `save`, stored as a file image and opened again from it.
template <class Save>
SmartPtr<IDataStream> FolderRoundTrip(Save save, std::vector<char>* image) {
  SmartPtr<IDataStream> writer = CreateHostObject<IDataStream>(L"FolderStream");
  SmartPtr<IDataStream> reader = CreateHostObject<IDataStream>(L"FolderStream");
  if (!writer || !reader) return SmartPtr<IDataStream>();
  writer->Open(nullptr, 1000, 1);
  save(writer.get());
  void* data = nullptr;
  unsigned long size = 0;
  if (writer->GetBuffer(&data, &size) < 0 || !data) return SmartPtr<IDataStream>();
  image->assign(static_cast<char*>(data), static_cast<char*>(data) + size);
  if (reader->Open(image->data(), size, 0) < 0) return SmartPtr<IDataStream>();
  return reader;
}

// A host collection holding name = value, to serve as a persistent descriptor or item.
SmartPtr<IUnknown> HostHolding(const wchar_t* name, int value) {
  SmartPtr<IParametersCreatable> h = NewHostParameters();
  if (!h) return SmartPtr<IUnknown>();
  h->Add(Str(name), Int(value), nullptr, 0);
  return QueryAs<IUnknown>(h);
}

int IntInside(IUnknown* collection, const wchar_t* name) {
  SmartPtr<IParameters> p = QueryAs<IParameters>(collection);
  return p ? IntNamed(p, name) : -99999;
}

void FillSource(CTestParameters* p) {
  AddInt(p, L"Gain", 2);
  ASSERT_EQ(p->Add(Str(L"Scale"), Dbl(1.5), nullptr, 0), S_OK);
  ASSERT_EQ(p->Add(Str(L"Label"), StrVariant(L"x & <y>"), nullptr, 0), S_OK);
  AddInt(p, L"Framed", 7, 0x11);
  AddInt(p, L"Sub", 1, 0, HostHolding(L"inner", 3));
  AddInt(p, L"NotInTarget", 5);
}

TEST(ParametersReadBack, XMLMergeUpdatesKnownNamesInAnyCase) {
  auto source = NewParameters();
  FillSource(source);
  auto content = XMLRoundTrip([&](IDataStream* s) { source->Params_SaveXML(s, 0); });
  ASSERT_TRUE(content);
  auto target = NewParameters();
  AddInt(target, L"gain", 0);
  AddInt(target, L"SCALE", 0);
  AddInt(target, L"Label", 0);
  AddInt(target, L"Framed", 0);
  AddInt(target, L"Sub", 0);
  AddInt(target, L"Other", 9, 0x2);
  EXPECT_EQ(target->Params_LoadXML(content, 0, 0), S_OK);
  ASSERT_EQ(target->m_Count, 6);
  EXPECT_EQ(IntNamed(target, L"gain"), 2);
  SmartPtr<IVariant> scale = QueryAs<IVariant>(Value(target, L"scale"));
  ASSERT_TRUE(scale);
  EXPECT_EQ(scale->get_Type(), VARIANT_DOUBLE);
  EXPECT_DOUBLE_EQ(scale->get_Double(), 1.5);
  EXPECT_EQ(Take(ISCreate(QueryAs<IVariant>(Value(target, L"Label")).get())), L"x & <y>");
  EXPECT_EQ(IntNamed(target, L"Framed"), 7);
  EXPECT_EQ(FlagsNamed(target, L"Framed"), 0x11);
  SmartPtr<IUnknown> descriptor;
  ASSERT_EQ(target->Get(Str(L"Sub"), nullptr, descriptor.Out(), nullptr, 0), 4);
  EXPECT_EQ(IntInside(descriptor, L"inner"), 3);
  EXPECT_EQ(IntNamed(target, L"Other"), 9);
  EXPECT_EQ(FlagsNamed(target, L"Other"), 0x2);
}

TEST(ParametersReadBack, XMLReplaceTakesEachElementTextAsValue) {
  auto source = NewParameters();
  FillSource(source);
  auto content = XMLRoundTrip([&](IDataStream* s) { source->Params_SaveXML(s, 0); });
  ASSERT_TRUE(content);
  auto target = NewParameters();
  AddInt(target, L"Stale", 1);
  EXPECT_EQ(target->Params_LoadXML(content, PERSIST_REPLACE, 0), S_OK);
  ASSERT_EQ(target->m_Count, 6);
  EXPECT_EQ(NameAt(target, 0), L"Gain");
  EXPECT_EQ(IntAt(target, 0), 2);
  EXPECT_EQ(FlagsAt(target, 3), 0);
  // A full form gives no value of its own: its whole text (the child elements) is taken
  // as a string, and neither flags nor descriptor are kept.
  SmartPtr<IVariant> framed;
  target->get_ItemVariant(3, framed.Out());
  ASSERT_TRUE(framed);
  EXPECT_TRUE(framed->IsString());
  SmartPtr<IUnknown> none;
  EXPECT_EQ(target->get_ItemDescriptor(4, none.Out()), E_FAIL);
}

TEST(ParametersReadBack, XMLFlagsTextIsDecimalOrHashHex) {
  auto content = XMLContent(
      L"<P><a><Value>1</Value><Flags>#000011</Flags></a><B><Value> 2.25</Value><Flags>17</Flags></B>"
      L"<c>3</c></P>");
  ASSERT_TRUE(content);
  auto target = NewParameters();
  AddInt(target, L"a", 0);
  AddInt(target, L"b", 0);
  AddInt(target, L"c", 0, 0x8);
  EXPECT_EQ(target->Params_LoadXML(content, 0, 0), S_OK);
  EXPECT_EQ(FlagsAt(target, 0), 0x11);
  EXPECT_EQ(FlagsAt(target, 1), 17);
  SmartPtr<IVariant> b;
  target->get_ItemVariant(1, b.Out());
  EXPECT_DOUBLE_EQ(b->get_Double(), 2.25);
  EXPECT_EQ(IntAt(target, 2), 3);
  EXPECT_EQ(FlagsAt(target, 2), 0x8);
}

TEST(ParametersReadBack, FolderMergeAndReplace) {
  auto source = NewParameters();
  AddInt(source, L"plain", 5);
  ASSERT_EQ(source->Add(Str(L"flagged"), Dbl(2.5), nullptr, 0x11), S_OK);
  ASSERT_EQ(source->Add(Str(L"text"), StrVariant(L"hello"), HostHolding(L"inner", 3), 0), S_OK);
  std::vector<char> image;
  auto folder = FolderRoundTrip([&](IDataStream* s) { source->Params_SaveFolderStream(s, 0); }, &image);
  ASSERT_TRUE(folder);
  // A value without flags or descriptor is a plain key; the others are sub-streams.
  SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(folder);
  ASSERT_TRUE(keys);
  SmartPtr<IUnknown> entry;
  int k = -1;
  ASSERT_EQ(keys->get_Index(Str(L"plain"), &k), S_OK);
  keys->get_Item(k, entry.Out());
  EXPECT_FALSE(QueryAs<IFolderStream>(entry));
  ASSERT_EQ(keys->get_Index(Str(L"flagged"), &k), S_OK);
  keys->get_Item(k, entry.Out());
  EXPECT_TRUE(QueryAs<IFolderStream>(entry));

  auto merged = NewParameters();
  AddInt(merged, L"plain", 0);
  AddInt(merged, L"flagged", 0, 0x1);
  AddInt(merged, L"text", 0);
  AddInt(merged, L"absent", 4);
  EXPECT_EQ(merged->Params_LoadFolderStream(folder, 0), S_OK);
  EXPECT_EQ(IntAt(merged, 0), 5);
  SmartPtr<IVariant> flagged;
  merged->get_ItemVariant(1, flagged.Out());
  EXPECT_DOUBLE_EQ(flagged->get_Double(), 2.5);
  EXPECT_EQ(FlagsAt(merged, 1), 0x1);  // flags are not taken over when merging
  SmartPtr<IUnknown> descriptor;
  EXPECT_EQ(merged->get_ItemDescriptor(2, descriptor.Out()), S_OK);
  EXPECT_EQ(IntInside(descriptor, L"inner"), 3);
  EXPECT_EQ(IntAt(merged, 3), 4);

  auto replaced = NewParameters();
  AddInt(replaced, L"stale", 1);
  EXPECT_EQ(replaced->Params_LoadFolderStream(folder, PERSIST_REPLACE), S_OK);
  ASSERT_EQ(replaced->m_Count, 3);
  EXPECT_EQ(FlagsNamed(replaced, L"flagged"), 0x11);
  EXPECT_EQ(IntNamed(replaced, L"plain"), 5);
  EXPECT_EQ(Take(ISCreate(QueryAs<IVariant>(Value(replaced, L"text")).get())), L"hello");
}

TEST(ParametersReadBack, PersistentItemsByReplaceOrIntoExistingObjects) {
  auto source = NewParameters();
  ASSERT_EQ(source->Add(Str(L"Alpha"), HostHolding(L"x", 1), nullptr, 0x5), S_OK);
  ASSERT_EQ(source->Add(Str(L"Beta"), HostHolding(L"y", 2), HostHolding(L"d", 4), 0), S_OK);
  auto save = [&](IDataStream* s) { source->Params_SaveXMLUnk(s, 0); };

  auto replaced = NewParameters();
  EXPECT_EQ(replaced->Params_LoadXMLUnk(XMLRoundTrip(save), PERSIST_REPLACE), S_OK);
  ASSERT_EQ(replaced->m_Count, 2);
  SmartPtr<IUnknown> item, descriptor;
  replaced->get_Item(0, item.Out());
  EXPECT_EQ(IntInside(item, L"x"), 1);
  EXPECT_EQ(FlagsAt(replaced, 0), 0x5);
  replaced->get_Item(1, item.Out());
  EXPECT_EQ(IntInside(item, L"y"), 2);
  EXPECT_EQ(replaced->get_ItemDescriptor(1, descriptor.Out()), S_OK);
  EXPECT_EQ(IntInside(descriptor, L"d"), 4);

  // 0x2000000 loads into the object already held, which keeps its identity.
  auto existing = NewParameters();
  SmartPtr<IUnknown> alpha = HostHolding(L"x", 0);
  ASSERT_EQ(existing->Add(Str(L"alpha"), alpha, nullptr, 0), S_OK);
  EXPECT_EQ(existing->Params_LoadXMLUnk(XMLRoundTrip(save), PERSIST_LOAD_INTO_EXISTING), S_OK);
  ASSERT_EQ(existing->m_Count, 1);
  existing->get_Item(0, item.Out());
  EXPECT_TRUE(params_detail::SameObject(item, alpha));
  EXPECT_EQ(IntInside(alpha, L"x"), 1);
  EXPECT_EQ(FlagsAt(existing, 0), 0x5);
}

TEST(ParametersReadBack, HostCollectionLoadAddsTheItemsItLacks) {
  auto source = NewParameters();
  AddInt(source, L"a", 1, 0x11);
  AddInt(source, L"b", 2);
  for (int form = 0; form < 2; ++form) {
    SmartPtr<IParametersCreatable> host = NewHostParameters();
    ASSERT_TRUE(host);
    host->Add(Str(L"B"), Int(0), nullptr, 0);
    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(host);
    ASSERT_TRUE(persist);
    std::vector<char> image;
    SmartPtr<IDataStream> stream =
        form == 0 ? XMLRoundTrip([&](IDataStream* s) { source->Params_SaveXML(s, 0); })
                  : FolderRoundTrip([&](IDataStream* s) { source->Params_SaveFolderStream(s, 0); }, &image);
    ASSERT_TRUE(stream);
    EXPECT_EQ(persist->Load(stream, 0), S_OK);
    int count = 0;
    host->get_Count(&count);
    EXPECT_EQ(count, 2) << "form " << form;
    EXPECT_EQ(IntNamed(host, L"a"), 1);
    EXPECT_EQ(FlagsNamed(host, L"a"), 0x11);
    EXPECT_EQ(IntNamed(host, L"b"), 2);
  }
}

// Points the host registry at a settings file with the given install path while alive.
class ScopedInstallPath {
 public:
  explicit ScopedInstallPath(const char* installPath) {
    char name[] = "/tmp/zeltrim_params_XXXXXX";
    const int fd = mkstemp(name);
    m_File = name;
    const std::string text = std::string("[Workspace]\nInstallPath=") + installPath + "\n";
    if (fd >= 0) {
      if (write(fd, text.data(), text.size()) < 0) m_File.clear();
      close(fd);
    }
    setenv("ZELTRIM_REGISTRY", m_File.c_str(), 1);
  }
  ~ScopedInstallPath() {
    unsetenv("ZELTRIM_REGISTRY");
    if (!m_File.empty()) unlink(m_File.c_str());
  }

 private:
  std::string m_File;
};

TEST(ParametersReadBack, FileNamesUnderTheInstallPathAreStoredMapped) {
  ScopedInstallPath registry("/opt/zt");
  auto source = NewParameters();
  ASSERT_EQ(source->Add(Str(L"map"), StrVariant(L"/opt/zt/data/a.cal"), nullptr, 0x2), S_OK);
  ASSERT_EQ(source->Add(Str(L"near"), StrVariant(L"/OPT/ZT/b.cal"), nullptr, 0x12), S_OK);
  ASSERT_EQ(source->Add(Str(L"elsewhere"), StrVariant(L"/srv/c.cal"), nullptr, 0x12), S_OK);
  Recorder r(CFakeStream::FOLDER);
  EXPECT_EQ(source->Params_SaveFolderStream(r.stream, 0), S_OK);
  // 0x30 marks the name as under the install path (0x100); two folder levels are not
  // shared, so the relative form gives way to the mapped one.
  EXPECT_EQ(r.log, Lines({L"sub map", L"map/Value=[InstallPath]/data/a.cal", L"map/Flags#4:#000002",
                          L"sub near", L"near/Value=[InstallPath]/b.cal", L"near/Flags#4:#000112",
                          L"sub elsewhere", L"elsewhere/Value=/srv/c.cal", L"elsewhere/Flags#4:#000012"}));
  std::vector<char> image;
  auto folder = FolderRoundTrip([&](IDataStream* s) { source->Params_SaveFolderStream(s, 0); }, &image);
  ASSERT_TRUE(folder);
  auto replaced = NewParameters();
  EXPECT_EQ(replaced->Params_LoadFolderStream(folder, PERSIST_REPLACE), S_OK);
  ASSERT_EQ(replaced->m_Count, 3);
  EXPECT_EQ(Take(ISCreate(QueryAs<IVariant>(Value(replaced, L"map")).get())), L"/opt/zt/data/a.cal");
  EXPECT_EQ(Take(ISCreate(QueryAs<IVariant>(Value(replaced, L"near")).get())), L"/opt/zt/b.cal");
  EXPECT_EQ(Take(ISCreate(QueryAs<IVariant>(Value(replaced, L"elsewhere")).get())), L"/srv/c.cal");
}

}  // namespace
