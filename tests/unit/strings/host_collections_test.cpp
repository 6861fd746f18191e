// The host objects' names, and the "Collections" peer's own objects reached as the module
// reaches them: variants, simple collections, vectors of doubles, the component descriptor.
#include <gtest/gtest.h>

#include <climits>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

// The IObjectInfo name of an object, which is released.
std::wstring NameOf(SmartPtr<IUnknown> object) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  tagREFString name{0, nullptr};
  if (!info || info->GetName(99, &name) < 0) return L"<none>";
  return ViewText(name);
}

// The reference count of an object, other than the one this call takes.
long References(IUnknown* object) {
  object->AddRef();
  return static_cast<long>(object->Release());
}

TEST(HostObjects, EachAnswersTheNameItIsCreatedByExceptStrings) {
  for (const wchar_t* name : {L"Variant", L"SimpleCollection", L"DblBuffer", L"ParametersCreatable", L"ComponentString",
                              L"DataStream", L"XMLStream", L"XMLStreamEx", L"FolderStream", L"CSVStream", L"ASCIIStream",
                              L"FileInfo", L"Point", L"PointsCollection", L"PointVector", L"Plane", L"LineSegment",
                              L"LinearTransform", L"HomogeneousTransform", L"Registry"})
    EXPECT_EQ(NameOf(CreateHostObject<IUnknown>(name)), name);
  EXPECT_EQ(NameOf(CreateHostObject<IUnknown>(L"CreatableString")), L"<none>");  // strings are values, not named objects
}

// A descriptor keeps the creator it found; changing its fields makes it find another.
TEST(HostObjects, ADescriptorCreatesWhatItsFieldsNameNow) {
  SmartPtr<IComponentString> descriptor = CreateHostObject<IComponentString>(L"ComponentString");
  ASSERT_TRUE(descriptor);
  auto created = [&]() {
    SmartPtr<IUnknown> object;
    descriptor->CreateInstance(IID_IUnknown, reinterpret_cast<void**>(object.Out()));
    return object ? NameOf(object) : L"<none>";
  };
  descriptor->put_Field(COMPONENT_MODULE, 11, L"Collections");
  descriptor->put_Field(COMPONENT_OBJECT, 7, L"Variant");
  EXPECT_EQ(created(), L"Variant");
  EXPECT_EQ(created(), L"Variant");
  descriptor->put_Field(COMPONENT_OBJECT, 16, L"SimpleCollection");
  EXPECT_EQ(created(), L"SimpleCollection");
  SmartPtr<IUnknown> buffer;
  buffer.Attach(BASEObject::CreateDBLBuffer());
  ASSERT_EQ(descriptor->SetFromObject(buffer), S_OK);
  EXPECT_EQ(created(), L"DblBuffer");
}

TEST(HostVariant, HoldsOneValueAtATime) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  EXPECT_EQ(variant->get_Type(), VARIANT_OBJECT);
  EXPECT_FALSE(variant->IsObject() || variant->IsString());
  SmartPtr<IUnknown> none;
  EXPECT_EQ(variant->get_Object(none.Out()), E_FAIL);
  variant->put_Integer(-7);
  EXPECT_EQ(variant->get_Type(), VARIANT_INTEGER);
  EXPECT_EQ(variant->get_Double(), -7.0);
  variant->put_Double(-2.75);
  EXPECT_EQ(variant->get_Type(), VARIANT_DOUBLE);
  EXPECT_EQ(variant->get_Integer(), -2);  // truncated
  variant->put_Double(1e12);
  EXPECT_EQ(variant->get_Integer(), INT_MAX);
  // A string is a copy of its own, read as a number when asked.
  SmartPtr<ICreatableString> text;
  text.Attach(CREFString::CreateString());
  text->SetString(4, L"12.5");
  variant->put_String(text);
  text->SetString(3, L"two");
  EXPECT_TRUE(variant->IsString() && !variant->IsObject());
  EXPECT_EQ(variant->get_Type(), VARIANT_OBJECT);
  EXPECT_EQ(variant->get_Double(), 12.5);
  EXPECT_EQ(variant->get_Integer(), 12);
  IString* back = nullptr;
  EXPECT_EQ(variant->get_String(&back), S_OK);
  EXPECT_EQ(Take(back), L"12.5");
}

TEST(HostVariant, ObjectReferencesAreCounted) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  SmartPtr<IDblVector> buffer;
  buffer.Attach(BASEObject::CreateDBLBuffer());
  EXPECT_EQ(variant->put_Object(buffer), S_OK);
  EXPECT_TRUE(variant->IsObject());
  EXPECT_EQ(References(buffer), 2);  // ours and the variant's
  SmartPtr<IUnknown> got;
  EXPECT_EQ(variant->get_Object(got.Out()), S_OK);
  EXPECT_EQ(References(buffer), 3);
  got.Clear();
  EXPECT_EQ(variant->put_Object(buffer), S_OK);  // putting the held object again keeps it alive
  EXPECT_EQ(References(buffer), 2);
  variant->put_Integer(1);  // lets the object go
  EXPECT_EQ(References(buffer), 1);
}

