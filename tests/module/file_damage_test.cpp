// Damaged calibration files, for every object this build saves, in each file form: every
// prefix of a saved file (sampled on long files) and seeded single-byte corruptions, loaded
// through the host's load function and through the module's archive alone. A damaged file
// must be refused, or, when a corruption leaves a well-formed document, load in full:
// never half. The reference host's XML stream is what keeps the module's own load from
// taking half a file; the host's load function refuses before the module reads anything.
#include <cstdio>
#include <random>
#include <set>

#include "host/client/CalibrationFile.h"
#include "tests/module/ModuleTestSupport.h"

namespace {

// Long files are sampled: every prefix within this many bytes of either end, and this many
// more drawn at random; files up to twice the edge are cut at every byte.
constexpr size_t kPrefixEdge = 64;
constexpr size_t kRandomPrefixes = 112;
constexpr size_t kCorruptionsPerFile = 360;
constexpr unsigned kSeed = 20240611;

void WriteBytes(const std::string& path, const std::string& bytes, size_t count) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(count));
}

// Gives an object values unlike a new one's, through whichever interfaces it has, so that
// a field left at its default by a half load shows.
void Populate(IUnknown* object) {
  const std::vector<P> source = {{0, 0, 0}, {4, 0, 1}, {0, 3, 2}, {5, 5, 0}, {2, 7, 3}, {6, 1, 4}};
  std::vector<P> target;
  for (size_t i = 0; i < source.size(); ++i) {  // an affine map, a little off at each pair
    const P& p = source[i];
    const double off = 0.01 * static_cast<double>(i % 3);
    target.push_back({2 * p.x - p.y + 7 + off, p.x + 3 * p.y - 2, 0.5 * p.z + 1 - off});
  }
  if (SmartPtr<ICalibrationBestFit> fit = QueryAs<ICalibrationBestFit>(object))
    fit->BestFit(Points(source), Points(target), 0);
  else if (SmartPtr<ITransformBestFit> transform = QueryAs<ITransformBestFit>(object))
    transform->BestFit(Points(source), Points(target), 0);
  if (SmartPtr<ICameraLinearCalibration> linear = QueryAs<ICameraLinearCalibration>(object)) {
    linear->SetScale(2.5, 0.75, 1.25);
    linear->SetOrigin(11, -3, 4);
    linear->SetRoll(30);
    linear->SetCameraOrigin(5, 6);
  }
  if (SmartPtr<ICamera3DCalibrationPlane> located = QueryAs<ICamera3DCalibrationPlane>(object)) {
    IUnknown* plane = nullptr;  // borrowed
    located->get_Plane(&plane);
    if (SmartPtr<IPlane> p = QueryAs<IPlane>(plane)) p->SetCoefficients(0.2, -0.4, 1, 1.5);
  }
  if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object)) {
    info->put_CALIBName(Str(L"Left bench <&> \x00e9"));
    info->put_CALIBDescription(Str(L"damage test"));
    info->put_CALIBUnits(3);
  }
}

// What an object holds, as the bytes of its file in one form (the module's own save).
std::string Fingerprint(IUnknown* object, const std::string& extension) {
  const std::string path = TempPath("fingerprint." + extension);
  Archive(object, path, true);
  return ReadBytes(path);  // the file is written over by the next fingerprint
}

// The text of a 16-bit XML file after its byte order mark.
std::wstring XmlText(const std::string& b) {
  std::wstring text;
  for (size_t i = 2; i + 1 < b.size(); i += 2)
    text.push_back(static_cast<wchar_t>(static_cast<uint8_t>(b[i]) | static_cast<uint8_t>(b[i + 1]) << 8));
  return text;
}

// The leaf elements of a document this host wrote (no attributes), in order, as path and
// text; *pathAt gets the path of the leaf whose text holds the character at `at`.
struct Leaf {
  std::wstring path, text;
  bool operator==(const Leaf& o) const { return path == o.path && text == o.text; }
};
std::vector<Leaf> Leaves(const std::wstring& t, size_t at = std::wstring::npos, std::wstring* pathAt = nullptr) {
  struct Open {
    std::wstring path;
    size_t contentStart;
    bool hasChild;
  };
  std::vector<Open> open;
  std::vector<Leaf> leaves;
  for (size_t i = t.find(L'<'); i != std::wstring::npos; i = t.find(L'<', i + 1)) {
    const size_t close = t.find(L'>', i);
    if (close == std::wstring::npos) break;
    if (t[i + 1] == L'?' || t[i + 1] == L'!') continue;
    if (t[i + 1] == L'/') {
      if (open.empty()) break;
      const Open& o = open.back();
      if (!o.hasChild) {
        leaves.push_back({o.path, t.substr(o.contentStart, i - o.contentStart)});
        if (pathAt && at >= o.contentStart && at < i) *pathAt = o.path;
      }
      open.pop_back();
      continue;
    }
    if (!open.empty()) open.back().hasChild = true;
    const std::wstring path = (open.empty() ? L"" : open.back().path) + L"/" + t.substr(i + 1, close - i - 1);
    open.push_back({path, close + 1, false});
  }
  return leaves;
}

