// The camera collection through the loaded module: triangulation by synthetic cameras
// with known truth (exact points come back, noisy ones give the least-squares point of
// the planes), the counts it refuses, its deliberate point on failure, and the stream
// forms of a collection of both camera classes. The storage rules: the unit test.
#include <cmath>
#include <random>

#include "tests/module/CameraTestSupport.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

constexpr double kExactWorld = 1e-9;      // world units, exact image points
constexpr double kNormalResidual = 1e-12;  // normal equations, relative to their terms
constexpr double kSameSolve = 1e-9;        // two least-squares solves of one system, relative
constexpr double kSixDecimals = 1e-6;      // numbers that went through "%f" text
constexpr double kNoisePixels = 0.5;

using namespace camera_test;

// Three cameras around the origin, about ten units away, with distinct centres.
const View kLeft(0.1, -0.35, 0.05, 0.3, -0.2, 10.0);
const View kRight(-0.05, 0.4, -0.1, -0.5, 0.1, 11.0);
const View kAbove(0.5, 0.05, 0.2, 0.2, 0.4, 9.0);

SmartPtr<ICamera3DCalibrationCollection> NewCollection() {
  SmartPtr<ICamera3DCalibration> c = LoadedModule::Get().Create<ICamera3DCalibration>(L"Camera3DCalibration");
  return SmartPtr<ICamera3DCalibrationCollection>(static_cast<ICamera3DCalibrationCollection*>(c.get()));
}

// Convert of the collection; the point handed out, NaN when none.
HRESULT Triangulate(ICamera3DCalibration* cameras, ISimpleCollection* image, P* out) {
  SmartPtr<IPoint> point;
  const HRESULT hr = cameras->Convert(image, point.Out());
  *out = {NAN, NAN, NAN};
  if (point) point->GetXYZ(&out->x, &out->y, &out->z);
  return hr;
}
HRESULT Triangulate(ICamera3DCalibration* cameras, const std::vector<P>& image, P* out) {
  return Triangulate(cameras, Points(image), out);
}

// The planes of image point (u, v) of view v, as SolveMatrix defines them, in rows of
// a X + b Y + c Z = -d.
struct Planes {
  std::vector<double> a, b;  // a: rows of 3
  void Add(const View& v, const P& image) {
    for (int row = 0; row < 2; ++row) {
      const double w = row == 0 ? image.x : image.y;
      for (int j = 0; j < 3; ++j) a.push_back(v.p[row][j] - w * v.p[2][j]);
      b.push_back(-(v.p[row][3] - w * v.p[2][3]));
    }
  }
};

// x is the least-squares point of the planes: the gradient A^T (A x - b) vanishes (to
// rounding of its terms), and, with OpenCV, it agrees with a QR solve.
void ExpectLeastSquaresPoint(const Planes& planes, const P& x) {
  const size_t rows = planes.b.size();
  for (int j = 0; j < 3; ++j) {
    double gradient = 0, scale = 0;
    for (size_t r = 0; r < rows; ++r) {
      const double* a = &planes.a[3 * r];
      const double residual = a[0] * x.x + a[1] * x.y + a[2] * x.z - planes.b[r];
      gradient += a[j] * residual;
      scale += std::fabs(a[j]) * (std::fabs(a[0] * x.x) + std::fabs(a[1] * x.y) + std::fabs(a[2] * x.z) +
                                  std::fabs(planes.b[r]));
    }
    EXPECT_LE(std::fabs(gradient), kNormalResidual * scale) << "gradient " << j;
  }
#ifdef ZELTRIM_HAVE_OPENCV
  cv::Mat a(static_cast<int>(rows), 3, CV_64F, const_cast<double*>(planes.a.data()));
  cv::Mat b(static_cast<int>(rows), 1, CV_64F, const_cast<double*>(planes.b.data()));
  cv::Mat solution;
  ASSERT_TRUE(cv::solve(a, b, solution, cv::DECOMP_QR));
  const P qr{solution.at<double>(0), solution.at<double>(1), solution.at<double>(2)};
  ExpectNear(x, qr, kSameSolve * (1 + std::fabs(qr.x) + std::fabs(qr.y) + std::fabs(qr.z)));
#endif
}

const std::vector<P> kWorld = {{0, 0, 0}, {1.5, -0.7, 0.4}, {-2, 1.2, -1.1}, {0.3, 2, 1.9}};

