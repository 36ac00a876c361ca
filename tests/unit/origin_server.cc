#include "origin_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>

extern char** environ;

namespace velora_test {

OriginServer::OriginServer() {
  int in[2], out[2];
  if (pipe(in) != 0 || pipe(out) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, in[1]);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::string script = std::string(VELORA_SOURCE_DIR) + "/tests/origin/server.js";
  char node[] = "node";
  char* argv[] = {node, script.data(), nullptr};
  if (posix_spawnp(&pid_, "node", &actions, nullptr, argv, environ) != 0) {
    throw std::runtime_error("cannot start node for the origin server");
  }
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  stdinFd_ = in[1];
  std::string line;
  char c;
  while (read(out[0], &c, 1) == 1 && c != '\n')
    line += c;
  close(out[0]);
  port_ = nlohmann::json::parse(line).at("port").get<int>();
}

OriginServer::~OriginServer() {
  close(stdinFd_);
  int status = 0;
  waitpid(pid_, &status, 0);
}

std::string OriginServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

int OriginServer::count(const std::string& path) const {
  FetchResult result = fetch(url("/__count?path=" + path));
  return nlohmann::json::parse(result.body).at("count").get<int>();
}

int64_t OriginServer::sentBytes(const std::string& path) const {
  FetchResult result = fetch(url("/__sent?path=" + path));
  return nlohmann::json::parse(result.body).at("bytes").get<int64_t>();
}

int OriginServer::connections() const {
  FetchResult result = fetch(url("/__connections"));
  return nlohmann::json::parse(result.body).at("count").get<int>();
}

std::string patternBytes(size_t offset, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>(((offset + i) * 31 + 7) & 255);
  return bytes;
}

std::vector<std::string> headerValues(
    const std::vector<std::pair<std::string, std::string>>& headers,
    const std::string& name) {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0)
      values.push_back(value);
  }
  return values;
}

int refusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);  // nothing listens there now
  return ntohs(address.sin_port);
}

namespace {

// Deletes itself after the last event, like the module's listeners.
class Collector : public flume::IFLHttpSessionListener {
 public:
  explicit Collector(std::shared_ptr<std::promise<FetchResult>> done) : done_(std::move(done)) {}

  void onFLHttpSentCompleted(const flume::FLHttpRequest&, bool) override { result.events += 'S'; }
  void onFLHttpResponse(const flume::FLHttpRequest&,
                        const std::shared_ptr<flume::FLHttpResponse>& response) override {
    result.events += 'R';
    result.responded = true;
    result.status = static_cast<int>(response->getStatusCode());
    result.headers = response->getHeadFields();
  }
  bool onFLHttpWillRedirection(const flume::FLHttpRequest&,
                               const flume::FLHttpRequest&,
                               const std::shared_ptr<flume::FLHttpResponse>&) override {
    return false;
  }
  void onFLHttpAuthenticationChallenge(const flume::FLHttpRequest&,
                                       const flume::FLHttpAuthenticationChallenge&) override {}
  void onFLHttpReceiveData(const flume::FLHttpRequest&,
                           const std::shared_ptr<flume::FLData>& data) override {
    if (result.events.back() != 'D')
      result.events += 'D';
    result.body.append(data->data(), data->size());
  }
  void onFLHttpError(const flume::FLHttpRequest&,
                     const std::shared_ptr<flume::FLError>& error) override {
    result.events += 'E';
    result.errorCode = error->getCode();
    result.errorMessage = error->getMessage();
    end();
  }
  void onFLHttpCollectingMetrics(const flume::FLHttpRequest&,
                                 const flume::FLHttpMetrics&) override {
    result.events += 'M';
  }
  void onFLHttpFinish(const flume::FLHttpRequest&) override {
    result.events += 'F';
    end();
  }

  FetchResult result;

 private:
  void end() {
    auto done = done_;
    done->set_value(std::move(result));
    delete this;
  }

  std::shared_ptr<std::promise<FetchResult>> done_;
};

}  // namespace

FetchResult fetch(const std::shared_ptr<flume::FLHttpRequest>& request) {
  auto done = std::make_shared<std::promise<FetchResult>>();
  auto result = done->get_future();
  flume::FLHttpSession::getSession()->send(request, new Collector(done));
  return result.get();
}

FetchResult fetch(const std::string& url) {
  return fetch(flume::FLHttpRequest::create(url));
}

}  // namespace velora_test
