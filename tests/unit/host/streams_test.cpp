// The "Streams" peer module, created through the global component collection as a host
// creates it: memory, CSV, XML and folder streams, the ASCII transform and the file info.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "frame/Object.h"

namespace {

typedef HRESULT (*CreateFn)(tagREFString, void**);
typedef HRESULT (*CreatorFn)(void*, IID*, void**);

IComponentCollection* Global() {
  static IComponentCollection* global = [] {
    IComponentCollection* result = nullptr;
    void* module = dlopen("./_binlinux/CollectionsEx.so", RTLD_NOW);  // never unloaded
    if (!module) return result;
    auto create = reinterpret_cast<CreateFn>(dlsym(module, "CreateFunction"));
    void* creator = nullptr;
    const wchar_t* name = L"GlobalComponentCollection";
    if (!create || create(tagREFString{25, name}, &creator) != S_OK) return result;
    IID iid = IID_IComponentCollection;
    void* object = nullptr;
    if (reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &object) == S_OK)
      result = static_cast<IComponentCollection*>(object);
    return result;
  }();
  return global;
}

template <class I>
SmartPtr<I> Create(const wchar_t* name) {
  SmartPtr<I> result;
  void* object = nullptr;
  if (Global() && Global()->CreateComponent(static_cast<int>(std::wcslen(name)), name, &I::Iid(), &object) == S_OK)
    result.Attach(static_cast<I*>(object));
  return result;
}

// A plain string object of the test's own, so names do not depend on another peer.
class TestString : public CObject<TestString>, public ICreatableString {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override {
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<TestString>*>(this), object) ||
        QueryRoute(iid, IID_IString, static_cast<IString*>(this), object) ||
        QueryRoute(iid, IID_ICreatableString, static_cast<ICreatableString*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
  HRESULT GetString(const wchar_t** text, int* length) override {
    *text = m_Text.c_str();
    *length = static_cast<int>(m_Text.size());
    return S_OK;
  }
  HRESULT SetString(int length, const wchar_t* text) override {
    m_Text.assign(text, length > 0 ? static_cast<size_t>(length) : 0);
    return S_OK;
  }
  HRESULT Append(int length, const wchar_t* text) override {
    m_Text.append(text, static_cast<size_t>(length));
    return S_OK;
  }
  std::wstring m_Text;
};

// A variant of the test's own: an integer, a double or a string.
class TestVariant : public CObject<TestVariant>, public IVariant {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override {
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<TestVariant>*>(this), object) ||
        QueryRoute(iid, IID_IVariant, static_cast<IVariant*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }
  short get_Type() override { return m_Type; }
  double get_Double() override { return m_Type == VARIANT_INTEGER ? m_Integer : m_Double; }
  int get_Integer() override { return m_Integer; }
  HRESULT put_Integer(int v) override { m_Type = VARIANT_INTEGER; m_Integer = v; m_String.Clear(); return S_OK; }
  HRESULT put_Double(double v) override { m_Type = VARIANT_DOUBLE; m_Double = v; m_String.Clear(); return S_OK; }
  short IsObject() override { return 0; }
  HRESULT get_Object(IUnknown** o) override { *o = nullptr; return E_FAIL; }
  HRESULT put_Object(IUnknown*) override { return E_NOTIMPL; }
  short IsString() override { return m_String ? 1 : 0; }
  HRESULT get_String(IString** s) override {
    *s = m_String.get();
    if (*s) (*s)->AddRef();
    return *s ? S_OK : E_FAIL;
  }
  HRESULT put_String(IString* s) override { m_Type = VARIANT_OBJECT; m_String = s; return S_OK; }
  short m_Type = VARIANT_OBJECT;
  int m_Integer = 0;
  double m_Double = 0;
  SmartPtr<IString> m_String;
};

SmartPtr<IString> Str(const std::wstring& text) {
  SmartPtr<IString> s;
  TestString* t = new TestString();
  t->m_Text = text;
  s.Attach(t);
  return s;
}

// A variant handed in the place of a string, as the module hands keys and targets.
IString* AsStringPlace(TestVariant* variant) { return reinterpret_cast<IString*>(static_cast<IVariant*>(variant)); }

SmartPtr<TestVariant> IndexKey(int index) {
  SmartPtr<TestVariant> v;
  v.Attach(new TestVariant());
  v->put_Integer(index);
  return v;
}

std::wstring TextOf(IUnknown* object) {
  SmartPtr<IString> s = QueryAs<IString>(object);
  if (!s) return L"<no IString>";
  const wchar_t* p = nullptr;
  int n = 0;
  s->GetString(&p, &n);
  return std::wstring(p, static_cast<size_t>(n));
}

std::wstring View(const tagREFString& v) { return std::wstring(v.m_Text, static_cast<size_t>(v.m_Length)); }

void WriteRaw(IDataStream* stream, const std::wstring& text) {
  stream->Write(text.data(), static_cast<int>(text.size() * sizeof(wchar_t)), 0);
}

std::string Utf8(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) {
    const uint32_t v = static_cast<uint32_t>(c);
    if (v < 0x80) {
      out += static_cast<char>(v);
    } else if (v < 0x800) {
      out += static_cast<char>(0xC0 | (v >> 6));
      out += static_cast<char>(0x80 | (v & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (v >> 12));
      out += static_cast<char>(0x80 | ((v >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (v & 0x3F));
    }
  }
  return out;
}

// A temporary file name under the build folder, removed by the fixture.
std::string TempName(const char* stem) { return std::string("./streams_test_") + stem + "_" + std::to_string(getpid()); }

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

bool HaveXmllint() { return std::system("xmllint --version >/dev/null 2>&1") == 0; }

// True when xmllint finds the text (as UTF-8) well formed.
bool WellFormed(const std::wstring& text) {
  const std::string path = TempName("lint") + ".xml";
  const std::string utf8 = Utf8(text);
  WriteBytes(path, std::vector<uint8_t>(utf8.begin(), utf8.end()));
  const int status = std::system(("xmllint --noout " + path + " 2>/dev/null").c_str());
  std::remove(path.c_str());
  return status == 0;
}

class StreamsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Global()) GTEST_SKIP() << "CollectionsEx.so not found beside the tests";
  }
};

