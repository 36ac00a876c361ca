#include "first_chunk/first_chunk_storage.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "log_tags.h"
#include "tern/base64.h"
#include "tern/executor_service.h"
#include "tern/string_utils.h"
#include "tern/time_utils.h"
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

constexpr char kBase64Members[] = "fcc-base64";
constexpr std::chrono::hours kSweepEvery{1};

// Every write and removal of this process, and the index with them.
std::mutex& storeMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

// Steady milliseconds of the last sweep; none until the first one.
std::atomic<int64_t> g_lastSweepMs{-1};

int64_t steadyMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// record[member] = text, base64-encoded when JSON cannot hold its bytes.
void putText(nlohmann::json& record, const char* member, const std::string& text) {
  if (isUtf8(text)) {
    record[member] = text;
    return;
  }
  record[member] = tern::base64::encode(text);
  record[kBase64Members].push_back(member);
}

std::string getText(const nlohmann::json& record, const char* member) {
  std::string text = record.at(member).get<std::string>();
  auto encoded = record.find(kBase64Members);
  if (encoded != record.end() && encoded->is_array() &&
      std::find(encoded->begin(), encoded->end(), member) != encoded->end()) {
    return tern::base64::decode(text);
  }
  return text;
}

// The JSON object stored under `key`, or an empty one when there is none.
// A value that does not parse (a crash, an older run, another process) is
// logged and read as empty, so that the next write replaces it.
nlohmann::json storedObject(const std::optional<std::string>& stored, const std::string& key) {
  if (stored && !stored->empty()) {
    try {
      nlohmann::json value = parseJson(*stored);
      if (value.is_object())
        return value;
      logFailure("corruptRecord", key, "stored value is not a JSON object");
    } catch (const std::exception& e) {
      logFailure("corruptRecord", key, e.what());
    }
  }
  return nlohmann::json::object();
}

