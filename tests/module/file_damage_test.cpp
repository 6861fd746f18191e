// Damaged calibration files, for every object this build saves, in each file form: every
// prefix of a saved file (sampled on long files) and seeded corruptions of one byte, of
// several scattered bytes and of short bursts, loaded through the host's load function
// and through the module's archive alone. A damaged file must be refused, or, when a
// corruption leaves a well-formed document, load in full: never half. The reference
// host's XML stream is what keeps the module's own load from taking half a file; the
// host's load function refuses before the module reads anything.
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
constexpr size_t kMultiByteCorruptionsPerFile = 160;
constexpr unsigned kSeed = 20240611;

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
  if (SmartPtr<ICalibrationPolynomial> grid = QueryAs<ICalibrationPolynomial>(object)) {
    std::vector<P> rows, images;  // a 3 x 2 grid, bent a little, so its curves are stored
    for (int j = 0; j < 2; ++j)
      for (int i = 0; i < 3; ++i) {
        rows.push_back({4.0 * i, 3.0 * j, 0});
        images.push_back({4.0 * i + 0.1 * i * i + 1, 3.0 * j - 0.05 * i * j - 2, 0});
      }
    grid->Fit(Points(rows), Points(images), 3, 2);
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
  if (SmartPtr<ICalibrationsCollection> members = QueryAs<ICalibrationsCollection>(object)) {
    SmartPtr<IUnknown> member = LoadedModule::Get().Create<IUnknown>(L"CameraLinearCalibration");
    Populate(member);
    members->Add(Str(L"Floor"), member, nullptr, 0);
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

// The leaf elements of a document this host wrote (no attributes), in order: a start tag
// followed by text and an end tag. `begin` and `end` bound the text.
struct Leaf {
  std::wstring name, text;
  size_t begin, end;
};
std::vector<Leaf> Leaves(const std::wstring& t) {
  std::vector<Leaf> leaves;
  for (size_t open = t.find(L'<'); open != std::wstring::npos; open = t.find(L'<', open + 1)) {
    const size_t close = t.find(L'>', open), next = t.find(L'<', close);
    if (next == std::wstring::npos) break;
    if (t[next + 1] == L'/' && t[open + 1] != L'/' && t[open + 1] != L'?' && t[open + 1] != L'!')
      leaves.push_back({t.substr(open + 1, close - open - 1), t.substr(close + 1, next - close - 1), close + 1, next});
  }
  return leaves;
}

// Leaves that a class's XML load rebuilds from another leaf instead of reading them: a
// corruption of the source leaf rightly changes these too.
bool RebuiltFrom(const std::wstring& object, const std::wstring& leaf, const std::wstring& source) {
  const auto among = [](const std::wstring& name, std::initializer_list<const wchar_t*> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  if (object == L"Camera3DCalibrationPlane")  // a plane keeps a unit normal: one coefficient moves all four
    return among(leaf, {L"A", L"B", L"C", L"D"}) && among(source, {L"A", L"B", L"C", L"D"});
  if (object != L"Camera3DTrinsic") return false;
  if (leaf == L"Transform") return source == L"Intrinsic" || source == L"Extrinsic";
  return source == L"Intrinsic" && among(leaf, {L"fSx", L"fSy", L"Skew", L"CenterX", L"CenterY"});
}

struct Sample {
  std::wstring name;
  std::string extension;
  std::string file;       // the saved file
  std::string fresh;      // fingerprint of a new object
  std::string reference;  // fingerprint of an object loaded from the whole file
  std::vector<Leaf> leaves = {};  // of the file, in XML
  std::string Label() const { return std::string(name.begin(), name.end()) + " ." + extension; }
  // The leaf whose text holds the byte at `at` of the file; leaves.size() for none.
  size_t LeafAt(size_t at) const {
    size_t i = 0;
    while (i < leaves.size() && !(at >= 2 + 2 * leaves[i].begin && at < 2 + 2 * leaves[i].end)) ++i;
    return i;
  }
};

// True when `loaded` holds everything the reference holds, except, in XML, the leaves
// numbered in `touched` (those a corruption is in; numbers past the end stand for none)
// and what is rebuilt from them.
::testing::AssertionResult FullyLoaded(const std::string& loaded, const Sample& s, const std::set<size_t>& touched) {
  if (s.extension != "xml")
    return loaded == s.reference ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "not all came back";
  const std::vector<Leaf> a = Leaves(XmlText(loaded)), b = Leaves(XmlText(s.reference));
  if (a.size() != b.size()) return ::testing::AssertionFailure() << "the loaded object has other elements";
  const auto rebuilt = [&](const std::wstring& leaf) {
    for (size_t t : touched)
      if (t < s.leaves.size() && RebuiltFrom(s.name, leaf, s.leaves[t].name)) return true;
    return false;
  };
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i].name != b[i].name || (a[i].text != b[i].text && !touched.count(i) && !rebuilt(a[i].name)))
      return ::testing::AssertionFailure() << "element " << i << " did not come back";
  return ::testing::AssertionSuccess();
}

// Every object the module saves, in both forms, but for one it writes and never reads back
// (the projective camera puts its text form inside the XML element) and one it has not
// (the polynomial grid refuses XML: its XML file is an empty element).
std::vector<Sample> Samples() {
  LoadedModule& m = LoadedModule::Get();
  std::vector<Sample> samples;
  for (const std::wstring name : kCreatableObjectNames) {
    SmartPtr<IUnknown> object = m.Create<IUnknown>(name.c_str());
    if (!QueryAs<IFileArchive>(object) || !QueryAs<IDataPersist>(object)) continue;
    Populate(object);
    for (const char* extension : {"xml", "tCAL"}) {
      if ((name == L"Camera3DTransform" || name == L"CalibrationPolynomial") && extension == std::string("xml")) continue;
      Sample s{name, extension, {}, Fingerprint(m.Create<IUnknown>(name.c_str()), extension), {}};
      const std::string path = TempPath(std::string("whole.") + extension);
      EXPECT_GE(Archive(object, path, true), 0);
      if (s.extension == "xml") {  // a line end after the root element, so that a cut can fall past it
        std::ofstream(path, std::ios::binary | std::ios::app).write("\r\0\n\0", 4);
        s.leaves = Leaves(XmlText(ReadBytes(path)));
      }
      s.file = ReadBytes(path);
      SmartPtr<IUnknown> back = m.Create<IUnknown>(name.c_str());
      EXPECT_TRUE(client::LoadFile(m.components, back, path).ok);
      s.reference = Fingerprint(back, extension);
      std::remove(path.c_str());
      samples.push_back(s);
    }
  }
  return samples;
}

// The file at `path` loaded into new objects through the host's load function (which
// checks it first) and through the module's archive alone.
struct Loads {
  client::FileReport report;
  std::string checked, plain;  // fingerprints
};
Loads Load(const Sample& s, const std::string& path) {
  LoadedModule& m = LoadedModule::Get();
  SmartPtr<IUnknown> checked = m.Create<IUnknown>(s.name.c_str()), plain = m.Create<IUnknown>(s.name.c_str());
  Loads loads{client::LoadFile(m.components, checked, path), "", ""};
  Archive(plain, path, false);
  loads.checked = Fingerprint(checked, s.extension);
  loads.plain = Fingerprint(plain, s.extension);
  return loads;
}

void WriteBytes(const std::string& path, const std::string& bytes, size_t count) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(count));
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
    EXPECT_GT(s.file.size(), 2 * kPrefixEdge) << s.Label();
    EXPECT_NE(s.reference, s.fresh) << s.Label() << ": a loaded object looks like a new one";
  }
}

