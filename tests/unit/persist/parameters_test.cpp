// The parameter collection template: keys, Get/Set/Copy/Sort/Remove, and its stream forms
// written to and read back from the host's streams.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "persist/ParametersImpl.h"
#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

using params_detail::SameObject;

std::wstring TextOf(IString* s) { return params_detail::Text(s); }

SmartPtr<IVariant> NewVariant() {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  return v;
}

// A variant holding an integer, a double or a string.
template <class T>
SmartPtr<IVariant> V(T value) {
  SmartPtr<IVariant> v = NewVariant();
  if constexpr (std::is_same_v<T, int>)
    v->put_Integer(value);
  else if constexpr (std::is_same_v<T, double>)
    v->put_Double(value);
  else
    v->put_String(Str(value));
  return v;
}

// The collection under test: the host's, which is the template itself.
SmartPtr<IParametersCreatable> NewParameters() { return CreateHostObject<IParametersCreatable>(L"ParametersCreatable"); }

void Add(IParameters* p, const wchar_t* name, IUnknown* value, int flags = 0, IUnknown* descriptor = nullptr) {
  ASSERT_EQ(p->Add(Str(name), value, descriptor, flags), S_OK);
}

// A plain object with a name, to be stored and matched.
SmartPtr<IUnknown> NewThing() { return CreateHostObject<IUnknown>(L"Point"); }

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

// A collection holding name = value, to serve as a persistent item or descriptor.
SmartPtr<IUnknown> HostHolding(const wchar_t* name, int value, int flags = 0) {
  SmartPtr<IParametersCreatable> h = NewParameters();
  if (h) h->Add(Str(name), V(value), nullptr, flags);
  return QueryAs<IUnknown>(h);
}

std::wstring ObjectText(IUnknown* object);

// Every item as "name=value", with " #flags" when they are not zero and " [descriptor]"
// when there is one, separated by "; ". An object value shows as ObjectText.
std::wstring Items(IUnknown* collection) {
  SmartPtr<IParameters> p = QueryAs<IParameters>(collection);
  std::wstring all;
  int count = 0;
  if (!p || p->get_Count(&count) < 0) return L"<no collection>";
  for (int i = 0; i < count; ++i) {
    SmartPtr<IString> name;
    SmartPtr<IVariant> value;
    SmartPtr<IUnknown> descriptor;
    int flags = 0;
    p->Iterate(i, name.Out(), value.Out(), descriptor.Out(), &flags);
    all += (i ? L"; " : L"") + TextOf(name) + L"=";
    SmartPtr<IUnknown> held;
    if (value && value->IsObject() && value->get_Object(held.Out()) >= 0)
      all += ObjectText(held);
    else if (value)
      all += Take(ISCreate(value.get()));
    if (flags) all += L" " + Take(ISCreateHex(static_cast<unsigned>(flags)));
    if (descriptor) all += L" [" + ObjectText(descriptor) + L"]";
  }
  return all;
}

// A string in quotes, a variant in brackets, a collection as its items in braces,
// another object by its name.
std::wstring ObjectText(IUnknown* object) {
  if (!object) return L"null";
  if (SmartPtr<IString> s = QueryAs<IString>(object)) return L"\"" + TextOf(s) + L"\"";
  if (SmartPtr<IVariant> v = QueryAs<IVariant>(object)) return L"(" + Take(ISCreate(v.get())) + L")";
  if (QueryAs<IParameters>(object)) return L"{" + Items(object) + L"}";
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  tagREFString name{0, nullptr};
  if (!info || info->GetName(0, &name) < 0) return L"?";
  return std::wstring(name.m_Text, static_cast<size_t>(name.m_Length));
}

// ------------------------------------------------------------------ keys

int IndexOf(IParameters* p, IUnknown* key) {
  int index = -7;
  const HRESULT hr = p->get_Index(key, &index);
  return hr == S_OK ? index : hr == E_FAIL ? -1 : -2;
}

