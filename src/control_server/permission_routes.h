// The routes through which the helper has the user asked for a permission.
#pragma once

#include <expected>
#include <functional>
#include <string>
#include <vector>

#include "control_server/router.h"
#include "platform/permissions.h"

namespace vesko {

/// What came of asking for the permission to automate Messages.
struct MessagesAutomationOutcome {
  AutomationStatus status;  ///< notDetermined while the user has not answered
  bool alreadyGranted = false;
};

/// POST /permissions/messages-automation. `request` is called on workers, several at once, and may
/// wait for the user.
std::vector<Route> permissionRoutes(std::function<MessagesAutomationOutcome()> request);

/// The error is a text for whoever wants to click, type or press just now.
std::expected<void, std::string> mayOperate(PermissionProbes& probes);

/// What an assistant may do must not include saying what it may do: the routes that click, type,
/// press or move windows about are refused while a window is on the screen that only the user may
/// answer. It keeps an assistant from the shortest way and is no wall, since whoever may type can
/// open a terminal at any other time. `probes` outlives the routes.
///
/// A request that waited or takes its time asks mayOperate() itself as it goes on.
std::vector<Route> leavePrivacyToTheUser(std::vector<Route> routes, PermissionProbes& probes);

}  // namespace vesko
