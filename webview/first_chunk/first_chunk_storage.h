// First-chunk records in the persistent store "VeloraFirstChunk".
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H
#define VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H

#include <memory>
#include <string>

#include "first_chunk/first_chunk_context.h"
#include "tern/cache_service.h"
#include "utils/url_parser.h"

namespace velora {

// One per operation, made from the page URL. The store entry of a page is a
// JSON object holding one record per query rule:
//   {"<rule>": {"fcc-enable": true, "fcc-html": "...", "fcc-url-query-rule": "<rule>",
//               "fcc-version": "...", "html-byte-size": N, "fcc-url": "...",
//               "fcc-expire-time": ms}, ...}
// The key is the page URL without its query, except for the one parameter
// that "fcc_match_query" names. No lock of its own: two writers of one key
// at once may lose a record.
class FirstChunkStorage {
 public:
  explicit FirstChunkStorage(const std::string& url);

  // Stores `context` under its rule (or, when the server disabled the cache,
  // removes that rule's record). False when nothing was stored.
  bool write(const std::shared_ptr<FirstChunkContext>& context);
  // The first record, in rule order, whose rule's parameters have the same
  // values in `url` as in the record's URL, if it is worth serving. Expiry and
  // version are the caller's to judge.
  std::shared_ptr<FirstChunkContext> read(const std::string& url);
  // Removes every record of the page.
  void remove();

  // Empty when the URL could not be parsed.
  const std::string& getStorageKey() const { return storageKey_; }

 private:
  std::string storageKey_;
  std::shared_ptr<UrlParser> parser_;

  static std::shared_ptr<tern::ICacheService> STORAGE;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H
