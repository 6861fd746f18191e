// XML text with no interface around it: checking that a whole document is well formed,
// finding elements in a text, escaping element text and unescaping it back. Text is wide,
// one Unicode value per wchar_t (4 bytes). The "XMLStream" objects are built on these,
// and so is any host program that checks a file before the module reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Deepest nesting of elements that is read; deeper documents are refused.
constexpr size_t kXMLMaxDepth = 256;

// Where one element lies in a text (offsets in characters).
struct XMLElementSpan {
  size_t start = 0, nameStart = 0, nameLength = 0;
  size_t contentStart = 0, contentEnd = 0, end = 0;
  bool hasChildren = false;
};

// The verdict on a whole document. On a refusal `at` is the offset of the first problem,
// `line` its line (from 1; "\r\n", "\n" and a lone "\r" each end a line) and `problem`
// says what is wrong in a few words. On success `root` is the root element.
struct XMLDocumentCheck {
  bool wellFormed = false;
  size_t at = 0;
  size_t line = 0;
  std::string problem;
  XMLElementSpan root;
};

// XML 1.0 characters, name start characters and name characters (':' excluded: names
// this host writes have none, and reading accepts it through XMLCheckDocument).
bool XMLIsChar(uint32_t c);
bool XMLIsNameStartChar(uint32_t c);
bool XMLIsNameChar(uint32_t c);

// Joins each high surrogate followed by a low one into one character, as 16-bit text read
// unit by unit leaves them. False when a surrogate stands alone; *at is its offset then.
bool XMLJoinSurrogates(std::wstring* text, size_t* at);

// Checks a document: an optional byte order mark (U+FEFF; a swapped one, U+FFFE, is
// refused), an optional XML declaration at the very start, comments, processing
// instructions and at most one document type without an internal subset before the one
// root element, only comments, instructions and white space after it. Every character
// must be one XML allows; elements must nest and close with matching names, at most
// kXMLMaxDepth deep; attributes must be quoted and unique; references must be the five
// predefined ones or characters XML allows; comments must not hold "--"; text must not
// hold "]]>"; an instruction named "xml" stands only at the start.
XMLDocumentCheck XMLCheckDocument(const std::wstring& text);

// The line (from 1) of the character at `at`, counted as XMLCheckDocument counts.
size_t XMLLineOf(const std::wstring& text, size_t at);

// Past a comment, CDATA section, instruction or declaration that starts at `at`; npos when
// it is not closed; `at` itself when none starts there.
size_t XMLSkipSpecial(const std::wstring& text, size_t at);

// Scans the element whose '<' is at `start`; false when it is not closed properly within
// the text or nests deeper than kXMLMaxDepth.
bool XMLScanElement(const std::wstring& text, size_t start, XMLElementSpan* element);

// The text of element content: references decoded, CDATA unwrapped, comments and
// instructions dropped. Anything unrecognised stays as it is.
std::wstring XMLUnescape(const wchar_t* text, size_t length);

// Appends text as element content: & < > " ' become entity references, a carriage return
// becomes &#13; (a parser would turn a bare one into a line feed), characters above U+FFFF
// become character references (so 16-bit files keep them), and characters XML cannot carry
// become U+FFFD.
void XMLAppendEscaped(const wchar_t* text, size_t length, std::wstring* out);

// A valid XML element name made from any text: characters a name cannot hold, and those
// above U+FFFF, become '_'; a name that cannot start as it does gets a leading '_'.
std::wstring XMLElementName(const std::wstring& name);