TEST(ParametersKeys, NamesFoldOnlyAsciiLettersAndNumbersAreIndicesWithoutARangeTest) {
  auto p = NewParameters();
  int index = 5;
  EXPECT_EQ(p->get_Index(Str(L"abc"), &index), E_FAIL);  // empty collection
  EXPECT_EQ(index, -1);
  Add(p, L"first", V(1));
  Add(p, L"abc", V(2));
  Add(p, L"\u00e9t\u00e9", V(3));
  Add(p, L"ABC", V(4));  // a duplicate in other case: the first match wins
  EXPECT_EQ(IndexOf(p, Str(L"ABC")), 1);
  EXPECT_EQ(IndexOf(p, Str(L"\u00e9t\u00e9")), 2);
  EXPECT_EQ(IndexOf(p, Str(L"\u00c9T\u00c9")), -1);  // an accented capital is not folded
  EXPECT_EQ(IndexOf(p, Str(L"ab")), -1);
  EXPECT_EQ(IndexOf(p, Str(L"abcd")), -1);
  EXPECT_EQ(IndexOf(p, Str(L"")), -1);
  EXPECT_EQ(IndexOf(p, V(L"FIRST")), 0);  // a variant holding a string counts as that string
  EXPECT_EQ(IndexOf(p, V(7)), 7);
  EXPECT_EQ(IndexOf(p, V(2.9)), 2);
}

TEST(ParametersKeys, ObjectsMatchValuesThenDescriptorsByIdentity) {
  auto p = NewParameters();
  auto valueThing = NewThing();
  auto descriptorThing = NewThing();
  Add(p, L"number", V(1));
  Add(p, L"holder", valueThing);
  Add(p, L"described", V(2), 0, descriptorThing);
  EXPECT_EQ(IndexOf(p, valueThing), 1);
  EXPECT_EQ(IndexOf(p, descriptorThing), 2);
  // Through another interface of the same object, and through a variant holding it.
  EXPECT_EQ(IndexOf(p, QueryAs<IObjectInfo>(valueThing).get()), 1);
  SmartPtr<IVariant> wrapped = NewVariant();
  wrapped->put_Object(descriptorThing);
  EXPECT_EQ(IndexOf(p, wrapped), 2);
  // No match leaves the index alone.
  int index = 42;
  EXPECT_EQ(p->get_Index(NewThing(), &index), E_FAIL);
  EXPECT_EQ(p->get_Index(nullptr, &index), E_FAIL);
  EXPECT_EQ(index, 42);
  EXPECT_EQ(p->get_Index(valueThing, nullptr), E_POINTER);
}

// ------------------------------------------------------------------ items

TEST(ParametersItems, IndicesOutsideTheItemsAreInvalid) {
  auto p = NewParameters();
  Add(p, L"a", V(1));
  IUnknown* out = nullptr;
  IString* name = nullptr;
  int flags = 0;
  for (int index : {1, -1}) {
    EXPECT_EQ(p->get_Item(index, &out), E_INVALIDARG);
    EXPECT_EQ(p->get_ItemName(index, &name), E_INVALIDARG);
    EXPECT_EQ(p->get_ItemFlags(index, &flags), E_INVALIDARG);
    EXPECT_EQ(p->put_ItemFlags(index, 3), E_INVALIDARG);
    EXPECT_EQ(p->put_Item(index, nullptr), E_INVALIDARG);
    EXPECT_EQ(p->put_ItemDescriptor(index, nullptr), E_INVALIDARG);
    EXPECT_EQ(p->Rename(index, Str(L"x")), E_INVALIDARG);
    EXPECT_EQ(p->Remove(index), E_INVALIDARG);
    EXPECT_EQ(p->Iterate(index, &name, nullptr, nullptr, &flags), E_INVALIDARG);
  }
  EXPECT_EQ(p->get_Item(0, nullptr), E_POINTER);
}

TEST(ParametersItems, TheLockIsAFlagThatTheNextOperationClearsNotACount) {
  auto p = NewParameters();
  p->CollectionLock();
  EXPECT_NE(p->IsCollectionLocked(), 0);
  Add(p, L"a", V(1));
  EXPECT_EQ(p->IsCollectionLocked(), 0);
}

