// The "Collections" peer's own objects, reached as the module reaches them: variants,
// simple collections and vectors of doubles.
#include <gtest/gtest.h>

#include <climits>

#include "frame/Components.h"
#include "tests/unit/strings/StringTestSupport.h"

using namespace strings_test;

namespace {

std::wstring NameOf(IUnknown* object) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  if (!info) return L"<none>";
  tagREFString name{0, nullptr};
  if (info->GetName(99, &name) < 0) return L"<failed>";
  return ViewText(name);
}

TEST(HostObjects, AnswerTheirObjectNames) {
  IUnknown* string = CREFString::CreateString();
  IUnknown* variant = CREFString::CreateVariant();
  IUnknown* collection = BASEObject::CreateSimpleCollection();
  IUnknown* buffer = BASEObject::CreateDBLBuffer();
  ASSERT_TRUE(string && variant && collection && buffer);
  EXPECT_EQ(NameOf(string), L"<none>");  // strings are values, not named objects
  EXPECT_EQ(NameOf(variant), L"Variant");
  EXPECT_EQ(NameOf(collection), L"SimpleCollection");
  EXPECT_EQ(NameOf(buffer), L"DblBuffer");
  for (IUnknown* object : {string, variant, collection, buffer}) EXPECT_EQ(object->Release(), 0);
}

