#include "control_server/http_response.h"

#include <fmt/format.h>

#include <iterator>

namespace vesko {

std::string_view reasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 412:
      return "Precondition Failed";
    case 413:
      return "Payload Too Large";
    case 422:
      return "Unprocessable Content";
    default:
      return "Internal Server Error";
  }
}

std::string serialize(const HTTPResponse& response) {
  std::string out;
  out.reserve(256 + response.body.size());
  fmt::format_to(std::back_inserter(out),
                 "HTTP/1.1 {} {}\r\n"
                 "Content-Type: application/json\r\n"
                 "Content-Length: {}\r\n"
                 "Connection: close\r\n",
                 response.status, reasonPhrase(response.status), response.body.size());
  for (const std::string& line : response.additionalHeaders) {
    out += line;
    out += "\r\n";
  }
  out += "\r\n";
  out += response.body;
  return out;
}

HTTPResponse errorResponse(int status, std::string_view message) {
  HTTPResponse response = jsonResponse(status, ErrorBody{std::string(message)});
  if (status == 401) response.additionalHeaders.emplace_back("WWW-Authenticate: Bearer");
  return response;
}

HTTPResponse permissionResponse(std::string_view needs) {
  return jsonResponse(412, PermissionBody{std::string(needs)});
}

HTTPResponse elementGoneResponse() {
  return jsonResponse(200, ToolFailureResponse{.error = {.message = "ax_element_gone"}});
}

}  // namespace vesko