TEST(ParametersItems, ValuesAreStoredAsVariantsAndGetItemUnpacksObjectsAndStrings) {
  auto p = NewParameters();
  auto number = V(3);
  Add(p, L"v", number);
  Add(p, L"t", NewThing());
  Add(p, L"s", V(L"text"));
  Add(p, L"empty", nullptr);  // a null item: an empty string object
  ASSERT_EQ(p->Add(nullptr, V(1), nullptr, 0), S_OK);
  EXPECT_EQ(Items(p), L"v=3; t=Point; s=text; empty=\"\"; =1");
  SmartPtr<IVariant> stored;
  p->get_ItemVariant(0, stored.Out());
  EXPECT_EQ(stored.get(), number.get());  // a variant is stored itself
  std::wstring unpacked;
  for (int i = 0; i < 3; ++i) {
    SmartPtr<IUnknown> item;
    EXPECT_EQ(p->get_Item(i, item.Out()), S_OK);
    unpacked += ObjectText(item) + L" ";
  }
  EXPECT_EQ(unpacked, L"(3) Point \"text\" ");
  // A null name is stored as it stands and reported as a failure.
  IString* name = reinterpret_cast<IString*>(1);
  EXPECT_EQ(p->get_ItemName(4, &name), E_FAIL);
  EXPECT_EQ(name, nullptr);
  // put_Item of null holds a new variant with a null object; Rename swaps the name.
  EXPECT_EQ(p->put_Item(0, nullptr), S_OK);
  EXPECT_EQ(p->Rename(0, Str(L"renamed")), S_OK);
  EXPECT_EQ(Items(p), L"renamed=; t=Point; s=text; empty=\"\"; =1");
}

TEST(ParametersItems, AnInputParameterDescriptorOverridesTheValueOnceItHasOne) {
  auto p = NewParameters();
  SmartPtr<CFakeInput> input;
  input.Attach(new CFakeInput());
  Add(p, L"live", V(1), 0, static_cast<IInputParameter*>(input.get()));
  SmartPtr<IVariant> v;
  EXPECT_EQ(p->get_ItemVariant(0, v.Out()), S_OK);  // no value from the input yet
  EXPECT_EQ(v->get_Integer(), 1);
  input->m_Value = V(99).get();
  EXPECT_EQ(p->get_ItemVariant(0, v.Out()), S_FALSE);
  EXPECT_EQ(v->get_Integer(), 99);
  // Get reads the stored value unless bit 0 asks for the input's.
  SmartPtr<IUnknown> stored, given;
  EXPECT_EQ(p->Get(Str(L"live"), stored.Out(), nullptr, nullptr, 0), 0);
  EXPECT_EQ(p->Get(Str(L"live"), given.Out(), nullptr, nullptr, 1), 0);
  EXPECT_EQ(ObjectText(stored) + ObjectText(given), L"(1)(99)");
  EXPECT_EQ(p->getParameter(nullptr, stored.Out()), E_POINTER);
}

TEST(ParametersItems, IterateAndGetLeaveWhatTheyDoNotFindAlone) {
  auto p = NewParameters();
  auto thing = NewThing();
  Add(p, L"a", V(1), 0x20);
  Add(p, L"b", thing, 7, thing);
  IUnknown* const untouched = reinterpret_cast<IUnknown*>(8);
  IUnknown* value = untouched;
  IUnknown* descriptor = untouched;
  int flags = 5;
  EXPECT_EQ(p->Iterate(0, nullptr, nullptr, &descriptor, nullptr), S_OK);
  IUnknown* none = untouched;
  EXPECT_EQ(p->get_ItemDescriptor(0, &none), E_FAIL);
  EXPECT_EQ(p->Get(Str(L"zzz"), &value, &descriptor, &flags, 3), -1);
  EXPECT_EQ(p->Get(V(9), &value, &descriptor, &flags, 0), -1);  // a number beyond the items
  EXPECT_EQ(value, untouched);
  EXPECT_EQ(descriptor, untouched);
  EXPECT_EQ(flags, 5);

  SmartPtr<IUnknown> got, gotDescriptor;
  EXPECT_EQ(p->Get(Str(L"B"), got.Out(), gotDescriptor.Out(), &flags, 0), 1);
  EXPECT_TRUE(QueryAs<IVariant>(got));  // the stored variant
  EXPECT_TRUE(SameObject(gotDescriptor, thing));
  EXPECT_EQ(flags, 7);
  EXPECT_EQ(p->Get(V(1), got.Out(), nullptr, nullptr, 2), 1);
  EXPECT_TRUE(SameObject(got, thing));  // unpacked
  EXPECT_EQ(p->Get(Str(L"a"), got.Out(), gotDescriptor.Out(), nullptr, 2), 0);
  EXPECT_EQ(ObjectText(got) + ObjectText(gotDescriptor), L"(1)null");  // a number stays a variant
}