// Leaves that a class's XML load rebuilds from another leaf instead of reading them: a
// corruption of the source leaf rightly changes these too.
bool RebuiltFrom(const std::wstring& leaf, const std::wstring& source) {
  // A plane keeps a unit normal: a changed coefficient can change all four.
  const std::wstring plane = L"/Camera3DCalibrationPlane/Plane/";
  if (source.rfind(plane, 0) == 0 && leaf.rfind(plane, 0) == 0) return true;
  const std::wstring camera = L"/Camera3DTrinsic/";
  if (source.rfind(camera, 0) != 0 || leaf.rfind(camera, 0) != 0) return false;
  const std::wstring from = source.substr(camera.size()), name = leaf.substr(camera.size());
  if (name == L"Transform") return from == L"Intrinsic" || from == L"Extrinsic";
  return from == L"Intrinsic" &&
         (name == L"fSx" || name == L"fSy" || name == L"Skew" || name == L"CenterX" || name == L"CenterY");
}

// True when `loaded` holds everything `reference` holds, except, in XML, the leaf at `path`
// (the one the corruption touched; none when `path` is empty) and what is rebuilt from it.
::testing::AssertionResult FullyLoaded(const std::string& loaded, const std::string& reference, const std::string& extension,
                                       const std::wstring& path) {
  if (extension != "xml")
    return loaded == reference ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "not all came back";
  const std::vector<Leaf> a = Leaves(XmlText(loaded)), b = Leaves(XmlText(reference));
  if (a.size() != b.size()) return ::testing::AssertionFailure() << "the loaded object has other elements";
  for (size_t i = 0; i < a.size(); ++i)
    if (!(a[i] == b[i]) && !(a[i].path == b[i].path && (a[i].path == path || RebuiltFrom(a[i].path, path))))
      return ::testing::AssertionFailure() << "element " << std::string(b[i].path.begin(), b[i].path.end())
                                           << " did not come back";
  return ::testing::AssertionSuccess();
}

struct Sample {
  std::wstring name;
  std::string extension;
  std::string file;       // the saved file
  std::string fresh;      // fingerprint of a new object
  std::string reference;  // fingerprint of an object loaded from the whole file
};

std::vector<std::wstring> ArchivedObjects() {
  std::vector<std::wstring> names;
  for (const wchar_t* name : kCreatableObjectNames) {
    SmartPtr<IUnknown> object = LoadedModule::Get().Create<IUnknown>(name);
    if (QueryAs<IFileArchive>(object) && QueryAs<IDataPersist>(object)) names.push_back(name);
  }
  return names;
}

// Forms an object writes but never reads back (the projective camera puts its text form
// inside the XML element): nothing of them loads, whole or damaged.
bool WriteOnly(const std::wstring& name, const std::string& extension) {
  return name == L"Camera3DTransform" && extension == "xml";
}

std::vector<Sample> Samples() {
  LoadedModule& m = LoadedModule::Get();
  std::vector<Sample> samples;
  for (const std::wstring& name : ArchivedObjects()) {
    for (const char* extension : {"xml", "tCAL"}) {
      if (WriteOnly(name, extension)) continue;
      Sample s{name, extension, {}, {}, {}};
      SmartPtr<IUnknown> object = m.Create<IUnknown>(name.c_str());
      Populate(object);
      const std::string path = TempPath(std::string("whole.") + extension);
      EXPECT_GE(Archive(object, path, true), 0);
      if (s.extension == "xml") {  // a line end after the root element, so that a cut can fall past it
        std::ofstream(path, std::ios::binary | std::ios::app).write("\r\0\n\0", 4);
      }
      s.file = ReadBytes(path);
      s.fresh = Fingerprint(m.Create<IUnknown>(name.c_str()), extension);
      SmartPtr<IUnknown> back = m.Create<IUnknown>(name.c_str());
      EXPECT_TRUE(client::LoadFile(m.components, back, path).ok);
      s.reference = Fingerprint(back, extension);
      std::remove(path.c_str());
      samples.push_back(s);
    }
  }
  return samples;
}

std::string Label(const Sample& s) { return std::string(s.name.begin(), s.name.end()) + " ." + s.extension; }

// The offset just past the root element's end tag, in bytes of the file.
size_t RootEndBytes(const Sample& s) {
  if (s.extension != "xml") return s.file.size();
  const std::wstring text = XmlText(s.file);
  const size_t close = text.rfind(L"</");
  return 2 + 2 * (text.find(L'>', close) + 1);
}