TEST(Camera3DCalibration, TwoOrThreeCamerasOfEitherClassMeetAtTheExactPoint) {
  for (int rig = 0; rig < 3; ++rig) {
    SCOPED_TRACE(rig);
    SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
    cameras->Add(rig == 1 ? TrinsicCamera(kLeft) : TransformCamera(kLeft));
    cameras->Add(rig == 0 ? TrinsicCamera(kRight) : TransformCamera(kRight));
    if (rig == 2) cameras->Add(TransformCamera(kAbove));
    for (const P& w : kWorld) {
      P got;
      std::vector<P> image = {kLeft.Image(w), kRight.Image(w)};
      if (rig == 2) image.push_back(kAbove.Image(w));
      ASSERT_EQ(Triangulate(cameras, image, &got), S_OK);
      ExpectNear(got, w, kExactWorld);
    }
  }
}

// Each camera's planes keep the scale of its matrix: the middle camera's matrix is seven
// times larger, so its planes weigh 49 times as much in the sum of squares.
TEST(Camera3DCalibration, NoisyPointsGiveTheUnweightedLeastSquaresPointOfThePlanes) {
  const View right7(-0.05, 0.4, -0.1, -0.5, 0.1, 11.0, 7.0);
  const std::vector<const View*> views = {&kLeft, &right7, &kAbove};
  SmartPtr<ICamera3DCalibrationCollection> pair = NewCollection(), three = NewCollection();
  for (const View* v : views) three->Add(TransformCamera(*v));
  pair->Add(TransformCamera(kLeft));
  pair->Add(TransformCamera(right7));
  std::mt19937 random(11);
  std::normal_distribution<double> pixel(0.0, kNoisePixels);
  for (const P& w : kWorld) {
    std::vector<P> image;
    Planes planes2, planes3;
    for (const View* v : views) {
      P u = v->Image(w);
      u.x += pixel(random), u.y += pixel(random);
      image.push_back(u);
      if (planes2.b.size() < 4) planes2.Add(*v, u);
      planes3.Add(*v, u);
    }
    P got;
    ASSERT_EQ(Triangulate(three, image, &got), S_OK);
    ExpectLeastSquaresPoint(planes3, got);
    EXPECT_GT(std::fabs(got.x - w.x) + std::fabs(got.y - w.y) + std::fabs(got.z - w.z), 1e-6) << "noise moved it";
    ASSERT_EQ(Triangulate(pair, image, &got), S_OK) << "the third point is surplus for two cameras";
    ExpectLeastSquaresPoint(planes2, got);
  }
}

TEST(Camera3DCalibration, FewerThanTwoPairsAreRefusedAndLeaveTheResultAlone) {
  SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
  IPoint* const untouched = reinterpret_cast<IPoint*>(0x10);
  IPoint* result = untouched;
  const P w{0.5, 0.5, 0.5};
  EXPECT_EQ(cameras->Convert(Points({kLeft.Image(w), kRight.Image(w)}), &result), E_INVALIDARG) << "no cameras";
  cameras->Add(TransformCamera(kLeft));
  EXPECT_EQ(cameras->Convert(Points({kLeft.Image(w), kRight.Image(w)}), &result), E_INVALIDARG) << "one camera";
  cameras->Add(TransformCamera(kRight));
  EXPECT_EQ(cameras->Convert(Points({kLeft.Image(w)}), &result), E_INVALIDARG) << "one point";
  EXPECT_EQ(cameras->Convert(Points(std::vector<P>{}), &result), E_INVALIDARG) << "no points";
  EXPECT_EQ(cameras->Convert(nullptr, &result), E_INVALIDARG) << "no collection";
  EXPECT_EQ(result, untouched);
  EXPECT_EQ(cameras->Convert(Points({kLeft.Image(w), kRight.Image(w)}), nullptr), E_POINTER);
}

TEST(Camera3DCalibration, SurplusPointsAndSurplusCamerasAreIgnored) {
  const P w{-0.4, 0.9, 1.3}, wrong{3, -3, 2};
  SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
  cameras->Add(TransformCamera(kLeft));
  cameras->Add(TransformCamera(kRight));
  P got;
  ASSERT_EQ(Triangulate(cameras, {kLeft.Image(w), kRight.Image(w), kAbove.Image(wrong)}, &got), S_OK);
  ExpectNear(got, w, kExactWorld);
  cameras->Add(TransformCamera(kAbove));
  cameras->Add(TransformCamera(kLeft));
  ASSERT_EQ(Triangulate(cameras, {kLeft.Image(w), kRight.Image(w)}, &got), S_OK);
  ExpectNear(got, w, kExactWorld);
}

