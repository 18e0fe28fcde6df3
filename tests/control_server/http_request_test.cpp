#include "control_server/http_request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vesko {
namespace {

int statusOf(const ParseResult& result) {
  if (const auto* failure = std::get_if<ParseFailure>(&result)) return failure->status;
  return std::holds_alternative<HTTPRequest>(result) ? 200 : 0;
}

/// A request whose header terminator starts at `offset`.
std::string withTerminatorAt(std::size_t offset) {
  std::string text = "GET / HTTP/1.1\r\nX: ";
  text.append(offset - text.size(), 'a');
  return text + "\r\n\r\n";
}

std::string withLength(std::string_view value, std::size_t bodyBytes) {
  return "POST / HTTP/1.1\r\nContent-Length: " + std::string(value) + "\r\n\r\n" +
         std::string(bodyBytes, 'b');
}

TEST(HTTPRequestParser, StatusOfWholeBuffers) {
  struct Case {
    std::string name, bytes;
    int status;  // 0: incomplete, 200: complete
  };
  const std::vector<Case> cases{
      {"empty", "", 0},
      {"no terminator", "GET / HTTP/1.1\r\n", 0},
      {"complete", "GET / HTTP/1.1\r\n\r\n", 200},
      {"nothing before the terminator", "\r\n\r\n", 400},
      {"empty first line", "\r\nGET / HTTP/1.1\r\n\r\n", 400},
      {"doubled spaces", "GET  /   HTTP/1.1\r\n\r\n", 200},
      {"two words", "GET HTTP/1.1\r\n\r\n", 400},
      {"four words", "GET / x HTTP/1.1\r\n\r\n", 400},
      {"HTTP/1.0", "GET / HTTP/1.0\r\n\r\n", 400},
      {"lower-case version", "GET / http/1.1\r\n\r\n", 400},
      {"header without colon", "GET / HTTP/1.1\r\nHost\r\n\r\n", 400},
      {"header that begins with its colon", "GET / HTTP/1.1\r\n: x\r\n\r\n", 400},
      {"blank header name", "GET / HTTP/1.1\r\n \t: x\r\n\r\n", 400},
      {"empty header value", "GET / HTTP/1.1\r\nHost:\r\n\r\n", 200},
      {"invalid UTF-8", "GET / HTTP/1.1\r\nX: \xff\r\n\r\n", 400},
      {"UTF-8", "GET / HTTP/1.1\r\nX: \xc3\xa9\r\n\r\n", 200},
      {"terminator at the limit", withTerminatorAt(maxHeaderBytes), 200},
      {"terminator beyond the limit", withTerminatorAt(maxHeaderBytes + 1), 400},
      {"unterminated at the limit", std::string(maxHeaderBytes, 'a'), 0},
      {"unterminated beyond the limit", std::string(maxHeaderBytes + 1, 'a'), 413},
      {"negative length", withLength("-1", 0), 400},
      {"length of letters", withLength("12abc", 12), 400},
      {"empty length", withLength("", 0), 400},
      {"length with a sign", withLength("+5", 5), 200},
      {"length with two signs", withLength("+-5", 5), 400},
      {"length with blanks", withLength(" \t5 ", 5), 200},
      {"length short of one", withLength("5", 4), 0},
      {"length beyond 64 bits", withLength("99999999999999999999", 0), 400},
      {"longest body", withLength("1048576", maxBodyBytes), 200},
      {"longest body short of one", withLength("1048576", maxBodyBytes - 1), 0},
      {"body too long", withLength("1048577", 0), 413},
      {"last length counts", "POST / HTTP/1.1\r\nContent-Length: x\r\ncontent-length: 1\r\n\r\nb",
       200},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(statusOf(parseHTTPRequest(c.bytes)), c.status);
  }
}

TEST(HTTPRequestParser, Paths) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"/ax/find?x=1", "/ax/find"}, {"/a?b?c", "/a"}, {"?", "/"}, {"??", "/"},
      {"?/status", "/status"},      {"/", "/"},       {"*", "*"},
  };
  for (const auto& [target, path] : cases) {
    SCOPED_TRACE(target);
    const auto result = parseHTTPRequest("GET " + target + " HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(std::holds_alternative<HTTPRequest>(result));
    EXPECT_EQ(std::get<HTTPRequest>(result).path, path);
  }
}

const std::string request =
    "post /ax/find?q HTTP/1.1\r\nX-One: 1\r\n  X-ONE \t:\t two : 2 \r\n"
    "Content-Length: 7\r\n\r\n{\r\n\r\n}.";

TEST(HTTPRequestParser, CutAtEveryByteGivesTheSameRequest) {
  const HTTPRequest expected{
      .method = "post",
      .path = "/ax/find",
      .headers = {{"x-one", "two : 2"}, {"content-length", "7"}},
      .body = "{\r\n\r\n}.",
  };
  for (std::size_t cut = 0; cut < request.size(); ++cut) {
    SCOPED_TRACE(cut);
    HTTPRequestParser parser;
    EXPECT_EQ(parser.advance(request.substr(0, cut)), ParseResult(ParseIncomplete{}));
    EXPECT_EQ(parser.advance(request + "GET / HTTP/1.1\r\n\r\n"), ParseResult(expected));
  }
  HTTPRequestParser byteByByte;
  for (std::size_t size = 0; size < request.size(); ++size)
    ASSERT_EQ(byteByByte.advance(request.substr(0, size)), ParseResult(ParseIncomplete{}));
  EXPECT_EQ(byteByByte.advance(request), ParseResult(expected));
}

TEST(HTTPRequestParser, UnterminatedHeaderFailsAsItGrows) {
  const std::string text = withTerminatorAt(maxHeaderBytes + 100);
  HTTPRequestParser parser;
  EXPECT_EQ(statusOf(parser.advance(text.substr(0, maxHeaderBytes))), 0);
  EXPECT_EQ(statusOf(parser.advance(text.substr(0, maxHeaderBytes + 1))), 413);
}

}  // namespace
}  // namespace vesko