// ------------------------------------------------------------------ every object

TEST_F(StreamsTest, EveryObjectIsCreatableAndTellsItsName) {
  const struct {
    const wchar_t* name;
    IID iid;
  } objects[] = {{L"DataStream", IID_IDataStream},       {L"XMLStream", IID_IXMLStream},
                 {L"XMLStreamEx", IID_IXMLStreamEx},     {L"FolderStream", IID_IFolderStream},
                 {L"CSVStream", IID_ICSVStream},         {L"ASCIIStream", IID_IStreamTransform},
                 {L"FileInfo", IID_IFileInfo}};
  for (const auto& o : objects) {
    SCOPED_TRACE(std::string(o.name, o.name + std::wcslen(o.name)));
    void* object = nullptr;
    ASSERT_EQ(Global()->CreateComponent(static_cast<int>(std::wcslen(o.name)), o.name, &o.iid, &object), S_OK);
    SmartPtr<IUnknown> unknown;
    unknown.Attach(static_cast<IUnknown*>(object));
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(unknown.get());
    ASSERT_TRUE(info);
    tagREFString name{0, nullptr};
    ASSERT_EQ(info->GetName(0, &name), S_OK);
    EXPECT_EQ(View(name), o.name);
    const bool isStream = std::wcsstr(o.name, L"Stream") != nullptr && std::wcscmp(o.name, L"ASCIIStream") != 0;
    EXPECT_EQ(static_cast<bool>(QueryAs<IString>(unknown.get())), isStream);
  }
}

// ------------------------------------------------------------------ memory streams

TEST_F(StreamsTest, DataStreamWritesSeeksAndReadsBack) {
  SmartPtr<IDataStream> s = Create<IDataStream>(L"DataStream");
  ASSERT_TRUE(s);
  ASSERT_EQ(s->Open(nullptr, 1000, 1), S_OK);
  ASSERT_EQ(s->Write("hello world", 11, 0), S_OK);
  ASSERT_EQ(s->Seek(6, STREAM_BEGIN, 0), S_OK);
  ASSERT_EQ(s->Write("there", 5, 0), S_OK);  // overwrites in place
  unsigned long position = 0;
  s->GetPosition(&position);
  EXPECT_EQ(position, 11u);
  void* data = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(s->GetBuffer(&data, &size), S_OK);
  EXPECT_EQ(std::string(static_cast<char*>(data), size), "hello there");
  EXPECT_EQ(TextOf(s.get()), L"hello there");

  ASSERT_EQ(s->Seek(-5, STREAM_END, 0), S_OK);
  char back[16] = {};
  int read = 0;
  EXPECT_EQ(s->Read(back, 16, &read), S_FALSE);  // fewer bytes than asked
  EXPECT_EQ(read, 5);
  EXPECT_EQ(std::string(back), "there");
  EXPECT_LT(s->Seek(-1, STREAM_BEGIN, 0), 0);
  EXPECT_LT(s->Seek(1, STREAM_END, 0), 0);
  EXPECT_LT(s->Read(back, -1, &read), 0);
}

TEST_F(StreamsTest, DataStreamOverABlockCopiesItAndRefusesWrites) {
  SmartPtr<IDataStream> s = Create<IDataStream>(L"DataStream");
  ASSERT_TRUE(s);
  char block[] = {'a', 'b', 'c'};
  ASSERT_EQ(s->Open(block, 3, 0), S_OK);
  block[0] = 'z';  // the caller's buffer is its own
  char back[3];
  int read = 0;
  ASSERT_EQ(s->Read(back, 3, &read), S_OK);
  EXPECT_EQ(std::string(back, 3), "abc");
  EXPECT_LT(s->Write("x", 1, 0), 0);
}

