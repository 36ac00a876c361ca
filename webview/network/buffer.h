#ifndef VELORA_WEBVIEW_NETWORK_BUFFER_H
#define VELORA_WEBVIEW_NETWORK_BUFFER_H

namespace velora {

class Buffer {
 public:
  // A new array (new[]) holding a copy of `size` bytes; the caller delete[]s it.
  static unsigned char* copyData(const char* data, unsigned long size);
  static unsigned char* copyData(const unsigned char* data, unsigned long size);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_BUFFER_H
