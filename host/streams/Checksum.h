// The checksum of the folder stream format, with no interface code around it, so that a
// host program can check a file's checksum before the module reads the file.
#pragma once

#include <cstddef>
#include <cstdint>

namespace streams {

// IEEE CRC-32 (reflected, polynomial 0xEDB88320), as used by zip and PNG.
uint32_t Crc32(const uint8_t* data, size_t size);

}  // namespace streams
