// The binary container of folder stream files: a tree of named, typed entries to bytes
// and back. Pure functions on plain values; the format is described once, in
// host/README.md, section "Folder stream file format".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace folder_codec {

enum EntryType { TYPE_DATA = 1, TYPE_STRING = 2, TYPE_INT32 = 3, TYPE_DOUBLE = 5, TYPE_FOLDER = 6, TYPE_OBJECT = 7 };

constexpr int kMaxDepth = 64;                       // nested folder bodies
constexpr size_t kMaxFileBytes = size_t(256) << 20;  // whole file
constexpr size_t kMaxNameChars = 4096;               // entry and object names
constexpr size_t kHeaderBytes = 16;

struct Entry {
  std::wstring name;
  int type = TYPE_DATA;
  std::vector<uint8_t> data;  // TYPE_DATA
  std::wstring text;          // TYPE_STRING; TYPE_OBJECT: the object's name
  int32_t integer = 0;        // TYPE_INT32
  double number = 0.0;        // TYPE_DOUBLE
  std::vector<Entry> children;  // TYPE_FOLDER and TYPE_OBJECT
};

// The file image of a tree whose top lies `depth` levels down (the nesting limit counts
// from there): header, then payload. False, with `image` in no useful state, when an
// entry has an unknown type, a name is too long, the nesting is too deep or the image
// would pass kMaxFileBytes. May throw std::bad_alloc.
bool Encode(const std::vector<Entry>& entries, int depth, std::vector<uint8_t>* image);

// The tree of a file image. False on anything but a whole, valid image (see the refusals
// in the format's description); `entries` is then in no useful state. May throw
// std::bad_alloc.
bool Decode(const uint8_t* image, size_t size, int depth, std::vector<Entry>* entries);

// IEEE CRC-32 (reflected, polynomial 0xEDB88320), as used by zip and PNG: the checksum
// of the header.
uint32_t Crc32(const uint8_t* data, size_t size);

}  // namespace folder_codec