// A camera at the origin with a unit focal length, P = [I | 0]: its planes are
// X - u Z = 0 and Y - v Z = 0, and the normal matrix of two copies is singular to the bit.
TEST(Camera3DCalibration, SameCameraTwiceFailsAndHandsOutTheLastImagePointOnPurpose) {
  SmartPtr<ICamera3DTransform> camera = LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform");
  double* m = nullptr;
  camera->GetMatrix(&m, nullptr, nullptr);
  m[0] = m[4] = m[8] = 1.0;
  SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
  cameras->Add(camera);
  cameras->Add(camera);
  P got;
  EXPECT_EQ(Triangulate(cameras, {{0.25, -0.5, 0}, {0.25, -0.5, 7}}, &got), E_FAIL);
  ExpectNear(got, {0.25, -0.5, 7}, 0.0);
  EXPECT_EQ(RefCount(camera), 3) << "one collection reference per entry";
}

// Item 1 is no point: its camera's planes are not asked for, and camera 0's planes stand
// in the system twice.
TEST(Camera3DCalibration, AnItemThatIsNoPointRepeatsThePreviousPlanesOnPurpose) {
  SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
  for (const View* v : {&kLeft, &kRight, &kAbove}) cameras->Add(TransformCamera(*v));
  const P w{0.7, -0.3, 0.2};
  const P left{kLeft.Image(w).x + 0.6, kLeft.Image(w).y - 0.4, 0}, above = kAbove.Image(w);
  SmartPtr<ICreatableSimpleCollection> items = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  SmartPtr<IPoint> first = LoadedModule::Get().CreateHost<IPoint>(L"Point"), last = LoadedModule::Get().CreateHost<IPoint>(L"Point");
  first->SetXYZ(left.x, left.y, 0);
  last->SetXYZ(above.x, above.y, 0);
  items->Add(first);
  items->Add(Str(L"no point"));
  items->Add(last);
  P got;
  ASSERT_EQ(Triangulate(cameras, items, &got), S_OK);
  Planes planes;
  planes.Add(kLeft, left);
  planes.Add(kLeft, left);
  planes.Add(kAbove, above);
  ExpectLeastSquaresPoint(planes, got);
}

// ------------------------------------------------------------------ stream forms

// Both classes, the transform twice: Camera3DTransform, Camera3DTrinsic, Camera3DTransform.
SmartPtr<ICamera3DCalibrationCollection> MixedCollection() {
  SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection();
  cameras->Add(TransformCamera(kLeft));
  cameras->Add(TrinsicCamera(kRight));
  cameras->Add(TransformCamera(kAbove));
  return cameras;
}

SmartPtr<IUnknown> Item(ICamera3DCalibration* cameras, int i) {
  SmartPtr<IUnknown> item;
  cameras->get_Item(i, item.Out());
  return item;
}

// The collection written into an element of an XML document, and that element's content
// read back, as a host that keeps the collection in a file of its own would.
SmartPtr<IDataStream> XmlRoundTrip(ICamera3DCalibrationCollection* cameras, std::wstring* text) {
  SmartPtr<IXMLStreamEx> out = LoadedModule::Get().CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  out->OpenTag(Str(L"Rig"), 0, 0);
  EXPECT_EQ(cameras->Save_DataStream(out, 0), S_OK);
  out->CloseTag();
  *text = Text(out);
  return ElementContent(*text);
}

SmartPtr<IDataStream> FolderRoundTrip(ICamera3DCalibrationCollection* cameras) {
  SmartPtr<IDataStream> out = LoadedModule::Get().CreateHost<IDataStream>(L"FolderStream");
  out->Open(nullptr, 1000, 1);
  EXPECT_EQ(cameras->Save_DataStream(out, 0), S_OK);
  void* data = nullptr;
  unsigned long size = 0;
  out->GetBuffer(&data, &size);
  SmartPtr<IDataStream> in = LoadedModule::Get().CreateHost<IDataStream>(L"FolderStream");
  EXPECT_EQ(in->Open(data, size, 0), S_OK);
  return in;
}

