#include "first_chunk/first_chunk_storage.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "log_tags.h"
#include "tern/string_utils.h"
#include "tide_logger/log.h"
#include "utils/json_utils.h"

namespace velora {
namespace {

constexpr const char* kLogTag = log_tags::kFirstChunkStorage;
constexpr char kMatchQuery[] = "fcc_match_query";
constexpr char kUnknown[] = "unkown";

void logFailure(const char* event, const std::string& storageKey, const char* what) {
  tide::Log::build(tide::kError, kLogTag)
      .event(event)
      .key("storageKey")
      .value(storageKey)
      .key("what")
      .value(what && *what ? what : kUnknown)
      .done();
}

tide::LogBuilder readEntry(const std::string& storageKey, const char* msg) {
  auto entry = tide::Log::build(tide::kInfo, kLogTag);
  entry.event("read").key("storageKey").value(storageKey).key("msg").value(msg);
  return entry;
}

}  // namespace

// Opened when the module loads; the database itself on first use.
std::shared_ptr<tern::ICacheService> FirstChunkStorage::STORAGE =
    tern::ICacheService::of("VeloraFirstChunk");

FirstChunkStorage::FirstChunkStorage(const std::string& url)
    : parser_(std::make_shared<UrlParser>(url)) {
  if (!parser_->isValid()) {
    tide::Log::build(tide::kError, kLogTag)
        .event("invalidUrl")
        .key("storageKey")
        .value(storageKey_)
        .done();
    return;
  }
  UrlParser key = *parser_;
  std::string rule = key.getQuery(kMatchQuery);
  std::string value = rule.empty() ? std::string() : key.getQuery(rule);
  key.clearQuery();
  // A rule naming several parameters ("a,b") is no parameter name: those
  // pages share the key of the bare URL and read() tells them apart.
  if (!value.empty())
    key.appendQueryParameter(rule, value);
  storageKey_ = key.build();
  tide::Log::build(tide::kInfo, kLogTag)
      .event("construct")
      .key("storageKey")
      .value(storageKey_)
      .done();
}

bool FirstChunkStorage::write(const std::shared_ptr<FirstChunkContext>& context) {
  if (!context || storageKey_.empty() || context->getHtml().empty())
    return false;
  try {
    nlohmann::json root = nlohmann::json::object();
    std::optional<std::string> stored = STORAGE->get(storageKey_);
    if (stored && !stored->empty())
      root = parseJson(*stored);
    if (context->isEnable()) {
      root[context->getRule()] = {
          {"fcc-enable", true},
          {"fcc-html", context->getHtml()},
          {"fcc-url-query-rule", context->getRule()},
          {"fcc-version", context->getVersion()},
          {"html-byte-size", context->getHtmlLength()},
          {"fcc-url", context->getUrl()},
          {"fcc-expire-time", context->getExpiredTime()},
      };
    } else {
      // The server switched the cache off for this rule only.
      if (!root.is_object())
        throw std::runtime_error("stored value is not a JSON object");
      root.erase(context->getRule());
    }
    bool result = STORAGE->put(storageKey_, root.dump());
    tide::Log::build(tide::kInfo, kLogTag)
        .event("write")
        .key("storageKey")
        .value(storageKey_)
        .key("context")
        .value(context->toString())
        .key("result")
        .value(result)
        .done();
    return result;
  } catch (const std::exception& e) {
    logFailure("writeFail", storageKey_, e.what());
  } catch (...) {
    logFailure("writeFail", storageKey_, nullptr);
  }
  return false;
}

std::shared_ptr<FirstChunkContext> FirstChunkStorage::read(const std::string& url) {
  try {
    UrlParser requested(url);
    std::optional<std::string> stored = STORAGE->get(storageKey_);
    if (!stored || stored->empty()) {
      readEntry(storageKey_, "storage key not found").done();
      return nullptr;
    }
    nlohmann::json root = parseJson(*stored);
    if (!root.is_object())
      throw std::runtime_error("stored value is not a JSON object");
    if (root.empty()) {
      readEntry(storageKey_, "specified context empty").done();
      return nullptr;
    }
    for (const auto& [rule, record] : root.items()) {
      const std::string cacheUrl = record.at("fcc-url").get<std::string>();
      UrlParser cached(cacheUrl);
      bool match = true;
      for (const std::string& name : tern::string_utils::split(rule, ",")) {
        if (requested.getQuery(name) != cached.getQuery(name)) {
          match = false;
          break;
        }
      }
      if (!match) {
        readEntry(storageKey_, "query not match")
            .key("cacheUrl")
            .value(cacheUrl)
            .key("rule")
            .value(rule)
            .done();
        continue;
      }
      auto context = std::make_shared<FirstChunkContext>();
      context->setHtml(record.at("fcc-html").get<std::string>());
      context->setRule(record.at("fcc-url-query-rule").get<std::string>());
      context->setVersion(record.at("fcc-version").get<std::string>());
      context->setUrl(cacheUrl);
      context->setExpiredTime(record.at("fcc-expire-time").get<double>());
      context->setEnable(record.at("fcc-enable").get<bool>());
      if (!context->isValidStorageContext()) {
        readEntry(storageKey_, "context not valid")
            .key("success")
            .value(false)
            .key("context")
            .value(context->toString())
            .done();
        return nullptr;
      }
      tide::Log::build(tide::kInfo, kLogTag)
          .event("read")
          .key("storageKey")
          .value(storageKey_)
          .key("success")
          .value(true)
          .key("context")
          .value(context->toString())
          .done();
      return context;
    }
    readEntry(storageKey_, "context not found").done();
  } catch (const std::exception& e) {
    logFailure("readFail", storageKey_, e.what());
  } catch (...) {
    logFailure("readFail", storageKey_, nullptr);
  }
  return nullptr;
}

void FirstChunkStorage::remove() {
  if (storageKey_.empty())
    return;
  bool success = STORAGE->remove(storageKey_);
  tide::Log::build(tide::kInfo, kLogTag)
      .event("remove")
      .key("storageKey")
      .value(storageKey_)
      .key("success")
      .value(success)
      .done();
}

}  // namespace velora
