#include "fast_origin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nghttp2/nghttp2.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace velora_bench {
namespace {

// The most plaintext one TLS record carries.
constexpr size_t kRecord = 16384;
// Bytes gathered before they go to the socket: HTTP/2 frames before they are
// encrypted, and records before they are sent.
constexpr size_t kBatch = 256 * 1024;

// 1 MiB of the pattern; its period (256) divides the size, so any body is
// this buffer written again and again.
const std::string& patternBuffer() {
  static const std::string buffer = [] {
    std::string bytes(1 << 20, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<char>((i * 31 + 7) & 255);
    return bytes;
  }();
  return buffer;
}

// Appends the body's bytes [offset, offset + size).
void appendPattern(std::string& out, uint64_t offset, size_t size) {
  const std::string& pattern = patternBuffer();
  while (size > 0) {
    size_t at = offset % pattern.size();
    size_t n = std::min(size, pattern.size() - at);
    out.append(pattern, at, n);
    offset += n;
    size -= n;
  }
}

// The N of "/bytes/N", 0 for any other path.
uint64_t bodySize(const char* path, size_t length) {
  uint64_t size = 0;
  if (length > 7 && std::strncmp(path, "/bytes/", 7) == 0)
    std::from_chars(path + 7, path + length, size);
  return size;
}

bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0)
      return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Cleartext: each write goes to the socket as it comes.
class PlainConnection {
 public:
  explicit PlainConnection(int fd) : fd_(fd) {}
  ssize_t read(char* out, size_t max) { return ::recv(fd_, out, max, 0); }
  bool write(const char* data, size_t size) { return sendAll(fd_, data, size); }
  bool flush() { return true; }

 private:
  int fd_;
};

// TLS, blocking. Writes are cut into full records (a short one waits for
// the next write or the flush), and records reach the socket through a
// buffer that the flush empties: a 1 KiB response with its head is one
// record and one send, a large body full records sent 256 KiB at a time.
class TlsConnection {
 public:
  TlsConnection(int fd, SSL_CTX* context) : fd_(fd), ssl_(SSL_new(context)) {
    BIO* socket = BIO_new_socket(fd, BIO_NOCLOSE);
    BIO_up_ref(socket);  // one reference for each direction
    buffered_ = BIO_push(BIO_new(BIO_f_buffer()), socket);
    BIO_set_write_buffer_size(buffered_, kBatch);
    SSL_set_bio(ssl_, socket, buffered_);
    SSL_set_read_ahead(ssl_, 1);
  }
  ~TlsConnection() { SSL_free(ssl_); }
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  bool accept() {
    bool done = SSL_accept(ssl_) == 1;
    ERR_clear_error();
    return done;
  }
  bool resumed() const { return SSL_session_reused(ssl_) == 1; }
  bool speaksH2() const {
    const unsigned char* protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(ssl_, &protocol, &length);
    return length == 2 && std::memcmp(protocol, "h2", 2) == 0;
  }

  ssize_t read(char* out, size_t max) {
    int n = SSL_read(ssl_, out, static_cast<int>(std::min<size_t>(max, INT_MAX)));
    return n > 0 ? n : -1;
  }
  // Input is waiting, in OpenSSL's buffer or the socket's.
  bool readable() const {
    if (SSL_has_pending(ssl_))
      return true;
    pollfd ready{fd_, POLLIN, 0};
    return ::poll(&ready, 1, 0) == 1;
  }

  bool write(const char* data, size_t size) {
    if (!staged_.empty() || size < kRecord) {
      size_t n = std::min(size, kRecord - staged_.size());
      staged_.append(data, n);
      data += n;
      size -= n;
      if (staged_.size() < kRecord)
        return true;
      if (!encrypt(staged_.data(), staged_.size()))
        return false;
      staged_.clear();
    }
    size_t whole = size - size % kRecord;
    if (whole > 0 && !encrypt(data, whole))
      return false;
    staged_.append(data + whole, size - whole);
    return true;
  }
  bool flush() {
    if (!staged_.empty() && !encrypt(staged_.data(), staged_.size()))
      return false;
    staged_.clear();
    return BIO_flush(buffered_) == 1;
  }