// ------------------------------------------------------------------ Set, Copy, Sort, Remove

TEST(ParametersChanges, SetKeepsOrReplacesFlagsAndDescriptorByOption) {
  auto p = NewParameters();
  Add(p, L"gain", V(1), 0x11, NewThing());
  EXPECT_EQ(p->Set(Str(L"GAIN"), V(2), nullptr, 0, 0), S_OK);
  EXPECT_EQ(Items(p), L"gain=2 #000011 [Point]");
  EXPECT_EQ(p->Set(Str(L"gain"), V(3), nullptr, 0x4, 0), S_OK);  // non-zero flags replace
  EXPECT_EQ(Items(p), L"gain=3 #000004 [Point]");
  EXPECT_EQ(p->Set(Str(L"gain"), V(4), nullptr, 0, 2), S_OK);  // bit 1: zero flags replace too
  EXPECT_EQ(Items(p), L"gain=4 [Point]");
  EXPECT_EQ(p->Set(Str(L"gain"), V(5), nullptr, 0, 1), S_OK);  // bit 0: a null descriptor clears
  EXPECT_EQ(Items(p), L"gain=5");
}

TEST(ParametersChanges, SetOfAnUnknownKeyAddsByNameAndANumberPastTheEndIsRefused) {
  auto p = NewParameters();
  EXPECT_EQ(p->Set(Str(L"new"), V(1), nullptr, 6, 0), S_OK);
  EXPECT_EQ(p->Set(V(L"fromVariant"), V(2), nullptr, 0, 0), S_OK);
  EXPECT_EQ(p->Set(NewThing(), V(3), nullptr, 0, 0), E_FAIL);  // an object names nothing
  EXPECT_EQ(p->Set(V(5), V(3), nullptr, 0, 0), E_INVALIDARG);
  EXPECT_EQ(p->Set(V(1), V(3), nullptr, 0, 0), S_OK);
  EXPECT_EQ(Items(p), L"new=1 #000006; fromVariant=3");
}

TEST(ParametersChanges, CopyNestsValuesOneLevelAndOverwritesByName) {
  auto source = NewParameters();
  auto target = NewParameters();
  Add(source, L"shared", V(5), 0x3, NewThing());
  Add(source, L"onlySource", V(6));
  Add(target, L"SHARED", V(1), 0x40);
  Add(target, L"onlyTarget", V(2));
  EXPECT_EQ(target->Copy(source.get()), S_OK);
  EXPECT_EQ(target->Copy(nullptr), S_OK);
  // The stored variant holds the source's variant as its object; the existing name stays.
  EXPECT_EQ(Items(target), L"SHARED=(5) #000003 [Point]; onlyTarget=2; onlySource=(6)");
}

