// What this machine is called.
#pragma once

#include <string>

namespace vesko {

/// Texts are valid UTF-8, empty when the system has none. Any thread.
class HostNames {
 public:
  virtual ~HostNames() = default;
  /// The name that the owner gave the computer, for people to read.
  virtual std::string computerName() = 0;
  /// The name on the network, as "studio" or "studio.local".
  virtual std::string hostName() = 0;
};

}  // namespace vesko
