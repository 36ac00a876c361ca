// flume: the HTTP networking library. One process-wide session runs every
// transfer on its own event thread; events reach a listener in order.
#ifndef FLUME_FLUME_H
#define FLUME_FLUME_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace flume {

// Name -> values in arrival order; names as the server or caller wrote them.
using RepeatedHeadFields = std::map<std::string, std::list<std::string>>;

class FLHttpMessage {
 public:
  virtual ~FLHttpMessage() = default;

  std::string getURLString() const { return url_; }
  // Host only: the same, without a copy.
  const std::string& url() const { return url_; }
  // Replaces every field of that name (compared case-insensitively). Setting
  // a name not there yet costs no scan of the others.
  void setHeadField(const std::string& name, const std::string& value);
  // Adds a field, keeping earlier ones of the same name.
  void addHeadField(const std::string& name, const std::string& value);
  // The first value of `name` (case-insensitive), or "".
  std::string getHeadField(const std::string& name) const;
  void removeHeadField(const std::string& name);
  // Fields in arrival order, repeats kept.
  const std::vector<std::pair<std::string, std::string>>& getHeadFields() const { return fields_; }
  RepeatedHeadFields getRepeatedHeadFields() const;

 protected:
  void appendField(std::string name, std::string value);

  std::string url_;
  std::vector<std::pair<std::string, std::string>> fields_;
  // Fields per lower-cased name, built by the first setHeadField or
  // removeHeadField (responses, only appended to, never need it).
  std::unordered_map<std::string, size_t> nameCounts_;
  bool indexed_ = false;
};

// A request body written piece by piece by a producer and read by the
// session as the transfer needs it. Thread-safe.
class FLDataStream {
 public:
  static std::shared_ptr<FLDataStream> create();

  // Appends `size` bytes (copied); `eof` marks the last piece.
  void write(char* data, unsigned long size, bool eof);

  // Session side: copies up to `max` bytes into `out`. Returns the count;
  // 0 with *ended true at the end; 0 with *ended false when nothing is there
  // yet, in which case `onReadable` is called once with the next write.
  size_t read(char* out, size_t max, bool* ended, std::function<void()> onReadable);

 private:
  std::mutex mutex_;
  std::list<std::string> pieces_;
  size_t offset_ = 0;  // read position in pieces_.front()
  bool eof_ = false;
  std::function<void()> onReadable_;
};

class FLHttpRequest : public FLHttpMessage {
 public:
  static std::shared_ptr<FLHttpRequest> create(const std::string& url);

  void setMethod(const std::string& method) { method_ = method; }
  const std::string& getMethod() const { return method_; }
  void setBodyStream(std::shared_ptr<FLDataStream>& stream) { body_ = stream; }
  const std::shared_ptr<FLDataStream>& getBodyStream() const { return body_; }
  // Gives up when no byte moved for this long; 0 = the session's default.
  void setIdleTimeoutMs(long ms) { idleTimeoutMs_ = ms; }
  long getIdleTimeoutMs() const { return idleTimeoutMs_; }

 private:
  std::string method_ = "GET";
  std::shared_ptr<FLDataStream> body_;
  long idleTimeoutMs_ = 0;
};

class FLHttpResponse : public FLHttpMessage {
 public:
  FLHttpResponse(std::string url, int statusCode, std::string statusText, std::string httpVersion)
      : statusCode_(statusCode),
        statusText_(std::move(statusText)),
        httpVersion_(std::move(httpVersion)) {
    url_ = std::move(url);
  }
  long getStatusCode() const { return statusCode_; }
  const std::string& getStatusText() const { return statusText_; }
  const std::string& getHttpVersion() const { return httpVersion_; }
  using FLHttpMessage::appendField;
  // Host only: the fields of a response as read, in order, in one move.
  void takeFields(std::vector<std::pair<std::string, std::string>>&& fields) {
    fields_ = std::move(fields);
    nameCounts_.clear();
    indexed_ = false;
  }

 private:
  int statusCode_;
  std::string statusText_;
  std::string httpVersion_;
};

