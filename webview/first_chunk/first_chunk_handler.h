// Serves a stored first chunk of a server-rendered page at once, splices the
// live response in after it, repairs the page when the chunk was stale, and
// stores the new first chunk for the next visit.
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_HANDLER_H
#define VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_HANDLER_H

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "first_chunk/first_chunk_context.h"
#include "first_chunk/first_chunk_storage.h"
#include "gantry_ssr/ssr_service.h"
#include "network/net_request.h"

namespace velora {

// One per SSR request, between the gateway and the request's listener. The
// first chunk of a page is its body up to and including kMarker. The live
// body is held back until the marker only while a stored chunk stands in
// for it, and never past FirstChunkStorage::kMaxHtmlBytes: a page without
// a marker reaches the engine whole, after the stored chunk is undone.
// Store reads happen on the sending thread; writes and removals are
// background tasks on the "Velora" executor.
//
// onSendRequest runs on the sending thread before the gateway call; the
// gateway's callbacks follow one at a time, possibly on other threads.
class FirstChunkHandler : public gantry_ssr::SsrListener {
 public:
  static constexpr char kMarker[] = "<div><!--fcc--></div>";
  static constexpr size_t kMarkerLength = sizeof(kMarker) - 1;
  // Lifetime of a record whose response named no expiry.
  static constexpr double kDefaultLifetimeMs = 86400000.0;

  explicit FirstChunkHandler(std::shared_ptr<gantry_ssr::SsrListener> listener)
      : listener_(std::move(listener)) {}

  void setTraceId(const std::string& traceId) { traceId_ = traceId; }

  // Adds the first-chunk request headers and, when a fresh chunk is stored,
  // hands it to the listener as a 200 response with its first bytes.
  void onSendRequest(std::shared_ptr<gantry_ssr::SsrRequest> request);

  void onResponse(std::shared_ptr<gantry_ssr::SsrRequest> request,
                  int statusCode,
                  const HeaderMultimap& headers) override;
  void onReceiveData(std::shared_ptr<gantry_ssr::SsrRequest> request,
                     const std::string& data) override;
  void onError(std::shared_ptr<gantry_ssr::SsrRequest> request,
               std::shared_ptr<gantry_ssr::SsrResponse> response) override;
  void onFinish(std::shared_ptr<gantry_ssr::SsrRequest> request) override;

  // Reads "fcc-enable", "fcc-url-query-rule", "fcc-version" and
  // "fcc-expire-time" into `context`; no expiry means 24 hours from now.
  static void parseResponseHeaders(const std::shared_ptr<FirstChunkContext>& context,
                                   const HeaderMultimap& headers);
  static std::string getFirstHeaderValue(const std::list<std::string>& values);
  // Analytics point "firstChunkCache": type 0 no chunk stored, 1 served and
  // current, 2 served and stale, 3 stored but expired.
  static void reportCacheStats(const std::string& url, int type);
  // Empties the document a stale chunk built, so the fresh page that
  // follows renders on a clean one.
  static const std::string& getInvalidateScriptData();

 private:
  void send(const std::shared_ptr<gantry_ssr::SsrRequest>& request, const std::string& data);
  // The marker ends buffer_ at `chunkLength`, found in `data`, this piece:
  // gives the engine what it lacks after the first chunk and stores the
  // chunk in the background.
  void spliceAfterFirstChunk(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                             const std::string& data,
                             size_t chunkLength);
  // No marker (the body ended, or grew past the largest first chunk): from
  // now on bytes pass through. If the stored chunk was served it is undone
  // in the page, followed by the live bytes held back, and its record goes.
  void giveUpOnMarker(const std::shared_ptr<gantry_ssr::SsrRequest>& request);

  std::shared_ptr<gantry_ssr::SsrListener> listener_;
  std::shared_ptr<FirstChunkStorage> storage_;
  std::shared_ptr<FirstChunkContext> cacheContext_;     // the stored chunk, if any
  std::shared_ptr<FirstChunkContext> responseContext_;  // what this response says
  bool useFirstChunkCache_ = false;                     // the stored chunk was served
  bool fccExpired_ = false;                             // a stored chunk had expired
  std::atomic<bool> cacheWritten_{false};               // marker found, chunk stored
  std::atomic<int64_t> receivedBytes_{0};               // live body bytes before the current piece
  std::atomic<bool> needInvalidateCache_{false};        // the served chunk must be undone
  std::string buffer_;                                  // live body until the marker
  std::string traceId_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_HANDLER_H
