// The XML text rules of the reference host (host/streams/XMLText.h): which documents are
// well formed, on which line a refusal points, surrogate pairs, and escaping. Expected
// verdicts are worked out from the XML 1.0 grammar by hand and, where xmllint (libxml2)
// is installed, checked against its verdict as well.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "host/streams/XMLText.h"
#include "tests/unit/host/Xmllint.h"

namespace {

std::string Show(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) {
    if (c >= 32 && c < 127) {
      out += static_cast<char>(c);
    } else {
      char code[16];
      std::snprintf(code, sizeof(code), "\\u%04X", static_cast<unsigned>(c));
      out += code;
    }
  }
  return out;
}

struct DocumentCase {
  const wchar_t* text;
  size_t refusedAtLine;  // 0: well formed
  bool xmllintAgrees;    // false where this host is stricter on purpose
};

const DocumentCase kDocuments[] = {
    // Well formed.
    {L"<a/>", 0, true},
    {L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n<Root>\r\n"
     L"  <A>1</A>\r\n</Root>",
     0, true},
    {L"\xFEFF<a>x</a>", 0, true},
    {L"<a b=\"1\" c='2>'>t &amp; &lt; &gt; &quot; &apos; &#65; &#x42; > ]]</a >", 0, true},
    {L"<!-- c --><a><![CDATA[<x>&]]></a><?pi data?>\n<!-- after -->\n", 0, true},
    {L"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone='yes' ?><a/>", 0, true},
    {L"<!DOCTYPE a SYSTEM \"a.dtd\"><a/>", 0, true},
    {L"<a>\x1F600 \xE000</a>", 0, true},
    {L"<ns:a xmlns:ns=\"urn:x\"><ns:b/></ns:a>", 0, true},
    // Not well formed, with the line of the first problem.
    {L"", 1, true},
    {L"  \r\n  ", 2, true},
    {L"<a>", 1, true},
    {L"<a>\r\r<b>", 3, true},  // a lone carriage return ends a line
    {L"<a>\n<b>\n</a>", 3, true},
    {L"<a></a>\n<b/>", 2, true},
    {L"<a/>\ntext", 2, true},
    {L"junk<a/>", 1, true},
    {L"<a>&foo;</a>", 1, true},
    {L"<a>x & y</a>", 1, true},
    {L"<a>&#0;</a>", 1, true},
    {L"<a>&#xD800;</a>", 1, true},
    {L"<a>&#X41;</a>", 1, true},
    {L"<a>x]]>y</a>", 1, true},
    {L"<a b=1/>", 1, true},
    {L"<a b=\"1\"c=\"2\"/>", 1, true},
    {L"<a b=\"1\" b=\"2\"/>", 1, true},
    {L"<a b=\"<\"/>", 1, true},
    {L"<a b=\"1/>", 1, true},
    {L"<a>\n<!-- x -- y -->\n</a>", 2, true},
    {L"<a/>\n<?xml version=\"1.0\"?>", 2, true},
    {L"\n<?xml version=\"1.0\"?><a/>", 2, true},
    {L"<?xml encoding=\"UTF-8\"?><a/>", 1, true},
    {L"<?xml version=\"1.0\"><a/>", 1, true},
    {L"<?xml version=\"1.0\" standalone=\"maybe\"?><a/>", 1, true},
    {L"\xFFFE<a/>", 1, true},
    {L"<a>\n\x01</a>", 2, true},
    {L"<a>\xFFFF</a>", 1, true},
    {L"<1a/>", 1, true},
    {L"< a/>", 1, true},
    {L"<a><!ELEMENT a ANY></a>", 1, true},
    {L"<a><![CDATA[x</a>", 1, true},
    {L"<a><?pi x</a>", 1, true},
    {L"<!DOCTYPE a><!DOCTYPE a><a/>", 1, true},
    {L"<!DOCTYPE a [<!ENTITY e \"x\">]><a>&e;</a>", 1, false},  // internal subsets are not read
};

TEST(XMLDocument, EachCaseIsAcceptedOrRefusedAtItsLine) {
  const bool judge = HaveXmllint();
  for (const DocumentCase& c : kDocuments) {
    const std::wstring text = c.text;
    SCOPED_TRACE(Show(text));
    const XMLDocumentCheck check = XMLCheckDocument(text);
    EXPECT_EQ(check.wellFormed, c.refusedAtLine == 0);
    if (!check.wellFormed) {
      EXPECT_EQ(check.line, c.refusedAtLine);
      EXPECT_FALSE(check.problem.empty());
    }
    if (judge && c.xmllintAgrees) {
      EXPECT_EQ(XmllintAccepts(text), c.refusedAtLine == 0) << "xmllint differs";
    }
  }
}