// The latest expiry among the records of a page.
double latestExpiry(const nlohmann::json& root) {
  double latest = 0;
  for (const auto& record : root) {
    if (record.is_object()) {
      auto expiry = record.find("fcc-expire-time");
      if (expiry != record.end() && expiry->is_number())
        latest = std::max(latest, expiry->get<double>());
    }
  }
  return latest;
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
  if (context->getHtmlLength() > kMaxHtmlBytes) {
    tide::Log::build(tide::kWarn, kLogTag)
        .event("tooLarge")
        .key("storageKey")
        .value(storageKey_)
        .key("length")
        .value(context->getHtmlLength())
        .key("limit")
        .value(kMaxHtmlBytes)
        .done();
    return false;
  }
  try {
    // The rule names the record and the URL is matched as text: neither
    // can be encoded the way the chunk can.
    if (!isUtf8(context->getRule()) || !isUtf8(context->getUrl()))
      throw std::invalid_argument("the rule or the URL is not UTF-8");
    std::lock_guard<std::mutex> lock(storeMutex());
    nlohmann::json root = storedObject(STORAGE->get(storageKey_), storageKey_);
    if (context->isEnable()) {
      nlohmann::json record = {
          {"fcc-enable", true},
          {"fcc-url-query-rule", context->getRule()},
          {"html-byte-size", context->getHtmlLength()},
          {"fcc-url", context->getUrl()},
          {"fcc-expire-time", context->getExpiredTime()},
      };
      putText(record, "fcc-html", context->getHtml());
      putText(record, "fcc-version", context->getVersion());
      root[context->getRule()] = std::move(record);
    } else {
      // The server switched the cache off for this rule only.
      root.erase(context->getRule());
    }
    bool result =
        root.empty() ? STORAGE->remove(storageKey_) : STORAGE->put(storageKey_, root.dump());
    updateIndex(root.empty() ? 0 : latestExpiry(root));
    tide::Log::build(tide::kInfo, kLogTag)
        .event("write")
        .key("storageKey")
        .value(storageKey_)
        .key("context")
        .value(context->toLogString())
        .key("result")
        .value(result)
        .done();
    sweepIfDue();
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
      std::shared_ptr<FirstChunkContext> context;
      std::string cacheUrl;
      try {
        cacheUrl = record.at("fcc-url").get<std::string>();
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
        context = std::make_shared<FirstChunkContext>();
        context->setHtml(getText(record, "fcc-html"));
        context->setRule(record.at("fcc-url-query-rule").get<std::string>());
        context->setVersion(getText(record, "fcc-version"));
        context->setUrl(cacheUrl);
        context->setExpiredTime(record.at("fcc-expire-time").get<double>());
        context->setEnable(record.at("fcc-enable").get<bool>());
      } catch (const std::exception& e) {
        // One bad record does not hide the others.
        logFailure("readFail", storageKey_, e.what());
        continue;
      }
      if (!context->isValidStorageContext()) {
        readEntry(storageKey_, "context not valid")
            .key("success")
            .value(false)
            .key("context")
            .value(context->toLogString())
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
          .value(context->toLogString())
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
  bool success;
  {
    std::lock_guard<std::mutex> lock(storeMutex());
    success = STORAGE->remove(storageKey_);
    updateIndex(0);
  }
  tide::Log::build(tide::kInfo, kLogTag)
      .event("remove")
      .key("storageKey")
      .value(storageKey_)
      .key("success")
      .value(success)
      .done();
}

// ---- The index of pages, under storeMutex() ----

nlohmann::json FirstChunkStorage::readIndex() {
  return storedObject(STORAGE->get(kIndexKey), kIndexKey);
}

void FirstChunkStorage::updateIndex(double expiry) {
  nlohmann::json index = readIndex();
  if (expiry > 0)
    index[storageKey_] = expiry;
  else
    index.erase(storageKey_);
  if (index.size() > kMaxPages) {
    // Full: the pages that expire soonest make room.
    std::vector<std::pair<double, std::string>> pages;
    for (const auto& [key, value] : index.items()) {
      if (key != storageKey_)
        pages.emplace_back(value.is_number() ? value.get<double>() : 0, key);
    }
    std::sort(pages.begin(), pages.end());
    size_t excess = index.size() - kMaxPages;
    for (size_t i = 0; i < excess && i < pages.size(); ++i) {
      STORAGE->remove(pages[i].second);
      index.erase(pages[i].second);
    }
    tide::Log::build(tide::kInfo, kLogTag).event("evict").key("pages").value(excess).done();
  }
  STORAGE->put(kIndexKey, index.dump());
}

void FirstChunkStorage::sweep() {
  g_lastSweepMs = steadyMs();
  size_t removed = 0;
  try {
    std::lock_guard<std::mutex> lock(storeMutex());
    nlohmann::json index = readIndex();
    const double now = static_cast<double>(tern::currentTimeMillis());
    for (auto it = index.begin(); it != index.end();) {
      if (!it.value().is_number() || it.value().get<double>() < now) {
        STORAGE->remove(it.key());
        it = index.erase(it);
        ++removed;
      } else {
        ++it;
      }
    }
    if (removed > 0)
      STORAGE->put(kIndexKey, index.dump());
  } catch (const std::exception& e) {
    logFailure("sweepFail", kIndexKey, e.what());
  }
  tide::Log::build(tide::kInfo, kLogTag).event("sweep").key("removed").value(removed).done();
}

void FirstChunkStorage::sweepSoon() {
  int64_t last = g_lastSweepMs;
  int64_t now = steadyMs();
  if (last >= 0 && now - last < std::chrono::milliseconds(kSweepEvery).count())
    return;
  // One sweep per period, whoever asks.
  if (!g_lastSweepMs.compare_exchange_strong(last, now))
    return;
  tern::ExecutorService::of("Velora", TERN_HERE).post(tern::Fiber([] { sweep(); }));
}

void FirstChunkStorage::sweepIfDue() {
  // "Due" counts from the first sweep, at start-up; sweepSoon() keeps the hour.
  if (g_lastSweepMs >= 0)
    sweepSoon();
}

}  // namespace velora