 private:
  bool encrypt(const char* data, size_t size) {
    while (size > 0) {
      int n = SSL_write(ssl_, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
      if (n <= 0)
        return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  int fd_;
  SSL* ssl_;
  BIO* buffered_ = nullptr;
  std::string staged_;
};

template <typename Connection>
void serveHttp1(Connection& connection, const std::atomic<bool>& stopping) {
  std::string request;
  char buffer[16384];
  const std::string& pattern = patternBuffer();
  while (!stopping) {
    size_t end = request.find("\r\n\r\n");
    if (end == std::string::npos) {
      ssize_t n = connection.read(buffer, sizeof buffer);
      if (n <= 0)
        return;
      request.append(buffer, static_cast<size_t>(n));
      continue;
    }
    // "GET /bytes/N HTTP/1.1": every request is answered; no body is read.
    size_t path = request.find(' ') + 1;
    size_t pathEnd = request.find(' ', path);
    uint64_t size =
        bodySize(request.c_str() + path, (pathEnd == std::string::npos ? end : pathEnd) - path);
    request.erase(0, end + 4);
    std::string head =
        "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: " +
        std::to_string(size) + "\r\n\r\n";
    if (!connection.write(head.data(), head.size()))
      return;
    while (size > 0) {
      size_t n = std::min<uint64_t>(size, pattern.size());
      if (!connection.write(pattern.data(), n))
        return;
      size -= n;
    }
    if (!connection.flush())
      return;
  }
}

// HTTP/2 by nghttp2 on one TLS connection. Frames are gathered into batches
// of about 256 KiB, body bytes copied once, from the pattern straight into
// the batch. Incoming frames (requests, window updates) are read whenever
// the client has sent some, between batches.
class Http2Connection {
 public:
  explicit Http2Connection(TlsConnection& connection) : connection_(connection) {
    nghttp2_session_callbacks* callbacks = nullptr;
    nghttp2_session_callbacks_new(&callbacks);
    nghttp2_session_callbacks_set_send_callback(callbacks, &Http2Connection::onSend);
    nghttp2_session_callbacks_set_send_data_callback(callbacks, &Http2Connection::onSendData);
    nghttp2_session_callbacks_set_on_begin_headers_callback(callbacks,
                                                            &Http2Connection::onBeginHeaders);
    nghttp2_session_callbacks_set_on_header_callback(callbacks, &Http2Connection::onHeader);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks,
                                                         &Http2Connection::onFrameReceived);
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks,
                                                           &Http2Connection::onStreamClosed);
    nghttp2_session_server_new(&session_, callbacks, this);
    nghttp2_session_callbacks_del(callbacks);
    nghttp2_settings_entry settings[] = {{NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, 100}};
    nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings, 1);
  }
  ~Http2Connection() { nghttp2_session_del(session_); }
  Http2Connection(const Http2Connection&) = delete;
  Http2Connection& operator=(const Http2Connection&) = delete;

  void run(const std::atomic<bool>& stopping) {
    char buffer[65536];
    while (!stopping) {
      while (nghttp2_session_want_write(session_)) {
        if (nghttp2_session_send(session_) != 0)
          return;
        if (out_.empty())
          break;  // what is left waits for the client's window
        if (!connection_.write(out_.data(), out_.size()) || !connection_.flush())
          return;
        out_.clear();
        if (connection_.readable())
          break;
      }
      if (!nghttp2_session_want_read(session_) && !nghttp2_session_want_write(session_))
        return;
      ssize_t n = connection_.read(buffer, sizeof buffer);
      if (n <= 0 || nghttp2_session_mem_recv(session_, reinterpret_cast<uint8_t*>(buffer),
                                             static_cast<size_t>(n)) < 0) {
        return;
      }
    }
  }

 private:
  struct Stream {
    uint64_t size = 0;
    uint64_t taken = 0;  // by frames made
    uint64_t sent = 0;   // by frames written out
  };

  static Http2Connection* self(void* user) { return static_cast<Http2Connection*>(user); }

  static ssize_t onSend(nghttp2_session*, const uint8_t* data, size_t length, int, void* user) {
    std::string& out = self(user)->out_;
    if (out.size() >= kBatch)
      return NGHTTP2_ERR_WOULDBLOCK;
    out.append(reinterpret_cast<const char*>(data), length);
    return static_cast<ssize_t>(length);
  }

