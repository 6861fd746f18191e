// Fuzzes the folder stream file reader. An image that loads must save and load again to
// the same bytes, and every entry must be readable through the stream's operations.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "host/streams/FolderStream.h"
#include "host/streams/FolderCodec.h"

namespace {

// Header of the documented format around a payload, so inputs get past the checksum.
std::vector<uint8_t> Wrap(const uint8_t* payload, size_t size) {
  std::vector<uint8_t> image = {'Z', 'T', 'F', 'S', 1, 0, 0, 0};
  const uint32_t length = static_cast<uint32_t>(size);
  const uint32_t crc = folder_codec::Crc32(payload, size);
  for (uint32_t v : {length, crc})
    for (int i = 0; i < 4; ++i) image.push_back(static_cast<uint8_t>(v >> (8 * i)));
  image.insert(image.end(), payload, payload + size);
  return image;
}

void Touch(CFolderStream* folder, int depth) {
  int count = 0;
  folder->get_Count(&count);
  for (int i = 0; i < count; ++i) {
    IUnknown* item = nullptr;
    if (folder->get_Item(i, &item) >= 0 && item) {
      void* sub = nullptr;
      if (depth < 70 && item->QueryInterface(IID_IFolderStream, &sub) >= 0 && sub) {
        Touch(static_cast<CFolderStream*>(static_cast<IFolderStream*>(sub)), depth + 1);
        static_cast<IFolderStream*>(sub)->Release();
      }
      item->Release();
    }
  }
  const wchar_t* text = nullptr;
  int length = 0;
  folder->GetString(&text, &length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // First byte: 0 takes the rest as a whole file, otherwise as the payload of one.
  std::vector<uint8_t> image = data[0] == 0 ? std::vector<uint8_t>(data + 1, data + size) : Wrap(data + 1, size - 1);
  CFolderStream* folder = new CFolderStream();
  if (folder->LoadImage(image.data(), image.size())) {
    Touch(folder, 0);
    std::vector<uint8_t> saved;
    if (!folder->SaveImage(&saved)) __builtin_trap();
    CFolderStream* again = new CFolderStream();
    std::vector<uint8_t> resaved;
    if (!again->LoadImage(saved.data(), saved.size()) || !again->SaveImage(&resaved) || resaved != saved)
      __builtin_trap();
    again->Release();
  }
  folder->Release();
  return 0;
}
