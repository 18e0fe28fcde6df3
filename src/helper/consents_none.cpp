#include "helper/consents.h"

namespace vesko {

decltype(CommandEnvironment::consents) desktopConsents() {
  return {};
}

}  // namespace vesko
