// The "Streams" peer, made through the global collection as the module makes it: memory,
// CSV, XML and folder streams, the ASCII transform and the file info.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "tests/unit/TestText.h"
#include "tests/unit/host/Xmllint.h"

using namespace test_text;

namespace {

// A variant handed in the place of a string, as the module hands keys and targets.
IString* AsStringPlace(IVariant* variant) { return reinterpret_cast<IString*>(variant); }

// A host XML stream over a whole document.
SmartPtr<IXMLStream> Reader(std::wstring& text) {
  SmartPtr<IXMLStream> in = CreateHostObject<IXMLStream>(L"XMLStream");
  in->Attach(text.empty() ? nullptr : &text[0], static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0);
  return in;
}

SmartPtr<IXMLStream> Writer() {
  SmartPtr<IXMLStream> out = CreateHostObject<IXMLStream>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  return out;
}

void WriteRaw(IDataStream* stream, const std::wstring& text) {
  stream->Write(text.data(), static_cast<int>(text.size() * sizeof(wchar_t)), 0);
}

std::wstring DescriptionOf(IUnknown* object) {
  SmartPtr<IString> description;
  if (SmartPtr<IFileInfo> info = QueryAs<IFileInfo>(object)) info->get_Description(description.Out());
  return description ? TextOf(description) : L"<no description>";
}

// ------------------------------------------------------------------ memory streams

TEST(Streams, DataStreamWritesSeeksAndReadsBack) {
  SmartPtr<IDataStream> s = CreateHostObject<IDataStream>(L"DataStream");
  ASSERT_EQ(s->Open(nullptr, 1000, 1), S_OK);
  ASSERT_EQ(s->Write("hello world", 11, 0), S_OK);
  ASSERT_EQ(s->Seek(6, STREAM_BEGIN, 0), S_OK);
  ASSERT_EQ(s->Write("there", 5, 0), S_OK);  // overwrites in place
  EXPECT_EQ(TextOf(s), L"hello there");
  ASSERT_EQ(s->Seek(-5, STREAM_END, 0), S_OK);
  char back[16] = {};
  int read = 0;
  EXPECT_EQ(s->Read(back, 16, &read), S_FALSE);  // fewer bytes than asked
  EXPECT_EQ(std::string(back, static_cast<size_t>(read)), "there");
  EXPECT_LT(s->Seek(-1, STREAM_BEGIN, 0), 0);
  EXPECT_LT(s->Seek(1, STREAM_END, 0), 0);
  // Over a block: a copy of it, read only.
  char block[] = {'a', 'b', 'c'};
  ASSERT_EQ(s->Open(block, 3, 0), S_OK);
  block[0] = 'z';
  EXPECT_EQ(TextOf(s), L"abc");
  EXPECT_LT(s->Write("x", 1, 0), 0);
}

// The module writes wide text (4 bytes a character) into a data stream for its text
// reports; a data stream's own text view shows single bytes, so its buffer is what counts.
TEST(Streams, ASCIIStreamWritesUtf8OfTextAndOfADataStreamsWideBuffer) {
  SmartPtr<IXMLStream> xml = Writer();
  SmartPtr<IStreamTransform> ascii = CreateHostObject<IStreamTransform>(L"ASCIIStream");
  SmartPtr<IDataStream> wide = CreateHostObject<IDataStream>(L"DataStream");
  SmartPtr<IDataStream> narrow = CreateHostObject<IDataStream>(L"DataStream");
  ASSERT_TRUE(xml && ascii && wide && narrow);
  // A, e acute, euro sign, a character beyond 16 bits, and a lone surrogate.
  const wchar_t text[] = {L'A', 0xE9, 0x20AC, static_cast<wchar_t>(0x1F600), static_cast<wchar_t>(0xD800)};
  xml->Write(text, sizeof(text), 0);
  narrow->Open(nullptr, 1000, 1);
  ASSERT_EQ(ascii->Transform(xml, narrow, 0), S_OK);
  EXPECT_EQ(TextOf(narrow), L"A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBD");  // its bytes, one a character
  wide->Open(nullptr, 1000, 1);
  narrow->Open(nullptr, 1000, 1);
  WriteRaw(wide, L"1.5,-2\r\n\x00e9");
  ASSERT_EQ(ascii->Transform(wide, narrow, 0), S_OK);
  EXPECT_EQ(TextOf(narrow), L"1.5,-2\r\n\xC3\xA9");
}

// ------------------------------------------------------------------ XML writing

TEST(Streams, XMLWritesAWellFormedDocumentThatReadsBack) {
  SmartPtr<IXMLStream> xml = Writer();
  SmartPtr<IFileInfo> info = CreateHostObject<IFileInfo>(L"FileInfo");
  ASSERT_TRUE(xml && info);
  WriteRaw(xml, L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n");
  const std::wstring tricky = L"a<b & c>d \"q\" 'a' line\r\nnext ]]> &amp;";
  ASSERT_EQ(xml->BeginObject(info, 0, 0), S_OK);
  ASSERT_EQ(xml->WriteValue(Str(L"Text"), 0, Str(tricky), 0), S_OK);
  xml->OpenTag(Str(L"2 bad name<&>"), 0, 0);
  WriteRaw(xml, L"1, 2\n3 < 4\n");  // raw text inside an element is escaped
  xml->CloseTag();
  const wchar_t control[] = {L'x', 0x1, 0xFFFF, 0};
  xml->WriteValue(Str(L""), 0, nullptr, 0);
  xml->WriteValue(Str(L"Control"), 0, Str(control), 0);
  ASSERT_EQ(xml->CloseTag(), S_OK);
  EXPECT_LT(xml->CloseTag(), 0);  // nothing left open
  std::wstring written = TextOf(xml);
  EXPECT_NE(written.find(L"<_2_bad_name___>"), std::wstring::npos);

  SmartPtr<IXMLStream> in = Reader(written);
  SmartPtr<IUnknown> root, value;
  ASSERT_EQ(in->ReadElement(8, L"FileInfo", nullptr, root.Out(), 0), S_OK);
  ASSERT_EQ(QueryAs<IXMLStream>(root)->ReadElement(4, L"text", nullptr, value.Out(), 0), S_OK);  // any case
  EXPECT_EQ(TextOf(value), tricky);
  if (!HaveXmllint()) GTEST_SKIP() << "xmllint not installed (Debian: libxml2-utils)";
  EXPECT_TRUE(XmllintAccepts(written)) << std::string(written.begin(), written.end());
}

// The layout, worked out by hand: each child on its own line, two blanks a level, text unpadded.
TEST(Streams, XMLIndentsChildrenTwoBlanksALevelAndCallsANamelessObjectObject) {
  SmartPtr<IXMLStream> xml = Writer();
  ASSERT_EQ(xml->OpenTag(Str(L"Root"), 0, 0), S_OK);
  xml->WriteValue(Str(L"A"), 0, Str(L"1"), 0);
  EXPECT_EQ(xml->BeginObject(Str(L"a string has no object name"), 0, 0), S_FALSE);
  xml->WriteValue(Str(L"C"), 0, Str(L" 2 "), 0);
  xml->CloseTag();
  xml->CloseTag();
  EXPECT_EQ(TextOf(xml), L"<Root>\r\n  <A>1</A>\r\n  <Object>\r\n    <C> 2 </C>\r\n  </Object>\r\n</Root>");
}

// ------------------------------------------------------------------ XML reading

TEST(Streams, XMLReadsPrologueThenObjectAsAnArchiveDoes) {
  SmartPtr<IXMLStream> out = Writer();
  SmartPtr<IFileInfo> info = CreateHostObject<IFileInfo>(L"FileInfo");
  info->put_Description(Str(L"camera <left> & right"));
  WriteRaw(out, L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n");
  out->BeginObject(info, 0, 0);
  QueryAs<IDataPersist>(info)->Save(out, 0);
  out->CloseTag();
  std::wstring text = TextOf(out);
  text.push_back(L'\0');  // a file's text comes with its terminator counted in

  SmartPtr<IXMLStream> in = Reader(text);
  tagREFString tag{0, nullptr};
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(in->NextTag(&tag), S_OK);
    ASSERT_EQ(tag.m_Text[0], L'?');
    ASSERT_EQ(in->Seek(tag.m_Length * 4, STREAM_CURRENT, 0), S_OK);
  }
  ASSERT_EQ(in->NextTag(&tag), S_OK);
  EXPECT_EQ(ViewText(tag), L"FileInfo");
  SmartPtr<IUnknown> object;
  ASSERT_EQ(in->ReadObject(object.Out()), S_OK);
  EXPECT_EQ(DescriptionOf(object), L"camera <left> & right");
  EXPECT_LT(in->NextTag(&tag), 0);
}

// How a collection reads back the objects it wrote with BeginObject: the content of an
// element, asked for the element's own tag, makes the object from itself.
TEST(Streams, XMLContentAskedForItsOwnTagMakesItsObject) {
  SmartPtr<IXMLStream> out = Writer();
  SmartPtr<IFileInfo> info = CreateHostObject<IFileInfo>(L"FileInfo");
  info->put_Description(Str(L"rig"));
  out->OpenTag(Str(L"List"), 0, 0);
  for (int i = 0; i < 2; ++i) {
    out->BeginObject(info, 0, 0);
    QueryAs<IDataPersist>(info)->Save(out, 0);
    out->CloseTag();
  }
  out->CloseTag();
  std::wstring text = TextOf(out);
  SmartPtr<IXMLStream> in = Reader(text);
  SmartPtr<IUnknown> list;
  ASSERT_EQ(in->ReadElement(4, L"List", nullptr, list.Out(), 0), S_OK);
  SmartPtr<IXMLStream> items = QueryAs<IXMLStream>(list);
  int read = 0;
  tagREFString tag{0, nullptr};
  for (; items->NextTag(&tag) >= 0; ++read) {
    SmartPtr<IUnknown> content, object;
    ASSERT_EQ(items->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0), S_OK);
    SmartPtr<IXMLStream> element = QueryAs<IXMLStream>(content);
    EXPECT_LT(element->ReadNamedObject(4, L"List", object.Out()), 0) << "not its own tag";
    ASSERT_EQ(element->ReadNamedObject(8, L"fileinfo", object.Out()), S_OK) << "its own tag, any case";
    EXPECT_EQ(DescriptionOf(object), L"rig");
  }
  EXPECT_EQ(read, 2);
  SmartPtr<IUnknown> none;
  EXPECT_LT(in->ReadNamedObject(4, L"List", none.Out()), 0) << "a document attached whole stands for no element";
}

TEST(Streams, XMLWalksElementsAndSkipsUnreadOnes) {
  std::wstring text = L"<!-- c --><A><B x='1>2'>one</B><C/><D><E>two</E></D><F><![CDATA[<raw>&]]> &#x41;&#66;</F></A>";
  SmartPtr<IXMLStream> in = Reader(text);
  SmartPtr<IUnknown> a;
  ASSERT_EQ(in->ReadNamedObject(1, L"Q", a.Out()), E_FAIL);  // no such element
  ASSERT_EQ(in->ReadElement(1, L"A", nullptr, a.Out(), 0), S_OK);
  SmartPtr<IXMLStream> content = QueryAs<IXMLStream>(a);
  std::vector<std::wstring> names;
  tagREFString tag{0, nullptr};
  while (content->NextTag(&tag) >= 0) names.push_back(ViewText(tag));  // NextTag alone steps on
  EXPECT_EQ(names, (std::vector<std::wstring>{L"B", L"C", L"D", L"F"}));

  content->Seek(0, STREAM_BEGIN, 0);
  SmartPtr<IUnknown> f, d, e;
  ASSERT_EQ(content->ReadElement(1, L"F", nullptr, f.Out(), 0), S_OK);  // searches forward
  EXPECT_EQ(TextOf(f), L"<raw>& AB");
  EXPECT_LT(QueryAs<IXMLStream>(f)->NextTag(&tag), 0);  // text holds no elements
  EXPECT_LT(content->ReadElement(1, L"D", nullptr, d.Out(), 0), 0);  // already passed
  content->Seek(0, STREAM_BEGIN, 0);
  ASSERT_EQ(content->ReadElement(1, L"D", nullptr, d.Out(), 0), S_OK);
  ASSERT_EQ(QueryAs<IXMLStream>(d)->ReadElement(1, L"E", nullptr, e.Out(), 0), S_OK);
  EXPECT_EQ(TextOf(e), L"two");
}

TEST(Streams, XMLRefusesADamagedDocumentWholeAndEveryReadFails) {
  // Junk around a good element is no document: the good element is refused too.
  for (const wchar_t* c : {L"\x01\x02junk<Good>yes</Good>", L"<Good><B></Good></B>", L"<Good x='1>", L"<Good></good>"}) {
    SCOPED_TRACE(std::string(c, c + std::wcslen(c)));
    std::wstring text = c;
    SmartPtr<IXMLStream> in = CreateHostObject<IXMLStream>(L"XMLStream");
    EXPECT_EQ(in->Attach(&text[0], static_cast<unsigned long>(text.size() * 4), 0), E_FAIL);
    tagREFString tag{0, nullptr};
    SmartPtr<IUnknown> content, object;
    EXPECT_LT(in->NextTag(&tag), 0);
    EXPECT_LT(in->ReadElement(4, L"Good", nullptr, content.Out(), 0), 0);
    EXPECT_LT(in->ReadObject(object.Out()), 0);
  }
}

// ------------------------------------------------------------------ folder streams

class FolderStreamTest : public ::testing::Test {
 protected:
  void TearDown() override { std::remove(m_Path.c_str()); }

