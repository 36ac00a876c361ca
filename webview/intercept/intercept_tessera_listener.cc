#include "intercept/intercept_tessera_listener.h"

#include "intercept/intercept_manager.h"

namespace velora {

void InterceptTesseraListener::onConfigUpdate(const std::string&,
                                              const std::map<std::string, std::string>&) {
  // The update's own arguments are not trusted to be complete: read the
  // namespace again, as at start.
  InterceptManager::getInstance().updateTesseraConfigFromRemote();
}

}  // namespace velora
