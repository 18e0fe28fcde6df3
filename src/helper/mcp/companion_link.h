// Calls of the companion's routes for many requests at once, over connections to the helper that
// are kept and replaced when the helper was started again.
//
// Any thread; a call blocks its own thread only.
#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "base/mutex.h"
#include "helper/local_client.h"
#include "helper/mcp/call_context.h"

namespace vesko::mcp {

struct LinkError {
  enum class Kind {
    unreachable,    ///< no helper, or no companion behind it: nothing was done
    refused,        ///< the companion's own answer: nothing was done
    elementGone,    ///< likewise, because the element does not exist any more
    noApplication,  ///< likewise, because the application does not run or does not exist
    silent,         ///< likewise, because the application or its elements do not answer now
    unknown,        ///< no usable answer: it may have been done
    cancelled,
  };

  Kind kind = Kind::unknown;
  int status = 0;            ///< of the companion's answer; 0 without one
  std::string message = {};  ///< what happened and what to do next, for an assistant to read
};

class CompanionLink {
 public:
  /// Where the helper's socket may be, in the order of looking.
  explicit CompanionLink(std::vector<std::filesystem::path> sockets)
      : sockets_(std::move(sockets)) {}

  std::expected<json::Value, LinkError> call(
      CallContext& context, const std::string& path, json::Object body,
      std::chrono::milliseconds timeout = std::chrono::seconds(30), const char* method = "POST");
  /// The helper's own word on itself.
  std::expected<json::Value, LinkError> helperStatus(CallContext& context);

 private:
  using Exchange = std::function<std::expected<LocalAnswer, LocalClientError>(LocalClient&)>;

  std::expected<json::Value, LinkError> exchange(CallContext& context, const Exchange& exchange);
  std::expected<LocalClient, LinkError> connection();

  const std::vector<std::filesystem::path> sockets_;
  Mutex mutex_;
  std::vector<LocalClient> idle_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko::mcp
