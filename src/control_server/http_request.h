// One HTTP/1.1 request and the parser for the small subset of RFC 9112 that the control server
// speaks: CR LF line ends, Content-Length bodies, no chunking, no continuation lines. Pure; any
// thread, but a parser object belongs to one connection.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vesko {

struct HTTPRequest {
  std::string method;  ///< as received; compared case-sensitively
  std::string path;    ///< the target without its query
  /// Names are lower-case, names and values trimmed; the last of a repeated name wins.
  std::map<std::string, std::string, std::less<>> headers;
  std::string body;

  /// Null when absent. `name` is lower-case.
  const std::string* header(std::string_view name) const;
  bool operator==(const HTTPRequest&) const = default;
};

inline constexpr std::size_t maxHeaderBytes = 32'768;
inline constexpr std::size_t maxBodyBytes = 1'048'576;

struct ParseIncomplete {
  bool operator==(const ParseIncomplete&) const = default;
};
struct ParseFailure {
  int status = 400;  ///< 400 or 413
  bool operator==(const ParseFailure&) const = default;
};
using ParseResult = std::variant<ParseIncomplete, ParseFailure, HTTPRequest>;

/// Parses a request that arrives in pieces: the work done over all calls is linear in the bytes,
/// however they are cut.
class HTTPRequestParser {
 public:
  /// `buffered` is everything received so far: each call's bytes begin with the former call's.
  /// After a failure or a complete request the parser is spent. Bytes after the body are ignored.
  ParseResult advance(std::string_view buffered);

 private:
  std::optional<ParseFailure> parseHead(std::string_view text, std::size_t bodyStart);

  std::size_t searched_ = 0;  ///< the terminator does not start before this offset
  std::optional<HTTPRequest> head_;
  std::size_t bodyStart_ = 0;
  std::size_t bodyLength_ = 0;
};

/// The whole of what was received, parsed at once.
inline ParseResult parseHTTPRequest(std::string_view buffered) {
  return HTTPRequestParser().advance(buffered);
}

}  // namespace vesko