TEST_F(StreamsTest, CSVStreamShowsItsBytesAsWideText) {
  SmartPtr<ICSVStream> csv = Create<ICSVStream>(L"CSVStream");
  ASSERT_TRUE(csv);
  ASSERT_EQ(csv->Setup(nullptr, 1000, 1), S_OK);
  WriteRaw(csv.get(), L"1,2\r\n");
  csv->Write(L"3", 2, 0);  // half a character: not shown
  EXPECT_EQ(TextOf(csv.get()), L"1,2\r\n");
}

TEST_F(StreamsTest, ASCIIStreamWritesUtf8) {
  SmartPtr<IXMLStream> xml = Create<IXMLStream>(L"XMLStreamEx");
  SmartPtr<IStreamTransform> ascii = Create<IStreamTransform>(L"ASCIIStream");
  SmartPtr<IDataStream> data = Create<IDataStream>(L"DataStream");
  ASSERT_TRUE(xml && ascii && data);
  xml->Attach(nullptr, 0, 0);
  // A, e acute, euro sign, a character beyond 16 bits, and a lone surrogate.
  const wchar_t text[] = {L'A', 0xE9, 0x20AC, static_cast<wchar_t>(0x1F600), static_cast<wchar_t>(0xD800)};
  xml->Write(text, sizeof(text), 0);
  ASSERT_EQ(ascii->Transform(xml.get(), data.get(), 0), S_OK);
  void* bytes = nullptr;
  unsigned long size = 0;
  data->GetBuffer(&bytes, &size);
  const std::vector<uint8_t> expected = {'A',  0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0,
                                         0x9F, 0x98, 0x80, 0xEF, 0xBF, 0xBD};
  EXPECT_EQ(std::vector<uint8_t>(static_cast<uint8_t*>(bytes), static_cast<uint8_t*>(bytes) + size), expected);
}

// The module writes wide text (4 bytes a character) into a data stream for its text
// reports; a data stream's own text view shows single bytes, so its buffer is what counts.
TEST_F(StreamsTest, ASCIIStreamReadsADataStreamAsWideText) {
  SmartPtr<IDataStream> wide = Create<IDataStream>(L"DataStream");
  SmartPtr<IDataStream> narrow = Create<IDataStream>(L"DataStream");
  SmartPtr<IStreamTransform> ascii = Create<IStreamTransform>(L"ASCIIStream");
  ASSERT_TRUE(wide && narrow && ascii);
  wide->Open(nullptr, 1000, 1);
  narrow->Open(nullptr, 1000, 1);
  const wchar_t text[] = L"1.5,-2\r\n\x00e9";
  wide->Write(text, static_cast<int>((sizeof(text) / sizeof(wchar_t) - 1) * sizeof(wchar_t)), 0);
  ASSERT_EQ(ascii->Transform(wide.get(), narrow.get(), 0), S_OK);
  void* bytes = nullptr;
  unsigned long size = 0;
  narrow->GetBuffer(&bytes, &size);
  EXPECT_EQ(std::string(static_cast<char*>(bytes), size), "1.5,-2\r\n\xC3\xA9");
}

// ------------------------------------------------------------------ XML writing

TEST_F(StreamsTest, XMLEscapesTextAndReadsItBack) {
  SmartPtr<IXMLStream> xml = Create<IXMLStream>(L"XMLStreamEx");
  ASSERT_TRUE(xml);
  xml->Attach(nullptr, 0, 0);
  const std::wstring tricky = L"a<b & c>d \"q\" 'a' line\r\nnext ]]> &amp;";
  ASSERT_EQ(xml->OpenTag(Str(L"Root"), 0, 0), S_OK);
  ASSERT_EQ(xml->WriteValue(Str(L"Text"), 0, Str(tricky), 0), S_OK);
  ASSERT_EQ(xml->CloseTag(), S_OK);
  EXPECT_LT(xml->CloseTag(), 0);  // nothing left open
  const std::wstring written = TextOf(xml.get());
  EXPECT_EQ(written.find(L"a<b"), std::wstring::npos);

  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  in->Attach(const_cast<wchar_t*>(written.data()), static_cast<unsigned long>(written.size() * 4), 0);
  SmartPtr<IUnknown> root, value;
  tagREFString tag{0, nullptr};
  ASSERT_EQ(in->NextTag(&tag), S_OK);
  ASSERT_EQ(View(tag), L"Root");
  ASSERT_EQ(in->ReadElement(tag.m_Length, tag.m_Text, nullptr, root.Out(), 0), S_OK);
  SmartPtr<IXMLStream> rootStream = QueryAs<IXMLStream>(root.get());
  ASSERT_EQ(rootStream->ReadElement(4, L"text", nullptr, value.Out(), 0), S_OK);  // any case
  EXPECT_EQ(TextOf(value.get()), tricky);
  if (!HaveXmllint()) GTEST_SKIP() << "xmllint not installed (Debian: libxml2-utils)";
  EXPECT_TRUE(WellFormed(written));
}

