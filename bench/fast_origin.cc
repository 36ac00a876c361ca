#include "fast_origin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace velora_bench {
namespace {

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

}  // namespace

FastOrigin::FastOrigin() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listenFd_, 512) != 0) {
    std::abort();
  }
  socklen_t length = sizeof address;
  ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  patternBuffer();
  acceptor_ = std::thread([this] { acceptLoop(); });
}

FastOrigin::~FastOrigin() {
  stopping_ = true;
  ::shutdown(listenFd_, SHUT_RDWR);
  acceptor_.join();
  for (int fd : fds_)
    ::shutdown(fd, SHUT_RDWR);
  for (auto& connection : connections_)
    connection.join();
  for (int fd : fds_)
    ::close(fd);
  ::close(listenFd_);
}

std::string FastOrigin::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void FastOrigin::acceptLoop() {
  while (!stopping_) {
    pollfd ready{listenFd_, POLLIN, 0};
    if (::poll(&ready, 1, 100) <= 0)
      continue;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      continue;
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    fds_.push_back(fd);
    connections_.emplace_back([this, fd] { serve(fd); });
  }
}

void FastOrigin::serve(int fd) {
  std::string request;
  char buffer[16384];
  const std::string& pattern = patternBuffer();
  while (!stopping_) {
    size_t end = request.find("\r\n\r\n");
    if (end == std::string::npos) {
      ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0)
        return;
      request.append(buffer, static_cast<size_t>(n));
      continue;
    }
    // "GET /bytes/N HTTP/1.1": every request is answered; no body is read.
    size_t path = request.find(' ') + 1;
    size_t size = 0;
    if (request.compare(path, 7, "/bytes/") == 0)
      size = std::strtoull(request.c_str() + path + 7, nullptr, 10);
    request.erase(0, end + 4);
    std::string head =
        "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: " +
        std::to_string(size) + "\r\n\r\n";
    if (!sendAll(fd, head.data(), head.size()))
      return;
    while (size > 0) {
      size_t n = std::min(size, pattern.size());
      if (!sendAll(fd, pattern.data(), n))
        return;
      size -= n;
    }
  }
}

}  // namespace velora_bench
