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

class OriginServer {
 public:
  OriginServer();   // starts it and waits for its port
  ~OriginServer();  // closes its stdin: it exits by itself

  int port() const { return port_; }
  std::string url(const std::string& path) const;
  // How many requests reached `path` so far.
  int count(const std::string& path) const;
  // Body bytes written to requests of `path` so far (/bytes and /delay).
  int64_t sentBytes(const std::string& path) const;
  // Connections open now (the one asking included).
  int connections() const;

 private:
  pid_t pid_ = -1;
  int stdinFd_ = -1;
  int port_ = 0;
};

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