TEST_F(DamagedFiles, APrefixIsRefusedUnlessItHoldsTheWholeRootElement) {
  std::mt19937 random(kSeed);
  for (const Sample& s : *s_Samples) {
    const std::string path = m_Path + "." + s.extension;
    // Past the root element's end tag: the save ends there, before the line end added in XML.
    const size_t rootEnd = s.leaves.empty() ? s.file.size() : s.file.size() - 4;
    std::set<size_t> lengths;
    for (size_t n = 1; n < s.file.size(); ++n)
      if (n <= kPrefixEdge || s.file.size() - n <= kPrefixEdge) lengths.insert(n);
    for (size_t k = 0; s.file.size() > 2 * kPrefixEdge && k < kRandomPrefixes; ++k)
      lengths.insert(1 + random() % (s.file.size() - 1));
    for (size_t n : lengths) {
      WriteBytes(path, s.file, n);
      const Loads loads = Load(s, path);
      const std::string where = s.Label() + " cut at " + std::to_string(n);
      if (n >= rootEnd) {
        // Whole, but an odd byte count of 16-bit text is a cut character, which the host
        // refuses while the module drops it.
        const bool whole = n % 2 == 0;
        EXPECT_EQ(loads.report.ok, whole) << where << ": " << loads.report.problem;
        EXPECT_EQ(loads.checked, whole ? s.reference : s.fresh) << where;
        EXPECT_EQ(loads.plain, s.reference) << where;
        continue;
      }
      EXPECT_FALSE(loads.report.ok) << where;
      EXPECT_FALSE(loads.report.problem.empty()) << where;
      EXPECT_EQ(loads.checked, s.fresh) << where << ": touched";
      EXPECT_EQ(loads.plain, s.fresh) << where << ": half loaded";
    }
    std::remove(path.c_str());
  }
}

