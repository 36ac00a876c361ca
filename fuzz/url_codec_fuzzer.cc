// URLs from pages: split, rebuilt, percent-decoded and encoded. Encoding then
// decoding gives back the bytes.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "utils/simple_url_parser.h"
#include "utils/url_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<velora::SimpleUrlParser> parser(velora::SimpleUrlParser::parseUrl(text));
  parser->appendQuery("k", text);
  (void)parser->build();
  (void)parser->getQuery("k");

  std::string encoded = velora::SimpleUrlParser::urlEncode(text);
  if (velora::SimpleUrlParser::urlDecode(encoded) != text)
    std::abort();
  (void)velora::SimpleUrlParser::urlDecode(text);

  velora::UrlParser url(text);
  if (url.isValid()) {
    std::string rule = url.getQuery("fcc_match_query");
    url.clearQuery();
    url.appendQueryParameter(rule, text);
    (void)url.build();
  }
  return 0;
}
