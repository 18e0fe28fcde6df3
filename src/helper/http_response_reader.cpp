#include "helper/http_response_reader.h"

#include <algorithm>

#include "base/text.h"

namespace vesko {
namespace {

constexpr std::string_view headEnd = "\r\n\r\n";

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// A token of RFC 9110, section 5.6.2.
bool isToken(std::string_view text) {
  constexpr std::string_view others = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::ranges::all_of(text, [&](char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           others.find(c) != std::string_view::npos;
  });
}

bool isFieldText(std::string_view text) {
  return std::ranges::all_of(text, [](char c) {
    return c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != 0x7F);
  });
}

std::optional<int> readStatusLine(std::string_view line) {
  constexpr std::string_view version = "HTTP/1.1 ";
  if (!line.starts_with(version) || !isFieldText(line)) return std::nullopt;
  line.remove_prefix(version.size());
  if (line.size() < 3 || !std::ranges::all_of(line.substr(0, 3), isDigit)) return std::nullopt;
  if (line.size() > 3 && line[3] != ' ') return std::nullopt;
  const int status = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
  if (status < 200 || status > 599) return std::nullopt;
  return status;
}

}  // namespace

HttpResponseReader::State HttpResponseReader::feed(std::string_view bytes) {
  if (state_ != State::incomplete) return state_;
  if (!bodyBytes_) {
    // The terminator may straddle two pieces.
    const std::size_t from = head_.size() < headEnd.size() ? 0 : head_.size() - headEnd.size() + 1;
    const std::size_t before = head_.size();
    head_.append(bytes.substr(0, maxHeaderBytes + headEnd.size() - head_.size()));
    const auto end = head_.find(headEnd, from);
    if (end == std::string::npos) {
      if (head_.size() >= maxHeaderBytes + headEnd.size()) state_ = State::tooLarge;
      return state_;
    }
    state_ = readHead(std::string_view(head_).substr(0, end));
    if (state_ != State::incomplete) return state_;
    bytes.remove_prefix(end + headEnd.size() - before);
    response_.body.reserve(*bodyBytes_);
  }
  response_.body.append(bytes.substr(0, *bodyBytes_ - response_.body.size()));
  if (response_.body.size() == *bodyBytes_) state_ = State::complete;
  return state_;
}

HttpResponseReader::State HttpResponseReader::readHead(std::string_view head) {
  const auto firstEnd = head.find("\r\n");
  const auto status = readStatusLine(head.substr(0, firstEnd));
  if (!status) return State::malformed;
  std::optional<std::string_view> length;
  while (head.find("\r\n") != std::string_view::npos) {
    head.remove_prefix(head.find("\r\n") + 2);
    const std::string_view line = head.substr(0, head.find("\r\n"));
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)) || !isFieldText(line))
      return State::malformed;
    const std::string name = lowerAscii(line.substr(0, colon));
    const std::string_view value = trim(line.substr(colon + 1));
    if (name == "transfer-encoding") return State::malformed;
    if (name != "content-length") continue;
    if (length && *length != value) return State::malformed;
    length = value;
  }
  if (!length || length->empty() || !std::ranges::all_of(*length, isDigit)) return State::malformed;
  const auto bytes = parseDecimal(*length);
  if (!bytes || static_cast<std::uint64_t>(*bytes) > maxBodyBytes_) return State::tooLarge;
  response_.status = *status;
  bodyBytes_ = static_cast<std::size_t>(*bytes);
  return State::incomplete;
}

}  // namespace vesko