TEST(ParametersChanges, SortIsByCharacterValueAndOnlyBitOneReversesMovingContents) {
  auto p = NewParameters();
  Add(p, L"b", V(1));
  Add(p, L"a", V(2), 0x10, NewThing());
  Add(p, L"B", V(3));
  Add(p, L"ab", V(4));
  Add(p, L"c", V(5));
  Add(p, L"_", V(6));
  EXPECT_EQ(p->Sort(1 | 4 | 8), S_OK);
  EXPECT_EQ(Items(p), L"B=3; _=6; a=2 #000010 [Point]; ab=4; b=1; c=5");
  EXPECT_EQ(p->Sort(2), S_OK);
  EXPECT_EQ(Items(p), L"c=5; b=1; ab=4; a=2 #000010 [Point]; _=6; B=3");
  EXPECT_EQ(NewParameters()->Sort(2), S_OK);
}

TEST(ParametersChanges, GrowthAndRemoveKeepTheItemsInOrder) {
  auto p = NewParameters();
  for (int i = 0; i < 11; ++i) Add(p, (L"p" + std::to_wstring(i)).c_str(), V(i));
  EXPECT_EQ(p->Remove(10), S_OK);
  EXPECT_EQ(p->Remove(0), S_OK);
  EXPECT_EQ(Items(p), L"p1=1; p2=2; p3=3; p4=4; p5=5; p6=6; p7=7; p8=8; p9=9");
  EXPECT_EQ(p->RemoveAll(), S_OK);
  EXPECT_EQ(Items(p), L"");
}

// ------------------------------------------------------------------ CSV and XML forms

TEST(ParametersCSV, WritesHalfTheBytesOfEveryTextAndCompactLeavesOutFlaggedItems) {
  auto p = NewParameters();
  Add(p, L"a", V(1));
  Add(p, L"bb", V(2.5));
  Add(p, L"hidden", V(7), 0x40000);
  auto bytes = [&](int options) {
    SmartPtr<IDataStream> csv = CreateHostObject<IDataStream>(L"CSVStream");
    void* data = nullptr;
    unsigned long size = 0;
    if (!csv || csv->Open(nullptr, 1000, 1) < 0 || p->Params_SaveCSV(csv, options) != S_OK ||
        csv->GetBuffer(&data, &size) < 0)
      return std::string("<failed>");
    return std::string(static_cast<const char*>(data), size);
  };
  // Byte counts are twice the characters: with 4-byte characters the tail half is lost
  // ("bb" goes out as its first character, "2.5" as the '2' and half of the '.').
  EXPECT_EQ(bytes(PERSIST_CSV_NAME_VALUE),
            std::string("a\0=\0" "1\0,\0" "b\0\0\0" "=\0" "2\0\0\0.\0" ",\0" "h\0\0\0i\0\0\0d\0\0\0" "=\0" "7\0", 38));
  EXPECT_EQ(bytes(PERSIST_COMPACT), std::string("1\0,\0" "2\0\0\0.\0", 10));
  // The separator goes before every item but the first by position.
  p->put_ItemFlags(0, 0x40000);
  EXPECT_EQ(bytes(PERSIST_COMPACT), std::string(",\0" "2\0\0\0.\0", 8));
  SmartPtr<IXMLStreamEx> xml = XmlStream();
  EXPECT_EQ(p->Params_SaveCSV(xml, 0), S_OK);
  EXPECT_EQ(StreamText(xml.get()), L"");
}

// What `save` writes on a new host XML stream, in one line.
template <class Save>
std::wstring XmlText(Save save) {
  SmartPtr<IXMLStreamEx> xml = XmlStream();
  if (!xml) return L"<no stream>";
  EXPECT_EQ(save(xml.get()), S_OK);
  return Flat(StreamText(xml.get()));
}

