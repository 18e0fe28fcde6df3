// Turns the lines of local clients (local_protocol.h) into answers and calls. One thread, but for
// the jobs.
#pragma once

#include <functional>
#include <string>

#include "helper/companion_input.h"
#include "helper/control_client.h"
#include "helper/local_protocol.h"
#include "helper/local_server.h"

namespace vesko {

class LocalRequests {
 public:
  /// Borrows everything; `status` is asked for each status request. Jobs end early when `cancelFd`
  /// becomes readable.
  LocalRequests(const CompanionInput& companion, const ControlClient& client, int cancelFd,
                std::function<LocalStatus()> status, HelperReporter& reporter)
      : companion_(companion),
        client_(client),
        cancelFd_(cancelFd),
        status_(std::move(status)),
        reporter_(reporter) {}

  LocalServer::Work begin(BoundedLines::Line line);

  static std::string errorLine(const json::Value& id, LocalErrorCode code, std::string message);

 private:
  LocalServer::Work call(const LocalRequest& request);

  const CompanionInput& companion_;
  const ControlClient& client_;
  int cancelFd_;
  std::function<LocalStatus()> status_;
  HelperReporter& reporter_;
};

}  // namespace vesko
