// However a request is cut into pieces, the parser that resumes decides as one that sees the same
// bytes for the first time, and what it accepts is within the limits.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "control_server/http_request.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void checkAccepted(const vesko::HTTPRequest& request, std::string_view bytes) {
  require(!request.method.empty() && !request.path.empty());
  require(request.path.find('?') == std::string::npos);
  require(request.body.size() <= vesko::maxBodyBytes && request.body.size() < bytes.size());
  for (const auto& [name, value] : request.headers)
    require(!name.empty() && name.find(':') == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first two bytes seed the sizes of the pieces.
  std::uint32_t state = data[0] | (std::uint32_t{data[1]} << 8);
  const std::uint32_t longest = state % 64 + 1;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);

  vesko::HTTPRequestParser resumed;
  vesko::ParseResult last;
  std::size_t given = 0;
  while (given < bytes.size() && std::holds_alternative<vesko::ParseIncomplete>(last)) {
    state = state * 1664525 + 1013904223;
    given = std::min<std::size_t>(bytes.size(), given + (state >> 16) % longest + 1);
    last = resumed.advance(bytes.substr(0, given));
    require(last == vesko::parseHTTPRequest(bytes.substr(0, given)));
  }
  if (const auto* request = std::get_if<vesko::HTTPRequest>(&last)) {
    checkAccepted(*request, bytes);
    // What follows a complete request changes nothing.
    require(last == vesko::parseHTTPRequest(bytes));
  }
  return 0;
}
