// Responses of the control server: the record, its bytes on the wire, and the bodies that every
// route shares. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/json_record.h"

namespace vesko {

struct HTTPResponse {
  int status = 200;
  std::string body;
  std::vector<std::string> additionalHeaders;  ///< whole lines without their line ends
  bool operator==(const HTTPResponse&) const = default;
};

/// "Internal Server Error" for every status the control server has no phrase for, 403 included.
std::string_view reasonPhrase(int status);

/// Status line, headers in a fixed order and the body (RFC 9112).
std::string serialize(const HTTPResponse& response);

struct ErrorBody {
  std::string message;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("message", &ErrorBody::message)};
  }
};

/// Names the missing permission: "accessibility", "screen_recording" or "messages_automation".
struct PermissionBody {
  std::string needs;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("needs", &PermissionBody::needs)};
  }
};

struct ToolErrorBody {
  std::string code = "tool_error";
  std::string message;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("code", &ToolErrorBody::code),
                      json::field("message", &ToolErrorBody::message)};
  }
};

/// The body of a tool failure that is an ordinary outcome and travels with status 200.
struct ToolFailureResponse {
  bool ok = false;
  ToolErrorBody error;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("ok", &ToolFailureResponse::ok),
                      json::field("error", &ToolFailureResponse::error)};
  }
};

inline constexpr std::string_view encodingFailedBody = R"({"message":"response encoding failed"})";

/// A record as the body; one that JSON cannot express is replaced by encodingFailedBody.
template <json::Record T>
HTTPResponse jsonResponse(int status, const T& record) {
  auto body = json::encode(record);
  return {status, body ? std::move(*body) : std::string(encodingFailedBody), {}};
}

/// An ErrorBody; 401 also gets its WWW-Authenticate line.
HTTPResponse errorResponse(int status, std::string_view message);

/// 412 with a PermissionBody.
HTTPResponse permissionResponse(std::string_view needs);

/// 200 with a ToolFailureResponse: the accessibility element that a request names is gone.
HTTPResponse elementGoneResponse();

}  // namespace vesko
