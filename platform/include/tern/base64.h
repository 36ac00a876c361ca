// Standard base64 (RFC 4648, with padding).
#ifndef TERN_BASE64_H
#define TERN_BASE64_H

#include <string>

namespace tern {
namespace base64 {

std::string encode(const std::string& bytes);

// Throws std::invalid_argument on a character outside the alphabet or a bad
// length. Line breaks and missing padding are accepted.
std::string decode(const std::string& text);

}  // namespace base64
}  // namespace tern

#endif  // TERN_BASE64_H