TEST_F(DamagedFiles, ACorruptedByteIsRefusedOrTheObjectLoadsInFull) {
  std::mt19937 random(kSeed + 1);
  size_t refused = 0, whole = 0;
  for (const Sample& s : *s_Samples) {
    const std::string path = m_Path + "." + s.extension;
    for (size_t k = 0; k < kCorruptionsPerFile; ++k) {
      std::string damaged = s.file;
      const size_t at = random() % damaged.size();
      damaged[at] = static_cast<char>(damaged[at] ^ (1 + random() % 255));
      WriteBytes(path, damaged, damaged.size());
      const std::set<size_t> touched = {s.LeafAt(at)};
      const std::string where = s.Label() + " byte " + std::to_string(at);
      // A refusal leaves the object untouched: the prefix test checks that.
      const Loads loads = Load(s, path);
      ++(loads.report.ok ? whole : refused);
      if (loads.report.ok) {
        EXPECT_TRUE(FullyLoaded(loads.checked, s, touched)) << where;
      }
      if (loads.plain != s.fresh) {
        EXPECT_TRUE(FullyLoaded(loads.plain, s, touched)) << where << ": module alone";
      }
    }
    std::remove(path.c_str());
  }
  EXPECT_GT(refused, whole);  // most corruptions break the document or the checksum
}

// Several bytes at once: scattered over the file, or a burst of neighbours overwritten (a
// half-copied block). The same rule: refused, or loaded in full but for the leaves hit.
TEST_F(DamagedFiles, SeveralCorruptedBytesAreRefusedOrTheObjectLoadsInFull) {
  std::mt19937 random(kSeed + 2);
  for (const Sample& s : *s_Samples) {
    const std::string path = m_Path + "." + s.extension;
    for (size_t k = 0; k < kMultiByteCorruptionsPerFile; ++k) {
      std::string damaged = s.file;
      std::set<size_t> touched;
      const bool burst = k % 2 == 1;
      const size_t count = 2 + random() % 7, start = random() % damaged.size();
      for (size_t j = 0; j < count; ++j) {
        const size_t at = burst ? (start + j) % damaged.size() : random() % damaged.size();
        damaged[at] = static_cast<char>(damaged[at] ^ (1 + random() % 255));
        touched.insert(s.LeafAt(at));
      }
      WriteBytes(path, damaged, damaged.size());
      const std::string where = s.Label() + (burst ? " burst at " : " bytes from ") + std::to_string(start);
      const Loads loads = Load(s, path);
      if (loads.report.ok) {
        EXPECT_TRUE(FullyLoaded(loads.checked, s, touched)) << where;
      }
      if (loads.plain != s.fresh) {
        EXPECT_TRUE(FullyLoaded(loads.plain, s, touched)) << where << ": module alone";
      }
    }
    std::remove(path.c_str());
  }
}

}  // namespace
