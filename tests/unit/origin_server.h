// The local origin server (tests/origin/server.js) for C++ tests, and a
// blocking fetch over flume for checking what reached it.
#ifndef VELORA_TESTS_UNIT_ORIGIN_SERVER_H
#define VELORA_TESTS_UNIT_ORIGIN_SERVER_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "flume/flume.h"

namespace velora_test {

// How a test reaches the origin: cleartext HTTP/1.1, or TLS to a listener
// that speaks HTTP/1.1 alone or HTTP/2 (with HTTP/1.1 for clients without h2).
enum class Transport { kHttp, kHttpsH1, kHttpsH2 };

// "http", "https_h1", "https_h2": for test names.
const char* transportName(Transport transport);
// The three, for INSTANTIATE_TEST_SUITE_P.
std::vector<Transport> allTransports();

// TLS counters of the origin since it started.
struct TlsStats {
  int handshakes = 0;
  int resumed = 0;     // handshakes that resumed an earlier session
  int h2Sessions = 0;  // HTTP/2 connections
  int h2Streams = 0;
  int h1Requests = 0;      // HTTP/1.1 requests over TLS
  int refusedReached = 0;  // requests that got through a faulty listener
};

class OriginServer {
 public:
  // Starts it and waits for its ports. It serves TLS with the run's
  // certificates (see ensureTestCertificates).
  explicit OriginServer(Transport transport = Transport::kHttp);
  ~OriginServer();  // closes its stdin: it exits by itself

  Transport transport() const { return transport_; }
  // The port and URLs of `transport`.
  int port() const;
  std::string url(const std::string& path) const;
  std::string origin() const { return url(""); }
  // Always cleartext, whatever the transport: for a second origin, and for
  // the counters below, which must not change what they count.
  std::string httpUrl(const std::string& path) const;
  int tlsPort(Transport transport) const;
  // The same server under another name (localhost): another origin.
  std::string otherOriginUrl(const std::string& path) const;
  // A listener that must be refused: untrusted, selfSigned, expired,
  // wrongHost, tls10 or stall. Its URL names the host its certificate does
  // not (localhost) for wrongHost, 127.0.0.1 for the others.
  int faultPort(const std::string& name) const;
  std::string faultUrl(const std::string& name, const std::string& path = "/") const;

  // How many requests reached `path` so far.
  int count(const std::string& path) const;
  // Body bytes written to requests of `path` so far (/bytes and /delay).
  int64_t sentBytes(const std::string& path) const;
  // Connections open now on every listener (the one asking included).
  int connections() const;
  TlsStats tls() const;

 private:
  Transport transport_;
  pid_t pid_ = -1;
  int stdinFd_ = -1;
  int httpPort_ = 0;
  int httpsPort_ = 0;
  int https1Port_ = 0;
  std::vector<std::pair<std::string, int>> faultPorts_;
};

// A listener of the origin that a client must refuse, and the words of
// libcurl's message that name why.
struct RefusedServer {
  const char* fault;
  const char* cause;
};
// Every kind: untrusted, self-signed, expired, wrong host, TLS 1.0 only.
const std::vector<RefusedServer>& refusedServers();

// Makes the run's certificates (tests/origin/certs.js) once per process
// unless VELORA_TEST_CERTS names them already, and points VELORA_TEST_CERTS
// and VELORA_CA_FILE at them. Call before the first transfer.
void ensureTestCertificates(const std::string& fallbackDir);

// The pattern body the origin serves for /bytes/N.
std::string patternBytes(size_t offset, size_t size);

// A port on which nothing listens.
int refusedPort();

struct FetchResult {
  bool responded = false;
  int status = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int errorCode = 0;  // 0: finished
  std::string errorMessage;
  std::string events;  // one letter per event: S(ent) R(esponse) D(ata) M(etrics) F(inish) E(rror)
};

// The values of header `name` (any case) in arrival order.
std::vector<std::string> headerValues(
    const std::vector<std::pair<std::string, std::string>>& headers,
    const std::string& name);

// Sends `request` on the process session and waits for its end.
FetchResult fetch(const std::shared_ptr<flume::FLHttpRequest>& request);
FetchResult fetch(const std::string& url);

}  // namespace velora_test

#endif  // VELORA_TESTS_UNIT_ORIGIN_SERVER_H