TEST_F(StreamsTest, XMLDocumentWithPrologueIsWellFormedAndNamesAreMadeValid) {
  SmartPtr<IXMLStream> xml = Create<IXMLStream>(L"XMLStreamEx");
  SmartPtr<IFileInfo> info = Create<IFileInfo>(L"FileInfo");
  ASSERT_TRUE(xml && info);
  xml->Attach(nullptr, 0, 0);
  WriteRaw(xml.get(), L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n");
  ASSERT_EQ(xml->BeginObject(info.get(), 0, 0), S_OK);
  xml->OpenTag(Str(L"2 bad name<&>"), 0, 0);
  WriteRaw(xml.get(), L"1, 2\n3 < 4\n");  // raw text inside an element is escaped
  xml->CloseTag();
  xml->WriteValue(Str(L""), 0, nullptr, 0);
  const wchar_t control[] = {L'x', 0x1, 0xFFFF, 0};
  xml->WriteValue(Str(L"Control"), 0, Str(control), 0);
  xml->CloseTag();
  const std::wstring written = TextOf(xml.get());
  EXPECT_NE(written.find(L"<FileInfo>"), std::wstring::npos);
  EXPECT_NE(written.find(L"<_2_bad_name___>"), std::wstring::npos);
  if (!HaveXmllint()) GTEST_SKIP() << "xmllint not installed (Debian: libxml2-utils)";
  EXPECT_TRUE(WellFormed(written)) << std::string(written.begin(), written.end());
}

// ------------------------------------------------------------------ XML reading

TEST_F(StreamsTest, XMLReadsPrologueThenObjectAsAnArchiveDoes) {
  SmartPtr<IXMLStream> out = Create<IXMLStream>(L"XMLStreamEx");
  SmartPtr<IFileInfo> info = Create<IFileInfo>(L"FileInfo");
  ASSERT_TRUE(out && info);
  info->put_Description(Str(L"camera <left> & right"));
  out->Attach(nullptr, 0, 0);
  WriteRaw(out.get(), L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n");
  out->BeginObject(info.get(), 0, 0);
  QueryAs<IDataPersist>(info.get())->Save(out.get(), 0);
  out->CloseTag();
  std::wstring text = TextOf(out.get());
  text.push_back(L'\0');  // a file's text comes with its terminator counted in

  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  in->Attach(&text[0], static_cast<unsigned long>(text.size() * 4), 0);
  tagREFString tag{0, nullptr};
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(in->NextTag(&tag), S_OK);
    ASSERT_EQ(tag.m_Text[0], L'?');
    ASSERT_EQ(in->Seek(tag.m_Length * 4, STREAM_CURRENT, 0), S_OK);
  }
  ASSERT_EQ(in->NextTag(&tag), S_OK);
  EXPECT_EQ(View(tag), L"FileInfo");
  SmartPtr<IUnknown> object;
  ASSERT_EQ(in->ReadObject(object.Out()), S_OK);
  SmartPtr<IFileInfo> loaded = QueryAs<IFileInfo>(object.get());
  ASSERT_TRUE(loaded);
  SmartPtr<IString> description;
  loaded->get_Description(description.Out());
  EXPECT_EQ(TextOf(description.get()), L"camera <left> & right");
  EXPECT_LT(in->NextTag(&tag), 0);
}

// How a collection reads back the objects it wrote with BeginObject: the content of an
// element, asked for the element's own tag, makes the object from itself.
TEST_F(StreamsTest, XMLContentAskedForItsOwnTagMakesItsObject) {
  SmartPtr<IXMLStream> out = Create<IXMLStream>(L"XMLStreamEx");
  SmartPtr<IFileInfo> info = Create<IFileInfo>(L"FileInfo");
  ASSERT_TRUE(out && info);
  info->put_Description(Str(L"rig"));
  out->Attach(nullptr, 0, 0);
  out->OpenTag(Str(L"List"), 0, 0);
  for (int i = 0; i < 2; ++i) {
    out->BeginObject(info.get(), 0, 0);
    QueryAs<IDataPersist>(info.get())->Save(out.get(), 0);
    out->CloseTag();
  }
  out->CloseTag();
  std::wstring text = TextOf(out.get());
  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  ASSERT_EQ(in->Attach(&text[0], static_cast<unsigned long>(text.size() * 4), 0), S_OK);
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> list;
  ASSERT_EQ(in->NextTag(&tag), S_OK);
  ASSERT_EQ(in->ReadElement(tag.m_Length, tag.m_Text, nullptr, list.Out(), 0), S_OK);
  SmartPtr<IXMLStream> items = QueryAs<IXMLStream>(list.get());
  int read = 0;
  while (items->NextTag(&tag) >= 0) {
    SmartPtr<IUnknown> content, object;
    ASSERT_EQ(items->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0), S_OK);
    SmartPtr<IXMLStream> element = QueryAs<IXMLStream>(content.get());
    EXPECT_LT(element->ReadNamedObject(4, L"List", object.Out()), 0) << "not its own tag";
    ASSERT_EQ(element->ReadNamedObject(8, L"fileinfo", object.Out()), S_OK) << "its own tag, any case";
    SmartPtr<IString> description;
    QueryAs<IFileInfo>(object.get())->get_Description(description.Out());
    EXPECT_EQ(TextOf(description.get()), L"rig");
    ++read;
  }
  EXPECT_EQ(read, 2);
  // A document attached as a whole stands for no element.
  SmartPtr<IUnknown> none;
  EXPECT_LT(in->ReadNamedObject(4, L"List", none.Out()), 0);
  EXPECT_EQ(none.get(), nullptr);
}