  // A DATA frame: its header, then the body's next bytes (no padding is
  // ever asked for).
  static int onSendData(nghttp2_session*,
                        nghttp2_frame*,
                        const uint8_t* header,
                        size_t length,
                        nghttp2_data_source* source,
                        void* user) {
    std::string& out = self(user)->out_;
    if (out.size() >= kBatch)
      return NGHTTP2_ERR_WOULDBLOCK;
    auto* stream = static_cast<Stream*>(source->ptr);
    out.append(reinterpret_cast<const char*>(header), 9);
    appendPattern(out, stream->sent, length);
    stream->sent += length;
    return 0;
  }

  static ssize_t readBody(nghttp2_session*,
                          int32_t,
                          uint8_t*,
                          size_t length,
                          uint32_t* flags,
                          nghttp2_data_source* source,
                          void*) {
    auto* stream = static_cast<Stream*>(source->ptr);
    size_t n = static_cast<size_t>(std::min<uint64_t>(length, stream->size - stream->taken));
    stream->taken += n;
    *flags |= NGHTTP2_DATA_FLAG_NO_COPY;
    if (stream->taken == stream->size)
      *flags |= NGHTTP2_DATA_FLAG_EOF;
    return static_cast<ssize_t>(n);
  }

  static int onBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* user) {
    if (frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST)
      self(user)->streams_[frame->hd.stream_id] = Stream();
    return 0;
  }

  static int onHeader(nghttp2_session*,
                      const nghttp2_frame* frame,
                      const uint8_t* name,
                      size_t nameLength,
                      const uint8_t* value,
                      size_t valueLength,
                      uint8_t,
                      void* user) {
    auto& streams = self(user)->streams_;
    auto stream = streams.find(frame->hd.stream_id);
    if (stream != streams.end() && nameLength == 5 && std::memcmp(name, ":path", 5) == 0)
      stream->second.size = bodySize(reinterpret_cast<const char*>(value), valueLength);
    return 0;
  }

  // Every request is answered once it has ended; no body is read.
  static int onFrameReceived(nghttp2_session* session, const nghttp2_frame* frame, void* user) {
    if ((frame->hd.type != NGHTTP2_HEADERS && frame->hd.type != NGHTTP2_DATA) ||
        !(frame->hd.flags & NGHTTP2_FLAG_END_STREAM)) {
      return 0;
    }
    auto& streams = self(user)->streams_;
    auto stream = streams.find(frame->hd.stream_id);
    if (stream == streams.end())
      return 0;
    std::string length = std::to_string(stream->second.size);
    auto field = [](const char* name, const std::string& value) {
      return nghttp2_nv{reinterpret_cast<uint8_t*>(const_cast<char*>(name)),
                        reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())),
                        std::strlen(name), value.size(), NGHTTP2_NV_FLAG_NONE};
    };
    static const std::string kOk = "200", kType = "application/octet-stream";
    nghttp2_nv fields[] = {field(":status", kOk), field("content-type", kType),
                           field("content-length", length)};
    nghttp2_data_provider body;
    body.source.ptr = &stream->second;  // the map's nodes stay where they are
    body.read_callback = &Http2Connection::readBody;
    nghttp2_submit_response(session, frame->hd.stream_id, fields, 3, &body);
    return 0;
  }

  static int onStreamClosed(nghttp2_session*, int32_t id, uint32_t, void* user) {
    self(user)->streams_.erase(id);
    return 0;
  }

  TlsConnection& connection_;
  nghttp2_session* session_ = nullptr;
  std::string out_;
  std::unordered_map<int32_t, Stream> streams_;
};

// ALPN: the first of the listener's protocols that the client offers.
int selectProtocol(SSL*,
                   const unsigned char** out,
                   unsigned char* outLength,
                   const unsigned char* offered,
                   unsigned int offeredLength,
                   void* ours) {
  const auto* protocols = static_cast<const std::string*>(ours);
  unsigned char* selected = nullptr;
  if (SSL_select_next_proto(&selected, outLength,
                            reinterpret_cast<const unsigned char*>(protocols->data()),
                            static_cast<unsigned int>(protocols->size()), offered,
                            offeredLength) != OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_NOACK;
  }
  *out = selected;
  return SSL_TLSEXT_ERR_OK;
}

const std::string kH2First("\x02h2\x08http/1.1", 12);
const std::string kHttp1Only("\x08http/1.1", 9);

