#include "host/streams/FolderCodec.h"

#include <cstring>
#include <set>

namespace folder_codec {

namespace {

constexpr uint8_t kMagic[4] = {'Z', 'T', 'F', 'S'};
constexpr uint16_t kVersion = 1;
// Smallest entry: type (1), name length (2), value size (4).
constexpr size_t kMinEntryBytes = 7;

void PutU16(std::vector<uint8_t>* out, uint32_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}
void PutU32(std::vector<uint8_t>* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PutU32At(std::vector<uint8_t>* out, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*out)[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void PutWide(std::vector<uint8_t>* out, const std::wstring& text) {
  for (wchar_t c : text) PutU32(out, static_cast<uint32_t>(c));
}

uint32_t GetU16(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8; }
uint32_t GetU32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// A bounds-checked cursor over a byte block.
struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool Has(size_t n) const { return n <= size - at; }
  bool U8(uint32_t* v) {
    if (!Has(1)) return false;
    *v = data[at++];
    return true;
  }
  bool U16(uint32_t* v) {
    if (!Has(2)) return false;
    *v = GetU16(data + at);
    at += 2;
    return true;
  }
  bool U32(uint32_t* v) {
    if (!Has(4)) return false;
    *v = GetU32(data + at);
    at += 4;
    return true;
  }
  bool Wide(size_t chars, std::wstring* text) {
    if (chars > (size - at) / 4) return false;
    text->resize(chars);
    for (size_t i = 0; i < chars; ++i) (*text)[i] = static_cast<wchar_t>(GetU32(data + at + 4 * i));
    at += 4 * chars;
    return true;
  }
};

bool WriteBody(const std::vector<Entry>& entries, std::vector<uint8_t>* out, int depth) {
  if (depth > kMaxDepth) return false;
  PutU32(out, static_cast<uint32_t>(entries.size()));
  for (const Entry& e : entries) {
    if (e.name.size() > kMaxNameChars) return false;
    out->push_back(static_cast<uint8_t>(e.type));
    PutU16(out, static_cast<uint32_t>(e.name.size()));
    PutWide(out, e.name);
    const size_t sizeAt = out->size();
    PutU32(out, 0);
    const size_t valueAt = out->size();
    switch (e.type) {
      case TYPE_DATA: out->insert(out->end(), e.data.begin(), e.data.end()); break;
      case TYPE_STRING: PutWide(out, e.text); break;
      case TYPE_INT32: PutU32(out, static_cast<uint32_t>(e.integer)); break;
      case TYPE_DOUBLE: {
        uint64_t bits;
        std::memcpy(&bits, &e.number, 8);
        PutU32(out, static_cast<uint32_t>(bits));
        PutU32(out, static_cast<uint32_t>(bits >> 32));
        break;
      }
      case TYPE_OBJECT:
        if (e.text.size() > kMaxNameChars) return false;
        PutU16(out, static_cast<uint32_t>(e.text.size()));
        PutWide(out, e.text);
        [[fallthrough]];  // the object's data follows as a folder body
      case TYPE_FOLDER:
        if (!WriteBody(e.children, out, depth + 1)) return false;
        break;
      default: return false;
    }
    if (out->size() > kMaxFileBytes) return false;
    PutU32At(out, sizeAt, static_cast<uint32_t>(out->size() - valueAt));
  }
  return true;
}

bool ReadBody(const uint8_t* data, size_t size, int depth, std::vector<Entry>* entries) {
  if (depth > kMaxDepth) return false;
  Reader in{data, size};
  uint32_t count = 0;
  if (!in.U32(&count)) return false;
  if (count > (size - in.at) / kMinEntryBytes) return false;
  std::set<std::wstring> names;
  entries->clear();
  entries->reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    Entry e;
    uint32_t type = 0, nameChars = 0, valueSize = 0;
    if (!in.U8(&type) || !in.U16(&nameChars) || nameChars > kMaxNameChars || !in.Wide(nameChars, &e.name) ||
        !in.U32(&valueSize) || !in.Has(valueSize))
      return false;
    if (!names.insert(e.name).second) return false;  // names are unique within a folder
    e.type = static_cast<int>(type);
    Reader value{data + in.at, valueSize};
    in.at += valueSize;
    switch (type) {
      case TYPE_DATA: e.data.assign(value.data, value.data + valueSize); break;
      case TYPE_STRING:
        if (valueSize % 4 != 0 || !value.Wide(valueSize / 4, &e.text)) return false;
        break;
      case TYPE_INT32: {
        uint32_t v;
        if (valueSize != 4 || !value.U32(&v)) return false;
        e.integer = static_cast<int32_t>(v);
        break;
      }
      case TYPE_DOUBLE: {
        uint32_t lo, hi;
        if (valueSize != 8 || !value.U32(&lo) || !value.U32(&hi)) return false;
        const uint64_t bits = uint64_t(lo) | uint64_t(hi) << 32;
        std::memcpy(&e.number, &bits, 8);
        break;
      }
      case TYPE_OBJECT: {
        uint32_t objectChars = 0;
        if (!value.U16(&objectChars) || objectChars > kMaxNameChars || !value.Wide(objectChars, &e.text))
          return false;
        [[fallthrough]];  // the object's data follows as a folder body
      }
      case TYPE_FOLDER:
        if (!ReadBody(value.data + value.at, valueSize - value.at, depth + 1, &e.children)) return false;
        break;
      default: return false;
    }
    entries->push_back(std::move(e));
  }
  return in.at == size;  // nothing may trail the entries
}

}  // namespace

bool Encode(const std::vector<Entry>& entries, int depth, std::vector<uint8_t>* image) {
  image->assign(kHeaderBytes, 0);
  if (!WriteBody(entries, image, depth)) return false;
  const size_t payload = image->size() - kHeaderBytes;
  std::memcpy(image->data(), kMagic, 4);
  (*image)[4] = static_cast<uint8_t>(kVersion);
  (*image)[5] = static_cast<uint8_t>(kVersion >> 8);
  PutU32At(image, 8, static_cast<uint32_t>(payload));
  PutU32At(image, 12, Crc32(image->data() + kHeaderBytes, payload));
  return true;
}

bool Decode(const uint8_t* image, size_t size, int depth, std::vector<Entry>* entries) {
  if (!image || size < kHeaderBytes || size > kMaxFileBytes) return false;
  if (std::memcmp(image, kMagic, 4) != 0) return false;
  if (GetU16(image + 4) != kVersion || GetU16(image + 6) != 0) return false;
  const size_t payload = GetU32(image + 8);
  if (payload != size - kHeaderBytes) return false;
  if (GetU32(image + 12) != Crc32(image + kHeaderBytes, payload)) return false;
  return ReadBody(image + kHeaderBytes, payload, depth, entries);
}

uint32_t Crc32(const uint8_t* data, size_t size) {
  struct Table {
    uint32_t entry[256];
    Table() {
      for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        entry[i] = c;
      }
    }
  };
  static const Table tableHolder;  // thread-safe one-time initialisation
  const uint32_t* table = tableHolder.entry;
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

}  // namespace folder_codec
