// The camera collection's storage on the class itself, with stand-in cameras that count
// their references: how the array grows, the order it keeps, and who holds what.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "camera/Camera3DCalibration.h"

namespace {

// A camera that only counts its references (it is never deleted through them).
class StandInCamera : public ICamera3DTransform {
 public:
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (iid == IID_IUnknown || iid == IID_ITransform || iid == IID_ICamera3DTransform) {
      *object = static_cast<ICamera3DTransform*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  int AddRef() override { return ++refs; }
  int Release() override { return --refs; }
  HRESULT Convert(double*, double*, double*) override { return S_OK; }
  HRESULT SolveMatrix(double*, double, double) override { return S_OK; }
  HRESULT GetMatrix(double**, int*, int*) override { return S_OK; }
  int refs = 1;
};

// The collection with its storage in view.
class Inspected : public CCamera3DCalibration {
 public:
  int Capacity() const { return m_Capacity; }
  int Growth() const { return m_Growth; }
  ICamera3DTransform** Array() const { return m_Items; }
};

struct CollectionTest : ::testing::Test {
  Inspected* collection = new Inspected();
  std::vector<std::unique_ptr<StandInCamera>> cameras;

  ~CollectionTest() override { collection->Release(); }
  StandInCamera* Camera(size_t i) {
    while (cameras.size() <= i) cameras.push_back(std::make_unique<StandInCamera>());
    return cameras[i].get();
  }
  IUnknown* ItemAt(int index) {
    IUnknown* item = nullptr;
    if (collection->get_Item(index, &item) == S_OK) item->Release();
    return item;
  }
};

TEST_F(CollectionTest, CapacityGrowsByADoublingStepAndKeepsTheOrder) {
  // 10, then 10 + 20, 30 + 40, 70 + 80: a new array each time the last slot is taken.
  const int steps[][2] = {{1, 10}, {10, 10}, {11, 30}, {30, 30}, {31, 70}, {71, 150}, {151, 310}};
  int added = 0;
  for (const auto& step : steps) {
    while (added < step[0]) ASSERT_EQ(collection->Add(Camera(added++)), S_OK);
    EXPECT_EQ(collection->Capacity(), step[1]) << "after " << added << " items";
  }
  for (int i = 0; i < added; ++i) ASSERT_EQ(ItemAt(i), Camera(i)) << "item " << i;
  for (int i = 0; i < added; ++i) EXPECT_EQ(Camera(i)->refs, 2) << "one reference held per item";
}

TEST_F(CollectionTest, GrowthStopsDoublingOnceTheCapacityPassesTheLimit) {
  // Capacities 10 * (2^k - 1): 655350 is the last below 0xfffff, so its growth (655360)
  // doubles no more and the next capacities are 1310710 and 1966070.
  StandInCamera* camera = Camera(0);
  int count = 0;
  while (collection->Capacity() < 1310710) {
    ASSERT_EQ(collection->Add(camera), S_OK);
    ++count;
  }
  EXPECT_EQ(count, 655351);
  EXPECT_EQ(collection->Growth(), 655360);
  while (count <= 1310710) {
    collection->Add(camera);
    ++count;
  }
  EXPECT_EQ(collection->Capacity(), 1966070);
  EXPECT_EQ(collection->Growth(), 655360);
  EXPECT_EQ(camera->refs, count + 1);
}

TEST_F(CollectionTest, ClearReleasesEveryItemAndKeepsTheArrayAndTheLastReleaseFreesAll) {
  for (int i = 0; i < 12; ++i) collection->Add(Camera(i));
  ICamera3DTransform** array = collection->Array();
  EXPECT_EQ(collection->Clear(), S_OK);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(Camera(i)->refs, 1);
  EXPECT_EQ(collection->Capacity(), 30);
  EXPECT_EQ(collection->Array(), array);
  int count = -1;
  collection->get_Count(&count);
  EXPECT_EQ(count, 0);
  // Refilled up to the old capacity, no new array is needed.
  for (int i = 0; i < 30; ++i) collection->Add(Camera(i));
  EXPECT_EQ(collection->Array(), array);
  collection->Release();  // the last reference: every camera is let go
  collection = new Inspected();
  EXPECT_EQ(Camera(29)->refs, 1);
}

TEST_F(CollectionTest, RemoveReleasesTheItemAndMovesTheLaterOnesDown) {
  for (int i = 0; i < 4; ++i) collection->Add(Camera(i));
  EXPECT_EQ(collection->Remove(1), S_OK);
  EXPECT_EQ(Camera(1)->refs, 1);
  EXPECT_EQ(ItemAt(0), Camera(0));
  EXPECT_EQ(ItemAt(1), Camera(2));
  EXPECT_EQ(ItemAt(2), Camera(3));
  EXPECT_EQ(collection->Array()[3], nullptr) << "the freed last slot is cleared";
  EXPECT_EQ(collection->Remove(3), E_INVALIDARG);
  EXPECT_EQ(collection->Remove(-1), E_INVALIDARG);
  EXPECT_EQ(collection->Remove(2), S_OK);
  EXPECT_EQ(collection->Array()[2], nullptr);
  IUnknown* item = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(collection->get_Item(2, &item), E_INVALIDARG);
  EXPECT_EQ(collection->get_Item(0, nullptr), E_POINTER);
}

TEST_F(CollectionTest, GetIndexFindsTheFirstOfTwoEqualEntries) {
  collection->Add(Camera(0));
  collection->Add(Camera(1));
  collection->Add(Camera(0));
  int index = -1;
  EXPECT_EQ(collection->get_Index(Camera(0), &index), S_OK);
  EXPECT_EQ(index, 0);
  collection->Remove(0);
  EXPECT_EQ(collection->get_Index(Camera(0), &index), S_OK);
  EXPECT_EQ(index, 1);
  index = 7;
  EXPECT_EQ(collection->get_Index(Camera(2), &index), E_FAIL);
  EXPECT_EQ(index, 7);
  EXPECT_EQ(collection->get_Index(nullptr, &index), E_FAIL);
  EXPECT_EQ(collection->get_Index(Camera(0), nullptr), E_POINTER);
}

TEST_F(CollectionTest, PutItemSwapsTheReferenceAndRefusesWhatItCannotHold) {
  collection->Add(Camera(0));
  collection->Add(Camera(1));
  EXPECT_EQ(collection->put_Item(1, Camera(2)), S_OK);
  EXPECT_EQ(Camera(1)->refs, 1);
  EXPECT_EQ(Camera(2)->refs, 2);
  EXPECT_EQ(collection->put_Item(1, Camera(2)), S_OK) << "the item the slot holds";
  EXPECT_EQ(Camera(2)->refs, 2);
  EXPECT_EQ(collection->put_Item(2, Camera(3)), E_INVALIDARG);
  EXPECT_EQ(collection->put_Item(0, static_cast<ICamera3DTransform*>(nullptr)), E_POINTER);
  EXPECT_EQ(Camera(3)->refs, 1);
  // Through IUnknown: an object that is no camera.
  // The collection itself answers no ICamera3DTransform.
  IUnknown* stranger = static_cast<ICamera3DCalibration*>(collection);
  EXPECT_EQ(collection->put_Item(0, stranger), E_FAIL);
  EXPECT_EQ(collection->put_Item(5, static_cast<IUnknown*>(Camera(3))), E_INVALIDARG);
  EXPECT_EQ(collection->Add(stranger), E_POINTER);
  EXPECT_EQ(collection->Add(static_cast<IUnknown*>(nullptr)), E_POINTER);
  EXPECT_EQ(collection->Add(static_cast<ICamera3DTransform*>(nullptr)), E_POINTER);
  EXPECT_EQ(collection->Add(static_cast<IUnknown*>(Camera(3))), S_OK);
  EXPECT_EQ(Camera(3)->refs, 2) << "the query's reference is handed back";
  EXPECT_EQ(ItemAt(0), Camera(0));
  EXPECT_EQ(ItemAt(2), Camera(3));
}

}  // namespace