TEST_F(StreamsTest, XMLWalksElementsAndSkipsUnreadOnes) {
  std::wstring text =
      L"<!-- c --><A><B x='1>2'>one</B><C/><D><E>two</E></D><F><![CDATA[<raw>&]]> &#x41;&#66;</F></A>";
  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  in->Attach(&text[0], static_cast<unsigned long>(text.size() * 4), 0);
  SmartPtr<IUnknown> a;
  ASSERT_EQ(in->ReadNamedObject(1, L"Q", a.Out()), E_FAIL);  // no such element
  ASSERT_EQ(in->ReadElement(1, L"A", nullptr, a.Out(), 0), S_OK);
  SmartPtr<IXMLStream> content = QueryAs<IXMLStream>(a.get());
  std::vector<std::wstring> names;
  tagREFString tag{0, nullptr};
  while (content->NextTag(&tag) >= 0) names.push_back(View(tag));  // NextTag alone steps on
  EXPECT_EQ(names, (std::vector<std::wstring>{L"B", L"C", L"D", L"F"}));

  content = QueryAs<IXMLStream>(a.get());
  content->Seek(0, STREAM_BEGIN, 0);
  SmartPtr<IUnknown> f, d, e;
  ASSERT_EQ(content->ReadElement(1, L"F", nullptr, f.Out(), 0), S_OK);  // searches forward
  EXPECT_EQ(TextOf(f.get()), L"<raw>& AB");
  EXPECT_LT(QueryAs<IXMLStream>(f.get())->NextTag(&tag), 0);  // text holds no elements
  EXPECT_LT(content->ReadElement(1, L"D", nullptr, d.Out(), 0), 0);  // already passed
  content->Seek(0, STREAM_BEGIN, 0);
  ASSERT_EQ(content->ReadElement(1, L"D", nullptr, d.Out(), 0), S_OK);
  ASSERT_EQ(QueryAs<IXMLStream>(d.get())->ReadElement(1, L"E", nullptr, e.Out(), 0), S_OK);
  EXPECT_EQ(TextOf(e.get()), L"two");
}

TEST_F(StreamsTest, XMLMalformedTextGivesFailureCodes) {
  const wchar_t* cases[] = {
      L"<A>", L"<A><B></A></B>", L"<A x='1>", L"<!-- open", L"<A><![CDATA[ x", L"<?xml", L"<>x</>",
      L"<A></a>", L"</A>", L"<A><B>", L"<A", L"",
  };
  for (const wchar_t* c : cases) {
    SCOPED_TRACE(std::string(c, c + std::wcslen(c)));
    std::wstring text = c;
    SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
    in->Attach(text.empty() ? nullptr : &text[0], static_cast<unsigned long>(text.size() * 4), 0);
    tagREFString tag{0, nullptr};
    SmartPtr<IUnknown> content, object;
    EXPECT_LT(in->NextTag(&tag), 0);
    EXPECT_LT(in->ReadElement(0, nullptr, nullptr, content.Out(), 0), 0);
    EXPECT_LT(in->ReadObject(object.Out()), 0);
    EXPECT_FALSE(content);
  }
  // Nesting deeper than the reader allows.
  std::wstring deep;
  for (int i = 0; i < 300; ++i) deep += L"<a>";
  for (int i = 0; i < 300; ++i) deep += L"</a>";
  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  in->Attach(&deep[0], static_cast<unsigned long>(deep.size() * 4), 0);
  tagREFString tag{0, nullptr};
  EXPECT_LT(in->NextTag(&tag), 0);
}

// Walks every element it can reach; junk must end in failure codes, not a crash.
int Walk(IXMLStream* stream, int depth) {
  int seen = 0;
  tagREFString tag{0, nullptr};
  for (int guard = 0; guard < 1000 && stream->NextTag(&tag) >= 0; ++guard) {
    ++seen;
    if (tag.m_Length > 0 && tag.m_Text[0] == L'?') {
      stream->Seek(tag.m_Length * 4, STREAM_CURRENT, 0);
      continue;
    }
    SmartPtr<IUnknown> content;
    if (stream->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0) break;
    if (depth < 20) seen += Walk(QueryAs<IXMLStream>(content.get()), depth + 1);
  }
  return seen;
}

TEST_F(StreamsTest, XMLJunkEndsInFailureCodes) {
  std::mt19937 random(12345);
  const wchar_t alphabet[] = L"<>/?!-[]='\"&;#xa b\r\n\0\xFFFF";
  for (int round = 0; round < 300; ++round) {
    std::wstring text(random() % 200, L' ');
    for (wchar_t& c : text)
      c = round % 3 == 0 ? static_cast<wchar_t>(random()) : alphabet[random() % (sizeof(alphabet) / sizeof(wchar_t))];
    SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
    in->Attach(text.empty() ? nullptr : &text[0], static_cast<unsigned long>(text.size() * 4), 0);
    EXPECT_GE(Walk(in.get(), 0), 0);
  }
  // Junk around a good element is no document: it is refused whole, good element too.
  std::wstring mixed = L"\x01\x02junk<Good>yes</Good>";
  SmartPtr<IXMLStream> in = Create<IXMLStream>(L"XMLStream");
  EXPECT_EQ(in->Attach(&mixed[0], static_cast<unsigned long>(mixed.size() * 4), 0), E_FAIL);
  EXPECT_EQ(Walk(in.get(), 0), 0);
}

