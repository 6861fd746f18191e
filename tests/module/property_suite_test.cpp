// One suite over every class the module builds. A class joins it with one line in its own
// test file: it defines a property::ClassTraits (PropertySuite.h) and registers it with
//   ZELTRIM_PROPERTY_CLASS(kMyClassTraits);
// EveryBuiltClassHasTraits fails until a class the module builds has joined. The checks:
// the exact QueryInterface table, reference counts back to zero, save and load in each
// form (values compared, files written again), convert then revert, parameters carried
// to a new object, bad input to the fit, and the outputs each interface lets be null.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/module/PropertySuite.h"

namespace property {
namespace {

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// Every interface declared in the frame headers, found by its declaration.
std::vector<std::pair<std::string, IID>> AllInterfaces() {
  std::vector<std::pair<std::string, IID>> all = {{"IUnknown", IID_IUnknown}};
  for (const char* header : {"/frame/ModuleInterfaces.h", "/frame/HostInterfaces.h"}) {
    std::ifstream in(std::string(ZELTRIM_SOURCE_DIR) + header);
    std::string line;
    const std::string mark = "ZELTRIM_INTERFACE(";
    while (std::getline(in, line))
      if (line.compare(0, mark.size(), mark) == 0) {
        const std::string name = line.substr(mark.size(), line.find(',') - mark.size());
        all.emplace_back(name, __IIDOfc(name.c_str()));
      }
  }
  return all;
}

// One reference to a new object, which must be the last one when the test ends.
struct Instance {
  IUnknown* object;
  explicit Instance(const ClassTraits& t) : object(LoadedModule::Get().Create<IUnknown>(t.name).Detach()) {}
  ~Instance() {
    if (object) {
      EXPECT_EQ(object->Release(), 0) << "references left";
    }
  }
  operator IUnknown*() const { return object; }
};

// What a round trip must carry: converted probe points, matrices, fit errors, named
// parameters and the info block, under keys that Form::lost can name.
struct Snapshot {
  std::map<std::string, double> numbers;
  std::map<std::string, std::wstring> texts;
};

const P kProbes[] = {{1, 2, 0}, {-3, 0.5, 0}, {4, -1, 1.5}};

void Put(Snapshot* s, const std::string& key, const P& p) {
  s->numbers[key + ".x"] = p.x;
  s->numbers[key + ".y"] = p.y;
  s->numbers[key + ".z"] = p.z;
}

std::wstring TextOrCode(HRESULT hr, IUnknown* text) { return hr < 0 ? L"<failed>" : Text(text); }

Snapshot Take(IUnknown* object) {
  Snapshot s;
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(object);
  SmartPtr<ITransform> transform = QueryAs<ITransform>(object);
  for (size_t i = 0; i < std::size(kProbes); ++i) {
    if (calibration) Put(&s, "revert" + std::to_string(i), Reverted(calibration, kProbes[i]));
    if (calibration) Put(&s, "convert" + std::to_string(i), Converted(calibration, kProbes[i]));
    if (!calibration && transform) Put(&s, "convert" + std::to_string(i), Converted(transform, kProbes[i]));
  }
  const std::vector<double> matrix = MatrixOf(object);
  for (size_t i = 0; i < matrix.size(); ++i) s.numbers["matrix" + std::to_string(i)] = matrix[i];
  if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(object))
    errors->GetFitErrors(&s.numbers["errors.mean"], &s.numbers["errors.max"], &s.numbers["errors.sd"]);
  SmartPtr<INamedCollection> params;
  if (SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(object))
    parametric->GetParameters(params.Out(), 0);
  for (int i = 0; i < Count(params); ++i) {
    SmartPtr<IString> name;
    SmartPtr<IUnknown> item;
    params->get_ItemName(i, name.Out());
    params->get_Item(i, item.Out());
    SmartPtr<IVariant> value = QueryAs<IVariant>(item);
    s.numbers["param." + Narrow(Text(name))] = value ? value->get_Double() : NAN;
  }
  if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object)) {
    const std::pair<const char*, HRESULT (ICalibrationInfo::*)(IString**)> texts[] = {
        {"name", &ICalibrationInfo::get_CALIBName}, {"type", &ICalibrationInfo::get_CALIBType},
        {"description", &ICalibrationInfo::get_CALIBDescription}, {"unitsText", &ICalibrationInfo::get_CALIBUnitsText}};
    for (const auto& [key, get] : texts) {
      SmartPtr<IString> text;
      const HRESULT hr = ((*info).*get)(text.Out());
      s.texts[std::string("info.") + key] = TextOrCode(hr, text);
    }
    SmartPtr<IUnknown> device;
    const HRESULT hr = info->get_CALIBDevice(device.Out());
    s.texts["info.device"] = TextOrCode(hr, device);
    int units = 0;
    info->get_CALIBUnits(&units);
    s.numbers["info.units"] = units;
    short t[5] = {0, 0, 0, 0, 0};
    info->GetCalibrationTime(&t[0], &t[1], &t[2], &t[3], &t[4]);
    for (int i = 0; i < 5; ++i) s.numbers["info.time" + std::to_string(i)] = t[i];
  }
  // A collection's members: each name with the object name (or the text) of its item.
  if (SmartPtr<IParameters> members = QueryAs<IParameters>(object))
    for (int i = 0; i < Count(members); ++i) {
      SmartPtr<IString> name;
      SmartPtr<IUnknown> item;
      members->get_ItemName(i, name.Out());
      members->get_Item(i, item.Out());
      SmartPtr<IObjectInfo> kind = QueryAs<IObjectInfo>(item);
      tagREFString kindName{0, nullptr};
      s.texts["member." + Narrow(Text(name))] =
          kind && kind->GetName(0, &kindName) >= 0 ? std::wstring(kindName.m_Text, kindName.m_Length) : Text(item);
    }
  return s;
}