// One piece of a response body: a view of the library's receive buffer,
// valid only during the onFLHttpReceiveData call that hands it over (the
// object itself is reused for the transfer's next piece). Copy what you keep.
class FLData {
 public:
  FLData(const char* data, size_t size) : data_(data), size_(size) {}
  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  friend class SessionCore;
  const char* data_;
  size_t size_;
};

// A failed transfer: libcurl's code and a message that says what happened.
class FLError {
 public:
  FLError(int code, std::string message) : code_(code), message_(std::move(message)) {}
  int getCode() const { return code_; }
  const std::string& getMessage() const { return message_; }

 private:
  int code_;
  std::string message_;
};

struct FLHttpAuthenticationChallenge {
  std::string scheme;  // "Basic", "Digest", ...
  std::string realm;
};

struct FLHttpMetrics {
  double dnsMs = 0;
  double connectMs = 0;
  double firstByteMs = 0;
  double totalMs = 0;
  int64_t bytesSent = 0;
  int64_t bytesReceived = 0;
  bool reusedConnection = false;
  std::string httpVersion;
};

// Events of one transfer, on the session's event thread, in this order:
// SentCompleted, Response (once), ReceiveData (zero or more), CollectingMetrics,
// then exactly one of Finish or Error. Error may come without a Response.
// After Finish or Error the session never touches the listener again.
class IFLHttpSessionListener {
 public:
  virtual ~IFLHttpSessionListener() = default;
  // The request (with its body) went out; `success` false if it could not.
  virtual void onFLHttpSentCompleted(const FLHttpRequest& request, bool success) = 0;
  // Status line and head fields. Bodies are delivered decoded: a field
  // naming an encoding the bytes no longer have is removed.
  virtual void onFLHttpResponse(const FLHttpRequest& request,
                                const std::shared_ptr<FLHttpResponse>& response) = 0;
  // Redirects are delivered as responses; this is asked only by sessions
  // that follow them, and true follows.
  virtual bool onFLHttpWillRedirection(const FLHttpRequest& from,
                                       const FLHttpRequest& to,
                                       const std::shared_ptr<FLHttpResponse>& response) = 0;
  // The server asked for credentials (401/407); the response follows as is.
  virtual void onFLHttpAuthenticationChallenge(const FLHttpRequest& request,
                                               const FLHttpAuthenticationChallenge& challenge) = 0;
  virtual void onFLHttpReceiveData(const FLHttpRequest& request,
                                   const std::shared_ptr<FLData>& data) = 0;
  virtual void onFLHttpError(const FLHttpRequest& request,
                             const std::shared_ptr<FLError>& error) = 0;
  virtual void onFLHttpCollectingMetrics(const FLHttpRequest& request,
                                         const FLHttpMetrics& metrics) = 0;
  virtual void onFLHttpFinish(const FLHttpRequest& request) = 0;
};

class SessionCore;

class FLHttpSession {
 public:
  // The process-wide session.
  static std::shared_ptr<FLHttpSession> getSession();

  // Starts `request`; its events go to `listener`, which must stay valid
  // until it receives Finish or Error. Any thread.
  void send(const std::shared_ptr<FLHttpRequest>& request, IFLHttpSessionListener* listener);

  // Stops a transfer that has not ended: its listener gets an Error with
  // code 42 (aborted). Any thread; a no-op for an ended transfer.
  void cancel(const std::shared_ptr<FLHttpRequest>& request);

  // Transfers give up on a connection after a connect timeout and when no
  // byte moved for an idle timeout (defaults $VELORA_CONNECT_TIMEOUT_MS, 30 s,
  // and $VELORA_IDLE_TIMEOUT_MS, 60 s), with one Error (code 28). Methods
  // and head fields that are not tokens, and values holding CR, LF or NUL,
  // never reach the wire: the field is left out, a request with such a method
  // fails (code 43); an empty method is a GET.

  explicit FLHttpSession(std::unique_ptr<SessionCore> core);
  ~FLHttpSession();

  // The process-wide session stops its thread when the process exits; from
  // then on send and cancel do nothing.

 private:
  friend void setDefaultTimeouts(long connectMs, long idleMs);
  std::unique_ptr<SessionCore> core_;
};

}  // namespace flume

#endif  // FLUME_FLUME_H
