#include "origin_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>

extern char** environ;

namespace velora_test {

const char* transportName(Transport transport) {
  switch (transport) {
    case Transport::kHttp:
      return "http";
    case Transport::kHttpsH1:
      return "https_h1";
    case Transport::kHttpsH2:
      return "https_h2";
  }
  return "?";
}

std::vector<Transport> allTransports() {
  return {Transport::kHttp, Transport::kHttpsH1, Transport::kHttpsH2};
}

void ensureTestCertificates(const std::string& fallbackDir) {
  const char* given = std::getenv("VELORA_TEST_CERTS");
  std::string dir = given && *given ? given : fallbackDir + "/certs";
  std::string command = "env -u LD_PRELOAD node '" + std::string(VELORA_SOURCE_DIR) +
                        "/tests/origin/certs.js' '" + dir + "' >/dev/null";
  if (std::system(command.c_str()) != 0)
    throw std::runtime_error("cannot make the test certificates (is openssl installed?)");
  setenv("VELORA_TEST_CERTS", dir.c_str(), 1);
  setenv("VELORA_CA_FILE", (dir + "/ca.pem").c_str(), 0);
}

OriginServer::OriginServer(Transport transport) : transport_(transport) {
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
  nlohmann::json ports = nlohmann::json::parse(line);
  httpPort_ = ports.at("port").get<int>();
  httpsPort_ = ports.value("httpsPort", 0);
  https1Port_ = ports.value("https1Port", 0);
  if (ports.contains("faults")) {
    for (const auto& [name, port] : ports["faults"].items())
      faultPorts_.emplace_back(name, port.get<int>());
  }
  if (transport_ != Transport::kHttp && httpsPort_ == 0)
    throw std::runtime_error("the origin serves no TLS: VELORA_TEST_CERTS is not set");
}

int OriginServer::port() const {
  return transport_ == Transport::kHttp ? httpPort_ : tlsPort(transport_);
}

int OriginServer::tlsPort(Transport transport) const {
  return transport == Transport::kHttpsH1 ? https1Port_ : httpsPort_;
}

const std::vector<RefusedServer>& refusedServers() {
  static const std::vector<RefusedServer> servers = {
      {"untrusted", "unable to get local issuer certificate"},
      {"selfSigned", "self-signed certificate"},
      {"expired", "certificate has expired"},
      {"wrongHost", "no alternative certificate subject name matches"},
      {"tls10", "SSL"},
  };
  return servers;
}

std::string OriginServer::otherOriginUrl(const std::string& path) const {
  std::string other = url(path);
  return other.replace(other.find("127.0.0.1"), 9, "localhost");
}

std::string OriginServer::faultUrl(const std::string& name, const std::string& path) const {
  const std::string host = name == "wrongHost" ? "localhost" : "127.0.0.1";
  return "https://" + host + ":" + std::to_string(faultPort(name)) + path;
}

int OriginServer::faultPort(const std::string& name) const {
  for (const auto& [fault, port] : faultPorts_) {
    if (fault == name)
      return port;
  }
  throw std::runtime_error("no fault listener " + name);
}

OriginServer::~OriginServer() {
  close(stdinFd_);
  int status = 0;
  waitpid(pid_, &status, 0);
}

std::string OriginServer::url(const std::string& path) const {
  const char* scheme = transport_ == Transport::kHttp ? "http://" : "https://";
  return scheme + std::string("127.0.0.1:") + std::to_string(port()) + path;
}

std::string OriginServer::httpUrl(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(httpPort_) + path;
}

namespace {

nlohmann::json askJson(const std::string& url) {
  return nlohmann::json::parse(fetch(url).body);
}

}  // namespace

int OriginServer::count(const std::string& path) const {
  return askJson(httpUrl("/__count?path=" + path)).at("count").get<int>();
}

int64_t OriginServer::sentBytes(const std::string& path) const {
  return askJson(httpUrl("/__sent?path=" + path)).at("bytes").get<int64_t>();
}

int OriginServer::connections() const {
  return askJson(httpUrl("/__connections")).at("count").get<int>();
}

TlsStats OriginServer::tls() const {
  nlohmann::json stats = askJson(httpUrl("/__tls"));
  TlsStats tls;
  tls.handshakes = stats.at("handshakes").get<int>();
  tls.resumed = stats.at("resumed").get<int>();
  tls.h2Sessions = stats.at("h2Sessions").get<int>();
  tls.h2Streams = stats.at("h2Streams").get<int>();
  tls.h1Requests = stats.at("h1Requests").get<int>();
  tls.refusedReached = stats.at("refusedReached").get<int>();
  return tls;
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