TEST(XMLDocument, RootElementIsReported) {
  const std::wstring text = L"<?xml version=\"1.0\"?>\r\n<!-- c -->\r\n<Calib a='1'>\r\n  <A>1</A>\r\n</Calib>\r\n";
  const XMLDocumentCheck check = XMLCheckDocument(text);
  ASSERT_TRUE(check.wellFormed);
  EXPECT_EQ(text.substr(check.root.nameStart, check.root.nameLength), L"Calib");
  EXPECT_EQ(text.substr(check.root.start, 6), L"<Calib");
  EXPECT_EQ(text.substr(check.root.end - 8, 8), L"</Calib>");
  EXPECT_TRUE(check.root.hasChildren);
}

TEST(XMLDocument, NestingIsBoundedAtTheReaderDepth) {
  const auto nested = [](size_t depth) {
    std::wstring text;
    for (size_t i = 0; i < depth; ++i) text += L"<a>";
    for (size_t i = 0; i < depth; ++i) text += L"</a>";
    return text;
  };
  EXPECT_TRUE(XMLCheckDocument(nested(kXMLMaxDepth)).wellFormed);
  EXPECT_FALSE(XMLCheckDocument(nested(kXMLMaxDepth + 1)).wellFormed);
}

TEST(XMLText, SurrogatePairsJoinAndLoneOnesAreFound) {
  const struct {
    std::wstring in, joined;
    bool ok;
    size_t at;
  } cases[] = {
      {L"a\xD83D\xDE00z", L"a\x1F600z", true, 0},
      {L"\xDBFF\xDFFF", L"\x10FFFF", true, 0},
      {L"ab\xD83D", L"ab", false, 2},
      {L"a\xDE00\xD83D", L"a", false, 1},
      {L"\xD83D\xD83D\xDE00", L"", false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Show(c.in));
    std::wstring text = c.in;
    size_t at = 99;
    EXPECT_EQ(XMLJoinSurrogates(&text, &at), c.ok);
    if (c.ok) {
      EXPECT_EQ(text, c.joined);
    } else {
      EXPECT_EQ(at, c.at);
    }
  }
}

TEST(XMLText, EscapedTextIsWellFormedAndUnescapesToItself) {
  const struct {
    std::wstring in, escaped;
  } cases[] = {
      {L"a<b & c>d", L"a&lt;b &amp; c&gt;d"},
      {L"\"q\" 'a'", L"&quot;q&quot; &apos;a&apos;"},
      {L"line\r\nnext", L"line&#13;\nnext"},
      {L"smile \x1F600", L"smile &#x1F600;"},  // above U+FFFF: kept whole in 16-bit files
      {L"]]>", L"]]&gt;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Show(c.in));
    std::wstring escaped;
    XMLAppendEscaped(c.in.data(), c.in.size(), &escaped);
    EXPECT_EQ(escaped, c.escaped);
    EXPECT_TRUE(XMLCheckDocument(L"<a>" + escaped + L"</a>").wellFormed);
    EXPECT_EQ(XMLUnescape(escaped.data(), escaped.size()), c.in);
  }
  const std::wstring unfit = {L'x', 0x1, 0xFFFE, 0xD800, 0x110000};
  std::wstring escaped;
  XMLAppendEscaped(unfit.data(), unfit.size(), &escaped);
  EXPECT_EQ(escaped, std::wstring(L"x") + std::wstring(4, L'\xFFFD'));
}

TEST(XMLText, ElementNamesAreMadeValidAndStayWithin16Bits) {
  const struct {
    std::wstring in, out;
  } cases[] = {
      {L"Calib", L"Calib"}, {L"2 bad<&>", L"_2_bad___"}, {L"", L"_"}, {L"a\x1F600", L"a_"}, {L"\x1F600", L"_"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(XMLElementName(c.in), c.out) << Show(c.in);
    EXPECT_TRUE(XMLCheckDocument(L"<" + XMLElementName(c.in) + L"/>").wellFormed) << Show(c.in);
  }
}

}  // namespace
