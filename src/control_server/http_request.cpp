#include "control_server/http_request.h"

#include <utility>
#include <vector>

#include "base/text.h"
#include "base/utf8.h"

namespace vesko {
namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view headEnd = "\r\n\r\n";

std::string_view takeLine(std::string_view& text) {
  const std::size_t end = text.find(lineEnd);
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + lineEnd.size());
  return line;
}

std::string pathOf(std::string_view target) {
  const std::vector<std::string_view> pieces = splitDroppingEmpty(target, '?');
  return pieces.empty() ? "/" : std::string(pieces.front());
}

bool parseRequestLine(std::string_view line, HTTPRequest& request) {
  const std::vector<std::string_view> words = splitDroppingEmpty(line, ' ');
  if (words.size() != 3 || words[2] != "HTTP/1.1") return false;
  request.method = words[0];
  request.path = pathOf(words[1]);
  return true;
}

bool parseHeaderLine(std::string_view line, HTTPRequest& request) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  std::string name = lowerAscii(trim(line.substr(0, colon)));
  if (name.empty()) return false;
  request.headers.insert_or_assign(std::move(name), std::string(trim(line.substr(colon + 1))));
  return true;
}

}  // namespace

const std::string* HTTPRequest::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? nullptr : &found->second;
}

ParseResult HTTPRequestParser::advance(std::string_view buffered) {
  if (!head_) {
    const std::size_t end = buffered.find(headEnd, searched_);
    if (end == std::string_view::npos) {
      if (buffered.size() > maxHeaderBytes) return ParseFailure{413};
      // A terminator may have begun in the last three bytes.
      if (buffered.size() >= headEnd.size()) searched_ = buffered.size() - (headEnd.size() - 1);
      return ParseIncomplete{};
    }
    if (end > maxHeaderBytes) return ParseFailure{400};
    const auto failure = parseHead(buffered.substr(0, end), end + headEnd.size());
    if (failure) return *failure;
  }
  if (buffered.size() - bodyStart_ < bodyLength_) return ParseIncomplete{};
  HTTPRequest request = std::move(*head_);
  request.body = buffered.substr(bodyStart_, bodyLength_);
  return request;
}

std::optional<ParseFailure> HTTPRequestParser::parseHead(std::string_view text,
                                                         std::size_t bodyStart) {
  if (!isValidUtf8(text)) return ParseFailure{400};
  HTTPRequest request;
  if (!parseRequestLine(takeLine(text), request)) return ParseFailure{400};
  while (!text.empty()) {
    if (!parseHeaderLine(takeLine(text), request)) return ParseFailure{400};
  }
  std::size_t length = 0;
  if (const std::string* value = request.header("content-length")) {
    const std::optional<std::int64_t> number = parseDecimal(*value);
    if (!number || *number < 0) return ParseFailure{400};
    if (std::cmp_greater(*number, maxBodyBytes)) return ParseFailure{413};
    length = static_cast<std::size_t>(*number);
  }
  head_ = std::move(request);
  bodyStart_ = bodyStart;
  bodyLength_ = length;
  return std::nullopt;
}

}  // namespace vesko