  // A folder with one entry of each kind, saved to m_Path through its archive.
  void SaveSample() {
    SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
    int32_t integer = -7;
    double number = 0.1;
    const unsigned char block[5] = {0, 1, 2, 0xFE, 0xFF};
    SmartPtr<IFileInfo> info = CreateHostObject<IFileInfo>(L"FileInfo");
    info->put_Description(Str(L"sample \x00e9\x20ac"));
    ASSERT_EQ(folder->WriteValue(Str(L"Count"), &integer, FOLDER_INT32), S_OK);
    ASSERT_EQ(folder->WriteValue(Str(L"Scale"), &number, FOLDER_DOUBLE), S_OK);
    ASSERT_EQ(folder->WriteData(Str(L"Block"), block, 5, 0), S_OK);
    ASSERT_EQ(folder->WriteString(Str(L"Name"), Str(L"left camera")), S_OK);
    ASSERT_EQ(folder->WriteObject(Str(L"Info"), info, 0), S_OK);
    SmartPtr<IDataStream> sub;
    ASSERT_EQ(folder->CreateSubStream(Str(L"Sub"), 0, sub.Out()), S_OK);
    ASSERT_EQ(QueryAs<IFolderStream>(sub)->WriteString(Str(L"Inner"), Str(L"deep")), S_OK);
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(folder);
    archive->put_Filename(Str(std::wstring(m_Path.begin(), m_Path.end())));
    ASSERT_EQ(archive->Save(), S_OK);
  }