// Folder streams carry every matrix to the bit; the loaded collection triangulates as
// the saved one did.
TEST(Camera3DCalibration, FolderStreamBringsBackBothCameraClassesInOrder) {
  SmartPtr<ICamera3DCalibrationCollection> saved = MixedCollection(), loaded = NewCollection();
  SmartPtr<IDataStream> stream = FolderRoundTrip(saved);
  ASSERT_TRUE(stream);
  ASSERT_EQ(loaded->Load_DataStream(stream, 0, 0), S_OK);
  ASSERT_EQ(Count(loaded), 3);
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(NameOf(Item(loaded, i)), NameOf(Item(saved, i)));
    EXPECT_EQ(MatrixOf(Item(loaded, i)), MatrixOf(Item(saved, i)));
    EXPECT_EQ(RefCount(Item(loaded, i)), 2) << "the collection holds the only other reference";
  }
  const P w{0.2, 0.6, -0.8};
  P got;
  ASSERT_EQ(Triangulate(loaded, {kLeft.Image(w), kRight.Image(w), kAbove.Image(w)}, &got), S_OK);
  ExpectNear(got, w, kExactWorld);
  // The folder form appends, whatever the flags say.
  ASSERT_EQ(loaded->Load_DataStream(FolderRoundTrip(saved), PERSIST_REPLACE, 0), S_OK);
  EXPECT_EQ(Count(loaded), 6);
}

// A Camera3DTransform writes its write-only text form into its element, so it comes back
// as a new camera with a zero matrix; the Camera3DTrinsic comes back through its "%f"
// matrix text.
TEST(Camera3DCalibration, XmlBringsBackTheTrinsicAndAZeroTransformOnPurpose) {
  SmartPtr<ICamera3DCalibrationCollection> saved = MixedCollection(), loaded = NewCollection();
  std::wstring text;
  SmartPtr<IDataStream> stream = XmlRoundTrip(saved, &text);
  ASSERT_TRUE(stream);
  EXPECT_NE(text.find(L"<Camera3DTransform>"), std::wstring::npos);
  EXPECT_NE(text.find(L"<Camera3DTrinsic>"), std::wstring::npos);
  ASSERT_EQ(loaded->Load_DataStream(stream, 0, 0), S_OK);
  ASSERT_EQ(Count(loaded), 3);
  const std::vector<const wchar_t*> names = {L"Camera3DTransform", L"Camera3DTrinsic", L"Camera3DTransform"};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(NameOf(Item(loaded, i)), names[i]) << i;
  EXPECT_EQ(MatrixOf(Item(loaded, 0)), std::vector<double>(12, 0.0));
  EXPECT_EQ(MatrixOf(Item(loaded, 2)), std::vector<double>(12, 0.0));
  const std::vector<double> want = MatrixOf(Item(saved, 1)), got = MatrixOf(Item(loaded, 1));
  ASSERT_EQ(got.size(), 12u);
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(got[i], want[i], kSixDecimals * 1e3) << i;
}

TEST(Camera3DCalibration, XmlLoadAppendsUnlessTheReplaceBitClearsFirst) {
  SmartPtr<ICamera3DCalibrationCollection> saved = MixedCollection(), loaded = NewCollection();
  SmartPtr<ICamera3DTransform> kept = TransformCamera(kLeft);
  loaded->Add(kept);
  std::wstring text;
  ASSERT_EQ(loaded->Load_DataStream(XmlRoundTrip(saved, &text), 0, 0), S_OK);
  EXPECT_EQ(Count(loaded), 4);
  int index = -1;
  EXPECT_EQ(loaded->get_Index(kept, &index), S_OK);
  EXPECT_EQ(index, 0);
  ASSERT_EQ(loaded->Load_DataStream(XmlRoundTrip(saved, &text), PERSIST_REPLACE, 0), S_OK);
  EXPECT_EQ(Count(loaded), 3);
  EXPECT_EQ(loaded->get_Index(kept, &index), E_FAIL);
  EXPECT_EQ(RefCount(kept), 1);
}

