// The end of this process and what comes after it.
#pragma once

#include <expected>
#include <string>

namespace vesko {

class ApplicationLifetime {
 public:
  virtual ~ApplicationLifetime() = default;

  /// Main thread. Ends the application in its usual order, never before returning, and starts it
  /// anew once it has ended. The error is a text for the log; nothing was begun then.
  virtual std::expected<void, std::string> relaunch() = 0;
};

}  // namespace vesko
