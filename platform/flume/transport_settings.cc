#include "flume/transport_settings.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cctype>
#include <cstdio>

#include "hilog/log.h"

namespace flume {
namespace {

constexpr char kTag[] = "flume";

bool isHostName(const std::string& name) {
  if (name.empty() || name.size() > 253)
    return false;
  for (unsigned char c : name) {
    if (!std::isalnum(c) && c != '-' && c != '.')
      return false;
  }
  return true;
}

bool isAddress(const std::string& text) {
  unsigned char bytes[16];
  return inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
         inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

std::string trimmed(const std::string& text) {
  size_t start = text.find_first_not_of(" \t");
  size_t end = text.find_last_not_of(" \t");
  return start == std::string::npos ? std::string() : text.substr(start, end - start + 1);
}

std::string lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

ExtraRoots::ExtraRoots(const std::string& pemFile) {
  if (pemFile.empty())
    return;
  FILE* file = std::fopen(pemFile.c_str(), "r");
  if (!file) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "trusted roots file %{public}s cannot be read",
                 pemFile.c_str());
    return;
  }
  // A roots file is a handful of certificates; more than this is not one.
  constexpr size_t kMaxRoots = 256;
  while (roots_.size() < kMaxRoots) {
    X509* root = PEM_read_X509(file, nullptr, nullptr, nullptr);
    if (!root)
      break;
    roots_.push_back(root);
  }
  std::fclose(file);
  ERR_clear_error();  // the end of the file reads as an error
  if (roots_.empty()) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "trusted roots file %{public}s holds no certificate",
                 pemFile.c_str());
  } else {
    OH_LOG_Print(LOG_APP, LOG_INFO, 0, kTag,
                 "%{public}zu roots trusted from %{public}s beside the system's", roots_.size(),
                 pemFile.c_str());
  }
}

ExtraRoots::~ExtraRoots() {
  for (X509* root : roots_)
    X509_free(root);
}

void ExtraRoots::addTo(SSL_CTX* context) const {
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  for (X509* root : roots_)
    X509_STORE_add_cert(store, root);  // a root already there is left as it is
  ERR_clear_error();
}

HostMap::HostMap(const std::string& entries) {
  size_t start = 0;
  while (start < entries.size()) {
    size_t comma = entries.find(',', start);
    std::string entry =
        entries.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    start = comma == std::string::npos ? entries.size() : comma + 1;
    if (entry.empty())
      continue;
    size_t equals = entry.find('=');
    std::string name = lower(trimmed(entry.substr(0, equals)));
    std::string address = equals == std::string::npos ? "" : trimmed(entry.substr(equals + 1));
    std::string bare = name.compare(0, 2, "*.") == 0 ? name.substr(2) : name;
    if (!isHostName(bare) || !isAddress(address)) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                   "VELORA_RESOLVE entry ignored: not name=address (%{public}s)", entry.c_str());
      continue;
    }
    entries_.emplace_back(std::move(name), std::move(address));
  }
}

std::string HostMap::addressOf(const std::string& host) const {
  const std::string name = lower(host);
  for (const auto& [pattern, address] : entries_) {
    if (pattern.compare(0, 2, "*.") == 0) {
      const size_t suffix = pattern.size() - 1;  // ".test" of "*.test"
      if (name.size() > suffix && name.compare(name.size() - suffix, suffix, pattern, 1) == 0)
        return address;
    } else if (name == pattern) {
      return address;
    }
  }
  return std::string();
}

}  // namespace flume