// A camera that keeps no stream form: XML skips it, the folder stream refuses its entry.
class PlainCamera : public ICamera3DTransform {
 public:
  HRESULT QueryInterface(const IID& iid, void** object) override {
    *object = nullptr;
    if (iid != IID_IUnknown && iid != IID_ITransform && iid != IID_ICamera3DTransform) return E_NOINTERFACE;
    *object = static_cast<ICamera3DTransform*>(this);
    AddRef();
    return S_OK;
  }
  int AddRef() override { return ++refs; }
  int Release() override { return --refs; }
  HRESULT Convert(double*, double*, double*) override { return S_OK; }
  HRESULT SolveMatrix(double* out, double, double) override { return out ? S_OK : E_POINTER; }
  HRESULT GetMatrix(double**, int*, int*) override { return E_NOTIMPL; }
  int refs = 1;
};

TEST(Camera3DCalibration, StreamsWithoutAFormAndCamerasWithoutOneWriteNothing) {
  PlainCamera plain;
  {
    SmartPtr<ICamera3DCalibrationCollection> cameras = NewCollection(), loaded = NewCollection();
    cameras->Add(&plain);
    cameras->Add(TrinsicCamera(kLeft));
    std::wstring text;
    ASSERT_EQ(loaded->Load_DataStream(XmlRoundTrip(cameras, &text), 0, 0), S_OK);
    EXPECT_EQ(text.find(L"Object"), std::wstring::npos) << "no element for a camera without IDataPersist";
    ASSERT_EQ(loaded->Load_DataStream(FolderRoundTrip(cameras), 0, 0), S_OK);
    EXPECT_EQ(Count(loaded), 2) << "each form holds the Camera3DTrinsic alone";
    SmartPtr<IDataStream> plainStream = LoadedModule::Get().CreateHost<IDataStream>(L"DataStream");
    plainStream->Open(nullptr, 1000, 1);
    EXPECT_EQ(cameras->Save_DataStream(nullptr, 0), S_OK);
    EXPECT_EQ(cameras->Save_DataStream(plainStream, 0), S_OK);
    EXPECT_EQ(Text(plainStream), L"");
    EXPECT_EQ(loaded->Load_DataStream(nullptr, PERSIST_REPLACE, 0), E_FAIL);
    EXPECT_EQ(loaded->Load_DataStream(plainStream, PERSIST_REPLACE, 0), E_FAIL);
    EXPECT_EQ(Count(loaded), 2);
  }
  EXPECT_EQ(plain.refs, 1);
}

// Folder entries that are no cameras are passed over; the first index without an object
// (raw data here) ends the reading.
TEST(Camera3DCalibration, FolderEntriesThatAreNoCamerasArePassedOver) {
  SmartPtr<IFolderStream> folder = LoadedModule::Get().CreateHost<IFolderStream>(L"FolderStream");
  folder->WriteObject(nullptr, TrinsicCamera(kLeft), 0);
  folder->WriteObject(nullptr, LoadedModule::Get().CreateHost<IUnknown>(L"FileInfo"), 0);
  folder->WriteObject(nullptr, TrinsicCamera(kRight), 0);
  const double raw = 1.0;
  folder->WriteData(Str(L"Raw"), &raw, sizeof(raw), 0);
  folder->WriteObject(nullptr, TrinsicCamera(kAbove), 0);
  SmartPtr<ICamera3DCalibrationCollection> loaded = NewCollection();
  ASSERT_EQ(loaded->Load_DataStream(SmartPtr<IDataStream>(folder.get()), 0, 0), S_OK);
  ASSERT_EQ(Count(loaded), 2);
  EXPECT_EQ(MatrixOf(Item(loaded, 1)), MatrixOf(TrinsicCamera(kRight)));
}

// ------------------------------------------------------------------ the shared checks

void Prepare(IUnknown* object) {
  SmartPtr<ICamera3DCalibration> cameras = QueryAs<ICamera3DCalibration>(object);
  cameras->Add(TransformCamera(kLeft));
  cameras->Add(TrinsicCamera(kRight));
}

// A collection, not a calibration: no file, no stream form of its own, no parameters;
// its stream forms are the collection's own slots, checked above.
const property::ClassTraits kCollectionTraits{
    .name = L"Camera3DCalibration",
    .routes = {{&IID_IObjectInfo}, {&IID_ICamera3DCalibration},
               {&IID_ICreatableSimpleCollection, &IID_ICamera3DCalibration},
               {&IID_ISimpleCollection, &IID_ICamera3DCalibration}, {&IID_IUIPropertyPageSpecify}},
    .prepare = Prepare,
    .pages = {{L"Camera3DCalibration", L"Zeltrim.CalibrationInfoPropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kCollectionTraits);

}  // namespace