  SmartPtr<IFolderStream> LoadFile(HRESULT* hr) {
    SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(folder);
    archive->put_Filename(Str(std::wstring(m_Path.begin(), m_Path.end())));
    *hr = archive->Load();
    return folder;
  }

  std::wstring ReadString(IFolderStream* folder, IString* key) {
    SmartPtr<IString> text = Str(L"");
    return folder->ReadString(key, text) < 0 ? L"<failed>" : TextOf(text);
  }

  std::string m_Path = "./streams_test_folder_" + std::to_string(getpid()) + ".tCAL";
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
  EXPECT_EQ(ReadString(folder, Str(L"Name")), L"left camera");
  EXPECT_EQ(ReadString(folder, Str(L"Sub")), L"<failed>");
  EXPECT_EQ(ReadString(folder, Str(L"Missing")), L"<failed>");
  SmartPtr<IVariant> variant = Variant(L"");
  ASSERT_EQ(folder->ReadString(Str(L"Count"), AsStringPlace(variant)), S_OK);  // a number stays a number
  EXPECT_EQ(variant->get_Type(), VARIANT_INTEGER);
  EXPECT_EQ(variant->get_Integer(), -7);

  SmartPtr<IDataStream> sub;
  ASSERT_EQ(folder->OpenSubStream(Str(L"Sub"), 0, sub.Out()), S_OK);
  EXPECT_EQ(ReadString(QueryAs<IFolderStream>(sub), Str(L"Inner")), L"deep");

