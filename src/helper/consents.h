// How veskoctl reaches the desktop's own record of the user's consents: directly and never through
// the helper, whose protocol has no words for it. Any thread.
#pragma once

#include "helper/command_session.h"

namespace vesko {

/// Empty on a desktop that keeps permissions itself.
decltype(CommandEnvironment::consents) desktopConsents();

}  // namespace vesko
