#include "network/buffer.h"

#include <cstring>

namespace velora {

unsigned char* Buffer::copyData(const char* data, unsigned long size) {
  return copyData(reinterpret_cast<const unsigned char*>(data), size);
}

unsigned char* Buffer::copyData(const unsigned char* data, unsigned long size) {
  auto* copy = new unsigned char[size];
  if (size > 0)
    std::memcpy(copy, data, size);
  return copy;
}

}  // namespace velora