SSL_CTX* makeContext(const std::string& certFile, const std::string& keyFile, Wire wire) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  // AES-128-GCM first: the cheapest cipher for both ends keeps the origin's
  // share of the machine small, and leaves more of the client's time to
  // what the client itself does.
  SSL_CTX_set_ciphersuites(context,
                           "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                           "TLS_CHACHA20_POLY1305_SHA256");
  SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE);
  if (SSL_CTX_use_certificate_chain_file(context, certFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    std::fprintf(stderr, "fast_origin: cannot use %s / %s\n", certFile.c_str(), keyFile.c_str());
    std::abort();
  }
  const std::string* protocols = wire == Wire::kHttpsH2 ? &kH2First : &kHttp1Only;
  SSL_CTX_set_alpn_select_cb(context, selectProtocol, const_cast<std::string*>(protocols));
  return context;
}

}  // namespace

std::string originUrl(Wire wire, int port, const std::string& path) {
  return (wire == Wire::kHttp ? "http://127.0.0.1:" : "https://127.0.0.1:") + std::to_string(port) +
         path;
}

FastOrigin::FastOrigin(const std::string& certFile, const std::string& keyFile) {
  patternBuffer();
  listen(Wire::kHttp, nullptr);
  if (!certFile.empty()) {
    listen(Wire::kHttpsH2, makeContext(certFile, keyFile, Wire::kHttpsH2));
    listen(Wire::kHttpsH1, makeContext(certFile, keyFile, Wire::kHttpsH1));
  }
  acceptor_ = std::thread([this] { acceptLoop(); });
}

FastOrigin::~FastOrigin() {
  stopping_ = true;
  for (auto& listener : listeners_)
    ::shutdown(listener->fd, SHUT_RDWR);
  acceptor_.join();
  for (int fd : fds_)
    ::shutdown(fd, SHUT_RDWR);
  for (auto& connection : connections_)
    connection.join();
  for (int fd : fds_)
    ::close(fd);
  for (auto& listener : listeners_) {
    ::close(listener->fd);
    SSL_CTX_free(listener->tls);
  }
}

void FastOrigin::listen(Wire wire, SSL_CTX* tls) {
  auto listener = std::make_unique<Listener>();
  listener->wire = wire;
  listener->tls = tls;
  listener->fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(listener->fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener->fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener->fd, 512) != 0) {
    std::abort();
  }
  socklen_t length = sizeof address;
  ::getsockname(listener->fd, reinterpret_cast<sockaddr*>(&address), &length);
  listener->port = ntohs(address.sin_port);
  listeners_.push_back(std::move(listener));
}

const FastOrigin::Listener* FastOrigin::listener(Wire wire) const {
  for (const auto& listener : listeners_) {
    if (listener->wire == wire)
      return listener.get();
  }
  return nullptr;
}

int FastOrigin::port(Wire wire) const {
  const Listener* found = listener(wire);
  return found ? found->port : 0;
}

std::string FastOrigin::url(const std::string& path, Wire wire) const {
  return originUrl(wire, port(wire), path);
}

Handshakes FastOrigin::handshakes(Wire wire) const {
  const Listener* found = listener(wire);
  return found ? Handshakes{found->full.load(), found->resumed.load()} : Handshakes{};
}

void FastOrigin::acceptLoop() {
  std::vector<pollfd> ready;
  for (const auto& listener : listeners_)
    ready.push_back({listener->fd, POLLIN, 0});
  while (!stopping_) {
    if (::poll(ready.data(), ready.size(), 100) <= 0)
      continue;
    for (size_t i = 0; i < ready.size(); ++i) {
      if (!(ready[i].revents & POLLIN))
        continue;
      int fd = ::accept4(ready[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0)
        continue;
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      fds_.push_back(fd);
      Listener* listener = listeners_[i].get();
      connections_.emplace_back([this, fd, listener] { serve(fd, listener); });
    }
  }
}

void FastOrigin::serve(int fd, Listener* listener) {
  if (!listener->tls) {
    PlainConnection connection(fd);
    serveHttp1(connection, stopping_);
  } else {
    TlsConnection connection(fd, listener->tls);
    if (connection.accept()) {
      ++(connection.resumed() ? listener->resumed : listener->full);
      if (connection.speaksH2()) {
        Http2Connection http2(connection);
        http2.run(stopping_);
      } else {
        serveHttp1(connection, stopping_);
      }
    }
  }
  // The client sees the end at once; the descriptor is closed with the origin.
  ::shutdown(fd, SHUT_RDWR);
}

}  // namespace velora_bench
