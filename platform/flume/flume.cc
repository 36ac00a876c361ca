// flume on libcurl: one multi handle driven by one event thread.
#include "flume/flume.h"
#include "flume/host_config.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "common/host_env.h"
#include "flume/transport_settings.h"
#include "hilog/log.h"

namespace flume {
namespace {

constexpr char kTag[] = "flume";
constexpr long kBufferSize = 256 * 1024;
// Room made for a response's fields at its first one.
constexpr size_t kUsualFieldCount = 16;
// Connections to one host at once, as browsers keep them; later requests to
// that host wait for one to free up.
constexpr long kMaxHostConnections = 6;
// Connections kept open after use, to any hosts. libcurl's own limit, four
// per transfer under way, closed them as soon as a burst of requests ended,
// and the next requests to those hosts paid a TLS handshake each: a full
// one for HTTP/2, as libcurl 7.88 closes an HTTP/2 connection without the
// TLS close that would keep its session resumable.
constexpr long kMaxKeptConnections = 64;

long envMs(const char* name, long fallback) {
  std::string text = host::envOr(name, "");
  char* end = nullptr;
  long value = text.empty() ? -1 : std::strtol(text.c_str(), &end, 10);
  return value >= 0 && end && *end == '\0' ? value : fallback;
}

// RFC 9110 token: a method or a field name.
bool isToken(const std::string& text) {
  if (text.empty())
    return false;
  for (unsigned char c : text) {
    bool tchar = std::isalnum(c) || std::strchr("!#$%&'*+-.^_`|~", c);
    if (!tchar || c == 0)
      return false;
  }
  return true;
}

// A field value may not end its line early or smuggle another.
bool isFieldValue(const std::string& text) {
  return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

// libcurl (and the TLS library under it) is set up once, when this library
// loads, on the loading thread: set up from a worker thread, its per-thread
// state would go with that thread.
const bool g_curlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;

// Whether libcurl was built with a default CA bundle file.
const bool g_hasCaBundle = [] {
  CURL* easy = curl_easy_init();
  char* bundle = nullptr;
  curl_easy_getinfo(easy, CURLINFO_CAINFO, &bundle);
  const bool has = bundle != nullptr && bundle[0] != '\0';
  curl_easy_cleanup(easy);
  return has;
}();

std::string lowered(const std::string& text) {
  std::string lower(text);
  for (char& c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trim(std::string_view text) {
  size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos)
    return {};
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(start, end - start + 1);
}

// Encodings libcurl decodes for us; a response naming one of these arrives
// decoded, so its Content-Encoding and Content-Length no longer apply.
bool isDecodedEncoding(const std::string& encoding) {
  std::string lower;
  for (char c : trim(encoding))
    lower += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return lower == "gzip" || lower == "x-gzip" || lower == "deflate" || lower == "br" ||
         lower == "zstd";
}

}  // namespace

// ---- Messages ----

void FLHttpMessage::setHeadField(const std::string& name, const std::string& value) {
  removeHeadField(name);
  appendField(name, value);
}

void FLHttpMessage::addHeadField(const std::string& name, const std::string& value) {
  appendField(name, value);
}

void FLHttpMessage::appendField(std::string name, std::string value) {
  if (indexed_)
    ++nameCounts_[lowered(name)];
  fields_.emplace_back(std::move(name), std::move(value));
}

std::string FLHttpMessage::getHeadField(const std::string& name) const {
  for (const auto& field : fields_) {
    if (sameName(field.first, name))
      return field.second;
  }
  return std::string();
}

void FLHttpMessage::removeHeadField(const std::string& name) {
  if (!indexed_) {
    for (const auto& field : fields_)
      ++nameCounts_[lowered(field.first)];
    indexed_ = true;
  }
  auto count = nameCounts_.find(lowered(name));
  if (count == nameCounts_.end())
    return;
  nameCounts_.erase(count);
  fields_.erase(std::remove_if(fields_.begin(), fields_.end(),
                               [&](const auto& field) { return sameName(field.first, name); }),
                fields_.end());
}

RepeatedHeadFields FLHttpMessage::getRepeatedHeadFields() const {
  RepeatedHeadFields repeated;
  for (const auto& field : fields_)
    repeated[field.first].push_back(field.second);
  return repeated;
}

std::shared_ptr<FLHttpRequest> FLHttpRequest::create(const std::string& url) {
  auto request = std::make_shared<FLHttpRequest>();
  request->url_ = url;
  return request;
}

// ---- Body stream ----

std::shared_ptr<FLDataStream> FLDataStream::create() {
  return std::make_shared<FLDataStream>();
}

void FLDataStream::write(char* data, unsigned long size, bool eof) {
  std::function<void()> notify;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (eof_) {
      OH_LOG_Print(LOG_APP, LOG_WARN, 0, kTag,
                   "write after the last piece ignored (%{public}lu bytes)", size);
      return;
    }
    if (size > 0)
      pieces_.emplace_back(data, size);
    eof_ = eof;
    notify = std::move(onReadable_);
    onReadable_ = nullptr;
  }
  if (notify)
    notify();
}

size_t FLDataStream::read(char* out, size_t max, bool* ended, std::function<void()> onReadable) {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t copied = 0;
  while (copied < max && !pieces_.empty()) {
    const std::string& front = pieces_.front();
    size_t n = std::min(max - copied, front.size() - offset_);
    std::memcpy(out + copied, front.data() + offset_, n);
    copied += n;
    offset_ += n;
    if (offset_ == front.size()) {
      pieces_.pop_front();
      offset_ = 0;
    }
  }
  *ended = pieces_.empty() && eof_;
  if (copied == 0 && !*ended)
    onReadable_ = std::move(onReadable);
  return copied;
}

// ---- Session ----

class SessionCore {
  using Clock = std::chrono::steady_clock;

