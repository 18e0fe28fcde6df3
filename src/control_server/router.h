// The route table as data, and the one place that authorises, matches and answers requests.
//
// Order for every request: bearer token, route (exact method and path, first match in table
// order), the route's permission, then its handler: decode, call the tool, encode. The permission
// is asked before the body is decoded, so a malformed body without the permission gets 412.
#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/json_record.h"
#include "control_server/http_request.h"
#include "control_server/http_response.h"
#include "platform/permissions.h"
#include "tools/tool_response.h"

namespace vesko {

enum class Precondition { none, accessibility };

/// Where a handler runs. A handler that only reads memory may answer on the I/O thread; anything
/// that can wait, for a lock or for another process, belongs on a worker.
enum class RunsOn { worker, ioThread };

struct Route {
  std::string_view method;  ///< static storage, as is the path
  std::string_view path;
  Precondition precondition = Precondition::none;
  /// Called on several threads at once.
  std::function<HTTPResponse(const HTTPRequest&)> handler;
  RunsOn runsOn = RunsOn::worker;
};

HTTPResponse invalidRequestResponse();

/// For a route that takes no body: whatever was sent is not looked at.
struct NoBody {};

/// A route from a tool: `tool(const Request&)` returns std::expected<Response, E>, where Response
/// is a record or void (answered with OKResponse), and `mapError(const E&)` makes the answer of a
/// failure, of any status and body.
template <class Request, class Tool, class MapError>
Route toolRoute(std::string_view method, std::string_view path, Precondition precondition,
                Tool tool, MapError mapError) {
  auto call = [tool = std::move(tool),
               mapError = std::move(mapError)](const Request& request) -> HTTPResponse {
    auto result = tool(request);
    if (!result) return mapError(result.error());
    if constexpr (std::is_void_v<typename decltype(result)::value_type>) {
      return jsonResponse(200, OKResponse{});
    } else {
      return jsonResponse(200, *result);
    }
  };
  if constexpr (std::is_same_v<Request, NoBody>) {
    return {method, path, precondition,
            [call = std::move(call)](const HTTPRequest&) { return call(NoBody{}); }};
  } else {
    return {method, path, precondition, [call = std::move(call)](const HTTPRequest& request) {
              const auto decoded = json::decode<Request>(request.body);
              return decoded ? call(*decoded) : invalidRequestResponse();
            }};
  }
}

/// GET /healthz and GET /status. `probes` outlives the routes.
std::vector<Route> coreRoutes(PermissionProbes& probes);

class Router {
 public:
  /// `probes` outlives the router.
  Router(std::vector<Route> routes, std::string_view token, PermissionProbes& probes);

  /// Any thread. The route that may serve the request, or the answer that refuses it (401, 404).
  std::expected<const Route*, HTTPResponse> admit(const HTTPRequest& request) const;

  /// Any thread, several at once. Asks for the route's permission and calls its handler.
  HTTPResponse run(const Route& route, const HTTPRequest& request) const;

 private:
  bool authorized(const HTTPRequest& request) const;

  const std::vector<Route> routes_;
  const std::string authorization_;
  PermissionProbes& probes_;
};

}  // namespace vesko
