// A native origin for benchmarks: keep-alive, one thread per connection,
// bodies written from a prebuilt buffer, so that it serves loopback clients
// at several GB/s and the figures measure the client.
//   GET /bytes/N   N bytes of the test pattern (byte i = (i*31+7)&255)
// It always speaks HTTP/1.1 in cleartext. Given a certificate, it also
// listens for TLS on two more ports: one that picks h2 by ALPN (http/1.1
// for a client that offers only that), and one that speaks http/1.1 alone,
// as a server without HTTP/2 does. It counts the TLS handshakes it
// completes on each, full and resumed.
#ifndef VELORA_BENCH_FAST_ORIGIN_H
#define VELORA_BENCH_FAST_ORIGIN_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;

namespace velora_bench {

enum class Wire { kHttp, kHttpsH2, kHttpsH1 };

// "http://127.0.0.1:PORT/path", or https for the TLS wires.
std::string originUrl(Wire wire, int port, const std::string& path);

struct Handshakes {
  long full = 0;
  long resumed = 0;
};

class FastOrigin {
 public:
  // Listens on free loopback ports: cleartext only, or with a PEM
  // certificate chain and its key, the two TLS ports too.
  explicit FastOrigin(const std::string& certFile = "", const std::string& keyFile = "");
  ~FastOrigin();  // stops accepting and closes its connections
  FastOrigin(const FastOrigin&) = delete;
  FastOrigin& operator=(const FastOrigin&) = delete;

  // 0 for a TLS wire the origin was made without.
  int port(Wire wire = Wire::kHttp) const;
  std::string url(const std::string& path, Wire wire = Wire::kHttp) const;
  // Handshakes completed so far on a TLS wire's port.
  Handshakes handshakes(Wire wire) const;

 private:
  struct Listener {
    Wire wire = Wire::kHttp;
    int fd = -1;
    int port = 0;
    SSL_CTX* tls = nullptr;
    std::atomic<long> full{0};
    std::atomic<long> resumed{0};
  };

  void listen(Wire wire, SSL_CTX* tls);
  const Listener* listener(Wire wire) const;
  void acceptLoop();
  void serve(int fd, Listener* listener);

  std::vector<std::unique_ptr<Listener>> listeners_;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::vector<std::thread> connections_;  // acceptor thread only, joined at the end
  std::vector<int> fds_;                  // likewise
};

}  // namespace velora_bench

#endif  // VELORA_BENCH_FAST_ORIGIN_H