 public:
  SessionCore() {
    if (!g_curlReady) {
      OH_LOG_Print(LOG_APP, LOG_FATAL, 0, kTag, "libcurl could not be initialised");
    }
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kMaxKeptConnections);
    // Connections already live in the multi handle; TLS sessions and DNS
    // answers are shared here so a new connection to a known server resumes
    // its session. Used by the event thread alone: no locks.
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    thread_ = std::thread([this] { loop(); });
  }

  // The multi and share handles stay, like the transfers left at shutdown:
  // they hold those transfers' connections.
  ~SessionCore() {
    shutdown();
    curl_slist_free_all(expectOnly_);
  }

  // Stops the event thread for good; transfers still running are dropped
  // without events (their listeners may belong to objects already gone) and
  // kept reachable. Later sends and cancels do nothing. Idempotent.
  void shutdown() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_)
        return;
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    if (thread_.joinable())
      thread_.join();
    for (auto& [id, transfer] : live_)
      curl_multi_remove_handle(multi_, transfer->easy);
  }

  void send(const std::shared_ptr<FLHttpRequest>& request, IFLHttpSessionListener* listener) {
    post({Command::kAdd, request, listener, 0});
  }

  void cancel(const std::shared_ptr<FLHttpRequest>& request) {
    post({Command::kCancel, request, nullptr, 0});
  }

  void setDefaultTimeouts(long connectMs, long idleMs) {
    connectTimeoutMs_ = connectMs;
    idleTimeoutMs_ = idleMs;
  }

 private:
  struct Transfer {
    // The view handed to the listener for each body piece, reused.
    std::shared_ptr<FLData> piece = std::make_shared<FLData>(nullptr, 0);
    uint64_t id = 0;
    SessionCore* core = nullptr;
    std::shared_ptr<FLHttpRequest> request;
    IFLHttpSessionListener* listener = nullptr;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    curl_slist* resolve = nullptr;  // the mapped address of the URL's host
    // The response being read: status line and fields of the current block.
    int status = 0;
    std::string statusText;
    std::string version;
    std::vector<std::pair<std::string, std::string>> fields;
    bool responseDelivered = false;
    bool sentDelivered = false;
    long idleMs = 0;  // 0: never idle out
    Clock::time_point lastActivity;
    char error[CURL_ERROR_SIZE] = {0};

    // Back to a fresh transfer for reuse; core and piece stay.
    void reset() {
      id = 0;
      request.reset();
      listener = nullptr;
      easy = nullptr;
      headers = nullptr;
      resolve = nullptr;
      status = 0;
      statusText.clear();
      version.clear();
      fields.clear();
      responseDelivered = false;
      sentDelivered = false;
      idleMs = 0;
      error[0] = '\0';
    }
  };

  struct Command {
    enum Kind { kAdd, kUnpause, kCancel } kind;
    std::shared_ptr<FLHttpRequest> request;  // kAdd, kCancel
    IFLHttpSessionListener* listener;        // kAdd
    uint64_t id;                             // kUnpause
  };

  void post(Command command) {
    bool wake = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        if (command.kind == Command::kAdd) {
          OH_LOG_Print(LOG_APP, LOG_WARN, 0, kTag, "request to %{public}s dropped: shutting down",
                       command.request->url().c_str());
        }
        return;
      }
      // One wake-up per batch: commands queued behind another are taken
      // by the loop together with it.
      wake = commands_.empty();
      commands_.push_back(std::move(command));
    }
    if (wake)
      curl_multi_wakeup(multi_);
  }

  void loop() {
    // Two lists swapped back and forth: senders queue into one while this
    // thread runs the other, and neither is reallocated once grown.
    std::vector<Command> commands;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
          return;
        commands.swap(commands_);
      }
      for (Command& command : commands)
        run(command);
      commands.clear();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE)
          continue;
        Transfer* transfer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
        complete(transfer, message->data.result);
      }
      failIdleTransfers();
      // Woken by sockets and commands; with transfers live, also often
      // enough to see an idle one within a tenth of a second.
      curl_multi_poll(multi_, nullptr, 0, live_.empty() ? 1000 : kIdleCheckMs, nullptr);
    }
  }

  // Ends, with one timeout error, each transfer in which no byte moved for
  // its idle time. Looks at most every kIdleCheckMs.
  void failIdleTransfers() {
    const Clock::time_point now = Clock::now();
    if (now - lastIdleCheck_ < std::chrono::milliseconds(kIdleCheckMs))
      return;
    lastIdleCheck_ = now;
    idle_.clear();
    for (auto& [id, transfer] : live_) {
      if (transfer->idleMs > 0 &&
          now - transfer->lastActivity >= std::chrono::milliseconds(transfer->idleMs)) {
        idle_.push_back(transfer);
      }
    }
    for (Transfer* transfer : idle_) {
      std::snprintf(transfer->error, CURL_ERROR_SIZE, "no data moved for %ld ms", transfer->idleMs);
      abandon(transfer);
      complete(transfer, CURLE_OPERATION_TIMEDOUT, /*removed=*/true);
    }
  }

  void run(Command& command) {
    switch (command.kind) {
      case Command::kAdd: {
        Transfer* transfer = takeTransfer();
        transfer->id = nextId_++;
        transfer->request = std::move(command.request);
        transfer->listener = command.listener;
        start(transfer);
        break;
      }
      case Command::kUnpause: {
        auto it = live_.find(command.id);
        if (it != live_.end())
          curl_easy_pause(it->second->easy, CURLPAUSE_CONT);
        break;
      }
      case Command::kCancel:
        for (auto& [id, transfer] : live_) {
          if (transfer->request == command.request) {
            std::strncpy(transfer->error, "cancelled by the caller", CURL_ERROR_SIZE - 1);
            abandon(transfer);
            complete(transfer, CURLE_ABORTED_BY_CALLBACK, /*removed=*/true);
            break;
          }
        }
        break;
    }
  }

  // Takes a live transfer off its connection so that the server stops
  // sending it. HTTP/1.1 has only the connection to close, and libcurl closes
  // it. On an HTTP/2 connection libcurl queues a RST_STREAM, but sends it only
  // when another transfer next drives the connection: with none left, the
  // server would go on filling the flow-control window of a stream nobody
  // reads and keep it open. Forbidding reuse closes such a connection at once;
  // one that other transfers still use stays, and they carry the reset out.
  void abandon(Transfer* transfer) {
    curl_easy_setopt(transfer->easy, CURLOPT_FORBID_REUSE, 1L);
    curl_multi_remove_handle(multi_, transfer->easy);
  }

  // Fails a transfer before it goes out.
  void refuse(Transfer* transfer, const std::string& why) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "request to %{public}s refused: %{public}s",
                 transfer->request->url().c_str(), why.c_str());
    std::strncpy(transfer->error, why.c_str(), CURL_ERROR_SIZE - 1);
    complete(transfer, CURLE_BAD_FUNCTION_ARGUMENT, /*removed=*/true);
  }

  void start(Transfer* transfer) {
    FLHttpRequest& request = *transfer->request;
    // Handles are reused: a reset one costs far less than a new one.
    CURL* easy = nullptr;
    if (!idleHandles_.empty()) {
      easy = idleHandles_.back();
      idleHandles_.pop_back();
    } else {
      easy = curl_easy_init();
    }
    transfer->easy = easy;
    // An empty method is a GET; anything else must be a token, or a CR/LF
    // in it would end the request line early.
    const std::string method = request.getMethod().empty() ? "GET" : request.getMethod();
    if (!isToken(method)) {
      refuse(transfer, "the method is not a token");
      return;
    }
    curl_easy_setopt(easy, CURLOPT_URL, request.url().c_str());
    // Whoever wrote the URL (or a redirect) chooses no other protocol: no
    // file://, gopher:// or dict:// reaching local files or raw ports.
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->error);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);   // the caller follows redirects
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // every encoding curl decodes
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBufferSize);
    // The connect timeout covers the TLS handshake too.
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectTimeoutMs_.load());
    setUpTls(transfer);
    // Idle: no byte moved for this long (before or during the response).
    // Watched by this thread's own clock: libcurl's low-speed check averages
    // over seconds and fires several seconds late after a fast start.
    transfer->idleMs =
        request.getIdleTimeoutMs() > 0 ? request.getIdleTimeoutMs() : idleTimeoutMs_.load();
    transfer->lastActivity = Clock::now();
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &SessionCore::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &SessionCore::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer);

    curl_off_t uploadSize = -1;  // unknown: sent chunked
    for (const auto& [name, value] : request.getHeadFields()) {
      if (!isToken(name) || !isFieldValue(value)) {
        // Left out, never sent: a CR or LF would let it add lines of its own.
        OH_LOG_Print(LOG_APP, LOG_WARN, 0, kTag,
                     "header left out of the request to %{public}s: its name is not a token or "
                     "its value holds CR, LF or NUL",
                     request.url().c_str());
        continue;
      }
      // curl sends its own Accept-Encoding (it decodes what it asks for) and
      // its own Content-Length; a caller's length sizes the upload instead.
      if (sameName(name, "Accept-Encoding"))
        continue;
      if (sameName(name, "Content-Length")) {
        uploadSize = std::strtoll(value.c_str(), nullptr, 10);
        continue;
      }
      std::string line = value.empty() ? name + ";" : name + ": " + value;
      transfer->headers = curl_slist_append(transfer->headers, line.c_str());
    }
    if (transfer->headers) {
      transfer->headers = curl_slist_append(transfer->headers, "Expect:");
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);
    } else {
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, expectOnly_);  // shared, never changed
    }

    if (request.getBodyStream()) {
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_READFUNCTION, &SessionCore::onUpload);
      curl_easy_setopt(easy, CURLOPT_READDATA, transfer);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, uploadSize);
      if (method != "POST")
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "GET") {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method == "POST") {
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, 0L);
    } else {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }
    live_[transfer->id] = transfer;
    curl_multi_add_handle(multi_, easy);
  }

  // TLS as a browser speaks it: chain and name always checked, TLS 1.2 at
  // least, ALPN offering h2 then http/1.1 (CURL_HTTP_VERSION_2TLS). Requests
  // to a server whose first connection is still being made wait for it and
  // share it when it turns out to multiplex, rather than each opening its own.
  void setUpTls(Transfer* transfer) {
    CURL* easy = transfer->easy;
    const std::string& url = transfer->request->url();
    curl_easy_setopt(easy, CURLOPT_SHARE, share_);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // libcurl keeps the parsed CA bundle in the multi handle for a day, but
    // not while a CA directory is set, and builds made --with-ca-path set one
    // by default: every new connection then parsed the whole bundle again
    // (17 ms of CPU for Debian's 144 roots, many times the handshake). The
    // bundle holds the system's roots, so with one the directory goes.
    if (g_hasCaBundle)
      curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    if (url.size() > 8 && strncasecmp(url.c_str(), "https://", 8) == 0)
      curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
    if (!roots_.empty()) {
      curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &SessionCore::onTlsContext);
      curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &roots_);
    }
    if (!hosts_.empty())
      mapHost(transfer);
  }

  static CURLcode onTlsContext(CURL*, void* context, void* roots) {
    static_cast<const ExtraRoots*>(roots)->addTo(static_cast<SSL_CTX*>(context));
    return CURLE_OK;
  }

  // A mapped host name is answered with its address, not asked of DNS.
  void mapHost(Transfer* transfer) {
    CURLU* parts = curl_url();
    char* host = nullptr;
    char* port = nullptr;
    if (curl_url_set(parts, CURLUPART_URL, transfer->request->url().c_str(), 0) == CURLUE_OK &&
        curl_url_get(parts, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
        curl_url_get(parts, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK) {
      std::string address = hosts_.addressOf(host);
      if (!address.empty()) {
        if (address.find(':') != std::string::npos)
          address = "[" + address + "]";
        const std::string entry = std::string(host) + ":" + port + ":" + address;
        transfer->resolve = curl_slist_append(nullptr, entry.c_str());
        curl_easy_setopt(transfer->easy, CURLOPT_RESOLVE, transfer->resolve);
      }
    }
    curl_free(host);
    curl_free(port);
    curl_url_cleanup(parts);
  }

  // Reads one header line in place: only the kept fields are copied out.
  static size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    transfer->lastActivity = Clock::now();
    const std::string_view line(data, size * count);
    if (line.compare(0, 5, "HTTP/") == 0) {
      // A new status line: 1xx and earlier blocks are replaced.
      transfer->fields.clear();
      size_t space = line.find(' ');
      transfer->version = line.substr(5, space == std::string_view::npos ? 0 : space - 5);
      transfer->status = 0;
      transfer->statusText.clear();
      if (space != std::string_view::npos) {
        std::string_view rest = trim(line.substr(space + 1));
        std::from_chars(rest.data(), rest.data() + rest.size(), transfer->status);
        size_t reason = rest.find(' ');
        if (reason != std::string_view::npos)
          transfer->statusText = trim(rest.substr(reason));
      }
    } else if (trim(line).empty()) {
      if (transfer->status >= 200)
        transfer->core->deliverResponse(transfer);
    } else {
      size_t colon = line.find(':');
      if (colon != std::string_view::npos) {
        if (transfer->fields.capacity() == 0)
          transfer->fields.reserve(kUsualFieldCount);
        transfer->fields.emplace_back(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
      }
    }
    return size * count;
  }

  static size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    size_t bytes = size * count;
    transfer->lastActivity = Clock::now();
    transfer->core->deliverResponse(transfer);
    if (bytes > 0) {
      // No copy: the listener sees libcurl's buffer for the length of the call.
      transfer->piece->data_ = data;
      transfer->piece->size_ = bytes;
      transfer->listener->onFLHttpReceiveData(*transfer->request, transfer->piece);
    }
    return bytes;
  }

  static size_t onUpload(char* buffer, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    SessionCore* core = transfer->core;
    uint64_t id = transfer->id;
    bool ended = false;
    size_t n = transfer->request->getBodyStream()->read(buffer, size * count, &ended, [core, id] {
      core->post({Command::kUnpause, nullptr, nullptr, id});
    });
    if (n > 0 || ended) {
      transfer->lastActivity = Clock::now();
      return n;
    }
    return CURL_READFUNC_PAUSE;
  }

  void deliverSent(Transfer* transfer, bool success) {
    if (transfer->sentDelivered)
      return;
    transfer->sentDelivered = true;
    transfer->listener->onFLHttpSentCompleted(*transfer->request, success);
  }

  void deliverResponse(Transfer* transfer) {
    if (transfer->responseDelivered)
      return;
    deliverSent(transfer, true);
    transfer->responseDelivered = true;
    if (transfer->status == 0) {
      long code = 0;
      curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &code);
      transfer->status = static_cast<int>(code);
    }
    auto response = std::make_shared<FLHttpResponse>(transfer->request->url(), transfer->status,
                                                     transfer->statusText, transfer->version);
    bool decoded = false;
    for (const auto& [name, value] : transfer->fields) {
      if (sameName(name, "Content-Encoding") && isDecodedEncoding(value))
        decoded = true;
    }
    if (decoded) {
      auto& fields = transfer->fields;
      fields.erase(std::remove_if(fields.begin(), fields.end(),
                                  [](const auto& field) {
                                    return sameName(field.first, "Content-Encoding") ||
                                           sameName(field.first, "Content-Length");
                                  }),
                   fields.end());
    }
    // The block's fields are not needed again: the whole list moves over.
    response->takeFields(std::move(transfer->fields));
    transfer->fields.clear();
    if (transfer->status == 401 || transfer->status == 407) {
      std::string challenge = response->getHeadField(
          transfer->status == 401 ? "WWW-Authenticate" : "Proxy-Authenticate");
      FLHttpAuthenticationChallenge details;
      details.scheme = challenge.substr(0, challenge.find(' '));
      size_t realm = challenge.find("realm=\"");
      if (realm != std::string::npos) {
        size_t end = challenge.find('"', realm + 7);
        details.realm =
            challenge.substr(realm + 7, end == std::string::npos ? end : end - realm - 7);
      }
      transfer->listener->onFLHttpAuthenticationChallenge(*transfer->request, details);
    }
    transfer->listener->onFLHttpResponse(*transfer->request, response);
  }

  FLHttpMetrics metricsOf(Transfer* transfer) {
    FLHttpMetrics metrics;
    curl_off_t value = 0;
    auto ms = [&](CURLINFO info) {
      curl_easy_getinfo(transfer->easy, info, &value);
      return static_cast<double>(value) / 1000.0;
    };
    metrics.dnsMs = ms(CURLINFO_NAMELOOKUP_TIME_T);
    metrics.connectMs = ms(CURLINFO_CONNECT_TIME_T);
    metrics.firstByteMs = ms(CURLINFO_STARTTRANSFER_TIME_T);
    metrics.totalMs = ms(CURLINFO_TOTAL_TIME_T);
    curl_easy_getinfo(transfer->easy, CURLINFO_SIZE_UPLOAD_T, &value);
    metrics.bytesSent = value;
    curl_easy_getinfo(transfer->easy, CURLINFO_SIZE_DOWNLOAD_T, &value);
    metrics.bytesReceived = value;
    long connects = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_NUM_CONNECTS, &connects);
    metrics.reusedConnection = connects == 0;
    metrics.httpVersion = transfer->version;
    return metrics;
  }

  void complete(Transfer* transfer, CURLcode result, bool removed = false) {
    if (!removed)
      curl_multi_remove_handle(multi_, transfer->easy);
    live_.erase(transfer->id);
    const FLHttpRequest& request = *transfer->request;
    if (result == CURLE_OK) {
      deliverResponse(transfer);
      transfer->listener->onFLHttpCollectingMetrics(request, metricsOf(transfer));
      transfer->listener->onFLHttpFinish(request);
    } else {
      deliverSent(transfer, false);
      transfer->listener->onFLHttpCollectingMetrics(request, metricsOf(transfer));
      std::string message = transfer->error[0] ? transfer->error : curl_easy_strerror(result);
      transfer->listener->onFLHttpError(
          request, std::make_shared<FLError>(static_cast<int>(result), message));
    }
    destroy(transfer);
  }

  void destroy(Transfer* transfer) {
    if (idleHandles_.size() < kIdleHandles) {
      curl_easy_reset(transfer->easy);
      idleHandles_.push_back(transfer->easy);
    } else {
      curl_easy_cleanup(transfer->easy);
    }
    curl_slist_free_all(transfer->headers);
    curl_slist_free_all(transfer->resolve);
    if (idleTransfers_.size() < kIdleHandles && transfer->piece.use_count() == 1) {
      transfer->reset();
      idleTransfers_.push_back(transfer);
    } else {
      delete transfer;
    }
  }

  // Transfers are reused like the handles: made on this thread, kept here.
  Transfer* takeTransfer() {
    if (idleTransfers_.empty()) {
      auto* transfer = new Transfer();
      transfer->core = this;
      return transfer;
    }
    Transfer* transfer = idleTransfers_.back();
    idleTransfers_.pop_back();
    return transfer;
  }

  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  const ExtraRoots roots_{host::envOr("VELORA_CA_FILE", "")};
  const HostMap hosts_{host::envOr("VELORA_RESOLVE", "")};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Command> commands_;                 // guarded by mutex_
  bool stopping_ = false;                         // guarded by mutex_
  uint64_t nextId_ = 1;                           // event thread only
  std::unordered_map<uint64_t, Transfer*> live_;  // event thread only
  static constexpr long kIdleCheckMs = 100;
  Clock::time_point lastIdleCheck_;  // event thread only
  std::vector<Transfer*> idle_;      // event thread only, reused
  static constexpr size_t kIdleHandles = 64;
  std::vector<CURL*> idleHandles_;        // event thread only
  std::vector<Transfer*> idleTransfers_;  // event thread only
  // The header list of a transfer without fields of its own.
  curl_slist* const expectOnly_ = curl_slist_append(nullptr, "Expect:");
  std::atomic<long> connectTimeoutMs_{envMs("VELORA_CONNECT_TIMEOUT_MS", 30000)};
  std::atomic<long> idleTimeoutMs_{envMs("VELORA_IDLE_TIMEOUT_MS", 60000)};
};

