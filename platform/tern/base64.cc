#include "tern/base64.h"

#include <stdexcept>

namespace tern {
namespace base64 {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(unsigned char c) {
  if (c >= 'A' && c <= 'Z')
    return c - 'A';
  if (c >= 'a' && c <= 'z')
    return c - 'a' + 26;
  if (c >= '0' && c <= '9')
    return c - '0' + 52;
  if (c == '+')
    return 62;
  if (c == '/')
    return 63;
  return -1;
}

}  // namespace

std::string encode(const std::string& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t n = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i < bytes.size()) {
    uint32_t n = uint8_t(bytes[i]) << 16;
    if (i + 1 < bytes.size())
      n |= uint8_t(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += (i + 1 < bytes.size()) ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string decode(const std::string& text) {
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t acc = 0;
  int bits = 0;
  size_t padding = 0;
  for (unsigned char c : text) {
    if (c == '\r' || c == '\n')
      continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    int v = valueOf(c);
    if (v < 0 || padding > 0) {
      throw std::invalid_argument("base64: invalid character in input");
    }
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((acc >> bits) & 0xFF);
    }
  }
  // 6 leftover bits cannot encode a byte: the input was cut.
  if (bits >= 6 || padding > 2) {
    throw std::invalid_argument("base64: truncated input");
  }
  return out;
}

}  // namespace base64
}  // namespace tern
