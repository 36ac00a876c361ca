// First-chunk records in the persistent store "VeloraFirstChunk".
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H
#define VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H

#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "first_chunk/first_chunk_context.h"
#include "tern/cache_service.h"
#include "utils/url_parser.h"

namespace velora {

// One per operation, made from the page URL. The store entry of a page is a
// JSON object holding one record per query rule:
//   {"<rule>": {"fcc-enable": true, "fcc-html": "...", "fcc-url-query-rule": "<rule>",
//               "fcc-version": "...", "html-byte-size": N, "fcc-url": "...",
//               "fcc-expire-time": ms, "fcc-base64": ["fcc-html"]}, ...}
// "fcc-base64" (only when needed) names the members whose bytes are not
// UTF-8 and so are stored base64-encoded. The key is the page URL without
// its query, except for the one parameter that "fcc_match_query" names.
//
// Beside the pages, the entry kIndexKey maps each page's key to the latest
// expiry of its records, so that expired pages can be swept without a visit
// and the store kept to kMaxPages pages. Writes and removals of this process
// are serialised; a page written by two processes at once may lose a record.
class FirstChunkStorage {
 public:
  // The largest first chunk stored: a page's shell, not the page.
  static constexpr size_t kMaxHtmlBytes = 1024 * 1024;
  // Pages kept at most; past it the ones that expire soonest go.
  static constexpr size_t kMaxPages = 256;
  static constexpr char kIndexKey[] = "#index";

  explicit FirstChunkStorage(const std::string& url);

  // Stores `context` under its rule (or, when the server disabled the cache,
  // removes that rule's record). False when nothing was stored. A stored
  // value that does not parse is replaced. Blocks on the store: never call
  // it on the engine's or a carrier's thread.
  bool write(const std::shared_ptr<FirstChunkContext>& context);
  // The first record, in rule order, whose rule's parameters have the same
  // values in `url` as in the record's URL, if it is worth serving. Expiry and
  // version are the caller's to judge. Records that do not parse are skipped.
  std::shared_ptr<FirstChunkContext> read(const std::string& url);
  // Removes every record of the page.
  void remove();

  // Empty when the URL could not be parsed.
  const std::string& getStorageKey() const { return storageKey_; }

  // Removes every page whose records have all expired. Blocks on the store.
  static void sweep();
  // Posts sweep() to the "Velora" executor unless one ran in the last hour.
  static void sweepSoon();

 private:
  // Under the store's lock. expiry 0 takes this page out of the index.
  void updateIndex(double expiry);
  static nlohmann::json readIndex();
  // sweepSoon(), once an hour has passed since the last sweep; never
  // before the first.
  static void sweepIfDue();

  std::string storageKey_;
  std::shared_ptr<UrlParser> parser_;

  static std::shared_ptr<tern::ICacheService> STORAGE;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_STORAGE_H
