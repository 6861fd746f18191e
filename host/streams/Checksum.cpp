#include "host/streams/Checksum.h"

namespace streams {

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

}  // namespace streams