TEST(ParametersXML, SimpleAndFullElementsReadBackByMergingInAnyCase) {
  auto source = NewParameters();
  Add(source, L"Gain", V(2));
  Add(source, L"Scale", V(1.5));
  Add(source, L"Label", V(L"x & <y>"));
  Add(source, L"Framed", V(7), 0x11);
  Add(source, L"Sub", V(1), 0, HostHolding(L"inner", 3));
  Add(source, L"Hidden", V(4), 0x8000000);  // a flag bit never written
  const std::wstring text = XmlText([&](IDataStream* s) { return source->Params_SaveXML(s, 0); });
  EXPECT_EQ(text,
            L"<Gain>2</Gain><Scale>1.5</Scale><Label>x &amp; &lt;y&gt;</Label>"
            L"<Framed><Value>7</Value><Flags>#000011</Flags></Framed>"
            L"<Sub><Value>1</Value><ParametersCreatable><inner>3</inner></ParametersCreatable></Sub><Hidden>4</Hidden>");

  auto target = NewParameters();
  for (const wchar_t* name : {L"gain", L"SCALE", L"Label", L"Framed", L"Sub"}) Add(target, name, V(0));
  Add(target, L"Other", V(9), 0x2);
  EXPECT_EQ(target->Params_LoadXML(XmlContent(L"<P>" + text + L"</P>"), 0, 0), S_OK);
  EXPECT_EQ(Items(target),
            L"gain=2; SCALE=1.5; Label=x & <y>; Framed=7 #000011; Sub=1 [{inner=3}]; Other=9 #000002");
  SmartPtr<IVariant> scale;
  target->get_ItemVariant(1, scale.Out());
  EXPECT_EQ(scale->get_Type(), VARIANT_DOUBLE);
}

TEST(ParametersXML, ReplacingTakesEachElementTextAsTheValueAndFlagsAreDecimalOrHashHex) {
  const std::wstring text =
      L"<P><a><Value>1</Value><Flags>#000011</Flags></a><B><Value> 2.25</Value><Flags>17</Flags></B>"
      L"<c>3</c></P>";
  auto merged = NewParameters();
  Add(merged, L"a", V(0));
  Add(merged, L"b", V(0));
  Add(merged, L"c", V(0), 0x8);
  EXPECT_EQ(merged->Params_LoadXML(XmlContent(text), 0, 0), S_OK);
  EXPECT_EQ(Items(merged), L"a=1 #000011; b=2.25 #000011; c=3 #000008");
  // A full form gives no value of its own: its whole text is taken as a string.
  auto replaced = NewParameters();
  Add(replaced, L"Stale", V(1));
  EXPECT_EQ(replaced->Params_LoadXML(XmlContent(text), PERSIST_REPLACE, 0), S_OK);
  EXPECT_EQ(Items(replaced), L"a=<Value>1</Value><Flags>#000011</Flags>; B=<Value> 2.25</Value><Flags>17</Flags>; c=3");
}

TEST(ParametersXML, CompactDropsEditorFlagsAndWritesColoursAsOneHexText) {
  auto p = NewParameters();
  Add(p, L"Colour", V(0x112233), 0x23);
  Add(p, L"Editor", V(1), 0x40 | 0x1, HostHolding(L"e", 0));
  Add(p, L"Dropped", V(2), 0x40000 | 0x3);
  Add(p, L"DroppedDescribed", V(3), 0x40000 | 0x3, HostHolding(L"e", 0));
  Add(p, L"Kind5", V(4), 0x15);
  Add(p, L"Nine", V(5), 9);
  Add(p, L"Nineteen", V(6), 0x19);
  Add(p, L"Described", V(7), 0, HostHolding(L"k", 8, 9));  // the descriptor is compact too
  EXPECT_EQ(XmlText([&](IDataStream* s) { return p->Params_SaveXML(s, PERSIST_COMPACT); }),
            L"<Colour>#332211</Colour><Editor><Value>1</Value><Flags>#000001</Flags></Editor><Dropped>2</Dropped>"
            L"<DroppedDescribed>3</DroppedDescribed><Kind5>4</Kind5><Nine>5</Nine>"
            L"<Nineteen><Value>6</Value><Flags>#000019</Flags></Nineteen>"
            L"<Described><Value>7</Value><ParametersCreatable><k>8</k></ParametersCreatable></Described>");
  // Without the compact bit the same flags make full forms.
  auto q = NewParameters();
  Add(q, L"Kind5", V(4), 0x15);
  EXPECT_EQ(XmlText([&](IDataStream* s) { return q->Params_SaveXML(s, 0); }),
            L"<Kind5><Value>4</Value><Flags>#000015</Flags></Kind5>");
}

