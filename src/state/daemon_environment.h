// What the daemon is told at launch: its whole environment. Pure functions of their inputs, but for
// the launch agents that are read from the disk. Any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/bundle.h"
#include "base/directories.h"
#include "platform/process_host.h"

namespace vesko {

/// What the user has granted, as the daemon is to see it.
struct DaemonGrants {
  bool contacts = false;
  std::optional<std::filesystem::path> contactsFile;  ///< written for this launch
  std::vector<std::string> folders;                   ///< absolute paths
  std::optional<std::filesystem::path> photosLibrary;
};

struct DaemonLaunchInputs {
  Environment ownEnvironment;
  const Bundle& bundle;
  const Directories& directories;
  std::filesystem::path executable;  ///< the application's own; empty when unknown
  pid_t processId;
  std::optional<std::string> relayUrlDefault;  ///< the user default
  std::string computerName;                    ///< may be empty
  std::string hostName;
  std::optional<std::string> pairingCode;
  DaemonGrants grants;
};

std::string relayUrl(const DaemonLaunchInputs& inputs);

/// At most 80 characters. The environment's name as it is; the system's without ".local".
std::string deviceName(const DaemonLaunchInputs& inputs);

/// The label of the user's launch agent whose first argument is `executable`.
std::optional<std::string> launchAgentLabel(const std::filesystem::path& launchAgents,
                                            const std::optional<std::string>& bundleIdentifier,
                                            const std::filesystem::path& executable);

Environment daemonEnvironment(const DaemonLaunchInputs& inputs);

}  // namespace vesko
