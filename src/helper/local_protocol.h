// The helper's local protocol: how programs of the same user reach the desktop through it.
//
// Transport: the Unix stream socket `veskoctl.sock` in the helper's state directory. Every message
// is one line of JSON (UTF-8) that ends in a newline. A connection carries any number of requests;
// they are carried out one after another, in the order in which they came. Whoever wants calls to
// run side by side opens several connections. A client may close its sending side and still reads
// the answers to what it has sent.
//
// Requests:
//   {"id":1,"op":"status"}
//   {"id":2,"op":"call","method":"POST","path":"/capture","body":{"target":"display"},"timeout":20}
// "id" is a number or a text and comes back in the answer; without one the answer's id is null.
// "body" may be left out: a POST then sends an empty object. "timeout" is in seconds, from above 0
// to maxCallSeconds, and counts from the moment the control server has been reached.
//
// Answers:
//   {"id":2,"ok":true,"status":200,"body":{...}}         the control server's answer, whatever its
//                                                        status says; status requests have none
//   {"id":2,"ok":false,"error":{"code":"not_ready","message":"..."}}
// The codes are listed at LocalErrorCode.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/json_record.h"

namespace vesko {

/// A longer request is answered with invalid_request and dropped.
inline constexpr std::size_t maxLocalRequestBytes = 8 << 20;
/// How deeply the companion's answers may nest: two levels for each of the elements that a snapshot
/// may hold one in the other, and a few more.
inline constexpr std::size_t maxAnswerDepth = 8192;
/// A further client is told busy and closed.
inline constexpr std::size_t maxLocalClients = 128;
inline constexpr std::chrono::seconds defaultCallTime{60};
inline constexpr int maxCallSeconds = 600;

enum class LocalErrorCode {
  invalidRequest,  ///< not understood; nothing was done
  busy,            ///< too many clients
  notReady,        ///< the companion has not announced its control server yet
  unreachable,     ///< the control server does not take the connection
  untrusted,       ///< it shows another certificate than announced; nothing was sent
  timedOut,        ///< no complete answer in time; the request may have been carried out
  badAnswer,       ///< an answer that is cut short or malformed; as above
  cancelled        ///< the helper ends; as above
};

template <>
struct json::EnumNames<LocalErrorCode> {
  static constexpr std::array values{
      std::pair{LocalErrorCode::invalidRequest, std::string_view("invalid_request")},
      std::pair{LocalErrorCode::busy, std::string_view("busy")},
      std::pair{LocalErrorCode::notReady, std::string_view("not_ready")},
      std::pair{LocalErrorCode::unreachable, std::string_view("unreachable")},
      std::pair{LocalErrorCode::untrusted, std::string_view("untrusted")},
      std::pair{LocalErrorCode::timedOut, std::string_view("timed_out")},
      std::pair{LocalErrorCode::badAnswer, std::string_view("bad_answer")},
      std::pair{LocalErrorCode::cancelled, std::string_view("cancelled")}};
};

struct LocalRequest {
  json::Value id{};  ///< handled apart from the fields, because it may be missing
  std::string op{};
  std::optional<std::string> method{};
  std::optional<std::string> path{};
  std::optional<json::Value> body{};
  std::optional<double> timeout{};

  static constexpr auto jsonFields() {
    using R = LocalRequest;
    return std::tuple{json::field("op", &R::op), json::field("method", &R::method),
                      json::field("path", &R::path), json::field("body", &R::body),
                      json::field("timeout", &R::timeout)};
  }
};

struct LocalError {
  LocalErrorCode code = LocalErrorCode::invalidRequest;
  std::string message;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("code", &LocalError::code),
                      json::field("message", &LocalError::message)};
  }
};

/// The body of a status answer.
struct LocalStatus {
  std::string version;
  std::int64_t pid = 0;
  std::string deviceId;
  std::string deviceName;
  bool controlServer = false;  ///< the companion has announced its control server
  std::vector<std::string> grantedDirs;
  std::optional<std::string> photosLibrary;

  static constexpr auto jsonFields() {
    using R = LocalStatus;
    return std::tuple{json::field("version", &R::version),
                      json::field("pid", &R::pid),
                      json::field("device_id", &R::deviceId),
                      json::field("device_name", &R::deviceName),
                      json::field("control_server", &R::controlServer),
                      json::field("granted_dirs", &R::grantedDirs),
                      json::field("photos_library", &R::photosLibrary)};
  }
};

}  // namespace vesko