// ------------------------------------------------------------------ folder streams

class FolderStreamTest : public StreamsTest {
 protected:
  void TearDown() override { std::remove(m_Path.c_str()); }

  // A folder with one entry of each kind, saved to m_Path.
  void SaveSample() {
    SmartPtr<IFolderStream> folder = Create<IFolderStream>(L"FolderStream");
    ASSERT_TRUE(folder);
    int32_t integer = -7;
    double number = 0.1;
    const unsigned char block[5] = {0, 1, 2, 0xFE, 0xFF};
    SmartPtr<IFileInfo> info = Create<IFileInfo>(L"FileInfo");
    info->put_Description(Str(L"sample \x00e9\x20ac"));
    ASSERT_EQ(folder->WriteValue(Str(L"Count"), &integer, FOLDER_INT32), S_OK);
    ASSERT_EQ(folder->WriteValue(Str(L"Scale"), &number, FOLDER_DOUBLE), S_OK);
    ASSERT_EQ(folder->WriteData(Str(L"Block"), block, 5, 0), S_OK);
    ASSERT_EQ(folder->WriteString(Str(L"Name"), Str(L"left camera")), S_OK);
    ASSERT_EQ(folder->WriteObject(Str(L"Info"), info.get(), 0), S_OK);
    SmartPtr<IDataStream> sub;
    ASSERT_EQ(folder->CreateSubStream(Str(L"Sub"), 0, sub.Out()), S_OK);
    SmartPtr<IFolderStream> subFolder = QueryAs<IFolderStream>(sub.get());
    ASSERT_EQ(subFolder->WriteString(Str(L"Inner"), Str(L"deep")), S_OK);
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(folder.get());
    ASSERT_TRUE(archive);
    archive->put_Filename(Str(std::wstring(m_Path.begin(), m_Path.end())));
    ASSERT_EQ(archive->Save(), S_OK);
  }

  SmartPtr<IFolderStream> LoadFile(HRESULT* hr) {
    SmartPtr<IFolderStream> folder = Create<IFolderStream>(L"FolderStream");
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(folder.get());
    archive->put_Filename(Str(std::wstring(m_Path.begin(), m_Path.end())));
    *hr = archive->Load();
    return folder;
  }

  std::string m_Path = TempName("folder") + ".tCAL";
};

TEST_F(FolderStreamTest, FileRoundTripKeepsEveryKindOfEntry) {
  SaveSample();
  HRESULT hr;
  SmartPtr<IFolderStream> folder = LoadFile(&hr);
  ASSERT_EQ(hr, S_OK);
  int32_t integer = 0;
  double number = 0;
  unsigned char block[5] = {};
  ASSERT_EQ(folder->ReadValue(Str(L"Count"), &integer, FOLDER_INT32), S_OK);
  EXPECT_EQ(integer, -7);
  ASSERT_EQ(folder->ReadValue(Str(L"Scale"), &number, FOLDER_DOUBLE), S_OK);
  EXPECT_EQ(number, 0.1);  // bit for bit
  ASSERT_EQ(folder->ReadData(Str(L"Block"), block, 5, 0), S_OK);
  EXPECT_EQ(block[3], 0xFE);
  EXPECT_LT(folder->ReadData(Str(L"Block"), block, 4, 0), 0);  // another size is refused

  SmartPtr<IString> name = Str(L"");
  ASSERT_EQ(folder->ReadString(Str(L"Name"), name.get()), S_OK);
  EXPECT_EQ(TextOf(name.get()), L"left camera");
  SmartPtr<TestVariant> variant;
  variant.Attach(new TestVariant());
  ASSERT_EQ(folder->ReadString(Str(L"Count"), AsStringPlace(variant.get())), S_OK);  // a number stays a number
  EXPECT_EQ(variant->get_Type(), VARIANT_INTEGER);
  EXPECT_EQ(variant->get_Integer(), -7);
  ASSERT_EQ(folder->ReadString(Str(L"Name"), AsStringPlace(variant.get())), S_OK);
  EXPECT_EQ(TextOf(variant->m_String.get()), L"left camera");
  EXPECT_LT(folder->ReadString(Str(L"Sub"), name.get()), 0);
  EXPECT_LT(folder->ReadString(Str(L"Missing"), name.get()), 0);

  SmartPtr<IDataStream> sub;
  ASSERT_EQ(folder->OpenSubStream(Str(L"Sub"), 0, sub.Out()), S_OK);
  ASSERT_EQ(QueryAs<IFolderStream>(sub.get())->ReadString(Str(L"Inner"), name.get()), S_OK);
  EXPECT_EQ(TextOf(name.get()), L"deep");

  // An object is created by its name, or loaded into the one handed in.
  IUnknown* created = nullptr;
  ASSERT_EQ(folder->ReadObject(Str(L"Info"), reinterpret_cast<void**>(&created), 0), S_OK);
  SmartPtr<IUnknown> holder;
  holder.Attach(created);
  SmartPtr<IFileInfo> fresh = QueryAs<IFileInfo>(holder.get());
  ASSERT_TRUE(fresh);
  SmartPtr<IString> description;
  fresh->get_Description(description.Out());
  EXPECT_EQ(TextOf(description.get()), L"sample \x00e9\x20ac");
  SmartPtr<IFileInfo> existing = Create<IFileInfo>(L"FileInfo");
  IFileInfo* place = existing.get();
  ASSERT_EQ(folder->ReadObject(Str(L"Info"), reinterpret_cast<void**>(&place), 0), S_OK);
  EXPECT_EQ(place, existing.get());
  existing->get_Description(description.Out());
  EXPECT_EQ(TextOf(description.get()), L"sample \x00e9\x20ac");
}