TEST(ParametersXML, PersistentItemsAreReplacedOrLoadedIntoTheObjectsAlreadyHeld) {
  auto source = NewParameters();
  Add(source, L"Alpha", HostHolding(L"x", 1), 0x5);
  Add(source, L"Beta", HostHolding(L"y", 2), 0, HostHolding(L"d", 4));
  Add(source, L"NotPersistent", V(1));
  ASSERT_EQ(source->Add(nullptr, HostHolding(L"z", 9, 9), nullptr, 0), S_OK);
  const std::wstring text = XmlText([&](IDataStream* s) { return source->Params_SaveXMLUnk(s, PERSIST_COMPACT); });
  EXPECT_EQ(text,
            L"<Alpha><Flags>#000005</Flags><ParametersCreatable><x>1</x></ParametersCreatable></Alpha>"
            L"<Beta><ParametersCreatable><y>2</y></ParametersCreatable>"
            L"<ItemDescriptor><ParametersCreatable><d>4</d></ParametersCreatable></ItemDescriptor></Beta>"
            L"<Item4><ParametersCreatable><z>9</z></ParametersCreatable></Item4>");
  auto replaced = NewParameters();
  EXPECT_EQ(replaced->Params_LoadXMLUnk(XmlContent(L"<P>" + text + L"</P>"), PERSIST_REPLACE), S_OK);
  EXPECT_EQ(Items(replaced), L"Alpha={x=1} #000005; Beta={y=2} [{d=4}]; Item4={z=9}");
  // 0x2000000 loads into the object already held, which keeps its identity.
  auto existing = NewParameters();
  SmartPtr<IUnknown> alpha = HostHolding(L"x", 0);
  Add(existing, L"alpha", alpha);
  EXPECT_EQ(existing->Params_LoadXMLUnk(XmlContent(L"<P>" + text + L"</P>"), PERSIST_LOAD_INTO_EXISTING), S_OK);
  EXPECT_EQ(Items(existing), L"alpha={x=1} #000005");
  SmartPtr<IUnknown> item;
  existing->get_Item(0, item.Out());
  EXPECT_TRUE(SameObject(item, alpha));
}

// ------------------------------------------------------------------ folder form

// A new host folder stream holding what `save` wrote; *listing is its entries, one a line.
template <class Save>
SmartPtr<IDataStream> SavedFolder(Save save, std::wstring* listing) {
  SmartPtr<IDataStream> folder = CreateHostObject<IDataStream>(L"FolderStream");
  if (!folder || folder->Open(nullptr, 1000, 1) < 0) return SmartPtr<IDataStream>();
  EXPECT_EQ(save(folder.get()), S_OK);
  *listing = StreamText(folder.get());
  return folder;
}

TEST(ParametersFolder, PlainKeysOrSubStreamsReadBackByMergingOrReplacing) {
  auto p = NewParameters();
  Add(p, L"plain", V(5));
  Add(p, L"flagged", V(2.5), 0x11);
  Add(p, L"described", V(L"hello"), 0, HostHolding(L"d", 4));
  Add(p, L"object", HostHolding(L"inner", 3));
  Add(p, L"skipped", V(8), 0x4000000);
  ASSERT_EQ(p->Add(nullptr, V(0.5), nullptr, 0), S_OK);
  Add(p, L"self", p, 0, p);
  std::wstring listing;
  auto folder = SavedFolder([&](IDataStream* s) { return p->Params_SaveFolderStream(s, 0); }, &listing);
  p->Remove(6);  // breaks the reference cycle
  EXPECT_EQ(listing,
            L"plain: int32 = 5\n"
            L"flagged: folder\n  Value: double = 2.5\n  Flags: data[4]\n"
            L"described: folder\n  Value: string = hello\n  Descriptor: object ParametersCreatable\n    d: int32 = 4\n"
            L"object: folder\n  Unknown: object ParametersCreatable\n    inner: int32 = 3\n"
            L"Item6: double = 0.5\n"
            L"self: folder\n");
  ASSERT_TRUE(folder);

  auto merged = NewParameters();
  for (const wchar_t* name : {L"plain", L"flagged", L"Item6"}) Add(merged, name, V(0), 0x1);
  Add(merged, L"absent", V(4));
  EXPECT_EQ(merged->Params_LoadFolderStream(folder, 0), S_OK);
  // Flags are not taken over when merging.
  EXPECT_EQ(Items(merged), L"plain=5 #000001; flagged=2.5 #000001; Item6=0.5 #000001; absent=4");
  auto replaced = NewParameters();
  Add(replaced, L"stale", V(1));
  EXPECT_EQ(replaced->Params_LoadFolderStream(folder, PERSIST_REPLACE), S_OK);
  EXPECT_EQ(Items(replaced), L"plain=5; flagged=2.5 #000011; described=hello [{d=4}]; object={inner=3}; Item6=0.5; self=");
}