  // An object is created by its name, or loaded into the one handed in.
  IUnknown* created = nullptr;
  ASSERT_EQ(folder->ReadObject(Str(L"Info"), reinterpret_cast<void**>(&created), 0), S_OK);
  SmartPtr<IUnknown> holder;
  holder.Attach(created);
  EXPECT_EQ(DescriptionOf(holder), L"sample \x00e9\x20ac");
  SmartPtr<IFileInfo> existing = CreateHostObject<IFileInfo>(L"FileInfo");
  IFileInfo* place = existing.get();
  ASSERT_EQ(folder->ReadObject(Str(L"Info"), reinterpret_cast<void**>(&place), 0), S_OK);
  EXPECT_EQ(place, existing.get());
  EXPECT_EQ(DescriptionOf(existing), L"sample \x00e9\x20ac");
}

TEST_F(FolderStreamTest, EntriesAreANamedCollection) {
  SaveSample();
  HRESULT hr;
  SmartPtr<IFolderStream> folder = LoadFile(&hr);
  ASSERT_EQ(hr, S_OK);
  SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(folder);
  int count = 0;
  keys->get_Count(&count);
  std::vector<std::wstring> names;
  for (int i = 0; i < count; ++i) {
    SmartPtr<IString> n;
    keys->get_ItemName(i, n.Out());
    names.push_back(TextOf(n));
  }
  EXPECT_EQ(names, (std::vector<std::wstring>{L"Count", L"Scale", L"Block", L"Name", L"Info", L"Sub"}));
  int index = -1;
  ASSERT_EQ(keys->get_Index(Str(L"Name"), &index), S_OK);
  EXPECT_EQ(index, 3);
  SmartPtr<IUnknown> item;
  keys->get_Item(5, item.Out());
  EXPECT_TRUE(QueryAs<IFolderStream>(item));
  keys->get_Item(3, item.Out());
  EXPECT_EQ(TextOf(item), L"left camera");
  // An integer variant in the place of a name addresses an entry by index.
  EXPECT_EQ(ReadString(folder, AsStringPlace(Variant(3))), L"left camera");
  IUnknown* none = nullptr;
  EXPECT_LT(folder->ReadObject(AsStringPlace(Variant(6)), reinterpret_cast<void**>(&none), 0), 0);
  EXPECT_EQ(none, nullptr);
}

// Reading goes through the encoded image; removing or renaming an entry changes it, and
// reading starts again at the new image's magic, never at the old offset.
TEST_F(FolderStreamTest, ReadingAfterTheTreeChangesStartsAtTheNewImage) {
  for (bool rename : {false, true}) {
    SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
    const std::vector<unsigned char> big(4096, 0xAB);
    ASSERT_EQ(folder->WriteData(Str(L"Big"), big.data(), 4096, 0), S_OK);
    ASSERT_EQ(folder->WriteString(Str(L"Small"), Str(L"x")), S_OK);
    std::vector<char> bytes(3000);
    int read = 0;
    ASSERT_EQ(folder->Read(bytes.data(), 3000, &read), S_OK);
    ASSERT_EQ(rename ? QueryAs<INamedCollection>(folder)->Rename(0, Str(L"Large")) : folder->RemoveEntry(Str(L"Big")),
              S_OK);
    char magic[4] = {0, 0, 0, 0};
    EXPECT_EQ(folder->Read(magic, 4, &read), S_OK) << rename;
    EXPECT_EQ(std::string(magic, 4), "ZTFS") << rename;
  }
}

TEST_F(FolderStreamTest, NamelessObjectsGetDistinctNames) {
  SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
  SmartPtr<IFileInfo> info = CreateHostObject<IFileInfo>(L"FileInfo");
  ASSERT_EQ(folder->WriteObject(nullptr, info, 0), S_OK);
  ASSERT_EQ(folder->WriteObject(nullptr, info, 0), S_OK);
  SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(folder);
  SmartPtr<IString> first, second;
  keys->get_ItemName(0, first.Out());
  keys->get_ItemName(1, second.Out());
  EXPECT_EQ(TextOf(first), L"Item1");
  EXPECT_EQ(TextOf(second), L"Item2");
}

// A file image built by hand after the documented format, with a checksum worked out bit by bit.
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
  SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
  auto open = [&](std::vector<uint8_t> bytes) {
    return folder->Open(bytes.data(), static_cast<unsigned long>(bytes.size()), 0);
  };
  // "N" = 5 (int32) and "S" a folder holding "D" = 2.5 (double, 0x4004000000000000).
  const auto inner = Body({Entry(5, 'D', {0, 0, 0, 0, 0, 0, 4, 0x40})});
  const std::vector<uint8_t> good = Image(Body({Entry(3, 'N', {5, 0, 0, 0}), Entry(6, 'S', inner)}));
  ASSERT_EQ(open(good), S_OK);
  int32_t n = 0;
  ASSERT_EQ(folder->ReadValue(Str(L"N"), &n, FOLDER_INT32), S_OK);
  EXPECT_EQ(n, 5);
  SmartPtr<IDataStream> sub;
  ASSERT_EQ(folder->OpenSubStream(Str(L"S"), 0, sub.Out()), S_OK);
  double d = 0;
  ASSERT_EQ(QueryAs<IFolderStream>(sub)->ReadValue(Str(L"D"), &d, FOLDER_DOUBLE), S_OK);
  EXPECT_EQ(d, 2.5);