TEST_F(FolderStreamTest, EntriesAreANamedCollection) {
  SaveSample();
  HRESULT hr;
  SmartPtr<IFolderStream> folder = LoadFile(&hr);
  ASSERT_EQ(hr, S_OK);
  SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(folder.get());
  ASSERT_TRUE(keys);
  int count = 0;
  keys->get_Count(&count);
  std::vector<std::wstring> names;
  for (int i = 0; i < count; ++i) {
    SmartPtr<IString> n;
    keys->get_ItemName(i, n.Out());
    names.push_back(TextOf(n.get()));
  }
  EXPECT_EQ(names, (std::vector<std::wstring>{L"Count", L"Scale", L"Block", L"Name", L"Info", L"Sub"}));
  int index = -1;
  ASSERT_EQ(keys->get_Index(Str(L"Name"), &index), S_OK);
  EXPECT_EQ(index, 3);
  SmartPtr<IUnknown> item;
  keys->get_Item(5, item.Out());
  EXPECT_TRUE(QueryAs<IFolderStream>(item.get()));
  keys->get_Item(3, item.Out());
  EXPECT_FALSE(QueryAs<IFolderStream>(item.get()));
  EXPECT_EQ(TextOf(item.get()), L"left camera");
  // An integer variant in the place of a name addresses an entry by index.
  SmartPtr<IString> text = Str(L"");
  ASSERT_EQ(folder->ReadString(AsStringPlace(IndexKey(3).get()), text.get()), S_OK);
  EXPECT_EQ(TextOf(text.get()), L"left camera");
  IUnknown* none = nullptr;
  EXPECT_LT(folder->ReadObject(AsStringPlace(IndexKey(6).get()),
                               reinterpret_cast<void**>(&none), 0),
            0);
  EXPECT_EQ(none, nullptr);
}

TEST_F(FolderStreamTest, NamelessObjectsGetDistinctNames) {
  SmartPtr<IFolderStream> folder = Create<IFolderStream>(L"FolderStream");
  SmartPtr<IFileInfo> a = Create<IFileInfo>(L"FileInfo"), b = Create<IFileInfo>(L"FileInfo");
  ASSERT_EQ(folder->WriteObject(nullptr, a.get(), 0), S_OK);
  ASSERT_EQ(folder->WriteObject(nullptr, b.get(), 0), S_OK);
  SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(folder.get());
  int count = 0;
  keys->get_Count(&count);
  ASSERT_EQ(count, 2);
  SmartPtr<IString> first, second;
  keys->get_ItemName(0, first.Out());
  keys->get_ItemName(1, second.Out());
  EXPECT_NE(TextOf(first.get()), TextOf(second.get()));
}

TEST_F(FolderStreamTest, DamagedFilesAreRefusedAndLeaveTheTreeAlone) {
  SaveSample();
  const std::vector<uint8_t> good = ReadBytes(m_Path);
  ASSERT_GT(good.size(), 16u);
  SmartPtr<IFolderStream> folder = Create<IFolderStream>(L"FolderStream");
  folder->WriteString(Str(L"Keep"), Str(L"me"));
  SmartPtr<IDataStream> data = QueryAs<IDataStream>(folder.get());
  auto refused = [&](std::vector<uint8_t> bytes) {
    return data->Open(bytes.empty() ? nullptr : bytes.data(), static_cast<unsigned long>(bytes.size()), 0) < 0;
  };
  for (size_t n = 1; n < good.size(); ++n)
    ASSERT_TRUE(refused(std::vector<uint8_t>(good.begin(), good.begin() + static_cast<long>(n)))) << n;
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::vector<uint8_t> flipped = good;
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    ASSERT_TRUE(refused(flipped)) << bit;
  }
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_TRUE(refused(longer));
  const std::string xml = "<?xml version=\"1.0\"?><A/>";
  EXPECT_TRUE(refused(std::vector<uint8_t>(xml.begin(), xml.end())));
  SmartPtr<IString> kept = Str(L"");
  ASSERT_EQ(folder->ReadString(Str(L"Keep"), kept.get()), S_OK);
  EXPECT_EQ(TextOf(kept.get()), L"me");

  // Through the archive: a damaged file and a missing one.
  std::vector<uint8_t> damaged = good;
  damaged[good.size() / 2] ^= 0x40;
  WriteBytes(m_Path, damaged);
  HRESULT hr;
  LoadFile(&hr);
  EXPECT_LT(hr, 0);
  std::remove(m_Path.c_str());
  LoadFile(&hr);
  EXPECT_LT(hr, 0);
  EXPECT_FALSE(refused(good));
}

