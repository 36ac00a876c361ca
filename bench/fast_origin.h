// A native HTTP/1.1 origin for benchmarks: keep-alive, one thread per
// connection, bodies written from a prebuilt buffer, so that it serves
// loopback clients at several GB/s and the figures measure the client.
//   GET /bytes/N   N bytes of the test pattern (byte i = (i*31+7)&255)
#ifndef VELORA_BENCH_FAST_ORIGIN_H
#define VELORA_BENCH_FAST_ORIGIN_H

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace velora_bench {

class FastOrigin {
 public:
  FastOrigin();   // listens on a free loopback port
  ~FastOrigin();  // stops accepting and closes its connections
  FastOrigin(const FastOrigin&) = delete;
  FastOrigin& operator=(const FastOrigin&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;

 private:
  void acceptLoop();
  void serve(int fd);

  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::vector<std::thread> connections_;  // acceptor thread only, joined at the end
  std::vector<int> fds_;                  // likewise
};

}  // namespace velora_bench

#endif  // VELORA_BENCH_FAST_ORIGIN_H