  // Checksums right, contents wrong.
  EXPECT_LT(open(Image(Body({Entry(3, 'N', {5, 0, 0})}))), 0);              // int32 of 3 bytes
  EXPECT_LT(open(Image(Body({Entry(9, 'N', {})}))), 0);                     // unknown type
  EXPECT_LT(open(Image(Body({Entry(1, 'N', {}), Entry(1, 'N', {})}))), 0);  // duplicate name
  EXPECT_LT(open(Image(Body({Entry(2, 'T', {'a', 0, 0})}))), 0);            // partial character
  EXPECT_LT(open(Image({0xFF, 0xFF, 0xFF, 0x7F})), 0);                      // count beyond the data
  EXPECT_LT(open(Image(Body({Entry(6, 'S', {1, 0, 0, 0})}))), 0);           // sub-stream cut short
  std::vector<uint8_t> deep = Body({});
  for (int level = 0; level < 100; ++level) deep = Body({Entry(6, 'S', deep)});
  EXPECT_LT(open(Image(deep)), 0);  // nesting beyond the bound
  // Header wrong: version, flags, length, checksum.
  for (size_t at : {4, 6, 8, 12}) {
    std::vector<uint8_t> bad = good;
    bad[at] ^= 1;
    EXPECT_LT(open(bad), 0) << "header byte " << at;
  }
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_LT(open(longer), 0);
  // None of the refused images touched the tree.
  ASSERT_EQ(folder->ReadValue(Str(L"N"), &n, FOLDER_INT32), S_OK);
}

}  // namespace