bool Listed(const std::vector<std::string>& prefixes, const std::string& key) {
  for (const std::string& prefix : prefixes)
    if (key.compare(0, prefix.size(), prefix) == 0) return true;
  return false;
}
bool Lost(const Form& form, const std::string& key) { return Listed(form.lost, key); }

bool Same(double a, double b, double tolerance) {
  return a == b || std::fabs(a - b) <= tolerance || (std::isnan(a) && std::isnan(b));
}

// `loaded` holds what `saved` held, except what the form loses: that keeps the values of
// a new object.
void ExpectCarried(const Snapshot& saved, const Snapshot& loaded, const Snapshot& fresh, const Form& form) {
  for (const auto& [key, value] : saved.numbers) {
    if (Listed(form.changed, key)) continue;
    const double got = loaded.numbers.count(key) ? loaded.numbers.at(key) : NAN;
    if (Lost(form, key))
      EXPECT_TRUE(Same(got, fresh.numbers.at(key), 0)) << key << " is not carried; got " << got;
    else
      EXPECT_TRUE(Same(got, value, form.tolerance)) << key << ": saved " << value << ", loaded " << got;
  }
  for (const auto& [key, value] : saved.texts) {
    const std::wstring got = loaded.texts.count(key) ? loaded.texts.at(key) : L"<missing>";
    EXPECT_EQ(Narrow(got), Narrow(Lost(form, key) ? fresh.texts.at(key) : value)) << key;
  }
}

bool XmllintAccepts(const std::string& path) {
  static const bool present = std::system("command -v xmllint >/dev/null 2>&1") == 0;
  return !present || std::system(("xmllint --noout " + path + " 2>/dev/null").c_str()) == 0;
}

class EveryClass : public ::testing::TestWithParam<const ClassTraits*> {
 protected:
  const ClassTraits& t = *GetParam();
  std::string Path(const Form& form) const { return TempPath(Narrow(t.name) + "." + form.extension); }
};

TEST(PropertySuite, EveryBuiltClassHasTraits) {
  std::set<std::wstring> built, joined;
  for (const wchar_t* name : kCreatableObjectNames) {
    void* creator = nullptr;
    if (LoadedModule::Get().createFunction(Ref(name), &creator) == S_OK) built.insert(name);
  }
  for (const ClassTraits* traits : Registry()) joined.insert(traits->name);
  EXPECT_EQ(built, joined) << "a class the module builds joins the suite with ZELTRIM_PROPERTY_CLASS";
}