FLHttpSession::FLHttpSession(std::unique_ptr<SessionCore> core) : core_(std::move(core)) {}
FLHttpSession::~FLHttpSession() = default;

std::shared_ptr<FLHttpSession> FLHttpSession::getSession() {
  // Never destroyed: requests are still released (and cancelled) while the
  // process exits. Its event thread stops at exit before the objects made
  // before the session are destroyed, so no event reaches one of them then.
  static std::shared_ptr<FLHttpSession>* session = new std::shared_ptr<FLHttpSession>(
      std::make_shared<FLHttpSession>(std::make_unique<SessionCore>()));
  static struct StopAtExit {
    ~StopAtExit() { (*session)->core_->shutdown(); }
  } stopAtExit;
  return *session;
}

void FLHttpSession::send(const std::shared_ptr<FLHttpRequest>& request,
                         IFLHttpSessionListener* listener) {
  if (!request || !listener) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "send without a request or a listener ignored");
    return;
  }
  core_->send(request, listener);
}

void FLHttpSession::cancel(const std::shared_ptr<FLHttpRequest>& request) {
  if (request)
    core_->cancel(request);
}

void setDefaultTimeouts(long connectMs, long idleMs) {
  FLHttpSession::getSession()->core_->setDefaultTimeouts(connectMs, idleMs);
}

}  // namespace flume
