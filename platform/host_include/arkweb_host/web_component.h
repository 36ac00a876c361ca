// Host-only: drives the host web engine the way a page does. A WebComponent
// is the engine side of one Web component: loads go through the scheme
// handler installed for its tag, or through the engine's own network stack.
#ifndef ARKWEB_HOST_WEB_COMPONENT_H
#define ARKWEB_HOST_WEB_COMPONENT_H

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace arkweb_host {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct LoadOptions {
  LoadOptions() = default;
  LoadOptions(std::string url) : url(std::move(url)) {}  // NOLINT: a URL is a load

  std::string url;
  std::string method = "GET";
  HeaderList headers;
  bool mainFrame = true;
  std::string referrer;
  // Upload body; `chunked` hides its size from the handler, as a streamed
  // upload does.
  std::optional<std::string> body;
  bool chunked = false;
  // The body's stream fails to initialize with this ArkWeb_NetError, as one
  // whose file went away does; 0: it initializes.
  int bodyInitError = 0;
  // Reads of the body's stream after its first piece fail with this
  // ArkWeb_NetError, as a file that changes while it is sent does; 0: none.
  int bodyReadError = 0;
  // Cancels the load this long after it started, as a page that navigates
  // away does; 0: before it goes out; negative: never.
  long cancelAfterMs = -1;
  // The engine's own network is off: a request no handler takes fails with
  // ARKWEB_ERR_INTERNET_DISCONNECTED instead of going out.
  bool offline = false;
  // Follows 3xx answers that carry a Location, like a page.
  bool followRedirects = true;
  // Called once with the final response's status line and headers before
  // its first body piece (engine threads); not for redirects that are
  // followed.
  std::function<void(int status, const std::string& statusText, const HeaderList& headers)>
      onResponse;
  // Called with each body piece as it arrives (engine threads), with the
  // time in ms on the monotonic clock. The bytes are valid during the call.
  std::function<void(const char* data, size_t size, double atMs)> onData;
  // Keep the body in the result (sized once from Content-Length when the
  // response has one); turn off for loads only onData needs.
  bool keepBody = true;
};

struct LoadTiming {
  double start = 0;
  double response = -1;
  double firstByte = -1;
  double finish = -1;
};

struct LoadResult {
  bool intercepted = false;  // answered by the scheme handler
  std::string url;           // after redirects
  int status = 0;  // 0: no response came (the load failed before one)
  std::string statusText;
  HeaderList headers;  // in order, repeats kept
  std::string mimeType;
  std::string charset;
  std::string body;
  uint64_t bodySize = 0;
  int error = 0;  // an ArkWeb_NetError; 0 when the load succeeded
  int redirects = 0;
  LoadTiming timing;
};

// Milliseconds on the monotonic clock used by LoadTiming.
double nowMs();

// One started load, seen from the caller.
class LoadHandle {
 public:
  virtual ~LoadHandle() = default;
  // Stops the load (and a redirect it is following), as a frame that goes
  // away does: it ends with ARKWEB_ERR_ABORTED and `done` still comes. Any
  // thread; after the end it does nothing.
  virtual void cancel() = 0;
};

class WebComponent {
 public:
  // Registers a component under `tag` (replacing one of the same tag).
  static std::shared_ptr<WebComponent> create(const std::string& tag);
  virtual ~WebComponent() = default;

  virtual const std::string& tag() const = 0;
  // Starts a load; `done` is called once, on an engine thread, after the
  // handler's stop callback has returned.
  virtual std::shared_ptr<LoadHandle> load(LoadOptions options,
                                           std::function<void(LoadResult)> done) = 0;
  LoadResult loadAndWait(LoadOptions options);
  // Fires the component's destroy notices on this thread, then unregisters
  // it. Later loads fail with ARKWEB_ERR_ABORTED.
  virtual void destroy() = 0;
};

// Waits until every load started so far has ended, the engine's threads are
// idle and the background work the loads posted has run.
void waitIdle();

// The component API record reports `size` in its size field from now on, as
// the record of an engine that has fewer members does; 0 restores its full
// size. The record stays where it is. Script thread.
void setComponentApiSize(size_t size);

}  // namespace arkweb_host

#endif  // ARKWEB_HOST_WEB_COMPONENT_H