TEST_P(EveryClass, AnswersExactlyItsInterfacesOnSharedRoutes) {
  Instance object(t);
  ASSERT_TRUE(object.object);
  SmartPtr<IUnknown> identity = QueryAs<IUnknown>(object);
  std::vector<std::pair<IID, void*>> answered;
  const auto pointer = [&](const IID& iid) {
    for (const auto& [answer, p] : answered)
      if (answer == iid) return p;
    return static_cast<void*>(nullptr);
  };
  for (const auto& [name, iid] : AllInterfaces()) {
    void* p = reinterpret_cast<void*>(1);
    const HRESULT hr = object.object->QueryInterface(iid, &p);
    bool listed = name == "IUnknown";
    for (const Route& r : t.routes) listed = listed || *r.iid == iid;
    if (!listed) {
      EXPECT_EQ(hr, E_NOINTERFACE) << name;
      EXPECT_EQ(p, nullptr) << name;
      continue;
    }
    ASSERT_EQ(hr, S_OK) << name;
    answered.emplace_back(iid, p);
    EXPECT_EQ(QueryAs<IUnknown>(static_cast<IUnknown*>(p)).get(), identity.get()) << name << " leads to another object";
  }
  EXPECT_EQ(answered.size(), t.routes.size() + 1);
  for (const Route& r : t.routes)
    EXPECT_EQ(pointer(*r.iid), pointer(r.sameAs ? *r.sameAs : *r.iid)) << "a route that shares another's pointer";
  for (const auto& entry : answered) static_cast<IUnknown*>(entry.second)->Release();
  if (SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object))
    for (int any : {0, 3, -7}) {
      tagREFString name{0, nullptr};
      ASSERT_EQ(info->GetName(any, &name), S_OK);
      EXPECT_EQ(std::wstring(name.m_Text, name.m_Length), t.name);
    }
  identity.Clear();
  EXPECT_EQ(RefCount(object), 1) << "every query handed back its reference";
}

// Classes without IFileArchive have their stream forms only.
bool HasArchive(const ClassTraits& t) {
  Instance object(t);
  return QueryAs<IFileArchive>(object.object).get() != nullptr;
}

TEST_P(EveryClass, FilesRoundTripInEachForm) {
  if (!HasArchive(t)) GTEST_SKIP() << "no IFileArchive";
  for (const Form& form : t.forms) {
    SCOPED_TRACE(form.extension);
    const std::string path = Path(form);
    Instance saved(t), loaded(t), again(t), fresh(t);
    t.prepare(saved);
    ASSERT_EQ(Archive(saved, path, true), S_OK);
    int modified = -1, current = -1;
    QueryAs<IFileArchive>(saved)->Inquire(0, &modified), QueryAs<IFileArchive>(saved)->Inquire(1, &current);
    EXPECT_EQ(modified, 0) << "a saved object is no longer modified";
    EXPECT_EQ(current, 1);
    const std::string first = ReadBytes(path);
    EXPECT_TRUE(!form.xml || XmllintAccepts(path)) << "well-formed XML";
    // The archive answers S_OK once the file has been read, whatever the object said.
    EXPECT_EQ(Archive(loaded, path, false), S_OK);
    ExpectCarried(Take(saved), Take(loaded), Take(fresh), form);
    // Written again, a file says the same; a form that loses fields settles after one trip.
    ASSERT_EQ(Archive(loaded, path, true), S_OK);
    const std::string second = ReadBytes(path);
    EXPECT_TRUE(!form.lost.empty() || second == first) << "the file changed on its way through a new object";
    EXPECT_EQ(Archive(again, path, false), S_OK);
    ASSERT_EQ(Archive(again, path, true), S_OK);
    EXPECT_TRUE(ReadBytes(path) == second) << "a second round trip changed the file";
    std::remove(path.c_str());
  }
}

TEST_P(EveryClass, FilesThatCannotBeReadOrWrittenAreRefused) {
  if (!HasArchive(t)) GTEST_SKIP() << "no IFileArchive";
  for (const Form& form : t.forms) {
    SCOPED_TRACE(form.extension);
    Instance object(t), fresh(t);
    testing::internal::CaptureStderr();  // "file open err:" for the missing file
    EXPECT_LT(Archive(object, TempPath("missing_file." + std::string(form.extension)), false), 0);
    testing::internal::GetCapturedStderr();
    ExpectCarried(Take(fresh), Take(object), Take(fresh), form);
    // The folder form reports success whatever the file write did; the XML form does not.
    const HRESULT hr = Archive(object, TempPath("no/such/folder/file." + std::string(form.extension)), true);
    EXPECT_EQ(hr < 0, form.xml) << hr;
  }
  if (!t.forms.empty()) {
    Instance object(t);
    const std::string path = TempPath("unknown_form.dat");
    if (t.unnamedFormWritesText) {
      EXPECT_EQ(Archive(object, path, true), S_OK) << "an extension that names no form gives the text form";
      const std::string begins = t.unnamedFormBegins;
      EXPECT_EQ(ReadBytes(path).substr(0, begins.size()), begins);
      std::remove(path.c_str());
    } else {
      EXPECT_EQ(Archive(object, path, true), E_FAIL) << "an extension that names no form";
      EXPECT_EQ(ReadBytes(path), "");
    }
    SmartPtr<IString> filter;
    const HRESULT hr = QueryAs<IFileArchive>(object)->get_Filter(filter.Out(), 0);
    EXPECT_EQ(hr, t.filter ? S_OK : E_FAIL);
    EXPECT_EQ(Text(filter), t.filter ? t.filter : L"");
  }
}

