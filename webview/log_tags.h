// The tags of the module's log lines and entries: its contract with the
// people who read the logs. Kept in one place so they stay exactly as they are.
#ifndef VELORA_WEBVIEW_LOG_TAGS_H
#define VELORA_WEBVIEW_LOG_TAGS_H

namespace velora {
namespace log_tags {

inline constexpr char kWeb[] = "Velora/web";
inline constexpr char kPage[] = "Velora/Page";
inline constexpr char kNapiHelper[] = "Velora/napi_helper";
inline constexpr char kWebRequest[] = "Velora/web_request";
inline constexpr char kNetwork[] = "Velora/Network";
inline constexpr char kFlumeRequest[] = "Velora/flume_request";
inline constexpr char kFlumeRequestListener[] = "Velora/flume_request_listener";
inline constexpr char kInterceptManager[] = "Velora/intercept_manager";
inline constexpr char kPrefetchNetwork[] = "Velora/prefetch_network";
inline constexpr char kPrefetchRequestCache[] = "Velora/prefetch_request_cache";
inline constexpr char kPrefetchRequestListener[] = "Velora/prefetch_request_listener";
inline constexpr char kSsrRequest[] = "Velora/ssr_request";
inline constexpr char kSsrRequestListener[] = "Velora/ssr_request_listener";
inline constexpr char kFirstChunkStorage[] = "Velora/first_chunk_storage";
inline constexpr char kFirstChunkHandler[] = "Velora/first_chunk_handler";
inline constexpr char kSsrAbility[] = "Velora/ssr_ability";
inline constexpr char kApiInfo[] = "Velora/api_info";

}  // namespace log_tags
}  // namespace velora

#endif  // VELORA_WEBVIEW_LOG_TAGS_H