// A parameter collection wraps a text item by put_Object; its number is still the text's,
// and an object that is no string reads as 0.
TEST(HostVariant, AHeldStringObjectReadsAsItsNumber) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  SmartPtr<ICreatableString> text;
  text.Attach(CREFString::CreateString());
  text->SetString(5, L" -2.5");
  variant->put_Object(text);
  EXPECT_TRUE(variant->IsObject() && !variant->IsString());
  EXPECT_EQ(variant->get_Double(), -2.5);
  EXPECT_EQ(variant->get_Integer(), -2);
  SmartPtr<IDblVector> buffer;
  buffer.Attach(BASEObject::CreateDBLBuffer());
  variant->put_Object(buffer);
  EXPECT_EQ(variant->get_Double(), 0.0);
  EXPECT_EQ(variant->get_Integer(), 0);
}

TEST(HostSimpleCollection, HoldsItemsInOrderWithReferences) {
  SmartPtr<ICreatableSimpleCollection> collection;
  collection.Attach(BASEObject::CreateSimpleCollection());
  SmartPtr<IVariant> a = Variant(1), b = Variant(2), c = Variant(3);
  for (IVariant* item : {a.get(), b.get(), c.get()}) collection->Add(item);
  int count = 0;
  collection->get_Count(&count);
  EXPECT_EQ(count, 3);
  SmartPtr<IUnknown> item;
  EXPECT_EQ(collection->get_Item(1, item.Out()), S_OK);
  EXPECT_EQ(item.get(), static_cast<IUnknown*>(b.get()));
  EXPECT_EQ(collection->Remove(0), S_OK);  // b and c move up
  EXPECT_EQ(References(a), 1);
  EXPECT_EQ(collection->put_Item(1, a), S_OK);  // c replaced by a
  EXPECT_EQ(References(c), 1);
  EXPECT_EQ(collection->get_Item(1, item.Out()), S_OK);
  EXPECT_EQ(item.get(), static_cast<IUnknown*>(a.get()));
  // Bad indices and nulls.
  EXPECT_EQ(collection->get_Item(2, item.Out()), E_INVALIDARG);
  EXPECT_EQ(item.get(), nullptr);
  EXPECT_EQ(collection->get_Item(-1, item.Out()), E_INVALIDARG);
  EXPECT_EQ(collection->put_Item(2, a), E_INVALIDARG);
  EXPECT_EQ(collection->Remove(2), E_INVALIDARG);
  EXPECT_EQ(collection->Add(nullptr), E_POINTER);
  EXPECT_EQ(collection->Clear(), S_OK);
  EXPECT_EQ(References(a), 1);
  EXPECT_EQ(References(b), 1);
}

TEST(HostDblBuffer, ResizeMakesRoomButKeepsTheCount) {
  SmartPtr<IDblVector> buffer;
  buffer.Attach(BASEObject::CreateDBLBuffer());
  EXPECT_EQ(buffer->Resize(3), S_OK);
  int count = -1;
  buffer->get_Count(&count);
  EXPECT_EQ(count, 0);
  double value = 7.0;
  EXPECT_EQ(buffer->get_Item(0, &value), E_INVALIDARG);  // room is not a value
  EXPECT_EQ(buffer->put_Value(0, 1.0), E_INVALIDARG);
  // Sized to the count, then one value appended per item: one value per item.
  for (double v : {1.5, -2.0, 4.25}) EXPECT_EQ(buffer->put_Value(-1, v), S_OK);
  EXPECT_EQ(buffer->Resize(1), S_OK);
  buffer->get_Count(&count);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(buffer->get_Item(2, &value), S_OK);
  EXPECT_EQ(value, 4.25);
  EXPECT_EQ(buffer->put_Value(0, 9.0), S_OK);
  buffer->get_Item(0, &value);
  EXPECT_EQ(value, 9.0);
  EXPECT_EQ(buffer->get_Item(3, &value), E_INVALIDARG);
  EXPECT_EQ(buffer->get_Item(-1, &value), E_INVALIDARG);
  EXPECT_EQ(buffer->put_Value(-2, 1.0), E_INVALIDARG);
  EXPECT_EQ(buffer->put_Value(3, 1.0), E_INVALIDARG);
  EXPECT_EQ(buffer->Resize(-1), E_INVALIDARG);
  EXPECT_EQ(buffer->Resize(INT_MAX), S_OK);
  buffer->get_Count(&count);
  EXPECT_EQ(count, 3);
}

}  // namespace
