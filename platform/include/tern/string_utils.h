// Byte-string helpers.
#ifndef TERN_STRING_UTILS_H
#define TERN_STRING_UTILS_H

#include <string>
#include <vector>

namespace tern {
namespace string_utils {

// True when `text` contains `part` anywhere (byte-wise, case-sensitive). An
// empty `part` is contained in every text.
bool contains(const std::string& text, const std::string& part);

// Splits on every occurrence of `separator`; empty pieces are dropped, so ""
// gives an empty list and "a,,b" gives {"a", "b"}.
std::vector<std::string> split(const std::string& text, const std::string& separator);

// application/x-www-form-urlencoded: unreserved bytes kept, space as '+',
// everything else as %XX (upper case).
std::string urlEncode(const std::string& text);

}  // namespace string_utils
}  // namespace tern

#endif  // TERN_STRING_UTILS_H