// A file image built by hand after the documented format, with a correct checksum.
std::vector<uint8_t> Image(const std::vector<uint8_t>& payload) {
  uint32_t crc = 0xFFFFFFFFu;
  for (uint8_t byte : payload) {
    crc ^= byte;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  crc ^= 0xFFFFFFFFu;
  const uint32_t size = static_cast<uint32_t>(payload.size());
  std::vector<uint8_t> image = {'Z', 'T', 'F', 'S', 1, 0, 0, 0};
  for (uint32_t v : {size, crc})
    for (int i = 0; i < 4; ++i) image.push_back(static_cast<uint8_t>(v >> (8 * i)));
  image.insert(image.end(), payload.begin(), payload.end());
  return image;
}

// One entry: type, one-character name, value.
std::vector<uint8_t> Entry(uint8_t type, char name, const std::vector<uint8_t>& value) {
  std::vector<uint8_t> e = {type, 1, 0, static_cast<uint8_t>(name), 0, 0, 0};
  const uint32_t size = static_cast<uint32_t>(value.size());
  for (int i = 0; i < 4; ++i) e.push_back(static_cast<uint8_t>(size >> (8 * i)));
  e.insert(e.end(), value.begin(), value.end());
  return e;
}

std::vector<uint8_t> Body(const std::vector<std::vector<uint8_t>>& entries) {
  std::vector<uint8_t> body = {static_cast<uint8_t>(entries.size()), 0, 0, 0};
  for (const auto& e : entries) body.insert(body.end(), e.begin(), e.end());
  return body;
}

TEST_F(FolderStreamTest, HandBuiltImagesFollowTheDocumentedFormat) {
  SmartPtr<IFolderStream> folder = Create<IFolderStream>(L"FolderStream");
  SmartPtr<IDataStream> data = QueryAs<IDataStream>(folder.get());
  auto open = [&](std::vector<uint8_t> bytes) {
    return data->Open(bytes.data(), static_cast<unsigned long>(bytes.size()), 0);
  };
  // "N" = 5 (int32) and "S" a folder holding "D" = 2.5 (double, 0x4004000000000000).
  const auto inner = Body({Entry(5, 'D', {0, 0, 0, 0, 0, 0, 4, 0x40})});
  ASSERT_EQ(open(Image(Body({Entry(3, 'N', {5, 0, 0, 0}), Entry(6, 'S', inner)}))), S_OK);
  int32_t n = 0;
  ASSERT_EQ(folder->ReadValue(Str(L"N"), &n, FOLDER_INT32), S_OK);
  EXPECT_EQ(n, 5);
  SmartPtr<IDataStream> sub;
  ASSERT_EQ(folder->OpenSubStream(Str(L"S"), 0, sub.Out()), S_OK);
  double d = 0;
  ASSERT_EQ(QueryAs<IFolderStream>(sub.get())->ReadValue(Str(L"D"), &d, FOLDER_DOUBLE), S_OK);
  EXPECT_EQ(d, 2.5);

  // Checksums right, contents wrong.
  EXPECT_LT(open(Image(Body({Entry(3, 'N', {5, 0, 0})}))), 0);                          // int32 of 3 bytes
  EXPECT_LT(open(Image(Body({Entry(9, 'N', {})}))), 0);                                 // unknown type
  EXPECT_LT(open(Image(Body({Entry(1, 'N', {}), Entry(1, 'N', {})}))), 0);              // duplicate name
  EXPECT_LT(open(Image(Body({Entry(2, 'T', {'a', 0, 0})}))), 0);                        // partial character
  EXPECT_LT(open(Image({0xFF, 0xFF, 0xFF, 0x7F})), 0);                                  // count beyond the data
  EXPECT_LT(open(Image(Body({Entry(6, 'S', {1, 0, 0, 0})}))), 0);                       // sub-stream cut short
  std::vector<uint8_t> deep = Body({});
  for (int level = 0; level < 100; ++level) deep = Body({Entry(6, 'S', deep)});
  EXPECT_LT(open(Image(deep)), 0);  // nesting beyond the bound
  std::vector<uint8_t> version = Image(Body({}));
  version[4] = 2;
  EXPECT_LT(open(version), 0);
  // None of the refused images touched the tree.
  ASSERT_EQ(folder->ReadValue(Str(L"N"), &n, FOLDER_INT32), S_OK);
}

}  // namespace