std::vector<size_t> PrefixLengths(size_t size, std::mt19937* random) {
  std::set<size_t> lengths;
  for (size_t n = 1; n < size; ++n)
    if (n <= kPrefixEdge || size - n <= kPrefixEdge) lengths.insert(n);
  for (size_t k = 0; size > 2 * kPrefixEdge && k < kRandomPrefixes; ++k) lengths.insert(1 + (*random)() % (size - 1));
  return std::vector<size_t>(lengths.begin(), lengths.end());
}

class DamagedFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { s_Samples = new std::vector<Sample>(Samples()); }
  static void TearDownTestSuite() {
    for (const char* extension : {"xml", "tCAL"}) std::remove(TempPath(std::string("fingerprint.") + extension).c_str());
    delete s_Samples;
    s_Samples = nullptr;
  }
  static std::vector<Sample>* s_Samples;
  const std::string m_Path = TempPath("damaged");
};
std::vector<Sample>* DamagedFiles::s_Samples = nullptr;

TEST_F(DamagedFiles, EveryArchivedObjectIsCoveredInBothForms) {
  ASSERT_FALSE(s_Samples->empty());
  for (const Sample& s : *s_Samples) {
    EXPECT_GT(s.file.size(), 2 * kPrefixEdge) << Label(s);
    EXPECT_NE(s.reference, s.fresh) << Label(s) << ": a loaded object looks like a new one";
  }
}

TEST_F(DamagedFiles, APrefixIsRefusedUnlessItHoldsTheWholeRootElement) {
  LoadedModule& m = LoadedModule::Get();
  std::mt19937 random(kSeed);
  for (const Sample& s : *s_Samples) {
    const std::string path = m_Path + "." + s.extension;
    const size_t rootEnd = RootEndBytes(s);
    for (size_t n : PrefixLengths(s.file.size(), &random)) {
      WriteBytes(path, s.file, n);
      SmartPtr<IUnknown> checked = m.Create<IUnknown>(s.name.c_str());
      const client::FileReport report = client::LoadFile(m.components, checked, path);
      SmartPtr<IUnknown> plain = m.Create<IUnknown>(s.name.c_str());
      Archive(plain, path, false);
      if (n >= rootEnd) {
        // Whole, but an odd byte count of 16-bit text is a cut character, which the host
        // refuses while the module drops it.
        const bool whole = n % 2 == 0;
        EXPECT_EQ(report.ok, whole) << Label(s) << " cut at " << n << ": " << report.problem;
        EXPECT_EQ(Fingerprint(checked, s.extension), whole ? s.reference : s.fresh) << Label(s) << " cut at " << n;
        EXPECT_EQ(Fingerprint(plain, s.extension), s.reference) << Label(s) << " cut at " << n;
        continue;
      }
      EXPECT_FALSE(report.ok) << Label(s) << " cut at " << n;
      EXPECT_FALSE(report.problem.empty()) << Label(s) << " cut at " << n;
      EXPECT_EQ(Fingerprint(checked, s.extension), s.fresh) << Label(s) << " cut at " << n << ": touched";
      EXPECT_EQ(Fingerprint(plain, s.extension), s.fresh) << Label(s) << " cut at " << n << ": half loaded";
    }
    std::remove(path.c_str());
  }
}

TEST_F(DamagedFiles, ACorruptedByteIsRefusedOrTheObjectLoadsInFull) {
  LoadedModule& m = LoadedModule::Get();
  std::mt19937 random(kSeed + 1);
  size_t refused = 0, whole = 0;
  for (const Sample& s : *s_Samples) {
    const std::string path = m_Path + "." + s.extension;
    const std::wstring original = XmlText(s.file);
    for (size_t k = 0; k < kCorruptionsPerFile; ++k) {
      std::string damaged = s.file;
      const size_t at = random() % damaged.size();
      damaged[at] = static_cast<char>(damaged[at] ^ (1 + random() % 255));
      WriteBytes(path, damaged, damaged.size());
      std::wstring touched;  // the leaf whose text the corruption is in, if any
      if (s.extension == "xml" && at >= 2) Leaves(original, (at - 2) / 2, &touched);
      const std::string where = Label(s) + " byte " + std::to_string(at);

      // A refusal leaves the object untouched: the prefix test checks that.
      SmartPtr<IUnknown> checked = m.Create<IUnknown>(s.name.c_str());
      if (client::LoadFile(m.components, checked, path).ok) {
        ++whole;
        EXPECT_TRUE(FullyLoaded(Fingerprint(checked, s.extension), s.reference, s.extension, touched)) << where;
      } else {
        ++refused;
      }
      SmartPtr<IUnknown> plain = m.Create<IUnknown>(s.name.c_str());
      Archive(plain, path, false);
      const std::string plainPrint = Fingerprint(plain, s.extension);
      if (plainPrint != s.fresh) {
        EXPECT_TRUE(FullyLoaded(plainPrint, s.reference, s.extension, touched)) << where << ": module alone";
      }
    }
    std::remove(path.c_str());
  }
  EXPECT_GT(refused, whole);  // most corruptions break the document or the checksum
}

}  // namespace