TEST(ParametersFolder, CompactDropsEditorOnlyDescriptorsAndFlaggedItemsWithoutOne) {
  auto p = NewParameters();
  SmartPtr<CFakeInput> input;
  input.Attach(new CFakeInput());
  Add(p, L"editor", V(1), 0x41, HostHolding(L"d", 4));
  Add(p, L"input", V(2), 0x41, static_cast<IInputParameter*>(input.get()));
  Add(p, L"dropped", V(3), 0x40000);
  Add(p, L"kind3", V(4), 0x3);
  Add(p, L"keptDescribed", V(5), 0x40000, HostHolding(L"d", 4));
  std::wstring listing;
  auto folder = SavedFolder([&](IDataStream* s) { return p->Params_SaveFolderStream(s, PERSIST_COMPACT); }, &listing);
  EXPECT_EQ(listing,
            L"editor: int32 = 1\n"
            L"input: folder\n  Value: int32 = 2\n  Flags: data[4]\n"
            L"kind3: int32 = 4\n"
            L"keptDescribed: folder\n  Value: int32 = 5\n  Flags: data[4]\n  Descriptor: object ParametersCreatable\n"
            L"    d: int32 = 4\n");
  auto replaced = NewParameters();
  EXPECT_EQ(replaced->Params_LoadFolderStream(folder, PERSIST_REPLACE), S_OK);
  EXPECT_EQ(Items(replaced), L"editor=1; input=2 #000041; kind3=4; keptDescribed=5 #040000 [{d=4}]");
}

TEST(ParametersFolder, FileNamesUnderTheInstallPathAreStoredMappedAndComeBackWhole) {
  ScratchFolder scratch;
  RegistryFile registry(scratch, "[Workspace]\nInstallPath=/opt/zt\n");
  auto source = NewParameters();
  Add(source, L"map", V(L"/opt/zt/data/a.cal"), 0x2);
  Add(source, L"near", V(L"/OPT/ZT/b.cal"), 0x12);
  Add(source, L"elsewhere", V(L"/srv/c.cal"), 0x12);
  std::wstring listing;
  auto folder = SavedFolder([&](IDataStream* s) { return source->Params_SaveFolderStream(s, 0); }, &listing);
  // Two folder levels are not shared with the install path, so the relative form gives
  // way to the mapped one.
  EXPECT_EQ(listing,
            L"map: folder\n  Value: string = [InstallPath]/data/a.cal\n  Flags: data[4]\n"
            L"near: folder\n  Value: string = [InstallPath]/b.cal\n  Flags: data[4]\n"
            L"elsewhere: folder\n  Value: string = /srv/c.cal\n  Flags: data[4]\n");
  auto replaced = NewParameters();
  EXPECT_EQ(replaced->Params_LoadFolderStream(folder, PERSIST_REPLACE), S_OK);
  // 0x30 marks a name under the install path with 0x100.
  EXPECT_EQ(Items(replaced), L"map=/opt/zt/data/a.cal #000002; near=/opt/zt/b.cal #000112; elsewhere=/srv/c.cal #000012");
}

}  // namespace
