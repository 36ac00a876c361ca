// Host tern::URI on uriparser: uriparser validates the text and splits the
// query; the other parts are kept as written, so an unedited URL prints back
// byte for byte.
#include "tern/uri.h"

#include <uriparser/Uri.h>

#include <memory>

namespace tern {
namespace {

std::string rangeText(const UriTextRangeA& range) {
  if (!range.first || !range.afterLast)
    return std::string();
  return std::string(range.first, range.afterLast);
}

}  // namespace

URI URI::parseURL(const std::string& url) {
  URI result;
  UriUriA parsed;
  const char* error = nullptr;
  if (uriParseSingleUriExA(&parsed, url.data(), url.data() + url.size(), &error) != URI_SUCCESS) {
    return result;
  }
  std::unique_ptr<UriUriA, void (*)(UriUriA*)> guard(&parsed, uriFreeUriMembersA);
  result.scheme_ = rangeText(parsed.scheme);
  if (result.scheme_.empty())
    return result;  // relative references are not URLs
  result.host_ = rangeText(parsed.hostText);

  // Slice the raw parts: scheme ":" ["//" authority] path ["?" query] ["#" fragment].
  size_t pos = result.scheme_.size() + 1;
  if (url.compare(pos, 2, "//") == 0) {
    result.hasAuthority_ = true;
    size_t end = url.find_first_of("/?#", pos + 2);
    if (end == std::string::npos)
      end = url.size();
    result.authority_ = url.substr(pos + 2, end - pos - 2);
    pos = end;
  }
  size_t pathEnd = url.find_first_of("?#", pos);
  if (pathEnd == std::string::npos)
    pathEnd = url.size();
  result.path_ = url.substr(pos, pathEnd - pos);
  if (parsed.query.first) {
    result.hasQuery_ = true;
    UriQueryListA* list = nullptr;
    int count = 0;
    if (uriDissectQueryMallocExA(&list, &count, parsed.query.first, parsed.query.afterLast,
                                 URI_TRUE, URI_BR_DONT_TOUCH) == URI_SUCCESS) {
      for (UriQueryListA* item = list; item; item = item->next) {
        result.query_.push_back(
            {item->key ? item->key : "", item->value ? item->value : "", item->value != nullptr});
      }
      uriFreeQueryListA(list);
    }
    result.rawQuery_ = rangeText(parsed.query);
  }
  if (parsed.fragment.first) {
    result.hasFragment_ = true;
    result.fragment_ = rangeText(parsed.fragment);
  }
  result.valid_ = true;
  return result;
}

void URI::clearQuery() {
  query_.clear();
  queryEdited_ = true;
}

void URI::addQueryField(const std::string& key, const std::string& value) {
  query_.push_back({key, value, true});
  queryEdited_ = true;
}

std::string URI::getQueryField(const std::string& key) const {
  for (const auto& field : query_) {
    if (field.key == key)
      return field.value;
  }
  return std::string();
}

std::string URI::composedQuery() const {
  if (!queryEdited_)
    return hasQuery_ ? "?" + rawQuery_ : std::string();
  if (query_.empty())
    return std::string();
  std::string out;
  for (const auto& field : query_) {
    out += out.empty() ? '?' : '&';
    out += encodeComponent(field.key);
    if (field.hasValue)
      out += '=' + encodeComponent(field.value);
  }
  return out;
}

std::string URI::encodeComponent(const std::string& text) {
  std::unique_ptr<char[]> buffer(new char[text.size() * 6 + 1]);
  const char* end =
      uriEscapeExA(text.data(), text.data() + text.size(), buffer.get(), URI_TRUE, URI_FALSE);
  return std::string(static_cast<const char*>(buffer.get()), end);
}

std::string URI::toString() const {
  if (!valid_)
    return std::string();
  std::string out = scheme_ + ":";
  if (hasAuthority_)
    out += "//" + authority_;
  out += path_;
  out += composedQuery();
  if (hasFragment_)
    out += "#" + fragment_;
  return out;
}

}  // namespace tern