// A descriptor keeps the creator it found; changing its fields makes it find another.
TEST(HostObjects, ADescriptorCreatesWhatItsFieldsNameNow) {
  IComponentCollection* components = GLOBALComponents();
  ASSERT_TRUE(components);
  void* p = nullptr;
  ASSERT_EQ(components->CreateComponent(15, L"ComponentString", &IID_IComponentString, &p), S_OK);
  components->Release();
  SmartPtr<IComponentString> descriptor;
  descriptor.Attach(static_cast<IComponentString*>(p));
  auto created = [&]() {
    void* object = nullptr;
    if (descriptor->CreateInstance(IID_IUnknown, &object) < 0 || !object) return std::wstring(L"<none>");
    const std::wstring name = NameOf(static_cast<IUnknown*>(object));
    static_cast<IUnknown*>(object)->Release();
    return name;
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
  IVariant* variant = CREFString::CreateVariant();
  ASSERT_TRUE(variant);
  EXPECT_EQ(variant->get_Type(), VARIANT_OBJECT);
  EXPECT_FALSE(variant->IsObject());
  EXPECT_FALSE(variant->IsString());

  variant->put_Integer(-7);
  EXPECT_EQ(variant->get_Type(), VARIANT_INTEGER);
  EXPECT_EQ(variant->get_Double(), -7.0);

  variant->put_Double(-2.75);
  EXPECT_EQ(variant->get_Type(), VARIANT_DOUBLE);
  EXPECT_EQ(variant->get_Integer(), -2);  // truncated
  variant->put_Double(1e12);
  EXPECT_EQ(variant->get_Integer(), INT_MAX);

  IString* text = ISCreate(L"12.5");
  variant->put_String(text);
  text->Release();
  EXPECT_TRUE(variant->IsString());
  EXPECT_FALSE(variant->IsObject());
  EXPECT_EQ(variant->get_Type(), VARIANT_OBJECT);
  EXPECT_EQ(variant->get_Double(), 12.5);
  EXPECT_EQ(variant->get_Integer(), 12);
  IString* back = nullptr;
  EXPECT_EQ(variant->get_String(&back), S_OK);
  EXPECT_EQ(Take(back), L"12.5");
  EXPECT_EQ(variant->Release(), 0);
}

TEST(HostVariant, KeepsItsOwnCopyOfAString) {
  IVariant* variant = CREFString::CreateVariant();
  ICreatableString* text = CREFString::CreateString();
  text->SetString(3, L"one");
  variant->put_String(text);
  text->SetString(3, L"two");
  IString* held = nullptr;
  variant->get_String(&held);
  EXPECT_EQ(Take(held), L"one");
  EXPECT_EQ(text->Release(), 0);
  EXPECT_EQ(variant->Release(), 0);
}

TEST(HostVariant, ObjectReferencesAreCounted) {
  IVariant* variant = CREFString::CreateVariant();
  IDblVector* buffer = BASEObject::CreateDBLBuffer();
  ASSERT_TRUE(variant && buffer);
  EXPECT_EQ(variant->put_Object(buffer), S_OK);
  EXPECT_TRUE(variant->IsObject());
  EXPECT_EQ(buffer->AddRef(), 3);  // ours, the variant's, this one
  EXPECT_EQ(buffer->Release(), 2);

  IUnknown* got = nullptr;
  EXPECT_EQ(variant->get_Object(&got), S_OK);
  EXPECT_EQ(got->Release(), 2);
  // Putting the held object again keeps it alive.
  EXPECT_EQ(variant->put_Object(buffer), S_OK);
  EXPECT_EQ(buffer->AddRef(), 3);
  buffer->Release();

  variant->put_Integer(1);  // lets the object go
  EXPECT_EQ(buffer->AddRef(), 2);
  buffer->Release();
  variant->put_Object(buffer);
  EXPECT_EQ(variant->Release(), 0);
  EXPECT_EQ(buffer->Release(), 0);
}

TEST(HostVariant, BadArguments) {
  IVariant* variant = CREFString::CreateVariant();
  EXPECT_EQ(variant->get_Object(nullptr), E_POINTER);
  EXPECT_EQ(variant->get_String(nullptr), E_POINTER);
  EXPECT_EQ(variant->put_String(nullptr), E_POINTER);
  IUnknown* none = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(variant->get_Object(&none), E_FAIL);
  EXPECT_EQ(none, nullptr);
  IString* text = reinterpret_cast<IString*>(1);
  EXPECT_EQ(variant->get_String(&text), E_FAIL);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(variant->QueryInterface(IID_IVariant, nullptr), E_POINTER);
  EXPECT_EQ(variant->Release(), 0);
}

TEST(HostSimpleCollection, HoldsItemsInOrderWithReferences) {
  ICreatableSimpleCollection* collection = BASEObject::CreateSimpleCollection();
  ASSERT_TRUE(collection);
  IVariant* a = IntegerVariant(1).Detach();
  IVariant* b = IntegerVariant(2).Detach();
  IVariant* c = IntegerVariant(3).Detach();
  collection->Add(a);
  collection->Add(b);
  collection->Add(c);
  int count = 0;
  collection->get_Count(&count);
  EXPECT_EQ(count, 3);

  IUnknown* item = nullptr;
  EXPECT_EQ(collection->get_Item(1, &item), S_OK);
  EXPECT_EQ(item, static_cast<IUnknown*>(b));
  EXPECT_EQ(item->Release(), 2);

  EXPECT_EQ(collection->Remove(0), S_OK);  // b and c move up
  EXPECT_EQ(a->AddRef(), 2);
  a->Release();
  EXPECT_EQ(collection->put_Item(1, a), S_OK);  // c replaced by a
  EXPECT_EQ(c->AddRef(), 2);
  c->Release();
  collection->get_Item(1, &item);
  EXPECT_EQ(item, static_cast<IUnknown*>(a));
  item->Release();

  // The collection's references go with it.
  EXPECT_EQ(collection->Release(), 0);
  EXPECT_EQ(a->Release(), 0);
  EXPECT_EQ(b->Release(), 0);
  EXPECT_EQ(c->Release(), 0);
}

TEST(HostSimpleCollection, BadIndicesAndNulls) {
  ICreatableSimpleCollection* collection = BASEObject::CreateSimpleCollection();
  IVariant* a = IntegerVariant(1).Detach();
  IUnknown* item = a;
  EXPECT_EQ(collection->get_Item(0, &item), E_INVALIDARG);
  EXPECT_EQ(item, nullptr);
  EXPECT_EQ(collection->Add(nullptr), E_POINTER);
  collection->Add(a);
  EXPECT_EQ(collection->get_Item(-1, &item), E_INVALIDARG);
  EXPECT_EQ(collection->get_Item(1, &item), E_INVALIDARG);
  EXPECT_EQ(collection->get_Item(0, nullptr), E_POINTER);
  EXPECT_EQ(collection->put_Item(1, a), E_INVALIDARG);
  EXPECT_EQ(collection->put_Item(0, nullptr), E_POINTER);
  EXPECT_EQ(collection->Remove(1), E_INVALIDARG);
  EXPECT_EQ(collection->get_Count(nullptr), E_POINTER);
  EXPECT_EQ(collection->Clear(), S_OK);
  EXPECT_EQ(a->AddRef(), 2);
  a->Release();
  int count = -1;
  collection->get_Count(&count);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(collection->Release(), 0);
  EXPECT_EQ(a->Release(), 0);
}

TEST(HostDblBuffer, ResizeMakesRoomButKeepsTheCount) {
  IDblVector* buffer = BASEObject::CreateDBLBuffer();
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->Resize(3), S_OK);
  int count = -1;
  buffer->get_Count(&count);
  EXPECT_EQ(count, 0);
  // Sized to the count, then one value appended per item: one value per item.
  for (double v : {1.5, -2.0, 4.25}) EXPECT_EQ(buffer->put_Value(-1, v), S_OK);
  buffer->get_Count(&count);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(buffer->Resize(1), S_OK);
  buffer->get_Count(&count);
  EXPECT_EQ(count, 3);
  double value = 0.0;
  EXPECT_EQ(buffer->get_Item(2, &value), S_OK);
  EXPECT_EQ(value, 4.25);
  EXPECT_EQ(buffer->put_Value(0, 9.0), S_OK);
  buffer->get_Item(0, &value);
  EXPECT_EQ(value, 9.0);
  EXPECT_EQ(buffer->Release(), 0);
}

TEST(HostDblBuffer, OutOfRangeIndices) {
  IDblVector* buffer = BASEObject::CreateDBLBuffer();
  buffer->Resize(10);
  double value = 7.0;
  EXPECT_EQ(buffer->get_Item(0, &value), E_INVALIDARG);  // room is not a value
  EXPECT_EQ(value, 7.0);
  EXPECT_EQ(buffer->put_Value(0, 1.0), E_INVALIDARG);
  buffer->put_Value(-1, 1.0);
  EXPECT_EQ(buffer->get_Item(1, &value), E_INVALIDARG);
  EXPECT_EQ(buffer->get_Item(-1, &value), E_INVALIDARG);
  EXPECT_EQ(buffer->put_Value(-2, 1.0), E_INVALIDARG);
  EXPECT_EQ(buffer->put_Value(1, 1.0), E_INVALIDARG);
  EXPECT_EQ(buffer->get_Item(0, nullptr), E_POINTER);
  EXPECT_EQ(buffer->get_Count(nullptr), E_POINTER);
  EXPECT_EQ(buffer->Resize(-1), E_INVALIDARG);
  EXPECT_EQ(buffer->Resize(INT_MAX), S_OK);
  EXPECT_EQ(buffer->Release(), 0);
}

}  // namespace
