// The host's settings for how flume reaches servers: extra trusted roots and
// names answered without DNS. Read once from the environment.
#ifndef FLUME_TRANSPORT_SETTINGS_H
#define FLUME_TRANSPORT_SETTINGS_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

typedef struct x509_st X509;
typedef struct ssl_ctx_st SSL_CTX;

namespace flume {

// Roots trusted beside the system store: the certificates of the PEM file
// VELORA_CA_FILE names (for tests and private deployments).
class ExtraRoots {
 public:
  // Reads `pemFile`; an empty name adds nothing. A file that cannot be read
  // or holds no certificate is logged and adds nothing.
  explicit ExtraRoots(const std::string& pemFile);
  ~ExtraRoots();
  ExtraRoots(const ExtraRoots&) = delete;
  ExtraRoots& operator=(const ExtraRoots&) = delete;

  bool empty() const { return roots_.empty(); }
  size_t size() const { return roots_.size(); }
  // Adds the roots to the store of a TLS context libcurl is about to use.
  void addTo(SSL_CTX* context) const;

 private:
  std::vector<X509*> roots_;
};

// Host names answered with a fixed address instead of DNS, as an /etc/hosts
// line would: VELORA_RESOLVE="name=address,*.suffix=address,...". A name
// starting with "*." stands for every name under that suffix.
class HostMap {
 public:
  explicit HostMap(const std::string& entries);

  bool empty() const { return entries_.empty(); }
  // The address `host` maps to, or "" when it is not mapped.
  std::string addressOf(const std::string& host) const;

 private:
  std::vector<std::pair<std::string, std::string>> entries_;  // lowercase name, address
};

}  // namespace flume

#endif  // FLUME_TRANSPORT_SETTINGS_H