TEST_P(EveryClass, StreamsRoundTripInEachFormAndRefuseOthers) {
  for (const Form& form : t.forms) {
    SCOPED_TRACE(form.extension);
    Instance saved(t), loaded(t), fresh(t);
    t.prepare(saved);
    HRESULT hr = S_OK;
    std::vector<char> image;
    SmartPtr<IDataStream> stream = SavedStream(saved, form, &hr, &image);
    EXPECT_EQ(hr, form.save);
    ASSERT_TRUE(stream);
    EXPECT_EQ(QueryAs<IDataPersist>(loaded)->Load(stream, 0), form.load);
    ExpectCarried(Take(saved), Take(loaded), Take(fresh), form);
  }
  Instance object(t);
  if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object)) {
    SmartPtr<IDataStream> plain = LoadedModule::Get().CreateHost<IDataStream>(L"DataStream");
    plain->Open(nullptr, 1000, 1);
    EXPECT_EQ(persist->Save(nullptr, 0), t.nullStream[0]);
    EXPECT_EQ(persist->Load(nullptr, 0), t.nullStream[1]);
    EXPECT_EQ(persist->Save(plain, 0), t.otherStream[0]);
    EXPECT_EQ(persist->Load(plain, 0), t.otherStream[1]);
  }
}

TEST_P(EveryClass, ConvertThenRevertComesBack) {
  Instance object(t);
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(object);
  if (!calibration) GTEST_SKIP() << "no ICalibration";
  if (t.convertRevertIsNoRoundTrip) GTEST_SKIP() << "Revert does not undo Convert";
  t.prepare(object);
  for (const P& p : kProbes) {
    P q = p;
    ASSERT_EQ(calibration->Convert(&q.x, &q.y, &q.z), S_OK);
    EXPECT_GT(std::fabs(q.x - p.x) + std::fabs(q.y - p.y), 1e-3) << "the prepared object converts";
    ASSERT_EQ(calibration->Revert(&q.x, &q.y, &q.z), S_OK);
    EXPECT_NEAR(q.x, p.x, t.revertTolerance);
    EXPECT_NEAR(q.y, p.y, t.revertTolerance);
  }
}

TEST_P(EveryClass, ParametersCarryToANewObject) {
  Instance from(t), to(t), fresh(t);
  SmartPtr<IParametricObject> source = QueryAs<IParametricObject>(from);
  if (!source) GTEST_SKIP() << "no IParametricObject";
  t.prepare(from);
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(source->GetParameters(params.Out(), 0), S_OK);
  ASSERT_GT(Count(params), 0);
  EXPECT_EQ(QueryAs<IParametricObject>(to)->SetParameters(params), S_OK);
  const Snapshot a = Take(from), b = Take(to), none = Take(fresh);
  for (const auto& [key, value] : a.numbers) {
    if (key.compare(0, 6, "param.") != 0) continue;
    const std::wstring name(key.begin() + 6, key.end());
    bool ignored = t.setParametersIgnored;
    for (const std::wstring& unread : t.parametersNotReadBack) ignored = ignored || unread == name;
    EXPECT_TRUE(Same(b.numbers.at(key), ignored ? none.numbers.at(key) : value, 0)) << key;
  }
  if (t.setParametersIgnored || !t.parametersNotReadBack.empty()) return;
  for (const auto& [key, value] : a.numbers) {
    const bool converted = key.compare(0, 7, "convert") == 0 || key.compare(0, 6, "revert") == 0;
    EXPECT_TRUE(!converted || Same(b.numbers.at(key), value, 0)) << key << ": the parameters are the whole model";
  }
}

TEST_P(EveryClass, BadInputToTheFitGivesItsResultCode) {
  if (!t.fit) GTEST_SKIP() << "nothing to fit";
  for (const FitCase& c : t.badFits) {
    SCOPED_TRACE(c.label);
    SmartPtr<ISimpleCollection> source = Points(c.source), target = Points(c.target);
    {
      Instance object(t);
      EXPECT_EQ(t.fit(object, source, target), c.expected);
    }
    for (ISimpleCollection* points : {source.get(), target.get()})
      EXPECT_TRUE(!points || RefCount(points) == 1) << "the object kept a reference to the points";
  }
}

