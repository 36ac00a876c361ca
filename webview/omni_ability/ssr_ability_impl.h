// The ability object the module offers to the ability framework: manage the
// first-chunk cache of SSR pages from outside the script layer.
#ifndef VELORA_WEBVIEW_OMNI_ABILITY_SSR_ABILITY_IMPL_H
#define VELORA_WEBVIEW_OMNI_ABILITY_SSR_ABILITY_IMPL_H

#include "omni/idl/ssr_ability.h"

namespace velora {

// No state of its own. Every operation answers exactly once; an empty page
// URL answers "INVALID_PARAM" / "url empty" and touches nothing.
class SSRAbility : public omni_idl::ISSRAbility {
 public:
  // Not offered by this module: answered at once with an empty result.
  void prerender(std::shared_ptr<omni::AbilityContext> context,
                 const omni::AbilityData& data,
                 Callback callback) override;
  void preload(std::shared_ptr<omni::AbilityContext> context,
               const omni::AbilityData& data,
               Callback callback) override;

  // Fetches the page's first chunk through a first-chunk prefetch, unless a
  // fresh one is stored and no update is forced. The result carries the
  // response status and whether a chunk is stored afterwards.
  void preloadFirstChunk(std::shared_ptr<omni::AbilityContext> context,
                         const omni_idl::SSRPreloadFirstChunkParams& params,
                         Callback callback) override;
  // Writes the chunk of the context's page (in the background). A page with
  // no record gets a new, enabled one under the query rule its URL names
  // (fcc_match_query), or the empty rule: the caller vouches for the chunk.
  void setFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                          const omni_idl::SSRSetFCCParams& params,
                          Callback callback) override;
  // Removes every chunk of the context's page.
  void removeFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                             Callback callback) override;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_OMNI_ABILITY_SSR_ABILITY_IMPL_H
