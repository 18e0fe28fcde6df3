// Reads one HTTP/1.1 answer (RFC 9112) of the control server, piece by piece. Any thread, one at a
// time.
//
// Strict on purpose, since the peer always answers in one form: a Content-Length is needed, and
// transfer codings, folded header lines and interim (1xx) answers are refused.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

struct HttpResponse {
  int status = 0;  ///< 200 to 599
  std::string body;
};

class HttpResponseReader {
 public:
  enum class State { incomplete, complete, malformed, tooLarge };

  static constexpr std::size_t maxHeaderBytes = 32 * 1024;

  explicit HttpResponseReader(std::size_t bodyLimit) : maxBodyBytes_(bodyLimit) {}

  /// Any state but incomplete is final; bytes after a complete answer are ignored.
  State feed(std::string_view bytes);
  State state() const { return state_; }
  /// The answer, once complete.
  HttpResponse take() { return std::move(response_); }

 private:
  State readHead(std::string_view head);

  std::size_t maxBodyBytes_;
  State state_ = State::incomplete;
  std::string head_;
  std::optional<std::size_t> bodyBytes_;  ///< known once the head is read
  HttpResponse response_;
};

}  // namespace vesko
