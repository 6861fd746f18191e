// The parameter collection template: keys, growth, Get/Set/Copy/Sort/Remove, and the
// exact calls its stream forms make (recorded by fake streams).
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

}  // namespace