TEST_P(EveryClass, PagesAreListedInTheirOrder) {
  if (t.pages.empty()) GTEST_SKIP() << "pages checked in the class's own tests";
  Instance object(t);
  SmartPtr<INamedCollection> pages;
  ASSERT_EQ(QueryAs<IUIPropertyPageSpecify>(object)->GetPages(0, pages.Out(), nullptr), S_OK);
  SmartPtr<IParameters> list = QueryAs<IParameters>(pages);
  ASSERT_TRUE(list);
  ASSERT_EQ(Count(list), static_cast<int>(t.pages.size()));
  for (int i = 0; i < Count(list); ++i) {
    SmartPtr<IString> title;
    SmartPtr<IUnknown> page, third;
    list->get_ItemName(i, title.Out());
    list->get_Item(i, page.Out());
    list->get_ItemDescriptor(i, third.Out());
    EXPECT_EQ(Narrow(Text(title) + L"|" + Text(page) + L"|" + Text(third)),
              Narrow(std::wstring(t.pages[i].title) + L"|" + t.pages[i].page + L"|" + t.pages[i].third))
        << "entry " << i;
  }
}

// Outputs that each interface's contract lets the caller leave null.
void NullOutputs(const ClassTraits& t, const IID& iid, IUnknown* object) {
  if (iid == IID_ICalibrationInfo) {
    SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
    EXPECT_EQ(info->GetCalibrationTime(nullptr, nullptr, nullptr, nullptr, nullptr), S_OK);
    EXPECT_EQ(info->get_CALIBUnits(nullptr), S_OK);
    for (auto get : {&ICalibrationInfo::get_CALIBName, &ICalibrationInfo::get_CALIBType,
                     &ICalibrationInfo::get_CALIBDescription, &ICalibrationInfo::get_CALIBUnitsText})
      EXPECT_EQ(((*info).*get)(nullptr), E_POINTER) << "a result place that is required";
    EXPECT_EQ(info->get_CALIBDevice(nullptr), E_POINTER);
  } else if (iid == IID_ITransformFitErrors) {
    EXPECT_EQ(QueryAs<ITransformFitErrors>(object)->GetFitErrors(nullptr, nullptr, nullptr), t.fitErrorsResult);
  } else if (iid == IID_ICamera3DTransform) {
    EXPECT_EQ(QueryAs<ICamera3DTransform>(object)->GetMatrix(nullptr, nullptr, nullptr), S_OK);
  } else if (iid == IID_IHomogeneousTransform) {
    EXPECT_EQ(QueryAs<IHomogeneousTransform>(object)->GetMatrix(nullptr, nullptr, nullptr), S_OK);
  } else if (iid == IID_ICameraLinearCalibration) {
    EXPECT_EQ(QueryAs<ICameraLinearCalibration>(object)->GetCameraRoll(nullptr), S_OK);
  } else if (iid == IID_IFitAndFilter) {
    EXPECT_EQ(QueryAs<IFitAndFilter>(object)->GetFitMethod(nullptr, nullptr, nullptr), S_OK);
  } else if (iid == IID_ICalibrationBestFit) {
    SmartPtr<ICalibrationBestFit> fit = QueryAs<ICalibrationBestFit>(object);
    EXPECT_EQ(fit->GetForwardTransform(nullptr), E_POINTER) << "a result place that is required";
    EXPECT_EQ(fit->GetReverseTransform(nullptr), E_POINTER);
  } else if (iid == IID_IMultiViewGeometry) {
    EXPECT_EQ(QueryAs<IMultiViewGeometry>(object)->GetMatrix(1, nullptr, nullptr, nullptr), S_OK);
  } else if (iid == IID_ITransformInterrogate) {
    SmartPtr<ITransformInterrogate> ask = QueryAs<ITransformInterrogate>(object);
    SmartPtr<IHomogeneousTransform> identity = LoadedModule::Get().Create<IHomogeneousTransform>(L"TransformBestFit");
    for (short convention : {0, 2}) EXPECT_EQ(ask->GetEulerAngles(identity, convention, nullptr, nullptr, nullptr), S_OK);
    EXPECT_EQ(ask->GetTranslation(identity, nullptr, nullptr, nullptr), S_OK);
    EXPECT_EQ(ask->GetScale(identity, nullptr, nullptr, nullptr), S_OK);
  }
}

TEST_P(EveryClass, OutputsEachInterfaceLetsBeNullAreSkipped) {
  Instance object(t);
  t.prepare(object);
  for (const Route& r : t.routes) NullOutputs(t, *r.iid, object);
}

}  // namespace

void PrintTo(const ClassTraits* traits, std::ostream* out) { *out << Narrow(traits->name); }
INSTANTIATE_TEST_SUITE_P(Module, EveryClass, testing::ValuesIn(Registry()),
                         [](const testing::TestParamInfo<const ClassTraits*>& info) { return Narrow(info.param->name); });
}  // namespace property
